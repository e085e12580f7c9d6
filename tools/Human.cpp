// Printing a report for people.
#include "Human.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Errors.h"
#include "Resources.h"

namespace xplpm {

using nlohmann::json;

namespace {

const char* verdict(int status) {
  switch (status) {
    case exitOk: return "everything asked for holds";
    case exitMismatch: return "VERIFICATION MISMATCH, REFUSED CHIP WRITE OR LOST MODEL";
    case exitNotFit: return "SOME ROUTES WERE NOT PLACED (--allow-failed accepts that)";
  }
  return "bad input";
}

}  // namespace

std::string resultLine(int status) { return std::string("exit ") + std::to_string(status) + ": " + verdict(status); }

namespace {

unsigned long long u(const json& v) { return v.get<unsigned long long>(); }
const char* s(const json& v) { return v.get_ref<const std::string&>().c_str(); }

void printFailures(const json& r, const char* indent) {
  for (const auto& [code, n] : r["failures_by_code"].items())
    std::printf("%s%llu failed with %s\n", indent, u(n), code.c_str());
  for (const char* family : {"ipv4", "ipv6"}) {
    std::string line;
    for (const auto& l : r["failures_by_length"]) {
      if (l["family"] != family) continue;
      line += (line.empty() ? "" : ", ") + std::string("/") + std::to_string(l["length"].get<int>()) + " " +
              std::to_string(u(l["failed"])) + std::string(" of ") + std::to_string(u(l["requested"]));
    }
    // Wrapped at commas so that a whole table's lengths stay readable.
    for (std::size_t start = 0; start < line.size();) {
      std::size_t end = line.size() - start > 90 ? line.rfind(", ", start + 90) : std::string::npos;
      if (end == std::string::npos || end <= start) end = line.size();
      std::printf("%s%s%s\n", indent, start == 0 ? (std::string(family) + " by length: ").c_str() : "    ",
                  line.substr(start, end - start).c_str());
      start = end == line.size() ? end : end + 2;
    }
  }
}

void printRoutes(const json& j) {
  const auto& r = j["routes"];
  std::printf("  routes     requested %llu, installed %llu, failed %llu (duplicates %llu, bad lines %llu)\n",
              u(r["requested"]), u(r["installed"]), u(r["failed"]), u(r["duplicates"]), u(r["bad_lines"]));
  if (u(r["replayed"]) > 0)
    std::printf("             %llu requests replayed in order: %llu withdrawal lines, %llu prefixes withdrawn at the end\n",
                u(r["replayed"]), u(r["withdrawals"]), u(r["withdrawn"]));
  printFailures(r, "             ");
  if (j.contains("failure_samples"))
    for (const auto& sample : j["failure_samples"]) std::printf("             e.g. %s\n", s(sample));
  const auto& p = j["program"];
  std::printf("  program    %.2f s (CPU %.2f s), %.0f routes/s: library %.2f s, writer and chip %.2f s, agent %.2f s\n",
              p["seconds"].get<double>(), p["cpu_seconds"].get<double>(), p["routes_per_second"].get<double>(),
              p["library_seconds"].get<double>(), p["writer_seconds"].get<double>(), p["agent_seconds"].get<double>());
  std::printf("  yardstick  %.0f routes/s (%s)\n", j["yardstick"]["routes_per_second"].get<double>(),
              j["yardstick"]["what"].get<std::string>().c_str());
  std::printf("  memory     %.1f MiB, %.0f bytes per route\n", j["memory"]["bytes"].get<double>() / (1 << 20),
              j["memory"]["bytes_per_route"].get<double>());
}

void printTables(const json& j) {
  std::printf("  tables     %-6s %-6s %-9s %-9s %-9s %s\n", "id", "tread", "subtries", "capacity", "fill", "prefixes");
  for (const auto& t : j["tables"]) {
    const double fill = 100.0 * t["subtries"].get<double>() / t["capacity"].get<double>();
    std::printf("             %-6u %-6u %-9u %-9u %5.1f%%    %llu%s\n", t["id"].get<unsigned>(), t["tread"].get<unsigned>(),
                t["subtries"].get<unsigned>(), t["capacity"].get<unsigned>(), fill, u(t["prefixes"]),
                t.contains("family") ? (std::string(" ") + t["family"].get<std::string>()).c_str() : "");
  }
  const auto& n = j["nhi"];
  std::printf("  nhi        %llu tiles, %llu of %llu entries used (%.1f%%), %llu overlapping blocks, blocks filed by %s tile\n",
              u(n["tiles"]), u(n["used"]), u(n["capacity"]), 100.0 * n["used"].get<double>() / std::max(1.0, n["capacity"].get<double>()),
              u(n["overlaps"]), n["filing"] == "own" ? "their own" : "the first visited");
  for (const char* family : {"ipv4", "ipv6"}) {
    const auto& r = n["reserve"][family];
    std::printf("  reserve    %s: %llu NHI entries kept for withdrawals, %llu free, %llu route requests refused for it\n",
                family, u(r["entries"]), u(r["free"]), u(r["refused"]));
  }
  if (u(n["withdrawals_deferred"]) > 0)
    std::printf("             %llu withdrawals deferred until NHI room frees\n", u(n["withdrawals_deferred"]));
  const auto& h = j["hardware"];
  std::printf("  hardware   %llu writes, %llu skipped as identical, %llu refused by the chip; %llu prefix and %llu NHI "
              "commands, %llu group moves, digest %s\n",
              u(h["writes"]), u(h["skipped"]), u(h["errors"]), u(j["commands"]["prefix"]), u(j["commands"]["nhi"]),
              u(j["commands"]["shuffle"]), s(j["commands"]["digest"]));
}

void printRestart(const json& rs) {
  std::printf("  restart    %llu routes recovered in %.2f s (%.0f routes/s), model %s, %llu invalid entries, %llu replay writes\n",
              u(rs["routes_recovered"]), rs["seconds"].get<double>(), rs["routes_per_second"].get<double>(),
              rs["model_equal"].get<bool>() ? "equal" : "DIFFERENT", u(rs["invalid_entries"]), u(rs["replay_writes"]));
  if (rs.contains("changes")) {
    const auto& ch = rs["changes"];
    std::printf("             then %llu changes (seed %llu): %llu next-hop changes, %llu withdrawals, %llu new routes\n",
                u(ch["requested"]), u(ch["seed"]), u(ch["next_hop"]), u(ch["withdrawn"]), u(ch["added"]));
  }
  std::printf("             %llu routes wanted at the end, %llu not placed\n", u(rs["wanted"]), u(rs["failed"]));
  printFailures(rs, "             ");
}

void printChurn(const json& ch) {
  std::printf("  churn      %llu ops in %.2f s (%.0f ops/s), %llu mismatches, %llu routes not placed\n", u(ch["ops"]),
              ch["seconds"].get<double>(), ch["ops_per_second"].get<double>(), u(ch["mismatches"]), u(ch["failed"]));
  if (ch.contains("by_kind")) {
    std::printf("             by kind:");
    const char* sep = " ";
    for (const auto& [kind, k] : ch["by_kind"].items()) {
      std::printf("%s%s %llu in %.2f s", sep, kind.c_str(), u(k["ops"]), k["seconds"].get<double>());
      sep = "; ";
    }
    std::printf("\n");
  }
  printFailures(ch, "             ");
}

void printCheck(const json& ch) {
  for (const char* family : {"ipv4", "ipv6"}) {
    const auto& f = ch[family];
    std::printf("%s%s: %llu sub-tries, %llu routes (%llu lagging their request), %llu NHI blocks, %llu sharing records\n",
                family[3] == '4' ? "  check      " : "             ", family, u(f["subtries"]), u(f["routes"]),
                u(f["routes_stale"]), u(f["blocks"]), u(f["shared_records"]));
  }
  std::printf("             next hops: %llu groups; every invariant holds\n", u(ch["nexthop"]["groups"]));
}

std::string blockText(const json& b) {
  return std::string("next-hop block at ") + std::to_string(u(b["base"])) + ", " + std::to_string(u(b["size"])) + " wide";
}

void printAddress(const json& a) {
  const json& chip = a["chip"];
  if (chip["hit"].get<bool>()) {
    std::printf("    chip       %s: table %llu (tread %llu) index %llu slot %llu; NHI tile %llu entry %llu pair %llu; %s, "
                "group %s member %llu",
                s(chip["prefix"]), u(chip["table"]), u(chip["tread"]), u(chip["index"]), u(chip["slot"]), u(chip["nhi"]["tile"]),
                u(chip["nhi"]["entry"]), u(chip["nhi"]["pair"]), blockText(chip["next_hop_block"]).c_str(),
                chip["group"].dump().c_str(), u(chip["member"]));
    if (chip.contains("next_hop_entry"))
      std::printf(" (entry holds group %llu member %llu)", u(chip["next_hop_entry"]["group"]), u(chip["next_hop_entry"]["member"]));
    std::printf("\n");
  } else {
    std::printf("    chip       no match\n");
  }
  const json& ref = a["reference"];
  if (ref["hit"].get<bool>()) {
    std::printf("    reference  %s, %s\n", s(ref["prefix"]), blockText(ref["next_hop_block"]).c_str());
  } else {
    std::printf("    reference  no match\n");
  }
  std::printf("    agree      %s\n", a["agree"].get<bool>() ? "yes" : "NO");
}

void printPrefix(const json& p) {
  std::printf("    state      %s", s(p["state"]));
  if (p.contains("requested_block"))
    std::printf(", group %s, %s", p["group"].dump().c_str(), blockText(p["requested_block"]).c_str());
  std::printf("\n");
  if (p.contains("subtrie")) {
    const json& st = p["subtrie"];
    std::printf("    lives in   table %llu (tread %llu) index %llu: sub-trie of branch /%llu, stride %llu, %s, slot %llu of %llu; "
                "NHI tile %llu offset %llu, %llu entries, shared by %llu sub-tries\n",
                u(st["table"]), u(st["tread"]), u(st["index"]), u(st["branch_len"]), u(st["stride"]), s(st["mode"]),
                u(p["slot"]), u(st["max_prefix_slot"]), u(st["nhi"]["tile"]), u(st["nhi"]["offset"]), u(st["nhi"]["block_size"]),
                u(st["shared_by"]));
  } else if (p.contains("candidates")) {
    std::string tables;
    for (const auto& t : p["candidates"])
      tables += (tables.empty() ? "" : ", ") + std::to_string(u(t["table"])) + " (tread " + std::to_string(u(t["tread"])) + ")";
    std::printf("    may go to  tables %s\n", tables.c_str());
  }
}

void printLookup(const json& j) {
  const auto& r = j["routes"];
  std::printf("  routes     requested %llu, installed %llu, failed %llu\n", u(r["requested"]), u(r["installed"]), u(r["failed"]));
  for (const json& a : j["lookup"]["answers"]) {
    std::printf("  %s (vrf %llu)\n", s(a["query"]), u(a["vrf"]));
    if (a["kind"] == "address") {
      printAddress(a);
    } else {
      printPrefix(a);
    }
  }
}

}  // namespace

void printHuman(const json& j, int status) {
  std::printf("xplpm %s: profile %s, family %s\n", s(j["command"]), escaped(j["profile"].get<std::string>()).c_str(),
              s(j["family"]));
  if (j.contains("lookup")) {
    printLookup(j);
    std::printf("  result     %s\n", resultLine(status).c_str());
    return;
  }
  printRoutes(j);
  printTables(j);
  if (j.contains("verify"))
    std::printf("  verify     %llu probes, %llu mismatches: %s\n", u(j["verify"]["probes"]), u(j["verify"]["mismatches"]),
                u(j["verify"]["mismatches"]) == 0 ? "every lookup forwards as its longest match" : "MISMATCHES");
  if (j.contains("restart")) printRestart(j["restart"]);
  if (j.contains("churn")) printChurn(j["churn"]);
  if (j.contains("check")) printCheck(j["check"]);
  std::printf("  result     %s\n", resultLine(status).c_str());
}

namespace {

std::string percentOf(double part, double whole) {
  char text[32];
  std::snprintf(text, sizeof text, "%+.1f%%", whole > 0 ? 100.0 * part / whole : 0.0);
  return text;
}

}  // namespace

// "N (+P%)" of a headroom figure against the table's routes, or "not reached".
std::string headroomText(const json& f, const char* which) {
  const json& h = f["headroom"][which];
  if (h.is_null()) return "not reached";
  return std::to_string(u(h)) + " (" + percentOf(h.get<double>(), f["table_routes"].get<double>()) + ")";
}

std::string ranOutResource(const json& f) {
  const json& first = f["first_failure"];
  if (first.is_null()) return "nothing ran out";
  if (!first.contains("resource")) return "no resource named";
  const json& r = first["resource"];
  return r["resource"].get<std::string>() + " at " + percentText(u(r["used"]), u(r["used"]) + u(r["available"]));
}

std::string firstFailureText(const json& f) {
  const json& first = f["first_failure"];
  if (first.is_null()) return "none";
  std::string text = first["route"].get<std::string>() + " failed with " + first["code"].get<std::string>();
  if (first.contains("nhi_reserve"))
    text += " (" + std::to_string(u(first["nhi_reserve"]["free"])) + " NHI entries free, " +
            std::to_string(u(first["nhi_reserve"]["entries"])) + " kept for withdrawals)";
  return text;
}

std::string ranOutText(const json& f) {
  if (f["first_failure"].is_null()) return ranOutResource(f);
  return ranOutResource(f) + ": " + firstFailureText(f);
}

std::string growthLabel(const json& g) {
  char pct[32];
  std::snprintf(pct, sizeof pct, "+%g%%", g["percent"].get<double>());
  return std::string(pct) + " (" + std::to_string(u(g["routes"])) + " routes)";
}

std::string growthVerdict(const json& g, const json& f) {
  if (g["fits"].get<bool>()) return "fits";
  if (g["breaks_after"].is_null()) return "not measured: " + f["stopped"].get<std::string>();
  const std::string first = "does not fit, the first failure after " + std::to_string(u(g["breaks_after"])) + " placed, ";
  if (g["measured"].get<bool>()) return first + std::to_string(u(g["failed"])) + " fail";
  return first + std::to_string(u(g["failed"])) + " failed before " + f["stopped"].get<std::string>();
}

std::string growthText(const json& g, const json& f) { return growthLabel(g) + ": " + growthVerdict(g, f); }

namespace {

void printHeadroom(const json& cap) {
  for (const char* family : {"ipv4", "ipv6"}) {
    if (!cap.contains(family)) continue;
    const json& f = cap[family];
    std::printf("  headroom   %s: %s more routes of the table's mix fit before the first failure; %s before %g%% failed\n",
                family, headroomText(f, "first_failure").c_str(), headroomText(f, "failure_rate").c_str(),
                cap["failure_rate"].get<double>());
    std::printf("             runs out first: %s\n", ranOutText(f).c_str());
    std::printf("             %llu routes tried, %llu placed, %llu failed; stopped: %s\n", u(f["attempted"]), u(f["added"]),
                u(f["failed"]), s(f["stopped"]));
    for (const json& g : f["growth"]) std::printf("  growth     %s %s\n", family, growthText(g, f).c_str());
  }
}

void printResources(const json& rows) {
  std::size_t width = 8;
  for (const json& r : rows) width = std::max(width, r["resource"].get<std::string>().size());
  std::printf("  resources  %-*s %10s %10s %7s  %-9s %s\n", static_cast<int>(width), "resource", "used", "available", "used",
              "threshold", "used at first failure");
  for (const json& r : rows) {
    const std::string at = r["used_at_first_failure"].is_null() ? "" : std::to_string(u(r["used_at_first_failure"]));
    std::printf("             %-*s %10llu %10llu %7s  %-9s %s\n", static_cast<int>(width), s(r["resource"]), u(r["used"]),
                u(r["available"]), percentText(u(r["used"]), u(r["used"]) + u(r["available"])).c_str(), s(r["threshold"]),
                at.c_str());
  }
  std::printf("  thresholds high %g%%, low %g%% (SONiC CRM defaults); available routes are measured by adding them, "
              "available entries are free entries\n",
              kThresholdHigh, kThresholdLow);
}

// One row of the side-by-side table: a label and a cell per profile.
using Row = std::pair<std::string, std::vector<std::string>>;

std::vector<Row> sideBySideRows(const json& profiles) {
  std::vector<Row> rows{{"profile", {}}, {"capacity measured in", {}}};
  const auto cell = [&rows](const std::string& label, std::size_t column, const std::string& text) {
    auto it = std::find_if(rows.begin(), rows.end(), [&](const Row& r) { return r.first == label; });
    if (it == rows.end()) it = rows.insert(rows.end(), Row{label, {}});
    it->second.resize(column + 1);
    it->second[column] = text;
  };
  for (std::size_t i = 0; i < profiles.size(); ++i) {
    const json& p = profiles[i];
    cell("profile", i, p["profile"]);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f s", p["capacity"]["seconds"].get<double>());
    cell("capacity measured in", i, seconds);
    for (const char* family : {"ipv4", "ipv6"}) {
      if (!p["capacity"].contains(family)) continue;
      const json& f = p["capacity"][family];
      const std::string fam(family);
      cell(fam + " routes placed", i, std::to_string(u(f["table_routes"])) + " of " +
                                          std::to_string(u(f["table_routes"]) + u(f["table_failed"])));
      cell(fam + " headroom, first failure", i, headroomText(f, "first_failure"));
      cell(fam + " headroom, rate reached", i, headroomText(f, "failure_rate"));
      cell(fam + " runs out first", i, ranOutResource(f));
      cell(fam + " first failure", i, firstFailureText(f));
      for (const json& g : f["growth"]) cell(fam + " growth " + growthLabel(g).substr(0, growthLabel(g).find(' ')), i, growthVerdict(g, f));
    }
    for (const json& r : p["resources"])
      if (r["threshold"] != "ok")
        cell(r["resource"], i, percentText(u(r["used"]), u(r["used"]) + u(r["available"])) + " " + s(r["threshold"]));
  }
  return rows;
}

void printSideBySide(const std::vector<Row>& rows, std::size_t columns) {
  std::size_t label = 0;
  std::vector<std::size_t> width(columns, 0);
  for (const Row& r : rows) {
    label = std::max(label, r.first.size());
    for (std::size_t i = 0; i < r.second.size(); ++i) width[i] = std::max(width[i], escaped(r.second[i]).size());
  }
  for (const Row& r : rows) {
    std::string line = "  " + r.first + std::string(label - r.first.size(), ' ');
    for (std::size_t i = 0; i < columns; ++i) {
      const std::string text = i < r.second.size() ? escaped(r.second[i]) : "";
      line += "  " + text + std::string(width[i] - text.size(), ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
  }
}

}  // namespace

void printCapacity(const json& doc, int status) {
  const json& profiles = doc["profiles"];
  if (profiles.size() == 1) {
    const json& p = profiles[0];
    std::printf("xplpm capacity: profile %s, family %s, input %s, seed %llu\n", escaped(p["profile"].get<std::string>()).c_str(),
                s(p["family"]), escaped(doc["input"].get<std::string>()).c_str(), u(doc["seed"]));
    printRoutes(p);
    printHeadroom(p["capacity"]);
    printResources(p["resources"]);
    if (p.contains("verify"))
      std::printf("  verify     %llu probes, %llu mismatches\n", u(p["verify"]["probes"]), u(p["verify"]["mismatches"]));
  } else {
    std::printf("xplpm capacity: input %s, seed %llu; resources at or above the low threshold are listed\n",
                escaped(doc["input"].get<std::string>()).c_str(), u(doc["seed"]));
    printSideBySide(sideBySideRows(profiles), profiles.size());
  }
  bool tablesFit = true;
  for (const json& p : profiles)
    for (const char* family : {"ipv4", "ipv6"})
      tablesFit = tablesFit && (!p["capacity"].contains(family) || u(p["capacity"][family]["table_failed"]) == 0);
  if (status == exitNotFit && tablesFit) {
    std::printf("  result     exit %d: THE TABLE GROWN BY --growth DOES NOT FIT (--allow-failed accepts that)\n", status);
  } else {
    std::printf("  result     %s\n", resultLine(status).c_str());
  }
}

void printServeHuman(const json& j, int status) {
  std::printf("xplpm serve: profile %s, listened on %s\n", escaped(j["profile"].get<std::string>()).c_str(), s(j["fpm_listen"]));
  for (const char* family : {"ipv4", "ipv6"}) {
    const auto& r = j["routes"][family];
    std::printf("  %-10s %llu received, %llu withdrawn, %llu installed, %llu failed, %llu held for reconciliation\n", family,
                u(r["received"]), u(r["withdrawn"]), u(r["installed"]), u(r["failed"]), u(r["pending"]));
    for (const auto& [code, n] : r["failures_by_code"].items())
      std::printf("             %llu failed with %s\n", u(n), code.c_str());
  }
  std::string widths;
  for (const auto& [width, n] : j["groups"]["widths"].items()) widths += " " + std::to_string(u(n)) + "x" + width;
  std::printf("  groups     %llu:%s (%llu sets trimmed to the widest group)\n", u(j["groups"]["count"]), widths.c_str(),
              u(j["groups"]["trimmed"]));
  const auto& m = j["messages"];
  std::printf("  messages   %llu frames, %llu netlink messages, %llu malformed, %llu connections; answered %llu offloaded, "
              "%llu failed\n", u(m["frames"]), u(m["netlink"]), u(m["malformed"]), u(m["connections"]),
              u(m["feedback"]["offloaded"]), u(m["feedback"]["failed"]));
  std::printf("  program    %.2f s from the first route message to the last, %.0f route messages/s\n",
              j["program"]["seconds"].get<double>(), j["program"]["routes_per_second"].get<double>());
  const auto& h = j["hardware"];
  std::printf("  hardware   %llu chip writes, %llu skipped as identical, %llu refused by the chip\n", u(h["writes"]),
              u(h["skipped"]), u(h["errors"]));
  const auto& rs = j["restart"];
  const auto& rc = rs["reconcile"];
  std::printf("  restart    %s, %llu routes recovered; reconciled %llu times, first: %llu kept, %llu changed, %llu added, "
              "%llu withdrawn, %llu chip writes\n", rs["warm"].get<bool>() ? "warm" : "cold", u(rs["routes_recovered"]),
              u(rs["reconciliations"]), u(rc["kept"]), u(rc["changed"]), u(rc["added"]), u(rc["withdrawn"]), u(rs["writes"]));
  if (j["verify"]["done"].get<bool>())
    std::printf("  verify     %llu probes, %llu mismatches\n", u(j["verify"]["probes"]), u(j["verify"]["mismatches"]));
  std::printf("  result     %s\n", resultLine(status).c_str());
}

}  // namespace xplpm
