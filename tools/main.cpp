// xplpm: program real route tables into a simulated chip through the library,
// verify every lookup, restart, churn, and show what the tables hold.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <random>

#include "ProfileInput.h"
#include "RouteInput.h"
#include "Session.h"
#include "agent/ModelSnapshot.h"
#include "platform/Trace.h"

namespace {

using nlohmann::json;
using namespace xplpm;
using XpLib::Agent::Route;

struct Common {
  std::string family;
  std::string routes;
  std::string profile = "reference";
  U32 groups = 256;
  bool verify = false;
  U64 probes = 1000000;
  bool json = false;
  int trace = -1;
  std::string traceFile;
  U64 seed = 1;
  U64 ops = 100000;
  bool skipBad = false;
  std::string what;
  std::string svg;
};

[[noreturn]] void inputError(const InputError& e) {
  std::fprintf(stderr, "xplpm: %s: %s\n", e.where.c_str(), e.what.c_str());
  std::exit(2);
}

double since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Routes of the selected family from the file, or from the shipped table of that family.
RouteSet loadRoutes(const Common& c) {
  FamilyFilter filter = FamilyFilter::any;
  if (c.family == "ipv4") filter = FamilyFilter::ipv4;
  if (c.family == "ipv6") filter = FamilyFilter::ipv6;
  const std::string path =
      !c.routes.empty() ? c.routes
                        : std::string(XPLPM_DATA_DIR) + (filter == FamilyFilter::ipv6 ? "/routes-v6.txt.gz" : "/routes-v4.txt.gz");
  InputError fatal;
  RouteSet set = readRoutes(path, filter, c.skipBad, &fatal);
  if (!fatal.what.empty()) inputError(fatal);
  if (!set.badLines.empty() && !c.skipBad) inputError(set.badLines.front());
  for (const auto& bad : set.badLines) std::fprintf(stderr, "xplpm: %s: %s (skipped)\n", bad.where.c_str(), bad.what.c_str());
  return set;
}

std::string familyName(const RouteSet& set, const Common& c) {
  if (!c.family.empty()) return c.family;
  if (set.hasV4 && set.hasV6) return "mixed";
  return set.hasV6 ? "ipv6" : "ipv4";
}

json runJson(Session& s, const RouteSet& set, const Common& c) {
  const Figures& f = s.figures();
  const U64 requested = f.family[0].requested + f.family[1].requested;
  const U64 installed = f.family[0].installed + f.family[1].installed;
  json tables = json::array();
  U64 nhiUsed = 0, nhiCapacity = 0, overlaps = 0, tiles = 0, prefixCmds = 0, nhiCmds = 0, writes = 0, skipped = 0;
  for (bool v6 : {false, true}) {
    const FamilyFigures& ff = f.family[v6];
    if (ff.requested == 0) continue;
    const auto& sm = *s.agent().family(v6).sm;
    for (const auto& t : ff.tables) {
      json row{{"id", t.tableId}, {"tread", t.tread}, {"subtries", t.occupied}, {"prefixes", t.prefixes},
               {"capacity", t.depth}};
      if (familyName(set, c) == "mixed") row["family"] = v6 ? "ipv6" : "ipv4";
      tables.push_back(row);
    }
    for (const auto& [tile, a] : sm.nhiAllocatorMap()) {
      nhiUsed += a->entriesCapacity() - a->freeEntries();
      nhiCapacity += a->entriesCapacity();
      ++tiles;
    }
    overlaps += ff.overlaps.overlappingPairs;
    const auto& w = s.agent().family(v6).writer->counters();
    prefixCmds += w.prefixWrites + w.prefixSkipped;
    nhiCmds += w.nhiWrites + w.nhiSkipped;
    writes += w.writes();
    skipped += w.skipped();
  }
  char digest[32];
  std::snprintf(digest, sizeof digest, "%016llx", static_cast<unsigned long long>(s.digest()));
  json failures = json::object();
  for (bool v6 : {false, true})
    for (const auto& [code, n] : f.family[v6].failuresByCode) failures[code] = failures.value(code, 0ull) + n;
  json j{{"family", familyName(set, c)},
         {"profile", s.profile().name},
         {"routes",
          {{"requested", requested}, {"installed", installed}, {"failed", requested - installed},
           {"duplicates", set.duplicates}, {"bad_lines", set.badLines.size()}, {"failures_by_code", failures}}},
         {"program",
          {{"seconds", f.programSeconds}, {"routes_per_second", f.programSeconds > 0 ? requested / f.programSeconds : 0}}},
         {"yardstick",
          {{"seconds", f.yardstickSeconds},
           {"routes_per_second", f.yardstickSeconds > 0 ? requested / f.yardstickSeconds : 0}}},
         {"commands", {{"prefix", prefixCmds}, {"nhi", nhiCmds}, {"shuffle", s.agent().counters().shuffles}, {"digest", digest}}},
         {"hardware", {{"writes", writes}, {"skipped", skipped}}},
         {"memory", {{"bytes", f.memoryBytes}, {"bytes_per_route", installed ? double(f.memoryBytes) / installed : 0}}},
         {"tables", tables},
         {"nhi", {{"tiles", tiles}, {"used", nhiUsed}, {"capacity", nhiCapacity}, {"overlaps", overlaps}}}};
  if (c.verify) j["verify"] = {{"probes", f.verifyProbes}, {"mismatches", f.verifyMismatches}};
  if (!f.failureSamples.empty()) j["failure_samples"] = f.failureSamples;
  return j;
}

void printHuman(const json& j) {
  const auto& r = j["routes"];
  std::printf("xplpm run: profile %s, family %s\n", j["profile"].get<std::string>().c_str(),
              j["family"].get<std::string>().c_str());
  std::printf("  routes     requested %llu, installed %llu, failed %llu (duplicates %llu, bad lines %llu)\n",
              r["requested"].get<unsigned long long>(), r["installed"].get<unsigned long long>(),
              r["failed"].get<unsigned long long>(), r["duplicates"].get<unsigned long long>(),
              r["bad_lines"].get<unsigned long long>());
  for (const auto& [code, n] : r["failures_by_code"].items())
    std::printf("             %llu failed with %s\n", n.get<unsigned long long>(), code.c_str());
  if (j.contains("failure_samples"))
    for (const auto& sample : j["failure_samples"]) std::printf("             e.g. %s\n", sample.get<std::string>().c_str());
  std::printf("  program    %.2f s, %.0f routes/s (a plain hash map: %.0f routes/s)\n", j["program"]["seconds"].get<double>(),
              j["program"]["routes_per_second"].get<double>(), j["yardstick"]["routes_per_second"].get<double>());
  std::printf("  memory     %.1f MiB, %.0f bytes per route\n", j["memory"]["bytes"].get<double>() / (1 << 20),
              j["memory"]["bytes_per_route"].get<double>());
  std::printf("  tables     %-6s %-6s %-9s %-9s %-9s %s\n", "id", "tread", "subtries", "capacity", "fill", "prefixes");
  for (const auto& t : j["tables"]) {
    const double fill = 100.0 * t["subtries"].get<double>() / t["capacity"].get<double>();
    std::printf("             %-6u %-6u %-9u %-9u %5.1f%%    %llu%s\n", t["id"].get<unsigned>(), t["tread"].get<unsigned>(),
                t["subtries"].get<unsigned>(), t["capacity"].get<unsigned>(), fill,
                t["prefixes"].get<unsigned long long>(),
                t.contains("family") ? (" " + t["family"].get<std::string>()).c_str() : "");
  }
  const auto& n = j["nhi"];
  std::printf("  nhi        %llu tiles, %llu of %llu entries used (%.1f%%), %llu overlapping blocks\n",
              n["tiles"].get<unsigned long long>(), n["used"].get<unsigned long long>(),
              n["capacity"].get<unsigned long long>(), 100.0 * n["used"].get<double>() / std::max(1.0, n["capacity"].get<double>()),
              n["overlaps"].get<unsigned long long>());
  std::printf("  hardware   %llu writes, %llu skipped as identical; %llu prefix and %llu NHI commands, %llu group moves, digest %s\n",
              j["hardware"]["writes"].get<unsigned long long>(), j["hardware"]["skipped"].get<unsigned long long>(),
              j["commands"]["prefix"].get<unsigned long long>(), j["commands"]["nhi"].get<unsigned long long>(),
              j["commands"]["shuffle"].get<unsigned long long>(), j["commands"]["digest"].get<std::string>().c_str());
  if (j.contains("verify"))
    std::printf("  verify     %llu probes, %llu mismatches: %s\n", j["verify"]["probes"].get<unsigned long long>(),
                j["verify"]["mismatches"].get<unsigned long long>(),
                j["verify"]["mismatches"].get<unsigned long long>() == 0 ? "every lookup forwards as its longest match"
                                                                          : "MISMATCHES");
  if (j.contains("restart")) {
    const auto& rs = j["restart"];
    std::printf("  restart    %llu routes recovered in %.2f s (%.0f routes/s), model %s, %llu invalid entries, %llu replay writes\n",
                rs["routes_recovered"].get<unsigned long long>(), rs["seconds"].get<double>(),
                rs["routes_per_second"].get<double>(), rs["model_equal"].get<bool>() ? "equal" : "DIFFERENT",
                rs["invalid_entries"].get<unsigned long long>(), rs["replay_writes"].get<unsigned long long>());
  }
  if (j.contains("churn")) {
    const auto& ch = j["churn"];
    std::printf("  churn      %llu ops in %.2f s (%.0f ops/s), %llu mismatches, %llu routes not placed\n",
                ch["ops"].get<unsigned long long>(), ch["seconds"].get<double>(), ch["ops_per_second"].get<double>(),
                ch["mismatches"].get<unsigned long long>(), ch["failed"].get<unsigned long long>());
  }
}

void emit(const json& j, const Common& c) {
  if (c.json) {
    std::cout << j.dump(2) << "\n";
  } else {
    printHuman(j);
  }
}

RunOptions runOptions(const Common& c) {
  RunOptions o;
  o.nextHopGroups = c.groups;
  o.verify = c.verify;
  o.probes = c.probes;
  o.seed = c.seed;
  o.progress = isatty(2) && !c.json;
  return o;
}

XpXdk::xpChipProfile profileOf(const Common& c) {
  InputError e;
  auto p = loadProfile(c.profile, &e);
  if (!p) inputError(e);
  return *p;
}

// Read the profile (a bad one is reported before any reading of routes), read
// the routes, program, measure and verify: the start of every command but `profile`.
std::unique_ptr<Session> programmed(const Common& c, RouteSet& set) {
  const XpXdk::xpChipProfile profile = profileOf(c);
  set = loadRoutes(c);
  auto s = std::make_unique<Session>(profile, runOptions(c));
  s->program(set.routes);
  s->survey();
  if (c.verify) s->verify(set.routes);
  return s;
}

int cmdRun(const Common& c) {
  RouteSet set;
  auto s = programmed(c, set);
  emit(runJson(*s, set, c), c);
  return 0;
}

int cmdRestart(const Common& c) {
  RouteSet set;
  auto s = programmed(c, set);
  json j = runJson(*s, set, c);
  std::string before[2];
  for (bool v6 : {false, true}) before[v6] = XpLib::Agent::modelSnapshot(*s->agent().family(v6).sm);
  auto chip = s->agent().sharedChip();
  s->agentIs(nullptr);  // the old agent goes away; the chip keeps its memory
  auto agent = std::make_unique<XpLib::Agent::XpLpmAgent>(s->profile(), chip, XpLib::Agent::XpLpmAgent::Start::warm, XpLib::Agent::AgentOptions{.nextHopGroups = c.groups});
  const auto t0 = std::chrono::steady_clock::now();
  agent->reconcile(set.routes);
  const double reconcile = since(t0);
  const auto& rep = agent->restartReport();
  bool equal = true;
  U64 replayWrites = agent->counters().nextHopWrites;
  for (bool v6 : {false, true}) {
    equal = equal && XpLib::Agent::modelSnapshot(*agent->family(v6).sm) == before[v6];
    replayWrites += agent->family(v6).writer->counters().writes();
  }
  const double seconds = rep.seconds[0] + rep.seconds[1] + reconcile;
  const U64 recovered = rep.routesRecovered[0] + rep.routesRecovered[1];
  s->agentIs(std::move(agent));
  if (c.verify) {
    s->verify(set.routes);
    j["verify"] = {{"probes", s->figures().verifyProbes}, {"mismatches", s->figures().verifyMismatches}};
  }
  j["restart"] = {{"seconds", seconds},
                  {"routes_recovered", recovered},
                  {"routes_per_second", seconds > 0 ? recovered / seconds : 0},
                  {"model_equal", equal},
                  {"invalid_entries", rep.entriesInvalid[0] + rep.entriesInvalid[1]},
                  {"replay_writes", replayWrites}};
  emit(j, c);
  return 0;
}

int cmdChurn(const Common& c) {
  RouteSet set;
  auto s = programmed(c, set);
  json j = runJson(*s, set, c);
  auto& agent = s->agent();
  std::mt19937_64 rng(c.seed);
  std::vector<Route> routes = set.routes;
  std::vector<bool> present(routes.size(), true);
  const auto t0 = std::chrono::steady_clock::now();
  for (U64 op = 0; op < c.ops && !routes.empty(); ++op) {
    const std::size_t i = rng() % routes.size();
    switch (rng() % 4) {
      case 0:  // withdraw, or announce again what was withdrawn
        if (present[i]) {
          agent.routeDel(routes[i]);
        } else {
          agent.routeIs(routes[i]);
        }
        present[i] = !present[i];
        break;
      case 1:  // a new next hop
        routes[i].nextHop = rng() % (4ull * c.groups);
        agent.routeIs(routes[i]);
        present[i] = true;
        break;
      case 2:  // re-announcement
        if (present[i]) agent.routeIs(routes[i]);
        break;
      default:  // a group changes width
        agent.groupWidthIs(XpLib::Agent::SwId(rng() % c.groups), XpLib::Agent::Nway(static_cast<XpLib::U16>(1 + rng() % 8)));
    }
  }
  const double seconds = since(t0);
  std::vector<Route> live;
  U64 failed = 0;
  for (std::size_t i = 0; i < routes.size(); ++i) {
    if (!present[i]) continue;
    live.push_back(routes[i]);
    failed += !agent.installed(routes[i]);
  }
  s->verify(live);
  j["churn"] = {{"ops", c.ops},
                {"seconds", seconds},
                {"ops_per_second", seconds > 0 ? c.ops / seconds : 0},
                {"mismatches", s->figures().verifyMismatches},
                {"failed", failed}};
  emit(j, c);
  return 0;
}

void writeFillSvg(Session& s, const std::string& path) {
  std::ofstream out(path);
  if (!out) inputError({path, "cannot write the file"});
  std::vector<std::string> rows;
  for (bool v6 : {false, true}) {
    for (const auto& t : s.figures().family[v6].tables)
      rows.push_back(std::string(v6 ? "IPv6" : "IPv4") + " table " + std::to_string(t.tableId) + " tread " +
                     std::to_string(t.tread) + "|" + std::to_string(double(t.occupied) / t.depth));
    for (const auto& n : s.figures().family[v6].nhi)
      rows.push_back(std::string(v6 ? "IPv6" : "IPv4") + " NHI tile " + std::to_string(n.tile) + "|" +
                     std::to_string(double(n.used) / n.entries));
  }
  const int h = 22 * static_cast<int>(rows.size()) + 40;
  out << "<svg xmlns='http://www.w3.org/2000/svg' width='760' height='" << h << "' font-family='sans-serif' font-size='12'>\n"
      << "<text x='10' y='20' font-size='14'>Fill after programming (" << s.profile().name << " profile)</text>\n";
  int y = 40;
  for (const std::string& row : rows) {
    const auto bar = row.find('|');
    const double fill = std::stod(row.substr(bar + 1));
    out << "<text x='10' y='" << y + 12 << "'>" << row.substr(0, bar) << "</text>"
        << "<rect x='220' y='" << y << "' width='400' height='16' fill='#eee'/>"
        << "<rect x='220' y='" << y << "' width='" << 400 * fill << "' height='16' fill='#3a7'/>"
        << "<text x='630' y='" << y + 12 << "'>" << static_cast<int>(fill * 1000) / 10.0 << "%</text>\n";
    y += 22;
  }
  out << "</svg>\n";
}

int cmdShow(const Common& c) {
  RouteSet set;
  auto s = programmed(c, set);
  auto& agent = s->agent();
  std::fflush(stdout);
  if (c.what == "fill") {
    if (c.svg.empty()) inputError({"--svg", "show fill needs --svg FILE"});
    writeFillSvg(*s, c.svg);
    return 0;
  }
  for (bool v6 : {false, true}) {
    if (s->figures().family[v6].requested == 0 && c.what != "nexthop") continue;
    const auto& sm = *agent.family(v6).sm;
    if (c.what == "summary") {
      sm.showSoftwareSummary(1);
    } else if (c.what == "prefix-tables" || c.what == "subtries" || c.what == "nhi-tiles") {
      dprintf(1, "[");
      if (c.what == "prefix-tables") sm.printPrefixTables(1);
      if (c.what == "subtries") sm.printSubTrieInfo(1);
      if (c.what == "nhi-tiles") sm.printNhiTiles(1);
      dprintf(1, "]\n");
    }
  }
  if (c.what == "summary" || c.what == "nexthop") agent.nextHopSm()->showSoftwareSummary(1);
  if (c.what == "nexthop") {
    for (const auto& [group, block] : agent.nextHopStatus()->swIdToNextHopBlockMap())
      dprintf(1, " group %llu: base %u, %u entries\n", static_cast<unsigned long long>(group.value()),
              block.base().value(), block.size().value());
  }
  return 0;
}

int cmdProfileList() {
  std::printf("%-10s %-14s %-14s %s\n", "name", "IPv4 entries", "IPv6 entries", "description");
  for (const auto& p : XpXdk::builtinChipProfiles())
    std::printf("%-10s %-14llu %-14llu %s\n", p.name.c_str(), static_cast<unsigned long long>(p.prefixTableEntries(false)),
                static_cast<unsigned long long>(p.prefixTableEntries(true)), p.description.c_str());
  return 0;
}

int cmdProfileShow(const std::string& name, bool asJson) {
  InputError e;
  auto p = loadProfile(name, &e);
  if (!p) inputError(e);
  if (asJson) {
    std::cout << profileJson(*p) << "\n";
    return 0;
  }
  std::printf("profile %s: %s\n", p->name.c_str(), p->description.c_str());
  for (bool v6 : {false, true}) {
    const auto& ctx = v6 ? p->ipv6 : p->ipv4;
    std::printf("%s: key %u bits, %llu entries, %.1f Mbit; NHI %u tiles x %u entries, %u pairs per entry, %u-bit base\n",
                v6 ? "IPv6" : "IPv4", ctx.keyLength, static_cast<unsigned long long>(p->prefixTableEntries(v6)),
                p->prefixTableBits(v6) / 1e6, __builtin_popcount(ctx.nhiTileBitmap[0]),
                ctx.nhiTableSize / std::max(1, __builtin_popcount(ctx.nhiTileBitmap[0])), ctx.nhiPairPerEntry,
                ctx.nhiBlockBaseWidth);
    std::printf("  %-4s %-6s %-8s %-6s %s\n", "id", "tread", "depth", "width", "hash");
    for (U32 id = 0; id < XpXdk::xpLpmTableContext::kPrefixTables; ++id) {
      const auto& t = ctx.prefixTableContext[id];
      if (t.valid) std::printf("  %-4u %-6u %-8u %-6u %u\n", id, t.tread, t.depth, t.sramWidth, t.hashSelector);
    }
  }
  std::printf("next-hop table: %u entries\n", p->nextHop.rowBlkInc);
  return 0;
}

void addCommon(CLI::App* app, Common& c) {
  app->add_option("--family", c.family, "ipv4 or ipv6 (default: from the file)")->check(CLI::IsMember({"ipv4", "ipv6"}));
  app->add_option("--routes", c.routes, "route file, plain or .gz (default: the shipped real table)");
  app->add_option("--profile", c.profile, "built-in profile name or FILE.json (default: reference)");
  app->add_option("--nexthop-groups", c.groups, "next-hop groups the next hops fold onto")->check(CLI::Range(1u, 65535u));
  app->add_flag("--verify", c.verify, "probe every route and --probes random addresses against a brute-force LPM");
  app->add_option("--probes", c.probes, "random addresses probed by --verify (default 1000000)");
  app->add_flag("--json", c.json, "one JSON document on standard output");
  app->add_option("--trace", c.trace, "trace level 0-9")->check(CLI::Range(0, 9));
  app->add_option("--trace-file", c.traceFile, "where traces go (default: standard error)");
  app->add_option("--seed", c.seed, "seed of random probes and churn");
  app->add_flag("--skip-bad-lines", c.skipBad, "report bad route lines and program the rest");
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"xplpm: longest-prefix-match route tables on a simulated Xp chip"};
  app.require_subcommand(1);
  Common c;
  auto* run = app.add_subcommand("run", "program a route table from empty and report");
  auto* restart = app.add_subcommand("restart", "program, restart the agent over the same chip, reconcile, report");
  auto* churn = app.add_subcommand("churn", "program, then apply random withdrawals, next-hop changes and resizes");
  auto* show = app.add_subcommand("show", "program, then print summary|prefix-tables|subtries|nhi-tiles|nexthop|fill");
  auto* profile = app.add_subcommand("profile", "the built-in chip profiles");
  for (auto* sub : {run, restart, churn, show}) addCommon(sub, c);
  churn->add_option("--ops", c.ops, "operations of churn (default 100000)");
  show->add_option("what", c.what, "what to show")
      ->required()
      ->check(CLI::IsMember({"summary", "prefix-tables", "subtries", "nhi-tiles", "nexthop", "fill"}));
  show->add_option("--svg", c.svg, "with fill: the SVG file to write");
  profile->require_subcommand(1);
  auto* plist = profile->add_subcommand("list", "list the built-in profiles");
  std::string showName;
  bool profileJsonOut = false;
  auto* pshow = profile->add_subcommand("show", "show one profile's tables");
  pshow->add_option("name", showName, "profile name or FILE.json")->required();
  pshow->add_flag("--json", profileJsonOut, "as a JSON profile");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "xplpm: %s\n", e.what());
    return 2;
  }
  std::ofstream traceOut;
  if (c.trace >= 0) {
    if (!c.traceFile.empty()) {
      traceOut.open(c.traceFile);
      if (!traceOut) inputError({c.traceFile, "cannot write the trace file"});
      XpLib::Trace::sinkIs([&](int, std::string_view line) { traceOut << line << '\n'; });
    }
    XpLib::Trace::levelIs(c.trace);
  }
  if (*run) return cmdRun(c);
  if (*restart) return cmdRestart(c);
  if (*churn) return cmdChurn(c);
  if (*show) return cmdShow(c);
  if (*plist) return cmdProfileList();
  return cmdProfileShow(showName, profileJsonOut);
}
