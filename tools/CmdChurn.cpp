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

// What one operation did, for the breakdown: group resizes re-point every route of the group and
// cost far more than the others.
enum ChurnKind { withdraw, announce, nextHop, reannounce, resize, kChurnKinds };
const char* const kChurnKindNames[kChurnKinds] = {"withdraw", "announce", "next_hop", "reannounce", "resize"};

ChurnKind churnOp(XpLib::Agent::XpLpmAgent& agent, ChurnState& st, std::mt19937_64& rng, XpLib::U32 groups) {
  const std::size_t i = rng() % st.routes.size();
  switch (rng() % 4) {
    case 0:  // withdraw, or announce again what was withdrawn
      st.present[i] = !st.present[i];
      if (!st.present[i]) {
        agent.routeDel(st.routes[i]);
        return withdraw;
      }
      agent.routeIs(st.routes[i]);
      return announce;
    case 1:  // a new next hop
      st.routes[i].nextHop = rng() % (4ull * groups);
      agent.routeIs(st.routes[i]);
      st.present[i] = true;
      return nextHop;
    case 2:  // re-announcement
      if (st.present[i]) agent.routeIs(st.routes[i]);
      return reannounce;
    default: {  // a group changes width, within what the next-hop table can give
      const XpLib::U32 widest = std::min(8u, agent.maxGroupWidth());
      agent.groupWidthIs(XpLib::Agent::SwId(rng() % groups), XpLib::Agent::Nway(static_cast<XpLib::U16>(1 + rng() % widest)));
      return resize;
    }
  }
}

struct KindFigures {
  U64 ops = 0;
  double seconds = 0;
};

nlohmann::json byKindJson(const KindFigures (&kinds)[kChurnKinds]) {
  nlohmann::json j = nlohmann::json::object();
  for (int k = 0; k < kChurnKinds; ++k)
    j[kChurnKindNames[k]] = {{"ops", kinds[k].ops},
                             {"seconds", kinds[k].seconds},
                             {"ops_per_second", kinds[k].seconds > 0 ? kinds[k].ops / kinds[k].seconds : 0}};
  return j;
}

}  // namespace

int cmdChurn(const Options& c) {
  Programmed p = programmed(c, false);
  Session& s = *p.session;
  nlohmann::json j = runJson(s, p.set, c, ChipNow::later);
  ChurnState st{p.set.routes, std::vector<bool>(p.set.routes.size(), true)};
  std::mt19937_64 rng(c.seed);
  KindFigures kinds[kChurnKinds];
  Progress bar(s.options().progress, "churn", c.ops);
  const auto t0 = std::chrono::steady_clock::now();
  auto opStart = t0;
  for (U64 op = 0; op < c.ops; ++op) {
    const ChurnKind kind = churnOp(s.agent(), st, rng, c.groups);
    const auto opEnd = std::chrono::steady_clock::now();
    ++kinds[kind].ops;
    kinds[kind].seconds += std::chrono::duration<double>(opEnd - opStart).count();
    opStart = opEnd;
    bar.at(op);
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::vector<Route> live;
  for (std::size_t i = 0; i < st.routes.size(); ++i)
    if (st.present[i]) live.push_back(st.routes[i]);
  s.verify(live);
  nlohmann::json churn{{"ops", c.ops},
                       {"seed", c.seed},
                       {"seconds", seconds},
                       {"ops_per_second", seconds > 0 ? c.ops / seconds : 0},
                       {"by_kind", byKindJson(kinds)},
                       {"live", live.size()},
                       {"probes", s.figures().verifyProbes},
                       {"mismatches", s.figures().verifyMismatches}};
  churn.update(tallyJson(tally(s.agent(), live)));
  j["churn"] = churn;
  if (c.verify) j["verify"] = verifyJson(s.figures());
  j["hardware"]["errors"] = s.hardwareErrors();
  chipJson(s, j);
  if (c.check) j["check"] = checkJson(s.agent());
  return finish(j, c);
}

}  // namespace xplpm
