// Commands and options.
#include "Cli.h"

#include <charconv>

namespace xplpm {

const char* const kExitStatusHelp =
    "Exit status (run, restart, churn, show, lookup, capacity, serve):\n"
    "  0  everything asked for holds\n"
    "  1  verification or a lookup found a mismatch, the chip refused a write, or a warm restart did\n"
    "     not rebuild the model it had\n"
    "  2  bad input: a route file, option, profile or environment variable (nothing is programmed)\n"
    "  3  some routes were not placed, or (capacity) the table grown by --growth does not fit\n"
    "     (0 instead with --allow-failed; the report says which and why)\n";

namespace {

// CLI11 reads "-1" into an unsigned option as its wrap-around; only plain digits mean a count.
const CLI::Validator kCount(
    [](std::string& text) -> std::string {
      XpLib::U64 n = 0;
      const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n);
      if (text.empty() || text[0] == '+' || ec != std::errc() || end != text.data() + text.size())
        return "'" + text + "' is not a non-negative integer";
      return "";
    },
    "UINT");

// What every command that programs a chip takes.
void addAgent(CLI::App* app, Options& c) {
  app->add_option("--profile", c.profile, "built-in profile name or FILE.json (default: reference)");
  app->add_option("--nhi-filing", c.nhiFiling,
                  "own (default): an NHI block is filed under the tile that holds it; first: under the first tile "
                  "visited, the library's plain rule")
      ->check(CLI::IsMember({"own", "first"}));
  app->add_flag("--verify", c.verify, "probe every route and --probes random addresses against a brute-force LPM");
  app->add_option("--probes", c.probes, "random addresses probed by --verify, up to 10^9 (default 1000000)")
      ->check(kCount & CLI::Range(XpLib::U64(0), XpLib::U64(1000000000)));
  auto* trace = app->add_option("--trace", c.trace, "trace level 0-9")->check(CLI::Range(0, 9));
  app->add_option("--trace-file", c.traceFile, "where traces go (default: standard error)")->needs(trace);
  app->add_option("--seed", c.seed, "seed of random probes, churn and restart changes (default 1)")->check(kCount);
  app->add_flag("--allow-failed", c.allowFailed, "exit 0 even when some routes were not placed");
}

void addRouteFile(CLI::App* app, Options& c) {
  app->add_option("--family", c.family, "ipv4 or ipv6 (default: from the file)")->check(CLI::IsMember({"ipv4", "ipv6"}));
  app->add_option("--routes", c.routes,
                  "route file, plain, .gz, .bz2, .xz or .zst, or - for standard input (default: the shipped real table)");
  app->add_flag("--skip-bad-lines", c.skipBad, "report bad route lines and program the rest");
  app->add_flag("--json", c.json, "one JSON document on standard output");
}

void addCommon(CLI::App* app, Options& c) {
  addAgent(app, c);
  addRouteFile(app, c);
  app->add_option("--nexthop-groups", c.groups, "next-hop groups the next hops fold onto, 1 to 65535 (default 256)")
      ->check(kCount & CLI::Range(1u, 65535u));
}

// A table mapped to a VRF: TABLE=VRF, a 32-bit table id and a 16-bit VRF.
const CLI::Validator kVrfMap(
    [](std::string& text) -> std::string {
      const auto eq = text.find('=');
      XpLib::U64 table = 0, vrf = 0;
      const char* end = text.data() + text.size();
      if (eq == std::string::npos) return "'" + text + "' is not TABLE=VRF";
      const auto t = std::from_chars(text.data(), text.data() + eq, table);
      const auto v = std::from_chars(text.data() + eq + 1, end, vrf);
      if (eq == 0 || t.ec != std::errc() || t.ptr != text.data() + eq || v.ec != std::errc() || v.ptr != end ||
          text[0] == '+' || text[eq + 1] == '+' || table == 0 || table > 0xFFFFFFFFull || vrf > 0xFFFF)
        return "'" + text + "' is not TABLE=VRF (table 1 to 4294967295, VRF 0 to 65535)";
      return "";
    },
    "TABLE=VRF");

void addServe(CLI::App* serve, Options& c) {
  addAgent(serve, c);
  serve->add_option("--fpm-listen", c.fpmListen, "address and port zebra connects to (default 127.0.0.1:2620)");
  serve->add_option("--json-out", c.jsonOut, "the report, written at exit and on SIGUSR1");
  serve->add_flag("--json", c.json, "the report on standard output at exit");
  serve->add_option("--state", c.state,
                    "the chip's memory is saved there at exit; an existing file is loaded at start and the agent "
                    "restarts warm over it");
  serve->add_option("--vrf", c.vrfMaps, "routes of kernel table TABLE go to VRF (repeatable; default: main is 0, "
                                        "table T is VRF T)")
      ->check(kVrfMap);
  serve->add_option("--reconcile-after", c.reconcileAfter,
                    "seconds of quiet after a connection before the table is reconciled (default 5; SIGUSR2 reconciles "
                    "at once)")
      ->check(CLI::Range(0.05, 3600.0));
  serve->add_option("--fib-out", c.fibOut, "every route, its state and next hops, written with the report");
}

void addFpmSend(CLI::App* send, Options& c) {
  addRouteFile(send, c);
  send->add_option("--connect", c.connect, "address and port of the FPM server (xplpm serve)")->required();
  send->add_option("--style", c.style,
                   "objects (default): next-hop objects and RTA_NH_ID, as zebra 8.4 sends them; multipath: "
                   "RTA_GATEWAY/RTA_MULTIPATH in each route")
      ->check(CLI::IsMember({"objects", "multipath"}));
  send->add_option("--multipath-sets", c.multipathSets,
                   "next-hop sets the route file's next hops fold onto; set k has 1 + k % 4 paths (default 16)")
      ->check(kCount & CLI::Range(1u, 4096u));
  send->add_flag("--withdraw", c.withdraw, "send withdrawals (RTM_DELROUTE) of the routes instead");
  send->add_option("--wait", c.wait, "seconds to wait for the server's offload answers, 0: none (default 60)")
      ->check(CLI::Range(0.0, 3600.0));
  send->add_flag("--allow-failed", c.allowFailed, "exit 0 even when the server answers that some routes failed");
}

// The options of the commands that answer questions about the programmed chip.
void addAnswerOptions(CLI::App* show, CLI::App* lookup, CLI::App* capacity, Options& c) {
  show->add_option("what", c.what, "what to show")
      ->required()
      ->check(CLI::IsMember({"summary", "prefix-tables", "subtries", "nhi-tiles", "nexthop", "fill"}));
  show->add_option("--svg", c.svg, "with fill: the SVG file to write");
  show->add_flag("--json-lines", c.jsonLines,
                 "as JSON lines: a header record, one record per table, sub-trie, tile or group, and an end record");
  show->add_option("--table", c.table, "with --json or --json-lines: only this prefix table")->check(CLI::Range(0, 32));
  show->add_option("--limit", c.limit, "with --json or --json-lines: at most N tables, sub-tries, tiles or groups")
      ->check(kCount);
  lookup->add_option("query", c.queries,
                     "an address (the chip's answer beside the reference's longest match) or a prefix (where it "
                     "lives, or why it is not placed); several may be given")
      ->required();
  lookup->add_option("--vrf", c.vrf, "the VRF of the queries (default 0)")->check(kCount & CLI::Range(0u, 65535u));
  capacity
      ->add_option("--growth", c.growth,
                   "PCT[,PCT...]: will the table grown by PCT % (routes of its mix) fit, and where does it break")
      ->delimiter(',')
      ->check(CLI::Range(0.0, 10000.0));
  capacity->add_option("--profiles", c.profiles, "A,B,...: the same report for several profiles side by side")
      ->delimiter(',')
      ->excludes(capacity->get_option("--profile"));
  capacity->add_option("--failure-rate", c.failureRate,
                       "stop adding once this percentage of the added routes failed (default 1)")
      ->check(CLI::Range(0.001, 100.0));
  capacity->add_option("--svg", c.svg, "the chart of the resources, thresholds, bottleneck and headroom (one profile)");
}

}  // namespace

void buildCli(CLI::App& app, Options& c) {
  app.footer(kExitStatusHelp);  // before the commands, which inherit it
  app.set_version_flag("--version", "xplpm " XPLPM_VERSION);
  app.require_subcommand(1);
  auto* run = app.add_subcommand("run", "program a route table from empty and report");
  auto* restart = app.add_subcommand("restart", "program, restart the agent over the same chip, reconcile, report");
  auto* churn = app.add_subcommand("churn", "program, then apply random withdrawals, next-hop changes and resizes");
  auto* show = app.add_subcommand("show", "program, then print summary|prefix-tables|subtries|nhi-tiles|nexthop|fill");
  auto* lookup = app.add_subcommand("lookup", "program, then answer where addresses go and where prefixes live");
  auto* capacity = app.add_subcommand(
      "capacity", "program, then add routes of the table's own mix until they fail: headroom and what runs out first");
  auto* serve = app.add_subcommand("serve", "a live agent fed by a routing stack over FPM (zebra's dplane_fpm_nl)");
  auto* send = app.add_subcommand("fpm-send", "send a route file over FPM as zebra does, and time the answers");
  auto* profile = app.add_subcommand("profile", "the built-in chip profiles");
  for (auto* sub : {run, restart, churn, show, lookup, capacity}) addCommon(sub, c);
  addServe(serve, c);
  addFpmSend(send, c);
  for (auto* sub : {run, restart, churn, show, lookup, capacity, serve, send})
    sub->callback([&c, sub] { c.command = sub->get_name(); });
  for (auto* sub : {run, restart, churn})
    sub->add_flag("--check", c.check,
                  "at the end, check every invariant of the state machines' models (a broken one stops the tool) "
                  "and report what was checked");
  churn->add_option("--ops", c.ops, "operations of churn, up to 10^9 (default 5000: about half a minute on the shipped IPv4 table)")
      ->check(kCount & CLI::Range(XpLib::U64(0), XpLib::U64(1000000000)));
  restart->add_option("--changes", c.changes,
                      "after the restart, apply N seeded route changes (next hops, withdrawals, new routes) "
                      "before verifying, up to 10^8")
      ->check(kCount & CLI::Range(XpLib::U64(0), XpLib::U64(100000000)));
  addAnswerOptions(show, lookup, capacity, c);
  profile->require_subcommand(1);
  profile->add_subcommand("list", "list the built-in profiles")->callback([&c] { c.command = "profile list"; });
  auto* pshow = profile->add_subcommand("show", "show one profile's tables");
  pshow->callback([&c] { c.command = "profile show"; });
  pshow->add_option("name", c.profileName, "profile name or FILE.json")->required();
  pshow->add_flag("--json", c.json, "as a JSON profile");
}

}  // namespace xplpm
