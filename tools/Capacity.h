// `xplpm capacity`: how many more routes of a table's own mix a chip takes, measured by
// adding them to the programmed table until they fail, family by family.
//
// The mix. A new route takes the VRF, prefix length and next hop of a route of the table
// drawn at random, so that lengths, VRFs and next-hop groups follow the table's, and that
// route's prefix with its last 8 bits (all of them, for a shorter prefix) drawn anew: new
// routes land in the address space the table uses, next to its routes, as new routes do.
// A prefix the agent already has is drawn again. The draws are seeded.
//
// Headroom. "Available" is the number of routes added before the first failure: each of
// them was placed and is in the chip, so it cannot overstate (for this mix and seed). The
// routes added before the failures reached the failure rate (1 % by default) say how
// gently the table degrades after that. The resource that ran out first is where the route
// that failed first would have gone, with the code its insertion failed with: the prefix
// tables of the treads it may use, the family's NHI tiles, or the next-hop table.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "Resources.h"
#include "Session.h"

namespace xplpm {

struct CapacityOptions {
  U64 seed = 1;
  double failureRate = 1.0;     // percent of the added routes
  std::vector<double> growth;  // percent of the table's routes
};

struct GrowthResult {
  double percent = 0;
  U64 routes = 0;                 // routes of the mix the growth adds
  bool measured = false;          // as many were tried
  U64 failed = 0;                 // of them (of those tried, when adding stopped before)
  std::optional<U64> breaksAfter; // routes placed before the first failure, when one came within them
  bool fits() const { return measured && failed == 0; }
};

struct FamilyCapacity {
  bool inUse = false;
  U64 tableRoutes = 0;  // routes of the table in the chip before adding
  U64 tableFailed = 0;  // routes of the table not placed
  U64 attempted = 0, added = 0, failed = 0;
  std::optional<U64> beforeFirstFailure;  // "available"
  std::optional<U64> beforeFailureRate;
  std::string stopped;  // why adding stopped
  // The first failure: the route, its code, the resource it names and every resource then.
  std::string failedRoute, failureCode;
  std::optional<Resource> ranOut;
  std::optional<XpLib::Agent::XpLpmAgent::NhiReserve> reserve;  // when the NHI reserve refused it
  std::vector<Resource> atFirstFailure;
  std::vector<GrowthResult> growth;
  // The routes placed, in order: the first beforeFirstFailure of them came before the first failure.
  std::vector<XpLib::Agent::Route> addedRoutes;
};

struct CapacityResult {
  FamilyCapacity family[2];
  std::vector<Resource> before;  // the resources as the table left them
  double seconds = 0;
};

// The route the mix would add next, for a test that programs "available" routes itself.
class RouteMix {
 public:
  // `table`: the table's routes; only those of the family are drawn from.
  RouteMix(const std::vector<XpLib::Agent::Route>& table, bool ipv6, U64 seed);
  // A route the agent does not have yet; none after 64 draws in a row of known prefixes.
  std::optional<XpLib::Agent::Route> next(const XpLib::Agent::XpLpmAgent& agent);

 private:
  std::vector<XpLib::Agent::Route> templates_;
  std::mt19937_64 rng_;
};

// Adds routes of the mix to the programmed session, family by family, until the failure rate
// is reached and every growth asked for is tried. `table` is the programmed table.
CapacityResult measureCapacity(Session& s, const std::vector<XpLib::Agent::Route>& table, const CapacityOptions& o);

// The "capacity" and "resources" sections of a profile's report.
nlohmann::json capacityJson(const CapacityResult& r, const CapacityOptions& o);
nlohmann::json resourcesJson(const CapacityResult& r);

}  // namespace xplpm
