// Building the JSON report.
#include "Report.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Errors.h"
#include "JsonDocument.h"

namespace xplpm {

using nlohmann::json;

namespace {

std::string familyName(const RouteSet& set, const Options& c) {
  if (!c.family.empty()) return c.family;
  if (set.hasV4 && set.hasV6) return "mixed";
  return set.hasV6 ? "ipv6" : "ipv4";
}

json routesJson(const Figures& f, const RouteSet& set) {
  json r = tallyJson(f.programmed);
  r["requested"] = f.programmed.requestedAll();
  r["installed"] = f.programmed.installedAll();
  r["duplicates"] = set.duplicates;
  r["bad_lines"] = set.badLines.size();
  r["lines"] = set.lines;
  r["blank_lines"] = set.blank;
  r["other_family"] = set.otherFamily;
  r["withdrawals"] = set.withdrawals;
  r["withdrawn"] = set.withdrawn;
  r["replayed"] = set.ops.size();
  return r;
}

json tablesJson(Session& s, bool mixed) {
  json tables = json::array();
  for (bool v6 : {false, true}) {
    if (s.figures().programmed.requested[v6] == 0) continue;
    for (const auto& t : s.figures().family[v6].tables) {
      json row{{"id", t.tableId}, {"tread", t.tread}, {"subtries", t.occupied}, {"prefixes", t.prefixes},
               {"capacity", t.depth}};
      if (mixed) row["family"] = v6 ? "ipv6" : "ipv4";
      tables.push_back(row);
    }
  }
  return tables;
}

json nhiJson(Session& s) {
  U64 used = 0, capacity = 0, overlaps = 0, tiles = 0;
  json reserve = json::object();
  for (bool v6 : {false, true}) {
    const auto& agent = s.agent();
    const XpLib::Agent::XpLpmAgent::NhiReserve r = agent.nhiReserve(v6);
    reserve[v6 ? "ipv6" : "ipv4"] = {{"entries", r.entries}, {"free", r.free}, {"refused", r.refused}};
    if (s.figures().programmed.requested[v6] == 0) continue;
    for (const auto& [tile, a] : agent.family(v6).sm->nhiAllocatorMap()) {
      used += a->entriesCapacity() - a->freeEntries();
      capacity += a->entriesCapacity();
      ++tiles;
    }
    overlaps += s.figures().family[v6].overlaps.overlappingPairs;
  }
  return {{"tiles", tiles},
          {"used", used},
          {"capacity", capacity},
          {"overlaps", overlaps},
          {"filing", s.options().agent.nhiOwnTileFiling ? "own" : "first"},
          {"reserve", reserve},
          {"withdrawals_deferred", s.agent().withdrawalsDeferred()}};
}

json commandsJson(Session& s) {
  U64 prefixCmds = 0, nhiCmds = 0;
  for (bool v6 : {false, true}) {
    const auto& w = s.agent().family(v6).writer->counters();
    prefixCmds += w.prefixWrites + w.prefixSkipped;
    nhiCmds += w.nhiWrites + w.nhiSkipped;
  }
  char digest[32];
  std::snprintf(digest, sizeof digest, "%016llx", static_cast<unsigned long long>(s.digest()));
  return {{"prefix", prefixCmds}, {"nhi", nhiCmds}, {"shuffle", s.agent().counters().shuffles}, {"digest", digest}};
}

json hardwareJson(Session& s) {
  U64 writes = 0, skipped = 0;
  for (bool v6 : {false, true}) {
    const auto& w = s.agent().family(v6).writer->counters();
    writes += w.writes();
    skipped += w.skipped();
  }
  return {{"writes", writes}, {"skipped", skipped}, {"errors", s.hardwareErrors()}};
}

U64 count(const json& j, const char* section, const char* key) {
  return j.contains(section) && j[section].contains(key) ? j[section][key].get<U64>() : 0;
}

// Whether malloc was told to put its heap on huge pages (the tool asks with XPLPM_HUGE_PAGES=1).
bool hugePagesAsked() {
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  const std::string_view t = tunables ? tunables : "";
  return t.find("glibc.malloc.hugetlb=1") != std::string_view::npos ||
         t.find("glibc.malloc.hugetlb=2") != std::string_view::npos;
}

}  // namespace

json tallyJson(const Tally& t) {
  json byCode = json::object();
  for (const auto& [code, n] : t.failuresByCode) byCode[code] = n;
  json byLength = json::array();
  for (const auto& [key, length] : t.byLength) {
    if (length.failed == 0) continue;
    byLength.push_back({{"family", key.first ? "ipv6" : "ipv4"},
                        {"length", key.second},
                        {"requested", length.requested},
                        {"failed", length.failed}});
  }
  return {{"failed", t.failed()}, {"failures_by_code", byCode}, {"failures_by_length", byLength}};
}

json runJson(Session& s, const RouteSet& set, const Options& c, ChipNow chip) {
  const Figures& f = s.figures();
  const U64 requested = f.programmed.requestedAll(), installed = f.programmed.installedAll();
  const std::string family = familyName(set, c);
  json j = documentHeader(c.command);
  j.update({{"family", family},
            {"input", set.source},
            {"profile", s.profile().name},
            {"routes", routesJson(f, set)},
            {"program",
             {{"seconds", f.programSeconds},
              {"routes_per_second", f.programSeconds > 0 ? requested / f.programSeconds : 0},
              {"cpu_seconds", f.programCpuSeconds},
              {"library_seconds", f.librarySeconds},
              {"writer_seconds", f.writerSeconds},
              {"agent_seconds", std::max(0.0, f.programSeconds - f.librarySeconds - f.writerSeconds)},
              {"huge_pages", hugePagesAsked()}}},
            {"yardstick",
             {{"seconds", f.yardstickSeconds},
              {"routes_per_second", f.yardstickSeconds > 0 ? requested / f.yardstickSeconds : 0},
              {"what", "the same requests stored in an open-addressing map sized beforehand"}}},
            {"commands", commandsJson(s)},
            {"hardware", hardwareJson(s)},
            {"memory", {{"bytes", f.memoryBytes}, {"bytes_per_route", installed ? double(f.memoryBytes) / installed : 0}}}});
  if (!f.programmed.samples.empty()) j["failure_samples"] = f.programmed.samples;
  if (chip == ChipNow::read) chipJson(s, j);
  return j;
}

void chipJson(Session& s, json& j) {
  s.survey();
  j["tables"] = tablesJson(s, j["family"] == "mixed");
  j["nhi"] = nhiJson(s);
}

json verifyJson(const Figures& f) { return {{"probes", f.verifyProbes}, {"mismatches", f.verifyMismatches}}; }

json checkJson(XpLib::Agent::XpLpmAgent& agent) {
  json j;
  for (bool v6 : {false, true}) {
    const XpLib::XpLpm::LpmSm::VerifyCounts n = agent.family(v6).sm->verify();
    j[v6 ? "ipv6" : "ipv4"] = {{"subtries", n.subTries}, {"routes", n.routes}, {"routes_stale", n.routesStale},
                               {"blocks", n.blocks}, {"shared_records", n.sharedRecords}};
  }
  j["nexthop"] = {{"groups", agent.nextHopSm()->verify()}};
  return j;
}

int exitStatus(const json& j, bool allowFailed) {
  const bool modelLost = j.contains("restart") && !j["restart"].value("model_equal", true);
  if (count(j, "verify", "mismatches") || count(j, "churn", "mismatches") || count(j, "lookup", "mismatches") ||
      count(j, "hardware", "errors") || modelLost)
    return exitMismatch;
  const bool notFit = count(j, "routes", "failed") || count(j, "churn", "failed") || count(j, "restart", "failed");
  return notFit && !allowFailed ? exitNotFit : exitOk;
}

}  // namespace xplpm
