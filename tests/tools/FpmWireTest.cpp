// The FPM feed's wire format: frames cut whatever the reads, messages read back as
// written, and every malformed frame or message reported at its offset.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <random>

#include "fpm/FpmWire.h"

namespace {

using namespace xplpm::fpm;

struct Seen final : FrameSink, MessageSink {
  void frame(std::uint64_t offset, std::string_view payload) override {
    ++frames;
    parser.parse(payload, offset, *this);
  }
  void route(const RouteMessage& m) override { routes.push_back(m); }
  void nextHop(const NextHopMessage& m) override { nextHops.push_back(m); }
  void ignored(std::uint64_t, const char* why) override { ignoredWhy.push_back(why); }
  void problem(const Problem& p) override { problems.push_back(p); }

  NetlinkParser parser;
  int frames = 0;
  std::vector<RouteMessage> routes;
  std::vector<NextHopMessage> nextHops;
  std::vector<std::string> ignoredWhy;
  std::vector<Problem> problems;
};

NextHopPath path(int family, std::initializer_list<std::uint8_t> gw, std::uint32_t ifindex, std::uint16_t weight = 1) {
  NextHopPath p;
  p.family = static_cast<std::uint8_t>(family);
  std::copy(gw.begin(), gw.end(), p.gateway.begin());
  p.ifindex = ifindex;
  p.weight = weight;
  return p;
}

RouteMessage route(bool v6, std::initializer_list<std::uint8_t> dst, std::uint8_t len) {
  RouteMessage m;
  m.ipv6 = v6;
  std::copy(dst.begin(), dst.end(), m.dst.begin());
  m.len = len;
  m.table = RT_TABLE_MAIN;
  m.protocol = 196;
  m.type = RTN_UNICAST;
  m.priority = 20;
  return m;
}

// One of each kind the feed carries: next hops by object, in the route, several, across families.
std::vector<RouteMessage> sampleRoutes() {
  std::vector<RouteMessage> r;
  r.push_back(route(false, {10, 1}, 16));
  r.back().nhId = 21;
  r.push_back(route(false, {10, 2}, 16));
  r.back().paths = {path(AF_INET, {192, 0, 2, 1}, 3)};
  r.push_back(route(true, {0x20, 0x01, 0x0d, 0xb8}, 32));
  r.back().paths = {path(AF_INET6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 4, 3), path(AF_INET6, {0xfe, 0x80}, 5)};
  r.push_back(route(false, {198, 51, 100}, 24));  // IPv4 over an IPv6 gateway: RTA_VIA
  r.back().paths = {path(AF_INET6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9}, 7)};
  r.push_back(route(false, {10, 9}, 24));
  r.back().type = RTN_BLACKHOLE;
  r.back().table = 100000;  // beyond rtm_table: RTA_TABLE carries it
  r.push_back(route(true, {0x20, 0x01, 0x0d, 0xb8, 0, 1}, 48));
  r.back().add = false;
  r.back().type = RTN_UNSPEC;  // zebra leaves the type of a withdrawal unset
  r.back().priority.reset();
  r.push_back(route(false, {0, 0, 0, 0}, 0));  // the default route
  r.back().paths = {path(0, {}, 2)};
  return r;
}

std::vector<NextHopMessage> sampleNextHops() {
  std::vector<NextHopMessage> n(4);
  n[0].id = 21;
  n[0].path = path(AF_INET, {192, 0, 2, 1}, 3);
  n[1].id = 22;
  n[1].group = {{21, 1}, {23, 4}};
  n[2].id = 19;
  n[2].blackhole = true;
  n[3].id = 22;
  n[3].add = false;
  return n;
}

// The stream of the samples, one message per frame as zebra sends them, next hops first.
std::string sampleStream() {
  std::string stream, msg;
  for (const auto& n : sampleNextHops()) {
    msg.clear();
    appendNextHop(msg, n);
    appendFrame(stream, msg);
  }
  for (const auto& r : sampleRoutes()) {
    msg.clear();
    appendRoute(msg, r);
    appendFrame(stream, msg);
  }
  return stream;
}

void expectSamples(const Seen& seen) {
  ASSERT_TRUE(seen.problems.empty()) << seen.problems.front().what;
  const auto routes = sampleRoutes();
  const auto nextHops = sampleNextHops();
  ASSERT_EQ(seen.routes.size(), routes.size());
  ASSERT_EQ(seen.nextHops.size(), nextHops.size());
  for (std::size_t i = 0; i < routes.size(); ++i) {
    SCOPED_TRACE("route " + std::to_string(i));
    const RouteMessage& a = seen.routes[i];
    const RouteMessage& b = routes[i];
    EXPECT_EQ(a.add, b.add);
    EXPECT_EQ(a.ipv6, b.ipv6);
    EXPECT_EQ(a.dst, b.dst);
    EXPECT_EQ(a.len, b.len);
    EXPECT_EQ(a.table, b.table);
    EXPECT_EQ(a.type, b.type);
    EXPECT_EQ(a.protocol, b.protocol);
    EXPECT_EQ(a.priority, b.priority);
    EXPECT_EQ(a.nhId, b.nhId);
    EXPECT_EQ(a.paths, b.paths);
  }
  for (std::size_t i = 0; i < nextHops.size(); ++i) {
    SCOPED_TRACE("next hop " + std::to_string(i));
    EXPECT_EQ(seen.nextHops[i].add, nextHops[i].add);
    EXPECT_EQ(seen.nextHops[i].id, nextHops[i].id);
    EXPECT_EQ(seen.nextHops[i].blackhole, nextHops[i].blackhole);
    if (nextHops[i].add) {
      EXPECT_EQ(seen.nextHops[i].path, nextHops[i].path);
      EXPECT_EQ(seen.nextHops[i].group, nextHops[i].group);
    }
  }
}

TEST(FpmWireTest, MessagesReadBackWhateverTheReadBoundaries) {
  const std::string stream = sampleStream();
  const unsigned seed = 20261123;
  std::mt19937 rng(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  // All at once, byte by byte, and random cuts of 1 to 40 bytes.
  for (int way = 0; way < 12; ++way) {
    SCOPED_TRACE("way " + std::to_string(way));
    Seen seen;
    FrameReader reader;
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t n = way == 0 ? stream.size() : way == 1 ? 1 : 1 + rng() % 40;
      ASSERT_TRUE(reader.feed(std::string_view(stream).substr(at, n), seen));
      at += n;
    }
    EXPECT_EQ(reader.pending(), 0u);
    EXPECT_EQ(reader.consumed(), stream.size());
    EXPECT_EQ(seen.frames, static_cast<int>(sampleRoutes().size() + sampleNextHops().size()));
    expectSamples(seen);
  }
}

TEST(FpmWireTest, SeveralMessagesInOneFrameAndOtherMessagesIgnored) {
  std::string netlink;
  for (const auto& n : sampleNextHops()) appendNextHop(netlink, n);
  for (const auto& r : sampleRoutes()) appendRoute(netlink, r);
  nlmsghdr done{sizeof(nlmsghdr), NLMSG_DONE, 0, 0, 0};
  netlink.append(reinterpret_cast<const char*>(&done), sizeof done);
  RouteMessage local = route(false, {127, 0, 0, 1}, 32);
  local.type = RTN_LOCAL;
  appendRoute(netlink, local);
  local.type = RTN_UNSPEC;  // only a withdrawal may leave its type unset
  appendRoute(netlink, local);
  std::string stream;
  appendFrame(stream, netlink);
  Seen seen;
  FrameReader reader;
  ASSERT_TRUE(reader.feed(stream, seen));
  EXPECT_EQ(seen.frames, 1);
  expectSamples(seen);
  EXPECT_EQ(seen.ignoredWhy, (std::vector<std::string>{"netlink control message", "local route", "route of another type"}));
}

// Bytes of a message as written, changed by `edit`, framed.
std::string edited(const RouteMessage& r, const std::function<void(std::string&)>& edit) {
  std::string msg, frame;
  appendRoute(msg, r);
  edit(msg);
  appendFrame(frame, msg);
  return frame;
}

void setU16(std::string& s, std::size_t at, std::uint16_t v) { std::memcpy(s.data() + at, &v, 2); }
void setU32(std::string& s, std::size_t at, std::uint32_t v) { std::memcpy(s.data() + at, &v, 4); }

TEST(FpmWireTest, MalformedInputIsReportedAtItsOffsetAndTheStreamGoesOn) {
  const RouteMessage r = sampleRoutes()[1];  // 10.2.0.0/16 via 192.0.2.1
  const std::size_t attrs = NLMSG_LENGTH(sizeof(rtmsg));  // RTA_DST is the first attribute
  struct Case {
    const char* name;
    std::string frame;
    std::uint64_t offset;  // within the frame
    const char* says;
  };
  std::string otherType;
  appendFrame(otherType, "abcd");
  otherType[1] = 2;
  NextHopMessage group = sampleNextHops()[1];
  std::string nhBytes, nhFrame;
  appendNextHop(nhBytes, group);
  setU16(nhBytes, nhBytes.size() - 16 - 4, 4 + 12);  // NHA_GROUP of 12 bytes
  nhBytes.resize(nhBytes.size() - 4);
  setU32(nhBytes, 0, static_cast<std::uint32_t>(nhBytes.size()));
  appendFrame(nhFrame, nhBytes);
  const std::vector<Case> cases = {
      {"a frame of another type", otherType, 0, "type 2 (not netlink) skipped"},
      {"netlink length beyond the frame", edited(r, [](std::string& m) { setU32(m, 0, 999); }), 4, "length 999"},
      {"attribute length beyond the message",
       edited(r, [&](std::string& m) { setU16(m, attrs, 200); }), 4 + attrs, "attribute 1 of length 200"},
      {"RTA_DST of the wrong size", edited(r, [&](std::string& m) { setU16(m, attrs, 4 + 3); }), 4 + attrs, "RTA_DST of 3 bytes"},
      {"prefix length beyond the family", edited(r, [](std::string& m) { m[NLMSG_HDRLEN + 1] = 33; }), 4, "prefix length 33"},
      {"host bits set", edited(r, [&](std::string& m) { m[attrs + 4 + 3] = 1; }), 4, "bits set past its length 16"},
      {"header cut short", edited(r, [](std::string& m) { m.resize(NLMSG_HDRLEN + 4); setU32(m, 0, NLMSG_HDRLEN + 4); }), 4,
       "shorter than its header"},
      {"a next-hop group of a partial member", nhFrame, 4 + NLMSG_LENGTH(sizeof(nhmsg)) + 8, "not a whole number of members"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string good;
    appendFrame(good, [&] { std::string m; appendRoute(m, r); return m; }());
    const std::string stream = good + c.frame + good;
    Seen seen;
    FrameReader reader;
    ASSERT_TRUE(reader.feed(stream, seen));
    ASSERT_EQ(seen.problems.size(), 1u);
    EXPECT_EQ(seen.problems[0].offset, good.size() + c.offset) << seen.problems[0].what;
    EXPECT_NE(seen.problems[0].what.find(c.says), std::string::npos) << seen.problems[0].what;
    EXPECT_EQ(seen.routes.size(), 2u);  // the frames around it still count
  }
}

TEST(FpmWireTest, AHeaderThatCannotBeFollowedBreaksTheStream) {
  for (const char* bad : {"\x02\x01\x00\x10", "\x01\x01\x00\x03"}) {
    SCOPED_TRACE(bad[0] == 2 ? "version 2" : "length 3");
    std::string good;
    appendFrame(good, [&] { std::string m; appendRoute(m, sampleRoutes()[0]); return m; }());
    Seen seen;
    FrameReader reader;
    // Split so that the bad header arrives in two reads.
    const std::string stream = good + std::string(bad, 4) + good;
    EXPECT_TRUE(reader.feed(std::string_view(stream).substr(0, good.size() + 2), seen));
    EXPECT_FALSE(reader.feed(std::string_view(stream).substr(good.size() + 2), seen));
    EXPECT_FALSE(reader.feed(good, seen));
    ASSERT_EQ(seen.problems.size(), 1u);
    EXPECT_EQ(seen.problems[0].offset, good.size());
    EXPECT_NE(seen.problems[0].what.find("cannot be followed"), std::string::npos);
    EXPECT_EQ(seen.routes.size(), 1u);
  }
}

}  // namespace
