// `xplpm serve` fed by a real FRR: zebra with dplane_fpm_nl and staticd, with their
// own configuration, sockets and pid files in a scratch folder, inside a network
// namespace of the test's own (each test is a process of its own under CTest). A few
// hundred static routes of both families, with ECMP, a blackhole and a reject route,
// must reach the chip exactly as zebra's RIB has them, forward correctly, follow
// withdrawals and next-hop changes, survive serve's restarts with nothing written
// for an unchanged table, and fail visibly when they do not fit. No VRF here: zebra
// 8.4 sends only the main table's routes over FPM, and other VRFs need VRF devices,
// which this kernel lacks (the tool's own tests map tables to VRFs). Where FRR is
// missing or namespaces are refused the tests skip, saying why. They take seconds
// each, so CTest labels them frr and the sanitizer run leaves them out.
//
// FRR 8.4's dplane_fpm_nl reads what the FPM server sends and discards it, so the
// offload answers cannot show in `show ip route json` (whose entries carry "offloaded"
// and "trapped" only when a kernel data plane sets them): the tests check that zebra
// read the answers and that nothing it shows contradicts them.
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "support/ToolProcess.h"

namespace {

using nlohmann::json;
using namespace xplpm_test;

constexpr const char* kZebra = "/usr/lib/frr/zebra";
constexpr const char* kStaticd = "/usr/lib/frr/staticd";
constexpr int kPolls = 150;  // of 200 ms: what FRR and serve get to settle, on a loaded machine too

// Left out of the comparisons: zebra keeps one per link and tells the data plane of whichever
// it met last, not of the one it selects.
constexpr const char* kLinkLocal = "fe80::/64";

using Rib = std::map<std::string, std::string>;

bool sh(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

// Next hops as one comparable text: sorted, comma-separated.
std::string sorted(std::vector<std::string> each) {
  std::sort(each.begin(), each.end());
  std::string text;
  for (const auto& s : each) text += (text.empty() ? "" : ",") + s;
  return text;
}

// The static routes: /24s over three next-hop sets (one path, two paths, another path) for IPv4,
// /48s for IPv6, and blackhole and reject routes.
std::string staticRoutes(int v4, int v6) {
  std::string conf;
  const char* v4Sets[3][2] = {{"192.0.2.1", nullptr}, {"192.0.2.1", "198.51.100.1"}, {"198.51.100.2", nullptr}};
  const char* v6Sets[3][2] = {{"2001:db8:ff::1", nullptr}, {"2001:db8:ff::1", "2001:db8:fe::1"}, {"2001:db8:fe::2", nullptr}};
  for (int i = 0; i < v4; ++i)
    for (const char* hop : v4Sets[i % 3])
      if (hop) conf += "ip route 10." + std::to_string(i / 100) + "." + std::to_string(i % 100) + ".0/24 " + hop + "\n";
  char prefix[64];
  for (int i = 0; i < v6; ++i) {
    std::snprintf(prefix, sizeof prefix, "2001:db8:%x::/48", 0x1000 + i);
    for (const char* hop : v6Sets[i % 3])
      if (hop) conf += std::string("ipv6 route ") + prefix + " " + hop + "\n";
  }
  return conf + "ip route 10.250.0.0/24 blackhole\nip route 10.250.1.0/24 reject\nipv6 route 2001:db8:dead::/48 blackhole\n";
}

// zebra and staticd in this process's own network namespace, on two veth links.
class FrrLab {
 public:
  // Why FRR cannot run here, or "" once the test is in a network namespace of its own.
  static std::string isolate() {
    for (const char* program : {kZebra, kStaticd, "/usr/bin/vtysh"})
      if (access(program, X_OK) != 0) return std::string(program) + " is missing: scripts/setup.sh installs FRR";
    if (!getpwnam("frr")) return "no user frr: scripts/setup.sh installs FRR";
    if (unshare(CLONE_NEWNET) != 0)
      return std::string("network namespaces are not permitted here (unshare: ") + std::strerror(errno) + ")";
    return sh("ip link set lo up") ? "" : "the namespace's loopback does not come up";
  }

  explicit FrrLab(const std::string& statics) : dir_(scratch("frr")) {
    sh("rm -rf " + dir_);
    EXPECT_TRUE(sh("mkdir -p " + dir_ + "/run"));
    writeFile("frr/zebra.conf", "hostname lab\nfpm address 127.0.0.1 port 2620\n");
    writeFile("frr/staticd.conf", statics);
    // The daemons drop to user frr and group frrvty: their folder must be theirs.
    const passwd* frr = getpwnam("frr");
    const group* vty = getgrnam("frrvty");
    EXPECT_TRUE(sh("chown -R " + std::to_string(frr->pw_uid) + ":" + std::to_string(vty ? vty->gr_gid : frr->pw_gid) +
                   " " + dir_));
    for (const char* link : {"e0", "e1"})
      EXPECT_TRUE(sh(std::string("ip link add ") + link + " type veth peer name " + link + "p && ip link set " + link +
                     " addrgenmode none && ip link set " + link + " up && ip link set " + link + "p up"));
    EXPECT_TRUE(sh("ip addr add 192.0.2.254/24 dev e0 && ip addr add 198.51.100.254/24 dev e1"));
    EXPECT_TRUE(sh("ip addr add 2001:db8:ff::fe/64 dev e0 nodad && ip addr add 2001:db8:fe::fe/64 dev e1 nodad"));
    const std::string common = " -z " + dir_ + "/run/zserv.api --vty_socket " + dir_ + "/run -P 0";
    zebra_ = std::make_unique<Background>(
        std::string(kZebra) + " -f " + dir_ + "/zebra.conf -i " + dir_ + "/run/zebra.pid" + common + " -M dplane_fpm_nl",
        "zebra");
    for (int i = 0; i < kPolls && !sh("vtysh --vty_socket " + dir_ + "/run -c 'show version'"); ++i) usleep(200000);
    staticd_ = std::make_unique<Background>(
        std::string(kStaticd) + " -f " + dir_ + "/staticd.conf -i " + dir_ + "/run/staticd.pid" + common, "staticd");
  }
  ~FrrLab() {
    if (staticd_) staticd_->stop();
    if (zebra_) zebra_->stop();
  }

  std::string vtysh(const std::string& commands) {
    FILE* p = popen(("vtysh --vty_socket " + dir_ + "/run " + commands + " 2>&1").c_str(), "r");
    std::string out;
    char buf[4096];
    for (std::size_t n; p && (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p) pclose(p);
    return out;
  }
  json show(const std::string& what) { return json::parse(vtysh("-c '" + what + "'"), nullptr, false); }
  // Configuration lines, as `configure terminal` takes them.
  void configure(const std::vector<std::string>& lines) {
    std::string commands = "-c 'configure terminal'";
    for (const auto& line : lines) commands += " -c '" + line + "'";
    vtysh(commands);
  }

  // Prefix -> next hops of every route zebra has selected and installed, as serve's FIB file
  // writes them, but for fe80::/64 (see kLinkLocal).
  Rib rib() {
    Rib out;
    for (const char* family : {"ip", "ipv6"}) {
      const json routes = show(std::string("show ") + family + " route json");
      for (const auto& [prefix, entries] : routes.items()) {
        if (prefix == kLinkLocal) continue;
        for (const auto& e : entries)
          if (e.value("selected", false) && e.value("installed", false)) out[prefix] = hops(e["nexthops"]);
      }
    }
    return out;
  }
  // Prefixes zebra shows offloaded.
  std::vector<std::string> offloaded() {
    std::vector<std::string> out;
    for (const char* family : {"ip", "ipv6"}) {
      const json routes = show(std::string("show ") + family + " route json");
      for (const auto& [prefix, entries] : routes.items())
        for (const auto& e : entries)
          if (e.value("offloaded", false)) out.push_back(prefix);
    }
    return out;
  }
  unsigned long long fpmBytesRead() { return show("show fpm counters json").value("bytes-read", 0ull); }

 private:
  static std::string hops(const json& nexthops) {
    std::vector<std::string> each;
    for (const auto& h : nexthops) {
      if (!h.value("fib", false)) continue;
      if (h.value("blackhole", false)) {
        each.push_back("blackhole");
      } else if (h.value("reject", false)) {
        each.push_back("unreachable");
      } else {
        each.push_back(h.value("ip", "") + "@" + std::to_string(h.value("interfaceIndex", 0)));
      }
    }
    return sorted(each);
  }

  std::string dir_;
  std::unique_ptr<Background> zebra_, staticd_;
};

// serve's routes as its FIB file has them: prefix (as "VRF:prefix" outside VRF 0) -> sorted next
// hops, failed ones as "!CODE".
Rib fib(const std::string& path) {
  Rib out;
  std::istringstream in(readFile(path));
  for (std::string vrf, prefix, state, hops; in >> vrf >> prefix >> state >> hops;) {
    std::vector<std::string> each;
    for (std::istringstream list(hops); std::getline(list, hops, ',');) each.push_back(hops);
    out[vrf == "0" ? prefix : vrf + ":" + prefix] = state == "installed" ? sorted(each) : "!" + state;
  }
  return out;
}

// Asks serve for its files until `done` holds of its FIB.
bool until(Background& serve, const std::string& fibPath, const std::function<bool(const Rib&)>& done) {
  for (int i = 0; i < kPolls; ++i) {
    serve.signal(SIGUSR1);
    usleep(200000);
    if (done(fib(fibPath))) return true;
  }
  return false;
}

class FrrServeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const std::string why = FrrLab::isolate(); !why.empty()) GTEST_SKIP() << why;
    fib_ = scratch("fib.txt");
    report_ = scratch("report.json");
    std::remove(fib_.c_str());
  }
  std::string serveArgs(const std::string& more) {
    return "serve --fpm-listen 127.0.0.1:2620 --reconcile-after 1 --verify --probes 20000 --fib-out " + fib_ +
           " --json-out " + report_ + " " + more;
  }
  // Waits until serve holds every route of zebra's RIB with the same next hops; returns them.
  Rib expectSameAsZebra(FrrLab& frr, Background& serve, std::size_t atLeast) {
    Rib zebra;
    for (int i = 0; i < kPolls && (zebra = frr.rib()).size() < atLeast; ++i) usleep(200000);
    EXPECT_GE(zebra.size(), atLeast) << "zebra did not install the static routes";
    const auto comparable = [](Rib ours) {
      ours.erase(kLinkLocal);
      return ours;
    };
    EXPECT_TRUE(until(serve, fib_, [&](const Rib& ours) { return comparable(ours) == zebra; })) << serve.err();
    const Rib ours = comparable(fib(fib_));
    for (const auto& [prefix, hops] : zebra)
      EXPECT_EQ(ours.count(prefix) ? ours.at(prefix) : "(missing)", hops) << prefix;
    EXPECT_EQ(ours.size(), zebra.size());
    return ours;
  }
  json stop(Background& serve, int status) {
    EXPECT_EQ(serve.stop(), status) << serve.err();
    return json::parse(readFile(report_), nullptr, false);
  }
  std::string fib_, report_;
};

// Made in FRR: 2 withdrawals, a next-hop change (IPv4: withdrawn and replaced) and a new route.
const std::vector<std::string> kChanges = {
    "no ip route 10.0.3.0/24 192.0.2.1", "no ipv6 route 2001:db8:1003::/48 2001:db8:ff::1",
    "no ip route 10.0.6.0/24 192.0.2.1", "ip route 10.0.6.0/24 198.51.100.7", "ip route 10.251.0.0/16 192.0.2.9"};

TEST_F(FrrServeTest, StaticRoutesReachTheChipAsInZebrasRibAndFollowItsChanges) {
  Background serve(tool(serveArgs("")), "serve");
  ASSERT_FALSE(serve.listening().empty()) << serve.err();
  FrrLab frr(staticRoutes(150, 100));
  expectSameAsZebra(frr, serve, 250);
  std::vector<std::string> changes = kChanges;
  changes.push_back("ip route 10.251.0.0/16 198.51.100.9");  // the new route with ECMP
  frr.configure(changes);
  const Rib ours = expectSameAsZebra(frr, serve, 250);
  EXPECT_FALSE(ours.count("10.0.3.0/24"));
  EXPECT_FALSE(ours.count("2001:db8:1003::/48"));
  EXPECT_EQ(ours.at("10.0.6.0/24").rfind("198.51.100.7@", 0), 0u) << ours.at("10.0.6.0/24");
  EXPECT_EQ(std::count(ours.at("10.251.0.0/16").begin(), ours.at("10.251.0.0/16").end(), '@'), 2);
  EXPECT_GT(frr.fpmBytesRead(), 0u);  // zebra read the answers
  for (const std::string& prefix : frr.offloaded())
    EXPECT_TRUE(ours.count(prefix) && ours.at(prefix)[0] != '!') << prefix << " shown offloaded";
  const json j = stop(serve, 0);
  EXPECT_EQ(j["routes"]["failed"], 0);
  EXPECT_EQ(j["groups"]["widths"]["2"], 3) << j["groups"].dump();  // one group per distinct ECMP set
  EXPECT_EQ(j["verify"]["mismatches"], 0);
  EXPECT_EQ(j["messages"]["malformed"], 0);
  EXPECT_GE(j["messages"]["feedback"]["offloaded"].get<long>(), j["routes"]["installed"].get<long>());
}

TEST_F(FrrServeTest, ServeRestartsWarmWritingNothingForAnUnchangedTableThenOnlyWhatChanged) {
  const std::string state = scratch("chip.state");
  std::remove(state.c_str());
  FrrLab frr(staticRoutes(90, 60));
  json j;
  {
    Background serve(tool(serveArgs("--state " + state)), "serve1");
    expectSameAsZebra(frr, serve, 150);
    j = stop(serve, 0);
  }
  const long routes = j["routes"]["current"].get<long>();
  {  // zebra connects again within seconds and resends everything: nothing to write
    Background serve(tool(serveArgs("--state " + state)), "serve2");
    ASSERT_TRUE(serve.waitFor("reconciled (quiet)", 60)) << serve.err();
    j = stop(serve, 0);
    EXPECT_TRUE(j["restart"]["warm"].get<bool>());
    EXPECT_EQ(j["restart"]["routes_recovered"], routes);
    EXPECT_EQ(j["restart"]["reconcile"]["kept"], routes);
    EXPECT_EQ(j["restart"]["writes"], 0) << j["restart"].dump();
    EXPECT_EQ(j["hardware"]["writes"], 0);
  }
  frr.configure(kChanges);  // while serve is down
  Background serve(tool(serveArgs("--state " + state)), "serve3");
  ASSERT_TRUE(serve.waitFor("reconciled (quiet)", 60)) << serve.err();
  expectSameAsZebra(frr, serve, 150);
  j = stop(serve, 0);
  const json& rc = j["restart"]["reconcile"];
  EXPECT_EQ(rc["withdrawn"], 2);
  EXPECT_EQ(rc["changed"], 1);
  EXPECT_EQ(rc["added"], 1);
  EXPECT_EQ(rc["kept"], routes - 3);
  // Each changed or new route rewrites its sub-trie's entry; each withdrawal clears or rewrites one.
  EXPECT_GE(j["restart"]["writes_by_kind"]["prefix"].get<long>(), 2);
  EXPECT_LE(j["restart"]["writes_by_kind"]["prefix"].get<long>(), 4 * 2);
  EXPECT_EQ(j["verify"]["mismatches"], 0);
}

TEST_F(FrrServeTest, ARouteThatDoesNotFitIsReportedFailedToTheReportAndToZebra) {
  // The small profile with every prefix table 2 entries deep.
  json tiny = jsonOf(run("profile show small --json"));
  for (const char* family : {"ipv4", "ipv6"})
    for (auto& t : tiny[family]["prefixTables"]) t["depth"] = 2;
  tiny["name"] = "tiny";
  const std::string profile = writeFile("tiny.json", tiny.dump());
  Background serve(tool(serveArgs("--profile " + profile)), "serve");
  ASSERT_FALSE(serve.listening().empty()) << serve.err();
  FrrLab frr(staticRoutes(150, 100));
  EXPECT_TRUE(until(serve, fib_, [](const Rib& ours) { return ours.size() >= 250; }));
  const Rib ours = fib(fib_);
  const long failed = std::count_if(ours.begin(), ours.end(), [](const auto& r) { return r.second[0] == '!'; });
  EXPECT_GT(failed, 0);
  EXPECT_GT(frr.fpmBytesRead(), 0u);
  const json j = stop(serve, 3);  // exit 3: routes not placed
  EXPECT_EQ(j["routes"]["failed"], failed);
  EXPECT_GE(j["messages"]["feedback"]["failed"].get<long>(), failed);
  EXPECT_EQ(j["verify"]["mismatches"], 0);
}

}  // namespace
