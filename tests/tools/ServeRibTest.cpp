// Routes and next hops from FPM as the agent programs them: next-hop sets as groups,
// shared and released, zebra's order of objects, next-hop changes, VRFs, replace
// semantics, answers, and a warm start that writes nothing for an unchanged table.
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdlib>
#include <sstream>

#include "ServeRib.h"
#include "agent/CountingPort.h"
#include "agent/Forwarding.h"
#include "agent/SimulatedChip.h"

namespace {

using namespace xplpm;
using XpLib::Agent::Forwarding;
using XpLib::Agent::Route;
using XpLib::Agent::XpLpmAgent;

fpm::NextHopPath gw(std::uint8_t last, std::uint32_t ifindex) {
  fpm::NextHopPath p;
  p.family = AF_INET;
  p.gateway = {192, 0, 2, last};
  p.ifindex = ifindex;
  return p;
}

fpm::NextHopMessage object(std::uint32_t id, fpm::NextHopPath p) {
  fpm::NextHopMessage m;
  m.id = id;
  m.path = p;
  return m;
}

fpm::NextHopMessage group(std::uint32_t id, std::vector<std::uint32_t> members) {
  fpm::NextHopMessage m;
  m.id = id;
  for (auto member : members) m.group.push_back({member, 1});
  return m;
}

// 10.N.0.0/16 in `table`, naming object `nhId` (0: none).
fpm::RouteMessage route(std::uint8_t n, std::uint32_t nhId, std::uint32_t table = RT_TABLE_MAIN) {
  fpm::RouteMessage m;
  m.dst = {10, n};
  m.len = 16;
  m.table = table;
  m.type = RTN_UNICAST;
  if (nhId) m.nhId = nhId;
  return m;
}

Route agentRoute(std::uint8_t n, std::uint32_t vrf = 0) {
  Route r;
  r.vrf = vrf;
  r.v4 = XpLib::Prefix((10u << 24) | (U32(n) << 16), 16);
  return r;
}

// Whether the chip forwards the first, last and some middle address of 10.N/16 as the agent's model says.
bool forwards(const XpLpmAgent& agent, std::uint8_t n) {
  const Forwarding check(agent);
  const U32 base = (10u << 24) | (U32(n) << 16);
  for (U32 offset : {0u, 1u, 777u, 0xFFFFu})
    if (!check.correct(0, base + offset)) return false;
  return true;
}

struct Fixture {
  Fixture() : agent(*XpXdk::findChipProfile("small")), rib(agent, {}) { rib.newEpoch(); }
  std::string fib() {
    std::ostringstream out;
    rib.writeFib(out);
    return out.str();
  }
  XpLpmAgent agent;
  ServeRib rib;
};

TEST(ServeRibTest, IdenticalSetsShareAGroupReleasedWithItsLastRoute) {
  Fixture f;
  for (std::uint32_t id = 1; id <= 3; ++id) f.rib.nextHop(object(id, gw(static_cast<std::uint8_t>(id), 1 + id)));
  f.rib.nextHop(group(10, {1, 2}));
  f.rib.nextHop(group(11, {2, 1}));
  f.rib.nextHop(group(12, {1, 2, 3}));
  f.rib.route(route(1, 10));
  f.rib.route(route(2, 11));
  fpm::RouteMessage own = route(3, 0);  // the same paths carried in the route
  own.paths = {gw(2, 3), gw(1, 2)};
  f.rib.route(own);
  f.rib.route(route(4, 12));
  fpm::RouteMessage drop = route(5, 0);
  drop.type = RTN_BLACKHOLE;
  f.rib.route(drop);
  EXPECT_EQ(f.rib.groupWidths(), (std::map<U32, U64>{{1, 1}, {2, 1}, {3, 1}}));
  for (std::uint8_t n = 1; n <= 5; ++n) {
    SCOPED_TRACE(n);
    EXPECT_TRUE(f.agent.installed(agentRoute(n)));
    EXPECT_TRUE(forwards(f.agent, n));
  }
  EXPECT_EQ(f.agent.installedBlock(agentRoute(1)), f.agent.installedBlock(agentRoute(3)));
  EXPECT_EQ(f.agent.installedBlock(agentRoute(4)).size().value(), 3);
  const std::size_t placed = f.agent.nextHopStatus()->swIdToNextHopBlockMap().size();
  for (std::uint8_t n : {1, 2}) f.rib.route([&] { auto m = route(n, 10); m.add = false; return m; }());
  EXPECT_EQ(f.agent.nextHopStatus()->swIdToNextHopBlockMap().size(), placed);  // route 3 still holds it
  f.rib.route([&] { auto m = own; m.add = false; return m; }());
  EXPECT_EQ(f.agent.nextHopStatus()->swIdToNextHopBlockMap().size(), placed - 1);
  EXPECT_EQ(f.rib.groupWidths(), (std::map<U32, U64>{{1, 1}, {3, 1}}));
}

TEST(ServeRibTest, GroupsBeforeTheirMembersAndNextHopChangesReachTheChip) {
  Fixture f;
  f.rib.nextHop(object(1, gw(1, 2)));
  f.rib.nextHop(group(10, {1, 2}));  // zebra sends a group before its second member
  f.rib.nextHop(object(2, gw(2, 3)));
  f.rib.route(route(1, 10));
  f.rib.route(route(2, 1));
  EXPECT_EQ(f.fib(), "0 10.1.0.0/16 installed 192.0.2.1@2,192.0.2.2@3\n0 10.2.0.0/16 installed 192.0.2.1@2\n");
  f.rib.nextHop(object(1, gw(9, 5)));  // a next hop moves: both routes follow
  EXPECT_EQ(f.fib(), "0 10.1.0.0/16 installed 192.0.2.2@3,192.0.2.9@5\n0 10.2.0.0/16 installed 192.0.2.9@5\n");
  EXPECT_TRUE(forwards(f.agent, 1));
  EXPECT_TRUE(forwards(f.agent, 2));
  f.rib.nextHop([] { auto m = object(2, {}); m.add = false; return m; }());
  EXPECT_EQ(f.fib(), "0 10.1.0.0/16 unresolvedNextHop nh#10\n0 10.2.0.0/16 installed 192.0.2.9@5\n");
  EXPECT_FALSE(f.agent.installed(agentRoute(1)));
  EXPECT_EQ(f.rib.unresolved(false), 1u);
  f.rib.nextHop(object(2, gw(2, 3)));
  EXPECT_TRUE(f.agent.installed(agentRoute(1)));
  EXPECT_TRUE(forwards(f.agent, 1));
}

TEST(ServeRibTest, WidthsThatAreNotPowersOfTwoAndSetsWiderThanTheManagerTakes) {
  // The manager's widest block is 8 here (the agent's own scratch block needs that much): wider
  // sets keep their first eight paths.
  ASSERT_EQ(setenv("NH_MAX_BLOCK_SIZE", "8", 1), 0);
  Fixture f;
  unsetenv("NH_MAX_BLOCK_SIZE");
  ASSERT_EQ(f.agent.maxGroupWidth(), 8u);
  for (std::uint8_t width : {3, 5, 7, 11}) {
    fpm::RouteMessage m = route(width, 0);
    for (std::uint8_t k = 0; k < width; ++k) m.paths.push_back(gw(k + 1, 2));
    f.rib.route(m);
    SCOPED_TRACE(int(width));
    EXPECT_TRUE(f.agent.installed(agentRoute(width)));
    EXPECT_EQ(f.agent.installedBlock(agentRoute(width)).size().value(), std::min<int>(width, 8));
    EXPECT_TRUE(forwards(f.agent, width));
  }
  EXPECT_EQ(f.rib.trimmedSets(), 1u);
  EXPECT_EQ(f.rib.groupWidths(), (std::map<U32, U64>{{3, 1}, {5, 1}, {7, 1}, {8, 1}}));
}

TEST(ServeRibTest, TablesMapToVrfs) {
  struct Case {
    std::map<U32, U32> vrfs;
    U32 table;
    std::optional<U32> vrf;
  };
  const std::vector<Case> cases = {
      {{}, RT_TABLE_MAIN, 0},   {{}, 100, 100},        {{}, 0, std::nullopt},       {{}, 70000, std::nullopt},
      {{{100, 7}}, 100, 7},     {{{100, 7}}, 7, std::nullopt},  // VRF 7 is table 100's now
      {{{70000, 9}}, 70000, 9}, {{{100, 0}}, RT_TABLE_MAIN, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("table " + std::to_string(c.table));
    XpLpmAgent agent(*XpXdk::findChipProfile("small"));
    ServeRib rib(agent, {c.vrfs, false});
    rib.nextHop(object(1, gw(1, 2)));
    rib.route(route(1, 1, c.table));
    EXPECT_EQ(rib.counts().unmapped, c.vrf ? 0u : 1u);
    if (c.vrf) {
      EXPECT_TRUE(agent.installed(agentRoute(1, *c.vrf)));
    }
  }
}

TEST(ServeRibTest, RoutesNotSentAgainAreWithdrawnOnlyAtReconciliation) {
  Fixture f;
  f.rib.nextHop(object(1, gw(1, 2)));
  f.rib.nextHop(object(2, gw(2, 2)));
  for (std::uint8_t n = 1; n <= 3; ++n) f.rib.route(route(n, n == 3 ? 2 : 1));
  f.rib.newEpoch();  // the peer reconnects and resends route 2 only, with its object
  f.rib.nextHop(object(1, gw(1, 2)));
  f.rib.route(route(2, 1));
  for (std::uint8_t n = 1; n <= 3; ++n) EXPECT_TRUE(f.agent.installed(agentRoute(n)));
  const auto report = f.rib.reconcile();
  EXPECT_EQ(report.withdrawn, 2u);
  EXPECT_FALSE(f.agent.installed(agentRoute(1)));
  EXPECT_TRUE(f.agent.installed(agentRoute(2)));
  EXPECT_FALSE(f.agent.installed(agentRoute(3)));
  EXPECT_EQ(f.rib.routes(), 1u);
  EXPECT_EQ(f.rib.groupWidths(), (std::map<U32, U64>{{1, 1}}));  // object 2's group went with route 3
}

// The answers in a batch of frames: (prefix length, flags) per route.
std::vector<std::uint32_t> answers(const std::string& frames) {
  struct Sink final : fpm::FrameSink, fpm::MessageSink {
    void frame(std::uint64_t o, std::string_view p) override { parser.parse(p, o, *this); }
    void route(const fpm::RouteMessage& m) override { flags.push_back(m.flags); }
    void nextHop(const fpm::NextHopMessage&) override {}
    void ignored(std::uint64_t, const char*) override {}
    void problem(const fpm::Problem& p) override { ADD_FAILURE() << p.what; }
    fpm::NetlinkParser parser;
    std::vector<std::uint32_t> flags;
  } sink;
  fpm::FrameReader reader;
  reader.feed(frames, sink);
  return sink.flags;
}

TEST(ServeRibTest, EveryAnnouncementAndEveryChangeOfStateIsAnswered) {
  Fixture f;
  f.rib.nextHop(object(1, gw(1, 2)));
  f.rib.route(route(1, 1));
  f.rib.route(route(2, 5));  // object 5 is unknown
  std::string frames;
  EXPECT_EQ(f.rib.feedback(frames), (std::pair<U64, U64>{1, 1}));
  EXPECT_EQ(answers(frames), (std::vector<std::uint32_t>{RTM_F_OFFLOAD, RTM_F_OFFLOAD_FAILED}));
  frames.clear();
  EXPECT_EQ(f.rib.feedback(frames), (std::pair<U64, U64>{0, 0}));
  f.rib.nextHop(object(5, gw(5, 2)));  // route 2 resolves
  f.rib.route(route(1, 1));            // route 1 is announced again
  EXPECT_EQ(f.rib.feedback(frames), (std::pair<U64, U64>{2, 0}));
}

TEST(ServeRibTest, AWarmStartHoldsRoutesUntilReconciliationAndWritesNothingForAnUnchangedTable) {
  const XpXdk::xpChipProfile& small = *XpXdk::findChipProfile("small");
  auto counting = std::make_shared<XpLib::Agent::CountingPort>(std::make_shared<XpLib::Agent::SimulatedChip>(small));
  auto feed = [](ServeRib& rib, std::uint32_t lastGateway) {
    rib.newEpoch();
    rib.nextHop(object(1, gw(1, 2)));
    rib.nextHop(object(2, gw(static_cast<std::uint8_t>(lastGateway), 3)));
    rib.nextHop(group(10, {1, 2}));
    for (std::uint8_t n = 1; n <= 20; ++n) rib.route(route(n, n % 2 ? 1 : 10));
  };
  {
    XpLpmAgent cold(small, counting, XpLpmAgent::Start::cold);
    ServeRib rib(cold, {});
    feed(rib, 2);
  }
  for (std::uint32_t lastGateway : {2u, 3u}) {  // the same table, then a changed next hop
    SCOPED_TRACE("gateway " + std::to_string(lastGateway));
    const U64 before = counting->writes().all();
    XpLpmAgent warm(small, counting, XpLpmAgent::Start::warm);
    ServeRib rib(warm, {{}, true});
    feed(rib, lastGateway);
    EXPECT_EQ(counting->writes().all(), before);  // nothing before reconciliation
    const auto report = rib.reconcile();
    EXPECT_EQ(report.kept, lastGateway == 2 ? 20u : 10u);
    EXPECT_EQ(report.changed, lastGateway == 2 ? 0u : 10u);
    if (lastGateway == 2) {
      EXPECT_EQ(counting->writes().all(), before);
    } else {
      EXPECT_GT(counting->writes().all(), before);
    }
    for (std::uint8_t n = 1; n <= 20; ++n) EXPECT_TRUE(forwards(warm, n));
  }
}

}  // namespace
