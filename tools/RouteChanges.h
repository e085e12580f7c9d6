// Seeded route changes, as a control plane sends them after a restart: next-hop
// changes, withdrawals, and new routes drawn from the address space of the table.
#pragma once

#include <vector>

#include "agent/XpLpmAgent.h"

namespace xplpm {

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
