// The Forwarding Plane Manager feed on the wire: FPM frames and the rtnetlink
// messages inside them, read and written. Standard library and Linux headers only.
//
// A frame is a 4-byte header {version 1, type 1 = netlink, 16-bit big-endian
// length, header included} and netlink messages, each 4-byte aligned. A TCP read
// ends anywhere: the reader keeps a partial frame until the rest arrives and cuts
// several frames out of one read. Every problem is told with its offset in the
// connection's byte stream, so that a capture of the stream locates it.
//
// Messages read: RTM_NEWROUTE/RTM_DELROUTE (IPv4, IPv6) with RTA_DST, RTA_TABLE,
// RTA_PRIORITY, RTA_GATEWAY, RTA_VIA, RTA_OIF, RTA_MULTIPATH and RTA_NH_ID, and
// RTM_NEWNEXTHOP/RTM_DELNEXTHOP with NHA_ID, NHA_GATEWAY, NHA_OIF, NHA_BLACKHOLE and
// NHA_GROUP. Anything else is counted as ignored, not as an error: the feed may carry
// message kinds this reader has no use for (MPLS, neighbours, ...).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xplpm::fpm {

// Something wrong in the stream: where (bytes from the start of the connection) and what.
struct Problem {
  std::uint64_t offset = 0;
  std::string what;
};

// ---- frames

inline constexpr std::size_t kFrameHeaderBytes = 4;
inline constexpr std::uint8_t kFpmVersion = 1;
inline constexpr std::uint8_t kFpmTypeNetlink = 1;
inline constexpr std::size_t kMaxFrameBytes = 0xFFFF;

class FrameSink {
 public:
  virtual ~FrameSink() = default;
  // One netlink frame: its payload, whose first byte is at stream offset `offset`.
  virtual void frame(std::uint64_t offset, std::string_view payload) = 0;
  virtual void problem(const Problem& p) = 0;
};

// Cuts a byte stream into frames, whatever the boundaries of the reads.
class FrameReader {
 public:
  // Feeds the bytes of one read. A frame of another type is reported and skipped. A header
  // that cannot be followed (another version, a length shorter than the header) is reported
  // and answers false: the frame boundaries are lost, so the connection is to be dropped,
  // and the reader takes nothing more.
  bool feed(std::string_view bytes, FrameSink& sink);
  // Bytes taken so far; the bytes of an unfinished frame held back.
  std::uint64_t consumed() const { return consumed_; }
  std::size_t pending() const { return partial_.size(); }

 private:
  // Cuts whole frames from `bytes`, which starts at stream offset `at`; returns the bytes used.
  std::size_t cut(std::string_view bytes, std::uint64_t at, FrameSink& sink);
  // Bytes the held frame still lacks; 0 also for a header that cannot be followed.
  std::size_t missing() const;

  std::string partial_;
  std::uint64_t consumed_ = 0;
  bool broken_ = false;
};

// Appends one frame holding `netlink` (one or more whole messages) to `out`.
// Requires: the frame fits kMaxFrameBytes.
void appendFrame(std::string& out, std::string_view netlink);

// ---- rtnetlink messages

// One way out of a route: a gateway (IPv4 or IPv6, possibly unlike the route's family) and
// an interface, or an interface alone (a connected route).
struct NextHopPath {
  std::uint8_t family = 0;  // AF_INET or AF_INET6 when there is a gateway, else 0
  std::array<std::uint8_t, 16> gateway{};
  std::uint32_t ifindex = 0;
  std::uint16_t weight = 1;  // 1..256, as `ip route` shows it

  // Two paths are the same way out whatever their weights.
  bool sameWay(const NextHopPath& o) const { return family == o.family && gateway == o.gateway && ifindex == o.ifindex; }
  bool operator==(const NextHopPath&) const = default;
};

struct RouteMessage {
  bool add = true;  // RTM_NEWROUTE; false: RTM_DELROUTE
  bool ipv6 = false;
  std::array<std::uint8_t, 16> dst{};
  std::uint8_t len = 0;
  std::uint32_t table = 0;  // RTA_TABLE, else rtm_table
  std::uint8_t protocol = 0;
  std::uint8_t type = 0;  // RTN_*
  std::uint32_t flags = 0;  // rtm_flags
  std::optional<std::uint32_t> priority;
  std::optional<std::uint32_t> nhId;
  std::vector<NextHopPath> paths;  // from RTA_GATEWAY/RTA_VIA/RTA_OIF or RTA_MULTIPATH
  std::uint64_t offset = 0;  // of the message in the stream
};

struct NextHopMessage {
  struct Member {
    std::uint32_t id = 0;
    std::uint16_t weight = 1;
    bool operator==(const Member&) const = default;
  };
  bool add = true;  // RTM_NEWNEXTHOP; false: RTM_DELNEXTHOP
  std::uint32_t id = 0;
  bool blackhole = false;
  NextHopPath path;             // when neither blackhole nor a group
  std::vector<Member> group;    // NHA_GROUP: a group of other next hops
  std::uint64_t offset = 0;
};

class MessageSink {
 public:
  virtual ~MessageSink() = default;
  virtual void route(const RouteMessage& m) = 0;
  virtual void nextHop(const NextHopMessage& m) = 0;
  // A well-formed message of no use here; `why` is a fixed text with static lifetime, such as
  // "route of another address family", that a sink may keep without copying.
  virtual void ignored(std::uint64_t offset, const char* why) = 0;
  virtual void problem(const Problem& p) = 0;
};

// Parses the netlink messages of frame payloads. Reuses its message objects, so that a busy
// feed allocates nothing per message.
class NetlinkParser {
 public:
  // Parses every message of `payload`, which starts at stream offset `offset`; returns how many
  // messages it delimited. A message whose contents are bad is reported and skipped; a length
  // that cannot be followed ends the payload.
  std::size_t parse(std::string_view payload, std::uint64_t offset, MessageSink& sink);

 private:
  bool parseRoute(std::string_view msg, std::uint16_t type, std::uint64_t at, MessageSink& sink);
  bool parseNextHop(std::string_view msg, std::uint16_t type, std::uint64_t at, MessageSink& sink);

  RouteMessage route_;
  NextHopMessage nextHop_;
  std::string why_;
  std::uint64_t bad_ = 0;  // stream offset of the problem in why_
};

// Appends one netlink message to `out`: a route as `m` describes it (RTA_NH_ID when it has one,
// else RTA_GATEWAY/RTA_VIA and RTA_OIF for one path, RTA_MULTIPATH for several), or a next hop.
void appendRoute(std::string& out, const RouteMessage& m, std::uint32_t seq = 0);
void appendNextHop(std::string& out, const NextHopMessage& m, std::uint32_t seq = 0);

// "192.0.2.1" or "2001:db8::1" for a path's gateway; "" without one.
std::string gatewayStr(const NextHopPath& p);

}  // namespace xplpm::fpm
