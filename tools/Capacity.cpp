// Measuring headroom by adding routes of a table's own mix.
#include "Capacity.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "ModelJson.h"
#include "RouteChanges.h"

namespace xplpm {

using nlohmann::json;
using XpLib::Agent::Route;
using XpLib::Agent::RouteResult;
using XpLib::Agent::RouteState;
using XpLib::Agent::XpLpmAgent;

namespace {

// Bits of a table route's prefix a new route draws anew.
constexpr int kDrawnBits = 8;
// Draws in a row that may meet known prefixes before the mix counts as used up.
constexpr int kDraws = 64;
// Adding stops for the failure rate only after this many routes, so that one early failure is not a rate.
constexpr U64 kRateAfter = 100;

int lengthOf(const Route& r) { return r.ipv6 ? r.v6.len() : r.v4.len(); }

std::string routeText(const Route& r) { return r.prefixStr() + (r.vrf ? " vrf " + std::to_string(r.vrf) : ""); }

// The resource a failed route names: where it would have gone, and what its code says ran out.
std::optional<Resource> ranOutFor(const XpLpmAgent& agent, const Route& r, const RouteResult& result, const std::vector<Resource>& now) {
  const bool nhi = result.state == RouteState::nhiReserve || result.state == RouteState::nhiTableFull ||
                   (result.state == RouteState::lpmRefused &&
                    (result.lpmCode == XpLib::XpLpm::nhiTableFull || result.lpmCode == XpLib::XpLpm::nhiCapacityExceeded));
  std::vector<U32> treads;
  for (const auto& [id, tread] : candidateTables(agent, r.ipv6, static_cast<U32>(lengthOf(r)))) treads.push_back(tread);
  const Resource* best = nullptr;
  const auto fuller = [](const Resource& a, const Resource& b) {
    return double(a.used) / double(std::max<U64>(1, a.used + a.available)) > double(b.used) / double(std::max<U64>(1, b.used + b.available));
  };
  for (const Resource& x : now) {
    bool fits = false;
    if (result.state == RouteState::nextHopTableFull) {
      fits = x.shared;
    } else if (!x.shared && x.ipv6 == r.ipv6) {
      fits = nhi ? x.kind == "NHI entries"
                 : x.kind == "prefix-table entries" && std::find(treads.begin(), treads.end(), x.tread) != treads.end();
    }
    if (fits && (!best || fuller(x, *best))) best = &x;
  }
  return best ? std::optional<Resource>(*best) : std::nullopt;
}

void noteFirstFailure(FamilyCapacity& f, const XpLpmAgent& agent, const Route& r, const RouteResult& result,
                      const bool inUse[2]) {
  f.failedRoute = routeText(r);
  f.failureCode = result.code();
  f.atFirstFailure = modelResources(agent, inUse);
  f.ranOut = ranOutFor(agent, r, result, f.atFirstFailure);
  if (result.state == RouteState::nhiReserve) f.reserve = agent.nhiReserve(r.ipv6);
}

// The growths that `attempted` routes complete; once adding stops, those it did not complete
// still learn whether they break, and where, from the routes tried so far.
void noteGrowth(FamilyCapacity& f, bool stopped) {
  for (GrowthResult& g : f.growth) {
    if (g.measured) continue;
    g.measured = f.attempted >= g.routes;
    if (!g.measured && !stopped) continue;
    g.failed = f.failed;
    if (f.failed > 0) g.breaksAfter = f.beforeFirstFailure;
  }
}

// The seed each family's mix starts from: the families draw independently.
U64 mixSeed(U64 seed, bool ipv6) { return seed * 2 + ipv6; }

}  // namespace

RouteMix::RouteMix(const std::vector<Route>& table, bool ipv6, U64 seed) : rng_(mixSeed(seed, ipv6)) {
  for (const Route& r : table)
    if (r.ipv6 == ipv6) templates_.push_back(r);
}

std::optional<Route> RouteMix::next(const XpLpmAgent& agent) {
  for (int draw = 0; draw < kDraws && !templates_.empty(); ++draw) {
    const Route& t = templates_[rng_() % templates_.size()];
    const int len = lengthOf(t);
    Route r = routeNear(t, std::max(0, len - kDrawnBits), len, rng_);
    if (!agent.findPrefix(r)) return r;
  }
  return std::nullopt;
}

namespace {

// Adds routes of one family's mix until the failure rate is reached and the growths are tried.
void addUntilFull(Session& s, const std::vector<Route>& table, bool v6, const CapacityOptions& o, FamilyCapacity& f,
                  const bool inUse[2]) {
  XpLpmAgent& agent = s.agent();
  RouteMix mix(table, v6, o.seed);
  U64 longestGrowth = 0;
  for (const GrowthResult& g : f.growth) longestGrowth = std::max(longestGrowth, g.routes);
  // No chip holds more routes than its entries have slots; stop well after that in any case.
  U64 limit = 0;
  for (const auto& [id, t] : agent.family(v6).sm->prefixTableMap()) limit += t->tableConfig()->depth();
  limit = limit * XpXdk::xpLpmPrefixEntry::kMaxSlots + longestGrowth;
  f.stopped = "the failure rate was reached";
  while (!f.beforeFailureRate || f.attempted < longestGrowth) {
    if (f.attempted >= limit) {
      f.stopped = "no chip of this profile can hold more";
      break;
    }
    const std::optional<Route> r = mix.next(agent);
    if (!r) {
      f.stopped = "the mix has no new prefix left";
      break;
    }
    const RouteResult result = agent.routeIs(*r);
    ++f.attempted;
    if (result.installed()) {
      ++f.added;
      f.addedRoutes.push_back(*r);
    } else if (++f.failed == 1) {
      f.beforeFirstFailure = f.added;
      noteFirstFailure(f, agent, *r, result, inUse);
    }
    if (!f.beforeFailureRate && f.failed > 0 && f.attempted >= kRateAfter && 100.0 * f.failed >= o.failureRate * f.attempted)
      f.beforeFailureRate = f.added;
    noteGrowth(f, false);
  }
  noteGrowth(f, true);
}

// A table that does not fit has no headroom: its first route not placed is the first failure.
void tableFailure(Session& s, const std::vector<Route>& table, bool v6, FamilyCapacity& f, const bool inUse[2]) {
  f.beforeFirstFailure = f.beforeFailureRate = 0;
  f.stopped = "the table itself does not fit";
  for (const Route& r : table) {
    if (r.ipv6 != v6) continue;
    const RouteResult result = s.agent().routeState(r);
    if (result.installed()) continue;
    noteFirstFailure(f, s.agent(), r, result, inUse);
    return;
  }
}

}  // namespace

CapacityResult measureCapacity(Session& s, const std::vector<Route>& table, const CapacityOptions& o) {
  CapacityResult result;
  const Tally& programmed = s.figures().programmed;
  const bool inUse[2] = {programmed.requested[0] > 0, programmed.requested[1] > 0};
  result.before = modelResources(s.agent(), inUse);
  const auto t0 = std::chrono::steady_clock::now();
  for (bool v6 : {false, true}) {
    FamilyCapacity& f = result.family[v6];
    f.inUse = inUse[v6];
    if (!f.inUse) continue;
    f.tableRoutes = programmed.installed[v6];
    f.tableFailed = programmed.requested[v6] - programmed.installed[v6];
    for (double pct : o.growth) {
      GrowthResult g;
      g.percent = pct;
      g.routes = static_cast<U64>(std::llround(pct / 100.0 * double(f.tableRoutes + f.tableFailed)));
      f.growth.push_back(g);
    }
    if (f.tableFailed > 0) {
      tableFailure(s, table, v6, f, inUse);
    } else {
      addUntilFull(s, table, v6, o, f, inUse);
    }
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return result;
}

namespace {

json optional(const std::optional<U64>& v) { return v ? json(*v) : json(nullptr); }

json resourceJson(const Resource& x) {
  return {{"resource", x.label()},
          {"family", x.shared ? "shared" : familyKey(x.ipv6)},
          {"kind", x.kind},
          {"name", x.name},
          {"used", x.used},
          {"available", x.available},
          {"percent", std::stod(percentText(x.used, x.used + x.available))},
          {"threshold", thresholdName(thresholdOf(x.used, x.used + x.available))}};
}

json familyJson(const FamilyCapacity& f) {
  json growth = json::array();
  for (const GrowthResult& g : f.growth)
    growth.push_back({{"percent", g.percent}, {"routes", g.routes}, {"measured", g.measured}, {"fits", g.fits()},
                      {"failed", g.failed}, {"breaks_after", optional(g.breaksAfter)}});
  json first = nullptr;
  if (!f.failureCode.empty()) {
    first = {{"route", f.failedRoute}, {"code", f.failureCode}};
    if (f.ranOut) first["resource"] = resourceJson(*f.ranOut);
    if (f.reserve) first["nhi_reserve"] = {{"entries", f.reserve->entries}, {"free", f.reserve->free}};
  }
  return {{"table_routes", f.tableRoutes},
          {"table_failed", f.tableFailed},
          {"attempted", f.attempted},
          {"added", f.added},
          {"failed", f.failed},
          {"headroom", {{"first_failure", optional(f.beforeFirstFailure)}, {"failure_rate", optional(f.beforeFailureRate)}}},
          {"stopped", f.stopped},
          {"first_failure", first},
          {"growth", growth}};
}

}  // namespace

json capacityJson(const CapacityResult& r, const CapacityOptions& o) {
  json j{{"seed", o.seed},
         {"failure_rate", o.failureRate},
         {"seconds", r.seconds},
         {"thresholds", {{"high", kThresholdHigh}, {"low", kThresholdLow}}}};
  for (bool v6 : {false, true})
    if (r.family[v6].inUse) j[familyKey(v6)] = familyJson(r.family[v6]);
  return j;
}

json resourcesJson(const CapacityResult& r) {
  json rows = json::array();
  for (const Resource& x : r.before) {
    const FamilyCapacity& f = r.family[x.ipv6];
    if (!x.shared && (rows.empty() || rows.back()["family"] != familyKey(x.ipv6))) {
      Resource routes{false, x.ipv6, "routes", "", 0, f.tableRoutes, f.beforeFirstFailure.value_or(0)};
      rows.push_back(resourceJson(routes));
      rows.back()["used_at_first_failure"] =
          f.failureCode.empty() ? json(nullptr) : json(f.tableRoutes + f.beforeFirstFailure.value_or(0));
    }
    json row = resourceJson(x);
    row["used_at_first_failure"] = nullptr;
    const FamilyCapacity& at = !x.shared ? f : r.family[0].failureCode.empty() ? r.family[1] : r.family[0];
    for (const Resource& then : at.atFirstFailure)
      if (then.label() == x.label()) row["used_at_first_failure"] = then.used;
    rows.push_back(row);
  }
  return rows;
}

}  // namespace xplpm
