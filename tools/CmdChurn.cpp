// `xplpm churn`: program, then apply random withdrawals, re-announcements, next-hop
// changes and group resizes, and verify the end state.
#include <chrono>
#include <random>

#include "Commands.h"
#include "Report.h"

namespace xplpm {

using XpLib::Agent::Route;

namespace {

struct ChurnState {
  std::vector<Route> routes;
  std::vector<bool> present;
};

void churnOp(XpLib::Agent::XpLpmAgent& agent, ChurnState& st, std::mt19937_64& rng, XpLib::U32 groups) {
  const std::size_t i = rng() % st.routes.size();
  switch (rng() % 4) {
    case 0:  // withdraw, or announce again what was withdrawn
      if (st.present[i]) {
        agent.routeDel(st.routes[i]);
      } else {
        agent.routeIs(st.routes[i]);
      }
      st.present[i] = !st.present[i];
      break;
    case 1:  // a new next hop
      st.routes[i].nextHop = rng() % (4ull * groups);
      agent.routeIs(st.routes[i]);
      st.present[i] = true;
      break;
    case 2:  // re-announcement
      if (st.present[i]) agent.routeIs(st.routes[i]);
      break;
    default: {  // a group changes width, within what the next-hop table can give
      const XpLib::U32 widest = std::min(8u, agent.maxGroupWidth());
      agent.groupWidthIs(XpLib::Agent::SwId(rng() % groups), XpLib::Agent::Nway(static_cast<XpLib::U16>(1 + rng() % widest)));
    }
  }
}

}  // namespace

int cmdChurn(const Options& c) {
  Programmed p = programmed(c, false);
  Session& s = *p.session;
  nlohmann::json j = runJson(s, p.set, c);
  ChurnState st{p.set.routes, std::vector<bool>(p.set.routes.size(), true)};
  std::mt19937_64 rng(c.seed);
  const auto t0 = std::chrono::steady_clock::now();
  for (U64 op = 0; op < c.ops; ++op) churnOp(s.agent(), st, rng, c.groups);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::vector<Route> live;
  for (std::size_t i = 0; i < st.routes.size(); ++i)
    if (st.present[i]) live.push_back(st.routes[i]);
  s.verify(live);
  nlohmann::json churn{{"ops", c.ops},
                       {"seed", c.seed},
                       {"seconds", seconds},
                       {"ops_per_second", seconds > 0 ? c.ops / seconds : 0},
                       {"live", live.size()},
                       {"probes", s.figures().verifyProbes},
                       {"mismatches", s.figures().verifyMismatches}};
  churn.update(tallyJson(tally(s.agent(), live)));
  j["churn"] = churn;
  if (c.verify) j["verify"] = {{"probes", s.figures().verifyProbes}, {"mismatches", s.figures().verifyMismatches}};
  j["hardware"]["errors"] = s.hardwareErrors();
  refreshChipJson(s, j);
  if (c.check) j["check"] = checkJson(s.agent());
  return finish(j, c);
}

}  // namespace xplpm
