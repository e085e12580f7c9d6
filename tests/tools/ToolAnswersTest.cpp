// The tool's answers in process: lookups checked against a longest match of the test's own,
// and capacity's headroom checked by programming it.
#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>

#include "Capacity.h"
#include "Lookup.h"
#include "Session.h"
#include "support/RouteTables.h"

namespace {

using namespace xplpm;
using nlohmann::json;
using XpLib::Agent::Route;

// Real routes of both families and, so that matches nest, covering routes on other next hops:
// the /16 and /8 of every 40th IPv4 route, the /32 of every 40th IPv6 route.
std::vector<Route> nestedRoutes(std::size_t v4, std::size_t v6) {
  std::vector<Route> routes;
  for (bool ipv6 : {false, true}) {
    const auto& real = xplpm_test::realRoutes(ipv6);
    for (std::size_t i = 0; i < (ipv6 ? v6 : v4); ++i) routes.push_back(real[i * 37 % real.size()]);
  }
  const std::size_t specific = routes.size();
  std::set<std::string> covered;  // one route per prefix: a second would be a next-hop change
  for (const Route& r : routes) covered.insert(r.prefixStr());
  for (std::size_t i = 0; i < specific; i += 40) {
    for (int len : {8, 16, 32}) {
      Route cover = routes[i];
      cover.nextHop += 1000 + len;
      if (!cover.ipv6 && len < cover.v4.len()) {
        cover.v4 = XpLib::Prefix(cover.v4.address() & XpLib::Prefix::mask(static_cast<XpLib::U8>(len)), static_cast<XpLib::U8>(len));
      } else if (cover.ipv6 && len == 32 && cover.v6.len() > 32) {
        XpLib::Ip6Prefix::Bytes a = cover.v6.address();
        std::fill(a.begin() + 4, a.end(), 0);
        cover.v6 = XpLib::Ip6Prefix(a, 32);
      } else {
        continue;
      }
      if (covered.insert(cover.prefixStr()).second) routes.push_back(cover);
    }
  }
  return routes;
}

bool covers(const Route& r, const Route& address) {
  if (r.ipv6 != address.ipv6 || r.vrf != address.vrf) return false;
  if (!r.ipv6) return r.v4.contains(address.v4.address());
  for (int bit = 0; bit < r.v6.len(); ++bit)
    if (((r.v6.address()[bit / 8] ^ address.v6.address()[bit / 8]) >> (7 - bit % 8)) & 1) return false;
  return true;
}

// The longest route holding the address, by brute force.
std::optional<Route> longestMatch(const std::vector<Route>& routes, const Route& address) {
  std::optional<Route> best;
  for (const Route& r : routes) {
    const int len = r.ipv6 ? r.v6.len() : r.v4.len();
    if (covers(r, address) && (!best || len > (best->ipv6 ? best->v6.len() : best->v4.len()))) best = r;
  }
  return best;
}

std::string addressText(const Route& a) {
  return a.ipv6 ? XpLib::Ip6Prefix::addressStr(a.v6.address()) : a.v4.str().substr(0, a.v4.str().find('/'));
}

// An address: inside a random route (which a longer one may hold), or anywhere in its family.
Route randomAddress(const std::vector<Route>& routes, std::mt19937_64& rng) {
  const Route& r = routes[rng() % routes.size()];
  const bool inside = rng() % 5 != 0;
  Route a = r;
  if (r.ipv6) {
    a.v6 = XpLib::Ip6Prefix(XpLib::Agent::randomAddressIn(inside ? r.v6 : XpLib::Ip6Prefix(), rng), 128);
  } else {
    a.v4 = XpLib::Prefix(inside ? XpLib::Agent::randomAddressIn(r.v4, rng) : static_cast<XpLib::U32>(rng()), 32);
  }
  return a;
}

TEST(ToolAnswersTest, LookupsAgreeWithChipAndAnIndependentLongestMatch) {
  const std::vector<Route> routes = nestedRoutes(3000, 1500);
  Session s(*XpXdk::findChipProfile("reference"), RunOptions{});
  s.program(routes);
  ASSERT_EQ(s.figures().programmed.failed(), 0u);
  XpLib::Agent::XpLpmAgent& agent = s.agent();
  const XpLib::Agent::Forwarding check(agent);
  const std::uint64_t seed = 20240614;
  std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
  std::mt19937_64 rng(seed);
  int hits = 0;
  for (int i = 0; i < 10000; ++i) {
    const Route a = randomAddress(routes, rng);
    const json j = lookupJson(agent, &check, parseQuery(0, addressText(a)));
    SCOPED_TRACE(j.dump());
    const std::optional<Route> want = longestMatch(routes, a);
    ASSERT_EQ(j["reference"]["hit"], want.has_value());
    ASSERT_EQ(j["chip"]["hit"], want.has_value());
    EXPECT_TRUE(j["agree"].get<bool>());
    if (!want) continue;
    ++hits;
    const XpLib::Agent::NextHopBlock block = agent.groupBlock(agent.groupOf(*want));
    const std::uint64_t selector = a.ipv6 ? a.v6.address()[15] : a.v4.address();
    const json& chip = j["chip"];
    EXPECT_EQ(j["reference"]["prefix"], want->prefixStr());
    EXPECT_EQ(chip["prefix"], want->prefixStr());
    EXPECT_EQ(chip["group"], agent.groupOf(*want).value());
    EXPECT_EQ(chip["next_hop_block"], json({{"base", block.base().value()}, {"size", block.size().value()}}));
    EXPECT_EQ(chip["member"], selector % block.size().value());
    EXPECT_EQ(chip["next_hop_entry"], json({{"group", chip["group"]}, {"member", chip["member"]}}));
    // The chip's entry, slot and NHI pair are where the model placed the matching route.
    const json where = lookupJson(agent, &check, parseQuery(0, want->prefixStr()));
    const json& st = where["subtrie"];
    const unsigned pairs = (a.ipv6 ? agent.profile().ipv6 : agent.profile().ipv4).nhiPairPerEntry;
    EXPECT_EQ(json({chip["table"], chip["index"], chip["slot"], chip["nhi"]["tile"], chip["nhi"]["entry"], chip["nhi"]["pair"]}),
              json({st["table"], st["index"], where["slot"], st["nhi"]["tile"],
                    st["nhi"]["offset"].get<unsigned>() + where["slot"].get<unsigned>() / pairs,
                    where["slot"].get<unsigned>() % pairs}));
  }
  EXPECT_GT(hits, 7000);
  // Prefixes: each installed one is found in the slot its sub-trie reports.
  for (int i = 0; i < 300; ++i) {
    const Route& r = routes[rng() % routes.size()];
    const json j = lookupJson(agent, &check, parseQuery(r.vrf, r.prefixStr()));
    ASSERT_EQ(j["state"], "installed") << j.dump();
    bool found = false;
    for (const json& p : j["subtrie"]["prefixes"]) found = found || (p["slot"] == j["slot"] && p["prefix"] == r.prefixStr());
    EXPECT_TRUE(found) << j.dump();
  }
  EXPECT_EQ(lookupJson(agent, &check, parseQuery(9, routes[0].prefixStr()))["state"], "not requested");
}

// "Available" is replayed on a fresh chip: the table and exactly that many routes of each
// family's mix fit and forward, and the next route of the mix fails with the code the report
// names, so the figure neither overstates nor understates for its mix and seed.
TEST(ToolAnswersTest, CapacityAvailableRoutesFitAndTheNextOneFails) {
  std::vector<Route> table;
  for (bool ipv6 : {false, true})
    for (std::size_t i = 0; i < 30; ++i) table.push_back(xplpm_test::realRoutes(ipv6)[i * 7919 % xplpm_test::realRoutes(ipv6).size()]);
  const XpXdk::xpChipProfile& small = *XpXdk::findChipProfile("small");
  for (const std::uint64_t seed : {1u, 2u, 3u}) {
    Session measured(small, RunOptions{});
    measured.program(table);
    ASSERT_EQ(measured.figures().programmed.failed(), 0u);
    const CapacityResult cap = measureCapacity(measured, table, CapacityOptions{seed, 1.0, {}});
    std::printf("seed %llu: available ipv4 %llu (%s), ipv6 %llu (%s)\n", static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(cap.family[0].beforeFirstFailure.value_or(0)), cap.family[0].failureCode.c_str(),
                static_cast<unsigned long long>(cap.family[1].beforeFirstFailure.value_or(0)), cap.family[1].failureCode.c_str());
    RunOptions checked;
    checked.probes = 20000;  // beside a probe of every route
    Session fresh(small, checked);
    fresh.program(table);
    std::vector<Route> wanted = table;
    for (bool v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "ipv6" : "ipv4");
      const FamilyCapacity& f = cap.family[v6];
      ASSERT_TRUE(f.beforeFirstFailure.has_value());
      ASSERT_TRUE(f.ranOut.has_value()) << f.failureCode;
      EXPECT_EQ(f.ranOut->ipv6 || f.ranOut->shared, v6 || f.ranOut->shared);
      EXPECT_GE(*f.beforeFailureRate, *f.beforeFirstFailure);
      RouteMix mix(table, v6, seed);
      for (U64 i = 0; i < *f.beforeFirstFailure; ++i) {
        const std::optional<Route> r = mix.next(fresh.agent());
        ASSERT_TRUE(r && r->prefixStr() == f.addedRoutes[i].prefixStr() && r->vrf == f.addedRoutes[i].vrf) << i;
        ASSERT_TRUE(fresh.agent().routeIs(*r).installed()) << r->prefixStr();
        wanted.push_back(*r);
      }
      const std::optional<Route> next = mix.next(fresh.agent());
      ASSERT_TRUE(next.has_value());
      EXPECT_EQ(f.failedRoute.substr(0, f.failedRoute.find(' ')), next->prefixStr());
      EXPECT_EQ(fresh.agent().routeIs(*next).code(), f.failureCode);
      fresh.agent().routeDel(*next);
    }
    fresh.verify(wanted);
    EXPECT_EQ(fresh.figures().verifyMismatches, 0u);
  }
}

}  // namespace
