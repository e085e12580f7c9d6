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
  printRoutes(j);
  printTables(j);
  if (j.contains("verify"))
    std::printf("  verify     %llu probes, %llu mismatches: %s\n", u(j["verify"]["probes"]), u(j["verify"]["mismatches"]),
                u(j["verify"]["mismatches"]) == 0 ? "every lookup forwards as its longest match" : "MISMATCHES");
  if (j.contains("restart")) printRestart(j["restart"]);
  if (j.contains("churn")) printChurn(j["churn"]);
  std::printf("  result     exit %d: %s\n", status, verdict(status));
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
  std::printf("  result     exit %d: %s\n", status, verdict(status));
}

}  // namespace xplpm
