// Forwarding checks: every installed route of an agent is looked up in the chip
// and compared with a brute-force longest match over the installed routes.
#pragma once

#include <gtest/gtest.h>

#include <random>

#include "agent/ReferenceLpm.h"
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

// The reference over what Status says is installed, in both families.
inline ReferenceLpm installedReference(XpLpmAgent& agent) {
  ReferenceLpm ref;
  for (bool v6 : {false, true}) {
    for (const auto& [prefix, block] : agent.family(v6).status->prefixToNextHopBlockMap()) {
      if (v6) {
        const auto& k = static_cast<const XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix();
        ref.routeIs(k.vrf, k.prefix, block);
      } else {
        const auto& k = static_cast<const XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix();
        ref.routeIs(k.vrf, k.prefix, block);
      }
    }
  }
  return ref;
}

// The same route as the reference, and the packet reaches an entry of the group
// that owns the route's block (the member picked by the address).
inline bool sameAnswer(const XpLpmAgent& agent, const XpXdk::xpLpmLookupResult& chip,
                       const std::optional<ReferenceMatch>& ref, U64 selector) {
  if (!ref) return !chip.hit;
  if (!chip.hit || chip.matchLength != ref->len + 16u || chip.nextHopBlock.base != ref->block.base().value() ||
      chip.nextHopBlock.size != ref->block.size().value())
    return false;
  const std::optional<XpXdk::xpNhEntry> entry = agent.chip().resolve(chip, selector);
  const SwId owner = agent.nextHopSm()->baseIdxToSwId(XpLpmNextHop::NextHopTableIdx(chip.nextHopBlock.base));
  return entry && owner != SwId() && agent.groupBlock(owner) == ref->block &&
         XpLpmAgent::groupOfEntry(*entry) == owner && XpLpmAgent::memberOfEntry(*entry) == selector % chip.nextHopBlock.size;
}

inline Ip6Prefix::Bytes lastAddress(const Ip6Prefix& p) {
  Ip6Prefix::Bytes a = p.address();
  for (int i = 0; i < 16; ++i) {
    const int keep = std::clamp(static_cast<int>(p.len()) - 8 * i, 0, 8);
    a[i] |= static_cast<U8>(0xFF >> keep);
  }
  return a;
}

inline Ip6Prefix::Bytes randomAddressIn(const Ip6Prefix& p, std::mt19937_64& rng) {
  Ip6Prefix::Bytes a = p.address();
  for (int i = 0; i < 16; ++i) {
    const int keep = std::clamp(static_cast<int>(p.len()) - 8 * i, 0, 8);
    a[i] |= static_cast<U8>(rng()) & static_cast<U8>(0xFF >> keep);
  }
  return a;
}

// Probes one IPv4 address; reports the first few mismatches unless `quiet`.
inline void probe(const XpLpmAgent& agent, const ReferenceLpm& ref, U32 vrf, U32 address, ProbeCounts& c,
                  bool quiet = false) {
  ++c.probes;
  auto chip = agent.lookup(vrf, address);
  auto want = ref.lookup(vrf, address);
  if (sameAnswer(agent, chip, want, address)) return;
  if (++c.mismatches <= 5 && !quiet)
    ADD_FAILURE() << "vrf " << vrf << " address " << Prefix(address, 32).str() << " chip hit " << chip.hit << " len "
                  << chip.matchLength << " base " << chip.nextHopBlock.base << " reference "
                  << (want ? std::to_string(want->len) + " base " + want->block.base().str() : "miss");
}

inline void probe(const XpLpmAgent& agent, const ReferenceLpm& ref, U32 vrf, const Ip6Prefix::Bytes& address,
                  ProbeCounts& c, bool quiet = false) {
  ++c.probes;
  auto chip = agent.lookup(vrf, address);
  auto want = ref.lookup(vrf, address);
  if (sameAnswer(agent, chip, want, address[15])) return;
  if (++c.mismatches <= 5 && !quiet)
    ADD_FAILURE() << "vrf " << vrf << " address " << Ip6Prefix::addressStr(address) << " chip hit " << chip.hit
                  << " len " << chip.matchLength << " base " << chip.nextHopBlock.base << " reference "
                  << (want ? std::to_string(want->len) + " base " + want->block.base().str() : "miss");
}

// Every installed route at its first address, its last address and one random address inside it.
inline ProbeCounts probeInstalled(XpLpmAgent& agent, std::mt19937_64& rng, bool quiet = false) {
  const ReferenceLpm ref = installedReference(agent);
  ProbeCounts c;
  for (const auto& [prefix, block] : agent.family(false).status->prefixToNextHopBlockMap()) {
    const auto& k = static_cast<const XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix();
    const U32 host = ~Prefix::mask(k.prefix.len());
    probe(agent, ref, k.vrf, k.prefix.address(), c, quiet);
    probe(agent, ref, k.vrf, k.prefix.address() | host, c, quiet);
    probe(agent, ref, k.vrf, k.prefix.address() | (static_cast<U32>(rng()) & host), c, quiet);
  }
  for (const auto& [prefix, block] : agent.family(true).status->prefixToNextHopBlockMap()) {
    const auto& k = static_cast<const XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix();
    probe(agent, ref, k.vrf, k.prefix.address(), c, quiet);
    probe(agent, ref, k.vrf, lastAddress(k.prefix), c, quiet);
    probe(agent, ref, k.vrf, randomAddressIn(k.prefix, rng), c, quiet);
  }
  return c;
}

}  // namespace test
}  // namespace Agent
}  // namespace XpLib
