// What the commands share.
#include "Commands.h"

#include <unistd.h>

#include <iostream>

#include "Environment.h"
#include "Human.h"
#include "JsonDocument.h"
#include "ProfileInput.h"
#include "Report.h"

namespace xplpm {

namespace {

// Says why a route file gave nothing to program.
std::string noRoutes(const RouteSet& set, const Options& c) {
  if (set.lines == 0) return "no routes: the input is empty";
  if (set.otherFamily > 0)
    return "no " + c.family + std::string(" routes (") + std::to_string(set.otherFamily) + " of the other family; --family selects)";
  if (!set.badLines.empty())
    return std::string("no routes: all ") + std::to_string(set.badLines.size()) + " route lines are bad";
  if (set.withdrawn > 0)
    return std::string("no routes: all ") + std::to_string(set.withdrawn) + " prefixes given were withdrawn again";
  return std::string("no routes: ") + std::to_string(set.lines) + " lines, all blank or comments";
}

}  // namespace

RouteSet loadRoutes(const Options& c) {
  FamilyFilter filter = FamilyFilter::any;
  if (c.family == "ipv4") filter = FamilyFilter::ipv4;
  if (c.family == "ipv6") filter = FamilyFilter::ipv6;
  const std::string path =
      !c.routes.empty() ? c.routes
                        : std::string(XPLPM_DATA_DIR) + (filter == FamilyFilter::ipv6 ? "/routes-v6.txt.gz" : "/routes-v4.txt.gz");
  RouteSet set = readRoutes(path, filter, c.skipBad);
  if (!set.badLines.empty() && !c.skipBad) throw BadInput({set.badLines.front()});
  for (const auto& bad : set.badLines) printInputError(bad, c.json, true);
  if (set.routes.empty()) badFile(set.source, 0, noRoutes(set, c));
  return set;
}

RunOptions runOptions(const Options& c) {
  RunOptions o;
  o.agent.nextHopGroups = c.groups;
  o.agent.nhiOwnTileFiling = c.nhiFiling == "own";
  o.probes = c.probes;
  o.seed = c.seed;
  o.progress = isatty(2) && !c.json;
  return o;
}

XpXdk::xpChipProfile chipProfile(const std::string& nameOrFile, const std::string& option) {
  XpXdk::xpChipProfile profile = loadProfile(nameOrFile, option);
  checkEnvironment(profile);
  return withEnvironmentGeometry(profile);
}

std::unique_ptr<Session> programSession(const XpXdk::xpChipProfile& profile, const RouteSet& set, const Options& c,
                                        bool verify) {
  auto session = std::make_unique<Session>(profile, runOptions(c));
  session->agentIs(startAgent(profile, session->options().agent));
  checkGroupWidths(session->agent(), c.groups);
  if (set.ops.empty()) {
    session->program(set.routes);
  } else {
    session->replay(set.ops, set.routes);
  }
  if (verify) session->verify(set.routes);
  return session;
}

Programmed programmed(const Options& c, bool verify) {
  const XpXdk::xpChipProfile profile = chipProfile(c.profile, "--profile");
  Programmed p;
  p.set = loadRoutes(c);
  p.session = programSession(profile, p.set, c, verify);
  return p;
}

int finish(const nlohmann::json& j, const Options& c) { return finish(j, c, exitStatus(j, c.allowFailed), printHuman); }

int finish(const nlohmann::json& j, const Options& c, int status, void (*human)(const nlohmann::json&, int)) {
  if (c.json) {
    writeJson(std::cout, j);
  } else {
    human(j, status);
  }
  return status;
}

}  // namespace xplpm
