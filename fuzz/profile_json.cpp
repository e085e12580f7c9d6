// Fuzz target: JSON chip profiles. A profile is either refused with a printable
// "FILE: FIELD: what" message, or the agent runs it: it starts, and routes of every
// length in both families are placed or refused without stopping the process.
#include <cstdint>
#include <string_view>

#include "FuzzCheck.h"
#include "ProfileInput.h"
#include "agent/RouteFile.h"
#include "agent/XpLpmAgent.h"

namespace {

std::vector<XpLib::Agent::Route> probeRoutes() {
  std::vector<XpLib::Agent::Route> routes;
  std::string why;
  for (const char* line : {"0.0.0.0/0 1", "10.0.0.0/8 2", "10.1.0.0/16 3", "10.1.2.0/24 4", "10.1.2.3/32 5",
                           "10.1.2.0/23 6 7", "::/0 1", "2001:db8::/32 2", "2001:db8:1::/48 3", "2001:db8:1:2::/64 4",
                           "2001:db8:1:2::1/128 5", "2001:db8:1:2:3:4::/96 6 7"}) {
    XpLib::Agent::Route r;
    XpLib::Agent::parseRouteLine(line, r, why);
    routes.push_back(r);
  }
  return routes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::vector<XpLib::Agent::Route> routes = probeRoutes();
  XpXdk::xpChipProfile profile;
  try {
    profile = xplpm::readProfileText("fuzz.json", std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const xplpm::BadInput& e) {
    xplpm_fuzz::require(!e.errors().empty() && e.errors().front().where.rfind("fuzz.json", 0) == 0,
                        "an error that does not name the file");
    xplpm_fuzz::requirePrintable(e.errors().front());
    return 0;
  }
  // An accepted profile must start (an exception here is a check the reader lacks) and take routes.
  XpLib::Agent::XpLpmAgent agent(profile);
  for (const auto& r : routes) agent.routeIs(r);
  for (const auto& r : routes) agent.routeDel(r);
  return 0;
}
