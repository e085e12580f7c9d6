// Seeded route changes, as a control plane sends them after a restart: next-hop
// changes, withdrawals, and new routes drawn from the address space of the table.
#pragma once

#include <random>
#include <vector>

#include "agent/XpLpmAgent.h"

namespace xplpm {

// A prefix of `len` bits that keeps the first `keep` bits of the template's (keep <= both
// lengths) and draws the rest; VRF and next hop are the template's.
XpLib::Agent::Route routeNear(const XpLib::Agent::Route& t, int keep, int len, std::mt19937_64& rng);

struct ChangeCounts {
  XpLib::U64 nextHop = 0, withdrawn = 0, added = 0;
};

// Applies `n` changes, each of the three kinds equally likely, to the agent and to
// `wanted`, which stays the list of routes wanted. A new route lies near a wanted one:
// its prefix keeps the leading bits of a wanted prefix, at a length up to 4 bits
// shorter or longer; a next-hop change moves the route to another group when there is one.
ChangeCounts applyRouteChanges(XpLib::Agent::XpLpmAgent& agent, std::vector<XpLib::Agent::Route>& wanted,
                               XpLib::U64 n, XpLib::U64 seed);

}  // namespace xplpm
