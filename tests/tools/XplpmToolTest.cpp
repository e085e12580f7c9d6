// The xplpm tool run as a process: its JSON figures, its answers to bad input,
// and the determinism of its command stream.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using nlohmann::json;

struct Result {
  int status = -1;
  std::string out, err;
};

// Runs the tool with `args`; standard error goes to a file that is read back.
Result run(const std::string& args) {
  const std::string errFile = ::testing::TempDir() + "xplpm_stderr.txt";
  const std::string cmd = std::string(XPLPM_TOOL) + " " + args + " 2>" + errFile;
  Result r;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  std::ifstream e(errFile);
  r.err.assign(std::istreambuf_iterator<char>(e), {});
  return r;
}

std::string writeFile(const std::string& name, const std::string& text) {
  const std::string path = ::testing::TempDir() + name;
  std::ofstream(path) << text;
  return path;
}

std::string writeGz(const std::string& name, const std::string& text, std::size_t keep = std::string::npos) {
  const std::string path = ::testing::TempDir() + name;
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

TEST(XplpmToolTest, RunReportsWhatTheLibraryDid) {
  const std::string file = writeFile("routes.txt", kRoutes);
  Result r = run("run --profile small --family ipv4 --routes " + file + " --verify --probes 2000 --json");
  ASSERT_EQ(r.status, 0) << r.err;
  json j = json::parse(r.out);
  EXPECT_EQ(j["family"], "ipv4");
  EXPECT_EQ(j["routes"]["requested"], 4);
  EXPECT_EQ(j["routes"]["installed"], 4);
  EXPECT_EQ(j["routes"]["failed"], 0);
  EXPECT_EQ(j["verify"]["mismatches"], 0);
  EXPECT_EQ(j["verify"]["probes"], 4 * 2 + 2000);
  EXPECT_EQ(j["nhi"]["overlaps"], 0);

  unsigned long long prefixes = 0;
  for (const auto& t : j["tables"]) prefixes += t["prefixes"].get<unsigned long long>();
  EXPECT_EQ(prefixes, 4u);
  // Every command is either written or skipped as identical.
  EXPECT_EQ(j["hardware"]["writes"].get<long>() + j["hardware"]["skipped"].get<long>(),
            j["commands"]["prefix"].get<long>() + j["commands"]["nhi"].get<long>());
  for (const char* key : {"program", "yardstick", "memory", "commands"}) EXPECT_TRUE(j.contains(key)) << key;
}

TEST(XplpmToolTest, MixedFamiliesGzipAndBgpdumpInput) {
  Result mixed = run("run --profile small --routes " + writeGz("routes.txt.gz", kRoutes) + " --json");
  ASSERT_EQ(mixed.status, 0) << mixed.err;
  EXPECT_EQ(json::parse(mixed.out)["family"], "mixed");
  EXPECT_EQ(json::parse(mixed.out)["routes"]["installed"], 6);
  Result v6 = run("run --profile small --family ipv6 --routes " + writeGz("routes6.txt.gz", kRoutes) + " --json");
  ASSERT_EQ(v6.status, 0) << v6.err;
  EXPECT_EQ(json::parse(v6.out)["routes"]["requested"], 2);
  const std::string bgp = writeFile("rib.txt",
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.0.0.0/8|64500 3356 15169|IGP\n"
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|10.0.0.0/8|64500 174 {15169,15170}|IGP\n"
                                    "TABLE_DUMP2|1700000000|B|192.0.2.1|64500|2001:db8::/32|64500 6939|IGP\n");
  Result b = run("run --profile small --routes " + bgp + " --json");
  ASSERT_EQ(b.status, 0) << b.err;
  json j = json::parse(b.out);
  EXPECT_EQ(j["routes"]["requested"], 2);
  EXPECT_EQ(j["routes"]["duplicates"], 1);
}

TEST(XplpmToolTest, EqualRunsGiveEqualDigests) {
  const std::string file = writeFile("routes-digest.txt", kRoutes);
  Result a = run("run --profile small --routes " + file + " --json");
  Result b = run("run --profile small --routes " + file + " --json");
  ASSERT_EQ(a.status, 0);
  ASSERT_EQ(b.status, 0);
  EXPECT_EQ(json::parse(a.out)["commands"]["digest"], json::parse(b.out)["commands"]["digest"]);
}

TEST(XplpmToolTest, RestartChurnAndShow) {
  const std::string file = writeFile("routes-rcs.txt", kRoutes);
  Result r = run("restart --profile small --routes " + file + " --verify --probes 100 --json");
  ASSERT_EQ(r.status, 0) << r.err;
  json j = json::parse(r.out);
  EXPECT_EQ(j["restart"]["routes_recovered"], 6);
  EXPECT_EQ(j["restart"]["model_equal"], true);
  EXPECT_EQ(j["restart"]["replay_writes"], 0);
  EXPECT_EQ(j["verify"]["mismatches"], 0);
  Result c = run("churn --profile small --routes " + file + " --ops 2000 --json");
  ASSERT_EQ(c.status, 0) << c.err;
  EXPECT_EQ(json::parse(c.out)["churn"]["mismatches"], 0);
  EXPECT_EQ(json::parse(c.out)["churn"]["ops"], 2000);
  Result s = run("show summary --profile small --routes " + file);
  ASSERT_EQ(s.status, 0) << s.err;
  EXPECT_NE(s.out.find("IPv4 Lpm Summary"), std::string::npos) << s.out;
  EXPECT_NE(s.out.find("Nexthop block summary"), std::string::npos) << s.out;
  Result t = run("show prefix-tables --profile small --family ipv4 --routes " + file);
  ASSERT_EQ(t.status, 0);
  EXPECT_EQ(t.out.rfind("[{'prefixTblId':", 0), 0u) << t.out;
  const std::string svg = ::testing::TempDir() + "fill.svg";
  ASSERT_EQ(run("show fill --svg " + svg + " --profile small --routes " + file).status, 0);
  std::ifstream in(svg);
  std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(text.rfind("<svg", 0), 0u);
  EXPECT_EQ(run("profile list").status, 0);
  Result ps = run("profile show reference --json");
  ASSERT_EQ(ps.status, 0);
  // A profile written out reads back as a profile.
  const std::string saved = writeFile("saved-profile.json", ps.out);
  EXPECT_EQ(run("profile show " + saved).status, 0);
}

TEST(XplpmToolTest, BadInputIsAnErrorNotACrash) {
  struct Case {
    const char* name;
    std::string args;
    const char* message;
  } cases[] = {
      {"bad prefix", "--routes " + writeFile("b1.txt", "10.0.0.0/8 1\n10.0.0/8 2\n"), "b1.txt:2: bad IPv4 prefix"},
      {"host bits", "--routes " + writeFile("b2.txt", "10.1.1.0/16 1\n"), "b2.txt:1: bad IPv4 prefix"},
      {"bad number", "--routes " + writeFile("b3.txt", "10.0.0.0/8 x\n"), "b3.txt:1: next hop 'x'"},
      {"bad vrf", "--routes " + writeFile("b4.txt", "10.0.0.0/8 1 70000\n"), "b4.txt:1: VRF"},
      {"truncated gzip", "--routes " + writeGz("b5.txt.gz", std::string(kRoutes) + std::string(4000, '#'), 40),
       "b5.txt.gz:"},
      {"missing file", "--routes /nonexistent/routes.txt", "/nonexistent/routes.txt: cannot open"},
      {"unknown profile", "--profile nosuch", "--profile: unknown profile"},
      {"unknown family", "--family ipx", "--family"},
      {"profile field out of range",
       "--profile " + writeFile("p1.json", R"({"ipv4":{"vrfIdWidth":16,"keyLength":48,"prefixTables":[{"id":0,"depth":64,"sramWidth":256,"tread":16,"hashSelector":7}],"nhiPairPerEntry":8,"nhiBlockBaseWidth":12,"nhiTiles":1}})"),
       "hashSelector"},
      {"profile missing context", "--profile " + writeFile("p2.json", R"({"name":"x"})"), "ipv4: missing context"},
      {"profile not json", "--profile " + writeFile("p3.json", "{"), "not valid JSON"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Result r = run("run " + c.args);
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_NE(r.err.find("xplpm:"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Failed("), std::string::npos) << r.err;
  }
  // With --skip-bad-lines the good lines are programmed and the bad ones counted.
  Result skip = run("run --profile small --skip-bad-lines --json --routes " +
                    writeFile("b6.txt", "10.0.0.0/8 1\nnonsense\n10.1.0.0/16 2\n"));
  ASSERT_EQ(skip.status, 0) << skip.err;
  EXPECT_EQ(json::parse(skip.out)["routes"]["installed"], 2);
  EXPECT_EQ(json::parse(skip.out)["routes"]["bad_lines"], 1);
}

}  // namespace
