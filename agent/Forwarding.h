// The forwarding check: the chip's answer for an address against the longest installed route of a
// brute-force reference. One check, used by the tool's verification and by the tests.
#pragma once

#include <random>
#include <string>

#include "agent/ReferenceLpm.h"
#include "agent/XpLpmAgent.h"

namespace XpLib {
namespace Agent {

// Addresses of a route: its last one, and one drawn at random inside it.
U32 lastAddress(const Prefix& p);
Ip6Prefix::Bytes lastAddress(const Ip6Prefix& p);
U32 randomAddressIn(const Prefix& p, std::mt19937_64& rng);
Ip6Prefix::Bytes randomAddressIn(const Ip6Prefix& p, std::mt19937_64& rng);

class Forwarding {
 public:
  // The reference holds every route the state machines have installed, with its block.
  explicit Forwarding(const XpLpmAgent& agent);

  // Whether the chip forwards the address as the reference does: the same matched length and
  // block, and a next-hop entry that is member (selector % size) of the group owning the block.
  // The flow's selector is the address (IPv4) or its last byte (IPv6).
  bool correct(U32 vrf, U32 address) const;
  bool correct(U32 vrf, const Ip6Prefix::Bytes& address) const;
  // Both answers, for a report of a disagreement.
  std::string describe(U32 vrf, U32 address) const;
  std::string describe(U32 vrf, const Ip6Prefix::Bytes& address) const;

  const ReferenceLpm& reference() const { return ref_; }

 private:
  bool agrees(const XpXdk::xpLpmLookupResult& chip, const std::optional<ReferenceMatch>& want, U64 selector) const;
  std::string describe(const XpXdk::xpLpmLookupResult& chip, const std::optional<ReferenceMatch>& want) const;

  const XpLpmAgent& agent_;
  ReferenceLpm ref_;
};

}  // namespace Agent
}  // namespace XpLib
