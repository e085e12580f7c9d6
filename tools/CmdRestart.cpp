// `xplpm restart`: program, restart the agent over the same chip, reconcile, then
// optionally apply seeded route changes, and verify once at the end.
#include <chrono>

#include "Commands.h"
#include "Report.h"
#include "RouteChanges.h"
#include "agent/ModelSnapshot.h"

namespace xplpm {

using nlohmann::json;

namespace {

json warmRestart(Session& s, const RouteSet& set) {
  std::string before[2];
  for (bool v6 : {false, true}) before[v6] = XpLib::Agent::modelSnapshot(*s.agent().family(v6).sm);
  auto chip = s.agent().sharedChip();
  s.agentIs(nullptr);  // the old agent goes away; the chip keeps its memory
  auto agent = startAgent(s.profile(), s.options().agent, chip);
  const auto t0 = std::chrono::steady_clock::now();
  const auto reconciled = agent->reconcile(set.routes);
  const double reconcile = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const auto& rep = agent->restartReport();
  bool equal = true;
  U64 replayWrites = agent->counters().nextHopWrites;
  for (bool v6 : {false, true}) {
    equal = equal && XpLib::Agent::modelSnapshot(*agent->family(v6).sm) == before[v6];
    replayWrites += agent->family(v6).writer->counters().writes();
  }
  const double seconds = rep.seconds[0] + rep.seconds[1] + reconcile;
  const U64 recovered = rep.routesRecovered[0] + rep.routesRecovered[1];
  s.agentIs(std::move(agent));
  return {{"seconds", seconds},
          {"routes_recovered", recovered},
          {"routes_per_second", seconds > 0 ? recovered / seconds : 0},
          {"model_equal", equal},
          {"invalid_entries", rep.entriesInvalid[0] + rep.entriesInvalid[1]},
          {"replay_writes", replayWrites},
          {"reconcile",
           {{"kept", reconciled.kept}, {"changed", reconciled.changed}, {"added", reconciled.added},
            {"withdrawn", reconciled.withdrawn}}}};
}

}  // namespace

int cmdRestart(const Options& c) {
  Programmed p = programmed(c, false);
  Session& s = *p.session;
  json j = runJson(s, p.set, c, ChipNow::later);
  json restart = warmRestart(s, p.set);
  std::vector<XpLib::Agent::Route> wanted = p.set.routes;
  if (c.changes > 0) {
    const ChangeCounts n = applyRouteChanges(s.agent(), wanted, c.changes, c.seed);
    restart["changes"] = {{"requested", c.changes}, {"seed", c.seed}, {"next_hop", n.nextHop},
                          {"withdrawn", n.withdrawn}, {"added", n.added}};
  }
  restart.update(tallyJson(tally(s.agent(), wanted)));
  restart["wanted"] = wanted.size();
  j["restart"] = restart;
  if (c.verify) {
    s.verify(wanted);
    j["verify"] = verifyJson(s.figures());
  }
  j["hardware"]["errors"] = s.hardwareErrors();
  chipJson(s, j);
  if (c.check) j["check"] = checkJson(s.agent());
  return finish(j, c);
}

}  // namespace xplpm
