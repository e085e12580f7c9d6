// `xplpm capacity`: program the table into one profile or several, measure its headroom by
// adding routes of its own mix, and report the resources in the manner of SONiC's CRM.
#include "Capacity.h"
#include "Commands.h"
#include "Errors.h"
#include "Human.h"
#include "JsonDocument.h"
#include "Report.h"
#include "Svg.h"


namespace xplpm {

using nlohmann::json;

namespace {

// The verdict of one profile: run's, and a growth asked for that does not fit is a table that does not fit.
int profileStatus(const json& p, bool allowFailed) {
  int status = exitStatus(p, allowFailed);
  if (status != exitOk || allowFailed) return status;
  for (const char* family : {"ipv4", "ipv6"}) {
    if (!p["capacity"].contains(family)) continue;
    for (const json& g : p["capacity"][family]["growth"])
      if (!g["fits"].get<bool>()) status = exitNotFit;
  }
  return status;
}

json profileReport(const XpXdk::xpChipProfile& chip, const RouteSet& set, const Options& c, const CapacityOptions& o) {
  std::unique_ptr<Session> s = programSession(chip, set, c, false);
  json p = runJson(*s, set, c);  // the table as programmed, before routes are added
  for (const char* key : {"schema", "tool", "command", "input"}) p.erase(key);
  const CapacityResult r = measureCapacity(*s, set.routes, o);
  p["capacity"] = capacityJson(r, o);
  p["resources"] = resourcesJson(r);
  p["hardware"]["errors"] = s->hardwareErrors();
  if (c.verify) {
    std::vector<XpLib::Agent::Route> wanted = set.routes;
    for (bool v6 : {false, true}) wanted.insert(wanted.end(), r.family[v6].addedRoutes.begin(), r.family[v6].addedRoutes.end());
    s->verify(wanted);
    p["verify"] = verifyJson(s->figures());
  }
  if (!c.svg.empty()) writeCapacitySvg(p, set.source, c.svg);
  return p;
}

}  // namespace

int cmdCapacity(const Options& c) {
  const std::vector<std::string> names = c.profiles.empty() ? std::vector<std::string>{c.profile} : c.profiles;
  if (!c.svg.empty() && names.size() > 1) badInput("--svg", "draws one profile; --profiles gives several");
  std::vector<XpXdk::xpChipProfile> chips;  // every profile checked before the routes are read
  for (const std::string& name : names) chips.push_back(chipProfile(name, c.profiles.empty() ? "--profile" : "--profiles"));
  const RouteSet set = loadRoutes(c);
  const CapacityOptions o{c.seed, c.failureRate, c.growth};
  json doc = documentHeader("capacity");
  doc.update({{"input", set.source}, {"seed", c.seed}, {"failure_rate", c.failureRate}, {"growth", c.growth},
              {"profiles", json::array()}});
  int status = exitOk;
  for (const XpXdk::xpChipProfile& chip : chips) {
    doc["profiles"].push_back(profileReport(chip, set, c, o));
    const int one = profileStatus(doc["profiles"].back(), c.allowFailed);
    if (status != exitMismatch && one != exitOk) status = one;
  }
  return finish(doc, c, status, printCapacity);
}

}  // namespace xplpm
