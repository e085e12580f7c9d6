// Seeded route changes.
#include "RouteChanges.h"

#include <algorithm>
#include <random>
#include <string>
#include <unordered_set>

#include "RouteInput.h"

namespace xplpm {

using XpLib::Agent::Route;
using XpLib::U64;
using XpLib::U8;

Route routeNear(const Route& t, int keep, int len, std::mt19937_64& rng) {
  Route r = t;
  if (!t.ipv6) {
    const XpLib::U32 random = static_cast<XpLib::U32>(rng());
    const XpLib::U32 a = (t.v4.address() & XpLib::Prefix::mask(static_cast<U8>(keep))) | (random & ~XpLib::Prefix::mask(static_cast<U8>(keep)));
    r.v4 = XpLib::Prefix(a & XpLib::Prefix::mask(static_cast<U8>(len)), static_cast<U8>(len));
    return r;
  }
  XpLib::Ip6Prefix::Bytes a = t.v6.address();
  for (int i = 0; i < 16; ++i) {
    const int kept = std::clamp(keep - 8 * i, 0, 8), valid = std::clamp(len - 8 * i, 0, 8);
    const U8 keepMask = static_cast<U8>(0xFF00 >> kept), validMask = static_cast<U8>(0xFF00 >> valid);
    a[i] = static_cast<U8>(((a[i] & keepMask) | (static_cast<U8>(rng()) & ~keepMask)) & validMask);
  }
  r.v6 = XpLib::Ip6Prefix(a, static_cast<U8>(len));
  return r;
}

ChangeCounts applyRouteChanges(XpLib::Agent::XpLpmAgent& agent, std::vector<Route>& wanted, U64 n, U64 seed) {
  std::mt19937_64 rng(seed);
  const U64 groups = agent.options().nextHopGroups;
  std::unordered_set<RouteKey, RouteKeyHash> keys;
  for (const Route& r : wanted) keys.insert(routeKey(r));
  ChangeCounts counts;
  for (U64 op = 0; op < n && !wanted.empty(); ++op) {
    const std::size_t i = rng() % wanted.size();
    const U64 kind = rng() % 3;
    if (kind == 0) {
      Route& r = wanted[i];
      const U64 group = groups > 1 ? (r.nextHop % groups + 1 + rng() % (groups - 1)) % groups : 0;
      r.nextHop = group + groups * (rng() % 4);
      agent.routeIs(r);
      ++counts.nextHop;
    } else if (kind == 1) {
      agent.routeDel(wanted[i]);
      keys.erase(routeKey(wanted[i]));
      wanted[i] = wanted.back();
      wanted.pop_back();
      ++counts.withdrawn;
    } else {
      const Route& t = wanted[i];
      const int maxLen = t.ipv6 ? 128 : 32, len = t.ipv6 ? t.v6.len() : t.v4.len();
      for (int attempt = 0; attempt < 8; ++attempt) {
        const int newLen = std::clamp(len + static_cast<int>(rng() % 9) - 4, 1, maxLen);
        Route r = routeNear(t, std::min(newLen, len), newLen, rng);
        r.nextHop = rng() % (4 * groups);
        if (!keys.insert(routeKey(r)).second) continue;
        agent.routeIs(r);
        wanted.push_back(r);
        ++counts.added;
        break;
      }
    }
  }
  return counts;
}

}  // namespace xplpm
