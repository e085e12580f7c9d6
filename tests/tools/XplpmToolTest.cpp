// The xplpm tool run as a process: its figures, its exit statuses, and its
// answers to bad input.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "support/ToolProcess.h"

namespace {

using nlohmann::json;
using namespace xplpm_test;

std::string writeGz(const std::string& name, const std::string& text, std::size_t keep = std::string::npos) {
  const std::string path = scratch(name);
  gzFile f = gzopen(path.c_str(), "wb");
  gzwrite(f, text.data(), static_cast<unsigned>(text.size()));
  gzclose(f);
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

TEST(XplpmToolTest, GzipBgpdumpAndStandardInputReadTheSameRoutes) {
  Result mixed = run("run --profile small --routes " + writeGz("routes.txt.gz", kRoutes) + " --json");
  ASSERT_EQ(mixed.status, 0) << mixed.err;
  EXPECT_EQ(jsonOf(mixed)["family"], "mixed");
  EXPECT_EQ(jsonOf(mixed)["routes"]["installed"], 6);
  Result piped = run("run --profile small --routes - --json < " + writeGz("stdin.txt.gz", kRoutes));
  ASSERT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(jsonOf(piped)["commands"]["digest"], jsonOf(mixed)["commands"]["digest"]);
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
  Result r = run("restart --changes 300 --seed 7 --verify --probes 2000 --json --routes " + file);
  ASSERT_EQ(r.status, 0) << r.err;
  const json rs = jsonOf(r)["restart"];
  EXPECT_TRUE(rs["model_equal"].get<bool>());
  EXPECT_EQ(rs["replay_writes"], 0);
  EXPECT_EQ(rs["reconcile"]["kept"], 3000);
  const json& ch = rs["changes"];
  EXPECT_EQ(ch["next_hop"].get<int>() + ch["withdrawn"].get<int>() + ch["added"].get<int>(), 300);
  EXPECT_EQ(rs["wanted"].get<int>(), 3000 - ch["withdrawn"].get<int>() + ch["added"].get<int>());
  EXPECT_EQ(jsonOf(r)["verify"]["mismatches"], 0);
  Result c = run("churn --ops 3000 --seed 7 --json --routes " + file);
  ASSERT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(jsonOf(c)["churn"]["mismatches"], 0);
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
  std::ifstream in(svg);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(text.find("</svg>"), std::string::npos);
  // A built-in profile written out and read back programs the same command stream.
  const std::string saved = writeFile("saved-profile.json", run("profile show reference --json").out);
  Result builtin = run("run --json --routes " + file), reread = run("run --json --profile " + saved + " --routes " + file);
  ASSERT_EQ(reread.status, 0) << reread.err;
  EXPECT_EQ(jsonOf(builtin)["commands"]["digest"], jsonOf(reread)["commands"]["digest"]);
  EXPECT_EQ(run("--version").out, "xplpm " XPLPM_VERSION "\n");
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
      {"truncated gzip", "--routes " + writeGz("b5.txt.gz", std::string(kRoutes) + std::string(4000, '#'), 40), "b5.txt.gz:"},
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

}  // namespace
