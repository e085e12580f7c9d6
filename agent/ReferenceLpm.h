// ReferenceLpm: a brute-force longest-prefix match over a set of routes, the
// yardstick every chip lookup is compared with. One hash map per prefix length;
// a lookup tries the lengths from the longest down.
#pragma once

#include <array>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/IpPrefix.h"
#include "XpLpmNextHop/XpLpmNextHop.h"

namespace XpLib {
namespace Agent {

using XpLpmNextHop::NextHopBlock;

struct ReferenceMatch {
  NextHopBlock block;
  U8 len = 0;  // prefix length of the matching route, VRF not included
};

class ReferenceLpm {
 public:
  ReferenceLpm();

  void routeIs(U32 vrf, const Prefix& p, const NextHopBlock& b);
  void routeIs(U32 vrf, const Ip6Prefix& p, const NextHopBlock& b);
  void routeDel(U32 vrf, const Prefix& p);
  void routeDel(U32 vrf, const Ip6Prefix& p);

  std::optional<ReferenceMatch> lookup(U32 vrf, U32 address) const;
  std::optional<ReferenceMatch> lookup(U32 vrf, const Ip6Prefix::Bytes& address) const;

  std::size_t routes() const { return routes_; }

 private:
  struct Key6 {
    U32 vrf;
    U64 hi, lo;
    bool operator==(const Key6&) const = default;
  };
  struct Key6Hash {
    std::size_t operator()(const Key6& k) const;
  };

  std::vector<std::unordered_map<U64, NextHopBlock>> v4_;         // by length 0..32, key vrf:address
  std::vector<std::unordered_map<Key6, NextHopBlock, Key6Hash>> v6_;  // by length 0..128
  std::size_t routes_ = 0;
};

}  // namespace Agent
}  // namespace XpLib
