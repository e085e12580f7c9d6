// Building the serve report.
#include "ServeReport.h"

#include "JsonDocument.h"

#include "Report.h"

namespace xplpm {

using nlohmann::json;

namespace {

// What every report of the tool starts with.
json familyJson(Session& s, ServeRib& rib, const std::vector<XpLib::Agent::Route>& routes, bool v6) {
  std::vector<XpLib::Agent::Route> mine;
  for (const auto& r : routes)
    if (r.ipv6 == v6) mine.push_back(r);
  const Tally t = tally(s.agent(), mine);
  json byCode = json::object();
  for (const auto& [code, n] : t.failuresByCode) byCode[code] = n;
  const U64 unresolved = rib.unresolved(v6);
  if (unresolved) byCode["unresolvedNextHop"] = unresolved;
  return {{"received", rib.counts().received[v6]},
          {"withdrawn", rib.counts().withdrawn[v6]},
          {"installed", t.installed[v6]},
          {"failed", t.failed() + unresolved},
          {"pending", rib.pending(v6)},
          {"failures_by_code", byCode}};
}

json routesJson(Session& s, ServeRib& rib) {
  const std::vector<XpLib::Agent::Route> routes = rib.resolvedRoutes();
  json r{{"ipv4", familyJson(s, rib, routes, false)}, {"ipv6", familyJson(s, rib, routes, true)}};
  r["installed"] = r["ipv4"]["installed"].get<U64>() + r["ipv6"]["installed"].get<U64>();
  r["failed"] = r["ipv4"]["failed"].get<U64>() + r["ipv6"]["failed"].get<U64>();
  r["current"] = rib.routes();
  r["unmapped"] = rib.counts().unmapped;
  r["program_failures"] = rib.counts().programFailures;
  return r;
}

json groupsJson(const ServeRib& rib) {
  json widths = json::object();
  U64 count = 0;
  for (const auto& [width, n] : rib.groupWidths()) {
    widths[std::to_string(width)] = n;
    count += n;
  }
  return {{"count", count}, {"widths", widths}, {"trimmed", rib.trimmedSets()}};
}

json messagesJson(const ServeRib& rib, const ServeFigures& f, const fpm::ServerCounts& server) {
  json ignored = json::object();
  for (const auto& [why, n] : f.ignored) ignored[std::string(why)] = n;
  return {{"frames", server.frames},
          {"netlink", server.netlink},
          {"malformed", f.malformed},
          {"ignored", ignored},
          {"next_hop", rib.counts().nextHopMessages},
          {"bytes", server.bytes},
          {"connections", server.connections},
          {"feedback", {{"offloaded", f.feedbackOffloaded}, {"failed", f.feedbackFailed}, {"dropped_bytes", server.replyDropped}}}};
}

json writesJson(const XpLib::Agent::PortWrites& w) {
  return {{"prefix", w.prefix}, {"nhi", w.nhi}, {"next_hop", w.nextHop}};
}

json restartJson(Session& s, ServeRib& rib, const ServeFigures& f) {
  const auto& rep = s.agent().restartReport();
  json reconcile{{"kept", 0}, {"changed", 0}, {"added", 0}, {"withdrawn", 0}};
  if (f.firstReconcile)
    reconcile = {{"kept", f.firstReconcile->kept}, {"changed", f.firstReconcile->changed},
                 {"added", f.firstReconcile->added}, {"withdrawn", f.firstReconcile->withdrawn},
                 {"groups_resized", f.firstReconcile->groupsResized}, {"groups_dropped", f.firstReconcile->groupsDropped},
                 {"seconds", f.reconcileSeconds}};
  return {{"warm", f.warm},
          {"routes_recovered", rep.routesRecovered[0] + rep.routesRecovered[1]},
          {"recovery_seconds", rep.seconds[0] + rep.seconds[1]},
          {"invalid_entries", rep.entriesInvalid[0] + rep.entriesInvalid[1]},
          {"reconcile", reconcile},
          {"writes", f.restartWrites.all()},
          {"writes_by_kind", writesJson(f.restartWrites)},
          {"reconciliations", f.reconciliations},
          {"awaiting_reconcile", rib.awaitingReconcile()}};
}

}  // namespace

json serveJson(Session& s, ServeRib& rib, const ServeFigures& f, const fpm::ServerCounts& server,
               const XpLib::Agent::CountingPort& port) {
  json j = documentHeader("serve");
  j["profile"] = s.profile().name;
  j["fpm_listen"] = f.listen;
  j["routes"] = routesJson(s, rib);
  j["groups"] = groupsJson(rib);
  j["messages"] = messagesJson(rib, f, server);
  const double seconds = f.firstRoute ? std::chrono::duration<double>(f.lastRoute - *f.firstRoute).count() : 0;
  j["program"] = {{"seconds", seconds},
                  {"route_messages", f.routeMessages},
                  {"routes_per_second", seconds > 0 ? f.routeMessages / seconds : 0}};
  U64 skipped = 0;
  for (bool v6 : {false, true}) skipped += s.agent().family(v6).writer->counters().skipped();
  j["hardware"] = {{"writes", port.writes().all()}, {"skipped", skipped}, {"errors", s.hardwareErrors()},
                   {"by_kind", writesJson(port.writes())}};
  j["restart"] = restartJson(s, rib, f);
  j["verify"] = {{"done", f.verified}, {"probes", s.figures().verifyProbes}, {"mismatches", s.figures().verifyMismatches}};
  return j;
}

}  // namespace xplpm
