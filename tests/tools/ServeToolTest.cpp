// `xplpm serve` and `xplpm fpm-send` as processes: a table streamed and answered,
// malformed frames and reconnects, a warm restart across processes through the
// state file, and the inputs it refuses before programming anything.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "fpm/FpmSocket.h"
#include "fpm/FpmWire.h"
#include "support/ToolProcess.h"

namespace {

using nlohmann::json;
using namespace xplpm_test;

// A few hundred routes of both families, some in VRF 3 (table 3).
std::string mixedRoutes() {
  std::string text = realLines(200) + realLines(100, "routes-v6.txt.gz");
  for (int i = 0; i < 20; ++i) text += "172.16." + std::to_string(i) + ".0/24 " + std::to_string(i) + " 3\n";
  return text;
}

json sendJson(const std::string& listen, const std::string& routes, const std::string& more = "") {
  const Result r = run("fpm-send --json --wait 20 --connect " + listen + " --routes " + routes + more);
  EXPECT_EQ(r.status, 0) << r.err;
  return jsonOf(r);
}

json stopAndReport(Background& serve, const std::string& report, int status = 0) {
  EXPECT_EQ(serve.stop(SIGTERM), status) << serve.err();
  return json::parse(readFile(report), nullptr, false);
}

TEST(ServeToolTest, StreamsBothFamiliesInBothStylesAndAnswersEveryRoute) {
  const std::string routes = writeFile("routes.txt", mixedRoutes());
  for (const char* style : {"objects", "multipath"}) {
    SCOPED_TRACE(style);
    const std::string report = scratch(std::string(style) + ".json"), fib = scratch(std::string(style) + ".fib");
    Background serve(tool("serve --fpm-listen 127.0.0.1:0 --json-out " + report + " --fib-out " + fib +
                         " --verify --probes 20000 --reconcile-after 0.2"), style);
    const std::string listen = serve.listening();
    ASSERT_FALSE(listen.empty()) << serve.err();
    const json sent = sendJson(listen, routes, std::string(" --style ") + style);
    EXPECT_EQ(sent["routes"], 320);
    EXPECT_EQ(sent["answers"]["offloaded"], 320);
    EXPECT_TRUE(sent["complete"].get<bool>());
    const json j = stopAndReport(serve, report);
    EXPECT_EQ(j["schema"], 1);
    EXPECT_EQ(j["routes"]["ipv4"]["installed"], 220);
    EXPECT_EQ(j["routes"]["ipv6"]["installed"], 100);
    EXPECT_EQ(j["routes"]["failed"], 0);
    EXPECT_EQ(j["messages"]["malformed"], 0);
    EXPECT_EQ(j["verify"]["mismatches"], 0);
    EXPECT_GT(j["verify"]["probes"].get<long>(), 20000);
    long groups = 0;  // sets of 1 to 4 paths, in each family
    for (const auto& [width, n] : j["groups"]["widths"].items()) {
      EXPECT_TRUE(width >= "1" && width <= "4") << width;
      groups += n.get<long>();
    }
    EXPECT_EQ(j["groups"]["count"], groups);
    EXPECT_GT(groups, 16);
    const std::string lines = readFile(fib);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 320);
    EXPECT_NE(lines.find("3 172.16.5.0/24 installed 198.18.0.21@2,198.18.0.22@3\n"), std::string::npos);
  }
}

TEST(ServeToolTest, MalformedFramesAreLoggedAndAReconnectReplacesTheTable) {
  const std::string report = scratch("report.json"), fib = scratch("fib.txt");
  Background serve(tool("serve --profile small --fpm-listen 127.0.0.1:0 --json-out " + report + " --fib-out " + fib +
                       " --reconcile-after 600"),
                   "serve");
  const std::string listen = serve.listening();
  ASSERT_FALSE(listen.empty()) << serve.err();
  {  // a frame of version 9 after 4 good bytes of frame: the stream cannot be followed
    std::string why;
    xplpm::fpm::Connection peer(xplpm::fpm::connectTo(*xplpm::fpm::parseEndpoint(listen, why), why));
    ASSERT_TRUE(peer.queue(std::string("\x01\x01\x00\x04", 4) + std::string("\x09\x01\x00\x10garbage!garbage!", 20)));
    ASSERT_TRUE(peer.flush(why));
    ASSERT_TRUE(serve.waitFor("offset 4: FPM frame of version 9")) << serve.err();
    ASSERT_TRUE(serve.waitFor("the stream cannot be followed")) << serve.err();
  }
  const std::string lines = realLines(150);
  const std::string first = writeFile("first.txt", lines.substr(0, lines.find("\n", lines.size() / 3 * 2) + 1));
  const std::string second = writeFile("second.txt", lines.substr(lines.find("\n", lines.size() / 3) + 1));
  sendJson(listen, first);
  sendJson(listen, second);
  // Reconciled on demand once both connections are answered: a quiet period would race with
  // the second sender's start on a slow (sanitized) build.
  serve.signal(SIGUSR2);
  ASSERT_TRUE(serve.waitFor("reconciled (SIGUSR2)")) << serve.err();
  serve.signal(SIGUSR1);  // the report, while it runs
  ASSERT_TRUE(std::ifstream(report).good() || (usleep(300000), std::ifstream(report).good()));
  const json j = stopAndReport(serve, report);
  EXPECT_EQ(j["messages"]["malformed"], 1);
  EXPECT_EQ(j["messages"]["connections"], 3);
  const std::string kept = readFile(fib), resent = readFile(second);
  EXPECT_EQ(j["routes"]["current"].get<long>(), std::count(kept.begin(), kept.end(), '\n'));
  EXPECT_EQ(j["routes"]["current"].get<long>(), std::count(resent.begin(), resent.end(), '\n'));
  EXPECT_GT(j["restart"]["reconcile"]["withdrawn"].get<long>(), 0);  // the routes only the first connection sent
}

TEST(ServeToolTest, WarmRestartAcrossProcessesWritesOnlyWhatChanged) {
  const std::string state = scratch("chip.state"), report = scratch("report.json");
  std::remove(state.c_str());  // left by an earlier run
  std::string lines = realLines(300);
  const std::string table = writeFile("table.txt", lines);
  // 10 next hops changed (another set), the last 5 routes gone.
  std::string changedLines;
  std::istringstream in(lines);
  int n = 0;
  for (std::string line; std::getline(in, line) && n < 295; ++n) {
    const auto space = line.find(' ');
    // The next set over: fpm-send folds next hops onto 16 sets by their number.
    if (n % 29 == 0 && n / 29 < 10) line = line.substr(0, space) + " " + std::to_string(std::stoul(line.substr(space + 1)) + 1);
    changedLines += line + "\n";
  }
  const std::string changed = writeFile("changed.txt", changedLines);
  const std::string args = "serve --fpm-listen 127.0.0.1:0 --reconcile-after 0.3 --verify --probes 10000 --state " + state +
                           " --json-out " + report;
  struct Step {
    const std::string& routes;
    bool warm;
    long kept, changed, withdrawn;
  };
  for (const Step& step : {Step{table, false, 0, 0, 0}, Step{table, true, 300, 0, 0}, Step{changed, true, 285, 10, 5}}) {
    SCOPED_TRACE(step.warm ? "warm" : "cold");
    Background serve(tool(args), "serve");
    const std::string listen = serve.listening();
    ASSERT_FALSE(listen.empty()) << serve.err();
    // After a warm start the resent routes are answered at reconciliation, which the quiet
    // period after the last route brings while the sender waits for its answers.
    sendJson(listen, step.routes);
    if (step.warm) {
      ASSERT_TRUE(serve.waitFor("reconciled (quiet)")) << serve.err();
    }
    const json j = stopAndReport(serve, report);
    const json& rs = j["restart"];
    EXPECT_EQ(rs["warm"], step.warm);
    EXPECT_EQ(j["verify"]["mismatches"], 0);
    if (!step.warm) continue;
    EXPECT_EQ(rs["routes_recovered"], 300);
    EXPECT_EQ(rs["reconcile"]["kept"], step.kept);
    EXPECT_EQ(rs["reconcile"]["changed"], step.changed);
    EXPECT_EQ(rs["reconcile"]["withdrawn"], step.withdrawn);
    if (step.changed == 0) {
      EXPECT_EQ(rs["writes"], 0) << rs.dump();
    }
    if (step.changed > 0) {
      EXPECT_GE(rs["writes_by_kind"]["prefix"].get<long>(), step.changed);
    }
  }
}

TEST(ServeToolTest, BadStateFilesAndOptionsStopItBeforeAnythingIsProgrammed) {
  const std::string saved = scratch("small.state");
  std::remove(saved.c_str());
  {
    Background serve(tool("serve --profile small --fpm-listen 127.0.0.1:0 --state " + saved), "saver");
    const std::string listen = serve.listening();
    ASSERT_FALSE(listen.empty()) << serve.err();
    sendJson(listen, writeFile("routes.txt", realLines(20)));
    ASSERT_EQ(serve.stop(), 0) << serve.err();
  }
  const std::string bytes = readFile(saved);
  std::string flipped = bytes;
  flipped[bytes.size() / 2] ^= 1;
  struct Case {
    std::string args, says;
  };
  const std::string any = "--fpm-listen 127.0.0.1:0 ";
  const std::vector<Case> cases = {
      {any + "--profile small --state " + writeFile("cut.state", bytes.substr(0, bytes.size() - 9)), "truncated"},
      {any + "--profile small --state " + writeFile("flip.state", flipped), "checksum mismatch"},
      {any + "--profile small --state " + writeFile("other.state", std::string("XPLPMCHP\x02\0\0\0", 12) + std::string(20, '\0')),
       "state file version 2"},
      {any + "--profile small --state " + writeFile("foreign.state", "not a state file at all\n"), "not an xplpm state file"},
      {any + "--profile reference --state " + saved, "saved for a chip of another geometry (profile 'small')"},
      {any + "--vrf 100=7 --vrf 200=7", "tables 100 and 200 both map to VRF 7"},
      {any + "--vrf 100", "is not TABLE=VRF"},
      {"--fpm-listen 127.0.0.1", "is not ADDR:PORT"},
      {any + "--json-out /nonexistent/report.json", "cannot be written"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args);
    const Result r = run("serve " + c.args);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("listening"), std::string::npos) << r.err;
  }
}

}  // namespace
