// Forwarding checks for the tests: every installed route of an agent looked up in the chip at its
// first, last and a random address, each compared by the agent's forwarding check.
#pragma once

#include <gtest/gtest.h>

#include <random>

#include "agent/Forwarding.h"
#include "agent/SimulatedChip.h"
#include "agent/XpLpmAgent.h"

namespace XpLib {
namespace Agent {
namespace test {

// The simulation behind an agent's chip port, for what only a simulation offers.
inline std::shared_ptr<SimulatedChip> simOf(const XpLpmAgent& agent) {
  return std::dynamic_pointer_cast<SimulatedChip>(agent.sharedChip());
}

struct ProbeCounts {
  U64 probes = 0;
  U64 mismatches = 0;
};

// Probes one address; reports the first few mismatches unless `quiet`.
template <class Address>
void probe(const Forwarding& check, U32 vrf, const Address& address, ProbeCounts& c, bool quiet = false) {
  ++c.probes;
  if (check.correct(vrf, address)) return;
  if (++c.mismatches <= 5 && !quiet) ADD_FAILURE() << check.describe(vrf, address);
}

// Every installed route at its first address, its last address and one random address inside it.
inline ProbeCounts probeInstalled(XpLpmAgent& agent, std::mt19937_64& rng, bool quiet = false) {
  const Forwarding check(agent);
  ProbeCounts c;
  for (const auto& [prefix, block] : agent.family(false).status->prefixToNextHopBlockMap()) {
    const auto& k = static_cast<const XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix();
    probe(check, k.vrf, k.prefix.address(), c, quiet);
    probe(check, k.vrf, lastAddress(k.prefix), c, quiet);
    probe(check, k.vrf, randomAddressIn(k.prefix, rng), c, quiet);
  }
  for (const auto& [prefix, block] : agent.family(true).status->prefixToNextHopBlockMap()) {
    const auto& k = static_cast<const XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix();
    probe(check, k.vrf, k.prefix.address(), c, quiet);
    probe(check, k.vrf, lastAddress(k.prefix), c, quiet);
    probe(check, k.vrf, randomAddressIn(k.prefix, rng), c, quiet);
  }
  return c;
}

}  // namespace test
}  // namespace Agent
}  // namespace XpLib
