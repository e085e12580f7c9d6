// The xplpm tool run as a process: its figures, its exit statuses, and its
// answers to bad input.
#include <gtest/gtest.h>
#include <archive.h>
#include <archive_entry.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "support/ToolProcess.h"

namespace {

using nlohmann::json;
using namespace xplpm_test;

// The text compressed by libarchive's filter (ARCHIVE_FILTER_GZIP, _BZIP2, _XZ), cut to `keep` bytes.
std::string writeCompressed(const std::string& name, const std::string& text, int filter,
                            std::size_t keep = std::string::npos) {
  const std::string path = scratch(name);
  archive* a = archive_write_new();
  archive_write_add_filter(a, filter);
  archive_write_set_format_raw(a);
  archive_write_open_filename(a, path.c_str());
  archive_entry* entry = archive_entry_new();
  archive_entry_set_filetype(entry, AE_IFREG);
  archive_write_header(a, entry);
  archive_write_data(a, text.data(), text.size());
  archive_entry_free(entry);
  archive_write_free(a);
  if (keep != std::string::npos) {  // cut the compressed file short
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    std::ofstream(path, std::ios::binary) << bytes.substr(0, keep);
  }
  return path;
}

const char* kRoutes =
    "# a few routes of both families\n"
    "10.0.0.0/8 100\n"
    "10.1.0.0/16 200\n"
    "10.1.2.0/24 300 1\n"
    "192.168.0.0/16 100\n"
    "2001:db8::/32 65001\n"
    "2001:db8:1::/48 65002\n";

TEST(XplpmToolTest, RunAccountsForEveryLineAndVerifies) {
  const std::string file = writeFile("routes.txt", std::string(kRoutes) + "10.1.0.0/16 201\n");
  Result r = run("run --profile small --family ipv4 --routes " + file + " --verify --probes 2000 --json");
  ASSERT_EQ(r.status, 0) << r.err;
  json j = jsonOf(r);
  const json& routes = j["routes"];
  EXPECT_EQ(routes["installed"], 4);
  EXPECT_EQ(routes["failed"], 0);
  EXPECT_EQ(routes["lines"].get<int>(), routes["requested"].get<int>() + routes["duplicates"].get<int>() +
                                            routes["other_family"].get<int>() + routes["bad_lines"].get<int>() +
                                            routes["blank_lines"].get<int>());
  EXPECT_EQ(j["verify"]["mismatches"], 0);
  EXPECT_EQ(j["hardware"]["errors"], 0);
  EXPECT_EQ(j["nhi"]["overlaps"], 0);
  EXPECT_GT(j["nhi"]["reserve"]["ipv4"]["entries"].get<long>(), 0);
  EXPECT_GE(j["nhi"]["reserve"]["ipv4"]["free"].get<long>(), j["nhi"]["reserve"]["ipv4"]["entries"].get<long>());
  unsigned long long prefixes = 0;
  for (const auto& t : j["tables"]) prefixes += t["prefixes"].get<unsigned long long>();
  EXPECT_EQ(prefixes, 4u);
}

// The command streams of the shipped tables, pinned: a change to the library, the agent or the
// writer that alters what reaches the chip (or the order) shows here, whatever it was meant to do.
TEST(XplpmToolTest, ShippedTablesGiveThePinnedCommandStreams) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the whole tables take minutes under the sanitizers; the optimised run pins them";
#endif
  struct Case {
    const char* table;
    const char* filing;
    const char* digest;
  } cases[] = {{"routes-v4.txt.gz", "first", "f9f0d018d51c681a"},
               {"routes-v6.txt.gz", "first", "7df4894c992a3da9"},
               {"routes-v4.txt.gz", "own", "9d3a0ac140e63f51"},
               {"routes-v6.txt.gz", "own", "c49cadc81534bdd4"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.table) + " " + c.filing);
    Result r = run(std::string("run --json --nhi-filing ") + c.filing + " --routes " + XPLPM_DATA_DIR + "/" + c.table);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["commands"]["digest"], c.digest);
  }
}

TEST(XplpmToolTest, CompressedBgpdumpAndStandardInputReadTheSameRoutes) {
  Result plain = run("run --profile small --routes " + writeFile("routes.txt", kRoutes) + " --json");
  ASSERT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(jsonOf(plain)["family"], "mixed");
  EXPECT_EQ(jsonOf(plain)["routes"]["installed"], 6);
  struct Case {
    const char* name;
    int filter;
    bool piped;
  } cases[] = {{"routes.txt.gz", ARCHIVE_FILTER_GZIP, false}, {"routes.txt.bz2", ARCHIVE_FILTER_BZIP2, false},
               {"routes.txt.xz", ARCHIVE_FILTER_XZ, false},   {"stdin.bz2", ARCHIVE_FILTER_BZIP2, true},
               {"stdin.txt", ARCHIVE_FILTER_NONE, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = writeCompressed(c.name, kRoutes, c.filter);
    Result r = run("run --profile small --json --routes " + (c.piped ? "- < " + file : file));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(jsonOf(r)["commands"]["digest"], jsonOf(plain)["commands"]["digest"]);
    EXPECT_EQ(jsonOf(r)["input"], c.piped ? "standard input" : file);
  }
  // The peer originated the third route itself: its empty path names the peer's AS.
  const std::string bgp = writeFile("rib.txt",
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.0.0.0/8|64500 3356 15169|IGP\n"
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.0.0.0/8|64500 174 {15169,15170}|IGP\n"
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.2.0.0/16||IGP\n"
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|2001:db8::/32|64500 6939|IGP\n");
  Result b = run("run --profile small --routes " + bgp + " --json");
  ASSERT_EQ(b.status, 0) << b.err;
  EXPECT_EQ(jsonOf(b)["routes"]["requested"], 3);
  EXPECT_EQ(jsonOf(b)["routes"]["duplicates"], 1);
  // Updates after the dump: the chip ends with what the replay leaves, and forwards it.
  const std::string updates = writeCompressed(
      "updates.bz2",
      "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.0.0.0/8|64500 3356 15169|IGP\n"
      "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.9.0.0/16|64500 7|IGP\n"
      "BGP4MP|1700000001|A|192.0.2.1|64500|10.1.0.0/16|64500 9|IGP|192.0.2.1|0|0||NAG||\n"
      "BGP4MP|1700000002|W|192.0.2.1|64500|10.9.0.0/16\n"
      "BGP4MP|1700000003|A|192.0.2.1|64500|2001:db8::/32|64500 6939|IGP|2001:db8::1|0|0||NAG||\n"
      "BGP4MP|1700000004|A|192.0.2.1|64500|10.0.0.0/8|64500 1299|IGP|192.0.2.1|0|0||NAG||\n",
      ARCHIVE_FILTER_BZIP2);
  Result u = run("run --profile small --verify --probes 2000 --json --routes " + updates);
  ASSERT_EQ(u.status, 0) << u.err;
  const json ur = jsonOf(u)["routes"];
  EXPECT_EQ(ur["installed"], 3);
  EXPECT_EQ(ur["withdrawn"], 1);
  EXPECT_EQ(ur["replayed"], 6);
  EXPECT_EQ(ur["lines"], ur["requested"].get<int>() + ur["withdrawn"].get<int>() + ur["duplicates"].get<int>() +
                             ur["withdrawals"].get<int>());
  EXPECT_EQ(jsonOf(u)["verify"]["mismatches"], 0);
  // The withdrawn /16 is gone from the chip, its addresses fall to the /8, which follows its new path.
  Result l = run("lookup --profile small --json --routes " + updates + " 10.9.0.0/16 10.0.0.0/8 10.9.1.1");
  ASSERT_EQ(l.status, 0) << l.err;
  const json answers = jsonOf(l)["lookup"]["answers"];
  EXPECT_EQ(answers[0]["state"], "not requested");
  EXPECT_EQ(answers[1]["group"], 1299 % 256);
  EXPECT_EQ(answers[2]["chip"]["prefix"], "10.0.0.0/8");
  EXPECT_EQ(answers[2]["chip"]["group"], 1299 % 256);
}

// Every failed route is counted under its own outcome: before, all went under the
// code of the last insertion, which here succeeds ("pass").
TEST(XplpmToolTest, FailuresAreCountedPerRoute) {
  const std::string routes = writeFile("overflow.txt", realLines(2000) + "192.0.2.0/24 3 3\n");
  Result shown = run("profile show small --json");
  json half = json::parse(shown.out);
  for (const char* family : {"ipv4", "ipv6"})
    for (auto& t : half[family]["prefixTables"]) t["depth"] = t["depth"].get<int>() / 2;
  for (const std::string& profile : {std::string("small"), writeFile("half.json", half.dump())}) {
    SCOPED_TRACE(profile);
    Result r = run("run --allow-failed --json --profile " + profile + " --routes " + routes);
    ASSERT_EQ(r.status, 0) << r.err;
    const json rs = jsonOf(r)["routes"];
    long byCode = 0, byLength = 0;
    for (const auto& [code, n] : rs["failures_by_code"].items()) {
      EXPECT_NE(code, "pass");
      EXPECT_NE(code, "installed");
      byCode += n.get<long>();
    }
    for (const auto& l : rs["failures_by_length"]) byLength += l["failed"].get<long>();
    EXPECT_GT(rs["failed"].get<long>(), 0);
    EXPECT_EQ(byCode, rs["failed"].get<long>());
    EXPECT_EQ(byLength, rs["failed"].get<long>());
    EXPECT_GE(rs["failures_by_code"].size(), 2u) << rs.dump();
  }
}

TEST(XplpmToolTest, ExitStatusTellsWhatHappened) {
  const std::string fits = writeFile("fits.txt", kRoutes);
  const std::string overflow = writeFile("overflow2.txt", realLines(1000));
  const std::string real = writeFile("real20k.txt", realLines(20000));
  struct Case {
    const char* name;
    std::string args;
    int status;
  } cases[] = {
      {"all placed", "run --profile small --routes " + fits, 0},
      {"routes did not fit", "run --profile small --routes " + overflow, 3},
      {"not fitting allowed", "run --profile small --allow-failed --routes " + overflow, 0},
      {"churn leaves routes out", "churn --ops 500 --profile small --routes " + overflow, 3},
      {"restart keeps them out", "restart --profile small --routes " + overflow, 3},
      {"bad input", "run --profile small --routes " + writeFile("bad.txt", "10.0.0/8 1\n"), 2},
      // The library's plain NHI filing corrupts untouched routes on the first changes after a
      // warm restart of a multi-tile chip; verification must see it.
      {"corruption found", "restart --nhi-filing first --changes 200 --seed 1 --verify --probes 1000 --routes " + real, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Result r = run(c.args);
    EXPECT_EQ(r.status, c.status) << r.out.substr(r.out.size() > 400 ? r.out.size() - 400 : 0) << r.err;
    if (c.status != 2) {
      EXPECT_EQ(r.out.rfind("xplpm " + c.args.substr(0, c.args.find(' ')) + ":", 0), 0u) << r.out.substr(0, 80);
      EXPECT_NE(r.out.find("result     exit " + std::to_string(c.status)), std::string::npos);
    }
  }
}

TEST(XplpmToolTest, RestartWithChangesAndChurnForwardExactly) {
  const std::string file = writeFile("real3k.txt", realLines(3000));
  std::printf("seed 7\n");
  Result r = run("restart --changes 300 --seed 7 --verify --probes 2000 --check --json --routes " + file);
  ASSERT_EQ(r.status, 0) << r.err;
  const json rs = jsonOf(r)["restart"];
  // The whole-model check walked every route the machine holds after the changes.
  EXPECT_EQ(jsonOf(r)["check"]["ipv4"]["routes"], rs["wanted"].get<int>() - rs["failed"].get<int>());
  EXPECT_EQ(jsonOf(r)["check"]["ipv4"]["routes_stale"], 0);
  EXPECT_TRUE(rs["model_equal"].get<bool>());
  EXPECT_EQ(rs["replay_writes"], 0);
  EXPECT_EQ(rs["reconcile"]["kept"], 3000);
  const json& ch = rs["changes"];
  EXPECT_EQ(ch["next_hop"].get<int>() + ch["withdrawn"].get<int>() + ch["added"].get<int>(), 300);
  EXPECT_EQ(rs["wanted"].get<int>(), 3000 - ch["withdrawn"].get<int>() + ch["added"].get<int>());
  EXPECT_EQ(jsonOf(r)["verify"]["mismatches"], 0);
  Result c = run("churn --ops 3000 --seed 7 --check --json --routes " + file);
  ASSERT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(jsonOf(c)["churn"]["mismatches"], 0);
  EXPECT_EQ(jsonOf(c)["check"]["ipv4"]["routes"], jsonOf(c)["churn"]["live"].get<int>() - jsonOf(c)["churn"]["failed"].get<int>());
  int kinds = 0;
  const json byKind = jsonOf(c)["churn"]["by_kind"];
  for (const auto& [kind, k] : byKind.items()) kinds += k["ops"].get<int>();
  EXPECT_EQ(kinds, 3000);
}

// The chart's text, after xmllint found it well-formed.
std::string wellFormedSvg(const std::string& path) {
  EXPECT_EQ(std::system(("xmllint --noout " + path).c_str()), 0) << path;
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), {});
}

TEST(XplpmToolTest, ShowAndProfileCommands) {
  const std::string file = writeFile("routes-show.txt", kRoutes);
  // Next hops 100, 200, 300, 100, 65001 and 65002 fold onto 5 of 256 groups.
  Result nh = run("show nexthop --profile small --routes " + file);
  ASSERT_EQ(nh.status, 0) << nh.err;
  std::size_t groups = 0;
  for (std::size_t at = 0; (at = nh.out.find(" group ", at)) != std::string::npos; ++at) ++groups;
  EXPECT_EQ(groups, 5u) << nh.out;
  const std::string svg = scratch("fill.svg");
  ASSERT_EQ(run("show fill --svg " + svg + " --profile small --routes " + file).status, 0);
  const std::string text = wellFormedSvg(svg);
  for (const char* figure : {"IPv4: 4 routes requested, 4 installed, 0 failed", "IPv6: 2 routes requested", "Fullest: "})
    EXPECT_NE(text.find(figure), std::string::npos) << figure;
  // A built-in profile written out and read back programs the same command stream.
  const std::string saved = writeFile("saved-profile.json", run("profile show reference --json").out);
  Result builtin = run("run --json --routes " + file), reread = run("run --json --profile " + saved + " --routes " + file);
  ASSERT_EQ(reread.status, 0) << reread.err;
  EXPECT_EQ(jsonOf(builtin)["commands"]["digest"], jsonOf(reread)["commands"]["digest"]);
  EXPECT_EQ(run("--version").out, "xplpm " XPLPM_VERSION "\n");
}

// Records of a JSON-lines answer: the header first, the end record last, each line parsed.
std::vector<json> jsonLines(const Result& r) {
  std::vector<json> records;
  std::istringstream in(r.out);
  for (std::string line; std::getline(in, line);) records.push_back(json::parse(line, nullptr, false));
  return records;
}

// Every show answer in JSON parses, carries the header, and the views agree with each other
// and with what was programmed: each route sits in one sub-trie and points at its group's
// block, and the tiles count the entries the sub-tries' NHI blocks take.
TEST(XplpmToolTest, ShowJsonCarriesTheModel) {
  const std::string args = " --profile small --routes " + writeFile("routes-json.txt", kRoutes);
  std::map<std::string, json> docs;
  for (const char* what : {"summary", "prefix-tables", "subtries", "nhi-tiles", "nexthop"}) {
    SCOPED_TRACE(what);
    Result r = run(std::string("show ") + what + " --json" + args);
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = jsonOf(r);
    ASSERT_FALSE(j.is_discarded()) << r.out.substr(0, 400);
    EXPECT_EQ(j["schema"], 1);
    EXPECT_EQ(j["tool"]["version"], XPLPM_VERSION);
    EXPECT_EQ(j["what"], what);
    docs[what] = j;
    const std::vector<json> lines = jsonLines(run(std::string("show ") + what + " --json-lines" + args));
    ASSERT_FALSE(lines.empty());
    for (const json& line : lines) EXPECT_FALSE(line.is_discarded());
    EXPECT_EQ(lines.front()["schema"], 1);
    if (std::string(what) != "summary") {
      EXPECT_EQ(lines.back()["end"]["records"], lines.size() - 2);
    }
  }
  EXPECT_EQ(docs["summary"]["summary"]["ipv4"]["routes"], 4);
  EXPECT_EQ(docs["summary"]["summary"]["ipv6"]["routes"], 2);
  std::map<unsigned long, json> groupBlock;
  for (const json& g : docs["nexthop"]["groups"]) groupBlock[g["group"]] = g["block"];
  EXPECT_EQ(groupBlock.size(), 5u);  // next hops 100, 200, 300, 100, 65001, 65002 on 5 of 256 groups
  const std::map<std::string, unsigned long> nextHop{{"0 10.0.0.0/8", 100},       {"0 10.1.0.0/16", 200},
                                                      {"1 10.1.2.0/24", 300},      {"0 192.168.0.0/16", 100},
                                                      {"0 2001:db8::/32", 65001}, {"0 2001:db8:1::/48", 65002}};
  std::map<std::string, unsigned long> found;
  std::map<std::string, unsigned long> blocks;  // "family tile offset" -> size
  for (const json& st : docs["subtries"]["subtries"]) {
    blocks[st["family"].get<std::string>() + " " + st["nhi"]["tile"].dump() + " " + st["nhi"]["offset"].dump()] =
        st["nhi"]["block_size"];
    for (const json& p : st["prefixes"]) {
      const std::string key = p["vrf"].dump() + " " + p["prefix"].get<std::string>();
      ++found[key];
      ASSERT_TRUE(nextHop.count(key)) << key;
      EXPECT_EQ(p["next_hop_block"], groupBlock[nextHop.at(key) % 256]) << key;
    }
  }
  EXPECT_EQ(found.size(), nextHop.size());
  unsigned long tilesUsed = 0, blockEntries = 0, tablePrefixes = 0;
  for (const json& t : docs["nhi-tiles"]["nhi_tiles"]) tilesUsed += t["used"].get<unsigned long>();
  for (const auto& [at, size] : blocks) blockEntries += size;
  for (const json& t : docs["prefix-tables"]["prefix_tables"]) tablePrefixes += t["prefixes"].get<unsigned long>();
  EXPECT_EQ(tilesUsed, blockEntries);
  EXPECT_EQ(tablePrefixes, nextHop.size());
  // One table, and a limit that cuts the list short.
  const json first = docs["subtries"]["subtries"][0];
  const std::vector<json> table = jsonLines(run("show subtries --json-lines --table " + first["table"].dump() + args));
  for (std::size_t i = 1; i + 1 < table.size(); ++i) EXPECT_EQ(table[i]["table"], first["table"]);
  const std::vector<json> one = jsonLines(run("show subtries --json-lines --limit 1" + args));
  ASSERT_EQ(one.size(), 3u);
  EXPECT_EQ(one[1], first);
  EXPECT_TRUE(one[2]["end"]["truncated"].get<bool>());
}

TEST(XplpmToolTest, BadInputIsAnErrorNotACrash) {
  const std::string routes = writeFile("good.txt", kRoutes);
  const std::string profile = run("profile show small --json").out;
  auto mutated = [&](const char* name, const std::string& from, const std::string& to) {
    std::string text = profile;
    text.replace(text.find(from), from.size(), to);
    return "--profile " + writeFile(name, text) + " --routes " + routes;
  };
  struct Case {
    const char* name;
    std::string args;
    const char* message;
    std::string env = "";
  } cases[] = {
      {"bad prefix", "--routes " + writeFile("b1.txt", "10.0.0.0/8 1\n10.0.0/8 2\n"), "b1.txt:2: bad IPv4 prefix"},
      {"truncated gzip", "--routes " + writeCompressed("b5.txt.gz", std::string(kRoutes) + std::string(4000, '#'), ARCHIVE_FILTER_GZIP, 40), "b5.txt.gz:"},
      {"missing file", "--routes /nonexistent/routes.txt", "/nonexistent/routes.txt: cannot open"},
      {"control bytes echoed", "--routes " + writeFile("b7.txt", "10.0.0.0/8\x1b[2J 1\n"), "'10.0.0.0/8\\x1b[2J'"},
      {"empty file", "--routes " + writeFile("b8.txt", ""), "b8.txt: no routes: the input is empty"},
      {"family without routes", "--family ipv6 --routes " + writeFile("b9.txt", "10.0.0.0/8 1\n"), "no ipv6 routes"},
      {"unknown profile", "--profile nosuch", "--profile: unknown profile"},
      {"negative count", "--probes -1", "--probes"},
      {"trace file without a level", "--trace-file /dev/null", "--trace"},
      {"number too large", mutated("p1.json", "\"depth\": 64", "\"depth\": 1e400"), "prefixTables[0].depth: "},
      {"wrong type", mutated("p2.json", "\"tread\": 32", "\"tread\": \"32\""), "prefixTables[0].tread: is the string"},
      {"missing field", mutated("p3.json", "\"keyLength\": 48,", ""), "ipv4.keyLength: missing"},
      {"tile size", mutated("p4.json", "\"nhiEntriesPerTile\": 16384", "\"nhiEntriesPerTile\": 2048"),
       "ipv4.nhiEntriesPerTile: is 2048"},
      {"narrow IPv6 table for long prefixes",
       mutated("p5.json", "\"sramWidth\": 256,\n        \"tread\": 60", "\"sramWidth\": 128,\n        \"tread\": 60"),
       "ipv6.prefixTables[0].sramWidth: a 128-bit entry"},
      {"hash bits of no table", "--routes " + routes, "MAX_LPM_PREFIXTABLE_SRAM_ENTRIES=1", "MAX_LPM_PREFIXTABLE_SRAM_ENTRIES=1"},
      {"NHI block limit", "--routes " + routes, "NHI_MAX_BLOCK_SIZE=1", "NHI_MAX_BLOCK_SIZE=1"},
      {"next-hop block limit", "--routes " + routes, "NH_MAX_BLOCK_SIZE=4", "NH_MAX_BLOCK_SIZE=4"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Result r = run("run " + c.args, c.env);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(r.err.rfind("xplpm: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find('\x1b'), std::string::npos) << r.err;
  }
  Result query = run("lookup --routes " + routes + " 10.0.0.0/8 10.1.2.3/8");
  EXPECT_EQ(query.status, 2);
  EXPECT_EQ(query.out, "");  // checked before anything is programmed
  EXPECT_NE(query.err.find("10.1.2.3/8: not an IPv4 prefix"), std::string::npos) << query.err;
  Result shown = run("profile show nosuch");
  EXPECT_EQ(shown.status, 2);
  EXPECT_NE(shown.err.find("profile show: unknown profile 'nosuch'"), std::string::npos) << shown.err;
  // With --skip-bad-lines the good lines are programmed and the bad ones counted.
  Result skip = run("run --profile small --skip-bad-lines --json --routes " +
                    writeFile("b6.txt", "10.0.0.0/8 1\nnonsense\n10.1.0.0/16 2\n"));
  ASSERT_EQ(skip.status, 0) << skip.err;
  EXPECT_EQ(jsonOf(skip)["routes"]["installed"], 2);
  EXPECT_EQ(jsonOf(skip)["routes"]["bad_lines"], 1);
}

// Capacity as a process: its JSON and its chart carry the same figures, a growth beyond the
// headroom breaks where the headroom ends, and several profiles make one table.
TEST(XplpmToolTest, CapacityReportsHeadroomGrowthAndChart) {
  const std::string file = writeFile("routes-capacity.txt", realLines(40));
  const std::string svg = scratch("capacity.svg");
  Result r = run("capacity --profile small --growth 10,10000 --verify --probes 5000 --json --svg " + svg + " --routes " + file);
  ASSERT_EQ(r.status, 3) << r.err;  // 4,000 more routes do not fit the small profile
  const json doc = jsonOf(r);
  EXPECT_EQ(doc["schema"], 1);
  ASSERT_EQ(doc["profiles"].size(), 1u);
  const json& p = doc["profiles"][0];
  ASSERT_FALSE(p["capacity"].contains("ipv6"));
  EXPECT_EQ(p["verify"]["mismatches"], 0);  // the table and every route added, placed where the chip finds them
  const json& f = p["capacity"]["ipv4"];
  const unsigned available = f["headroom"]["first_failure"];
  EXPECT_GT(available, 4u);
  EXPECT_EQ(f["growth"][0]["fits"], true);
  EXPECT_EQ(f["growth"][1]["fits"], false);
  EXPECT_EQ(f["growth"][1]["breaks_after"], available);
  const json& ranOut = f["first_failure"]["resource"];
  for (const json& row : p["resources"]) {
    SCOPED_TRACE(row.dump());
    const double pct = row["percent"];
    EXPECT_EQ(row["threshold"], pct >= 85 ? "high" : pct >= 70 ? "low" : "ok");
    if (row["kind"] == "routes") {
      EXPECT_EQ(json({row["used"], row["available"]}), json({40, available}));
    }
  }
  const std::string text = wellFormedSvg(svg);
  EXPECT_EQ(text.find("IPv6"), std::string::npos);
  for (const std::string& figure : {"IPv4: 40 routes placed, 0 failed; headroom " + std::to_string(available),
                                   "runs out first: " + ranOut["resource"].get<std::string>(),
                                   f["first_failure"]["code"].get<std::string>(), std::string("does not fit")})
    EXPECT_NE(text.find(figure), std::string::npos) << figure;
  EXPECT_EQ(run("capacity --profile small --growth 10000 --allow-failed --routes " + file).status, 0);
  Result side = run("capacity --profiles small,small --routes " + file);
  ASSERT_EQ(side.status, 0) << side.err;
  EXPECT_TRUE(std::regex_search(side.out, std::regex("\n  profile +small +small\n"))) << side.out;
  EXPECT_TRUE(std::regex_search(side.out, std::regex("\n  ipv4 headroom, first failure +" + std::to_string(available) + " .* " +
                                                     std::to_string(available) + " "))) << side.out;
}

}  // namespace
