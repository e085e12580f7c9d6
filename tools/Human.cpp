// Printing a report for people.
#include "Human.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "Errors.h"

namespace xplpm {

using nlohmann::json;

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
  std::printf("  program    %.2f s, %.0f routes/s (a plain hash map: %.0f routes/s)\n", j["program"]["seconds"].get<double>(),
              j["program"]["routes_per_second"].get<double>(), j["yardstick"]["routes_per_second"].get<double>());
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

const char* verdict(int status) {
  switch (status) {
    case exitOk: return "everything asked for holds";
    case exitMismatch: return "VERIFICATION MISMATCH, REFUSED CHIP WRITE OR LOST MODEL";
    case exitNotFit: return "SOME ROUTES WERE NOT PLACED (--allow-failed accepts that)";
  }
  return "bad input";
}

}  // namespace

void printHuman(const json& j, int status) {
  std::printf("xplpm %s: profile %s, family %s\n", s(j["command"]), escaped(j["profile"].get<std::string>()).c_str(),
              s(j["family"]));
  if (j.contains("lookup")) {
    printLookup(j);
    std::printf("  result     exit %d: %s\n", status, verdict(status));
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
  std::printf("  result     exit %d: %s\n", status, verdict(status));
}

}  // namespace xplpm
