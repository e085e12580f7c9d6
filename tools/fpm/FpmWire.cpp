// FPM frames and rtnetlink messages: reading with every length checked, and writing.
#include "fpm/FpmWire.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

namespace xplpm::fpm {

namespace {

template <class T>
T load(std::string_view s, std::size_t at) {
  T v;
  std::memcpy(&v, s.data() + at, sizeof v);
  return v;
}

template <class T>
void put(std::string& out, const T& v) {
  out.append(reinterpret_cast<const char*>(&v), sizeof v);
}

constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t(3); }

std::string num(std::uint64_t n) { return std::to_string(n); }

// Calls f(type, value, offset) for each attribute of `attrs`, which starts at stream offset `at`.
// f answers false, with `why` set, for a bad value. Returns false at the first problem, with
// `bad` its offset.
template <class F>
bool forEachAttr(std::string_view attrs, std::uint64_t at, std::string& why, std::uint64_t& bad, F f) {
  std::size_t pos = 0;
  while (attrs.size() - pos >= sizeof(rtattr)) {
    const auto len = load<std::uint16_t>(attrs, pos);
    const auto type = static_cast<std::uint16_t>(load<std::uint16_t>(attrs, pos + 2) & NLA_TYPE_MASK);
    bad = at + pos;
    if (len < sizeof(rtattr) || len > attrs.size() - pos) {
      why = "attribute " + num(type) + " of length " + num(len) + " where " + num(attrs.size() - pos) + " bytes are left";
      return false;
    }
    if (!f(type, attrs.substr(pos + sizeof(rtattr), len - sizeof(rtattr)), at + pos)) return false;
    pos += align4(len);
    if (pos > attrs.size()) break;  // the last attribute's padding may be left out
  }
  if (pos < attrs.size() && attrs.size() - pos < sizeof(rtattr)) {
    bad = at + pos;
    why = num(attrs.size() - pos) + " bytes after the last attribute, fewer than an attribute header";
    return false;
  }
  return true;
}

bool u32Attr(std::string_view v, const char* name, std::uint32_t& out, std::string& why) {
  if (v.size() != 4) {
    why = std::string(name) + " of " + num(v.size()) + " bytes, not 4";
    return false;
  }
  out = load<std::uint32_t>(v, 0);
  return true;
}

bool addressAttr(std::string_view v, int family, const char* name, std::array<std::uint8_t, 16>& out, std::string& why) {
  const std::size_t want = family == AF_INET6 ? 16 : 4;
  if (v.size() != want) {
    why = std::string(name) + " of " + num(v.size()) + " bytes, not " + num(want);
    return false;
  }
  out = {};
  std::memcpy(out.data(), v.data(), want);
  return true;
}

// RTA_VIA: an address family, then the address.
bool viaAttr(std::string_view v, NextHopPath& p, std::string& why) {
  if (v.size() < 2) {
    why = "RTA_VIA shorter than its family";
    return false;
  }
  const auto family = load<std::uint16_t>(v, 0);
  if (family != AF_INET && family != AF_INET6) {
    why = "RTA_VIA of address family " + num(family);
    return false;
  }
  p.family = static_cast<std::uint8_t>(family);
  return addressAttr(v.substr(2), family, "RTA_VIA address", p.gateway, why);
}

// A path's own attributes: RTA_GATEWAY, RTA_VIA (and RTA_OIF outside RTA_MULTIPATH).
bool pathAttr(std::uint16_t type, std::string_view v, int family, NextHopPath& p, std::string& why) {
  if (type == RTA_GATEWAY) {
    p.family = static_cast<std::uint8_t>(family);
    return addressAttr(v, family, "RTA_GATEWAY", p.gateway, why);
  }
  if (type == RTA_VIA) return viaAttr(v, p, why);
  if (type == RTA_OIF) return u32Attr(v, "RTA_OIF", p.ifindex, why);
  return true;
}

bool parseMultipath(std::string_view v, std::uint64_t at, int family, std::vector<NextHopPath>& paths,
                    std::string& why, std::uint64_t& bad) {
  std::size_t pos = 0;
  while (pos < v.size()) {
    bad = at + pos;
    if (v.size() - pos < sizeof(rtnexthop)) {
      why = "RTA_MULTIPATH: " + num(v.size() - pos) + " bytes left, fewer than a next hop";
      return false;
    }
    const auto len = load<std::uint16_t>(v, pos);
    if (len < sizeof(rtnexthop) || len > v.size() - pos) {
      why = "RTA_MULTIPATH: next hop of length " + num(len) + " where " + num(v.size() - pos) + " bytes are left";
      return false;
    }
    NextHopPath p;
    p.weight = static_cast<std::uint16_t>(load<std::uint8_t>(v, pos + 3) + 1);
    p.ifindex = static_cast<std::uint32_t>(load<std::int32_t>(v, pos + 4));
    const std::string_view attrs = v.substr(pos + sizeof(rtnexthop), len - sizeof(rtnexthop));
    const bool ok = forEachAttr(attrs, at + pos + sizeof(rtnexthop), why, bad,
                                [&](std::uint16_t type, std::string_view value, std::uint64_t) {
                                  return type == RTA_OIF || pathAttr(type, value, family, p, why);
                                });
    if (!ok) return false;
    paths.push_back(p);
    pos += align4(len);
  }
  return true;
}

bool hostBitsClear(const RouteMessage& m) {
  const unsigned bytes = m.ipv6 ? 16 : 4;
  for (unsigned i = 0; i < bytes; ++i) {
    const unsigned first = 8 * i;
    const std::uint8_t keep = m.len >= first + 8 ? 0xFF : m.len <= first ? 0 : static_cast<std::uint8_t>(0xFF << (8 - (m.len - first)));
    if (m.dst[i] & ~keep) return false;
  }
  return true;
}

// What a route message's header says; its attributes come after.
void startRoute(RouteMessage& m, const rtmsg& rtm, bool add, std::uint64_t at) {
  m.add = add;
  m.ipv6 = rtm.rtm_family == AF_INET6;
  m.dst = {};
  m.len = rtm.rtm_dst_len;
  m.table = rtm.rtm_table;
  m.protocol = rtm.rtm_protocol;
  m.type = rtm.rtm_type;
  m.flags = rtm.rtm_flags;
  m.priority.reset();
  m.nhId.reset();
  m.paths.clear();
  m.offset = at;
}

const char* ignoredRoute(const RouteMessage& m) {
  // zebra leaves the type of a withdrawal unset: whatever the route was, it goes.
  if (!m.add && m.type == RTN_UNSPEC) return nullptr;
  switch (m.type) {
    case RTN_UNICAST:
    case RTN_BLACKHOLE:
    case RTN_UNREACHABLE:
    case RTN_PROHIBIT: return nullptr;
    case RTN_LOCAL: return "local route";
    case RTN_BROADCAST: return "broadcast route";
    case RTN_ANYCAST: return "anycast route";
    case RTN_MULTICAST: return "multicast route";
    default: return "route of another type";
  }
}

}  // namespace

// ---- frames

bool FrameReader::feed(std::string_view bytes, FrameSink& sink) {
  if (broken_) return false;
  // Complete a held frame first, taking only the bytes it lacks; then cut frames in place.
  while (!partial_.empty()) {
    const std::size_t need = missing();
    if (need == 0) {
      const std::size_t used = cut(partial_, consumed_, sink);
      if (broken_) return false;
      consumed_ += used;
      partial_.clear();
      break;
    }
    if (bytes.empty()) return true;
    const std::size_t take = std::min(need, bytes.size());
    partial_.append(bytes.substr(0, take));
    bytes.remove_prefix(take);
  }
  const std::size_t used = cut(bytes, consumed_, sink);
  if (broken_) return false;
  consumed_ += used;
  partial_.assign(bytes.substr(used));
  return true;
}

std::size_t FrameReader::missing() const {
  if (partial_.size() < kFrameHeaderBytes) return kFrameHeaderBytes - partial_.size();
  const std::size_t len = (std::size_t(static_cast<std::uint8_t>(partial_[2])) << 8) | static_cast<std::uint8_t>(partial_[3]);
  // A header that cannot be followed is reported at once rather than after `len` more bytes.
  if (static_cast<std::uint8_t>(partial_[0]) != kFpmVersion || len < kFrameHeaderBytes) return 0;
  return len > partial_.size() ? len - partial_.size() : 0;
}

std::size_t FrameReader::cut(std::string_view bytes, std::uint64_t at, FrameSink& sink) {
  std::size_t pos = 0;
  while (bytes.size() - pos >= kFrameHeaderBytes) {
    const auto version = static_cast<std::uint8_t>(bytes[pos]);
    const auto type = static_cast<std::uint8_t>(bytes[pos + 1]);
    const std::size_t len = (std::size_t(static_cast<std::uint8_t>(bytes[pos + 2])) << 8) | static_cast<std::uint8_t>(bytes[pos + 3]);
    if (version != kFpmVersion || len < kFrameHeaderBytes) {
      sink.problem({at + pos, version != kFpmVersion
                                  ? "FPM frame of version " + num(version) + " (not 1): the stream cannot be followed"
                                  : "FPM frame of length " + num(len) + ", shorter than its header: the stream cannot be followed"});
      broken_ = true;
      return pos;
    }
    if (bytes.size() - pos < len) break;
    if (type == kFpmTypeNetlink) {
      sink.frame(at + pos + kFrameHeaderBytes, bytes.substr(pos + kFrameHeaderBytes, len - kFrameHeaderBytes));
    } else {
      sink.problem({at + pos, "FPM frame of type " + num(type) + " (not netlink) skipped"});
    }
    pos += len;
  }
  return pos;
}

void appendFrame(std::string& out, std::string_view netlink) {
  const std::size_t len = netlink.size() + kFrameHeaderBytes;
  out.push_back(static_cast<char>(kFpmVersion));
  out.push_back(static_cast<char>(kFpmTypeNetlink));
  out.push_back(static_cast<char>(len >> 8));
  out.push_back(static_cast<char>(len & 0xFF));
  out.append(netlink);
}

// ---- reading messages

std::size_t NetlinkParser::parse(std::string_view payload, std::uint64_t offset, MessageSink& sink) {
  std::size_t pos = 0, messages = 0;
  while (pos < payload.size()) {
    const std::uint64_t at = offset + pos;
    const std::size_t left = payload.size() - pos;
    if (left < sizeof(nlmsghdr)) {
      sink.problem({at, num(left) + " bytes after the last netlink message, fewer than a header"});
      break;
    }
    const auto len = load<std::uint32_t>(payload, pos);
    if (len < sizeof(nlmsghdr) || len > left) {
      sink.problem({at, "netlink message of length " + num(len) + " where " + num(left) + " bytes are left"});
      break;
    }
    const auto type = load<std::uint16_t>(payload, pos + 4);
    const std::string_view msg = payload.substr(pos, len);
    ++messages;
    if (type == RTM_NEWROUTE || type == RTM_DELROUTE) {
      if (!parseRoute(msg, type, at, sink)) sink.problem({bad_, why_});
    } else if (type == RTM_NEWNEXTHOP || type == RTM_DELNEXTHOP) {
      if (!parseNextHop(msg, type, at, sink)) sink.problem({bad_, why_});
    } else {
      sink.ignored(at, type < NLMSG_MIN_TYPE ? "netlink control message" : "other netlink message type");
    }
    pos += align4(len);
  }
  return messages;
}

bool NetlinkParser::parseRoute(std::string_view msg, std::uint16_t type, std::uint64_t at, MessageSink& sink) {
  const char* name = type == RTM_NEWROUTE ? "RTM_NEWROUTE" : "RTM_DELROUTE";
  bad_ = at;
  if (msg.size() < NLMSG_LENGTH(sizeof(rtmsg))) {
    why_ = std::string(name) + " of " + num(msg.size()) + " bytes, shorter than its header";
    return false;
  }
  const auto rtm = load<rtmsg>(msg, NLMSG_HDRLEN);
  if (rtm.rtm_family != AF_INET && rtm.rtm_family != AF_INET6) {
    sink.ignored(at, "route of another address family");
    return true;
  }
  if (rtm.rtm_src_len != 0) {
    sink.ignored(at, "source-specific route");
    return true;
  }
  RouteMessage& m = route_;
  startRoute(m, rtm, type == RTM_NEWROUTE, at);
  if (m.len > (m.ipv6 ? 128 : 32)) {
    why_ = std::string(name) + " with prefix length " + num(m.len);
    return false;
  }
  const int family = rtm.rtm_family;
  NextHopPath single;
  bool hasDst = false;
  const std::size_t attrsAt = NLMSG_LENGTH(sizeof(rtmsg));
  const bool ok = forEachAttr(msg.substr(attrsAt), at + attrsAt, why_, bad_, [&](std::uint16_t t, std::string_view v, std::uint64_t vAt) {
    switch (t) {
      case RTA_DST: hasDst = true; return addressAttr(v, family, "RTA_DST", m.dst, why_);
      case RTA_TABLE: return u32Attr(v, "RTA_TABLE", m.table, why_);
      case RTA_PRIORITY: return u32Attr(v, "RTA_PRIORITY", m.priority.emplace(), why_);
      case RTA_NH_ID: return u32Attr(v, "RTA_NH_ID", m.nhId.emplace(), why_);
      case RTA_MULTIPATH: return parseMultipath(v, vAt + sizeof(rtattr), family, m.paths, why_, bad_);
      default: return pathAttr(t, v, family, single, why_);
    }
  });
  if (!ok) {
    why_ = std::string(name) + " (message at " + num(at) + "): " + why_;
    return false;
  }
  bad_ = at;
  if ((!hasDst && m.len != 0) || !hostBitsClear(m)) {
    why_ = std::string(name) + (hasDst ? " whose RTA_DST has bits set past its length " : " without RTA_DST, of length ") + num(m.len);
    return false;
  }
  if (single.family != 0 || single.ifindex != 0) m.paths.insert(m.paths.begin(), single);
  if (const char* other = ignoredRoute(m)) {
    sink.ignored(at, other);
    return true;
  }
  sink.route(m);
  return true;
}

bool NetlinkParser::parseNextHop(std::string_view msg, std::uint16_t type, std::uint64_t at, MessageSink& sink) {
  const char* name = type == RTM_NEWNEXTHOP ? "RTM_NEWNEXTHOP" : "RTM_DELNEXTHOP";
  bad_ = at;
  if (msg.size() < NLMSG_LENGTH(sizeof(nhmsg))) {
    why_ = std::string(name) + " of " + num(msg.size()) + " bytes, shorter than its header";
    return false;
  }
  const auto nh = load<nhmsg>(msg, NLMSG_HDRLEN);
  NextHopMessage& m = nextHop_;
  m.add = type == RTM_NEWNEXTHOP;
  m.id = 0;
  m.blackhole = false;
  m.path = {};
  m.group.clear();
  m.offset = at;
  const int family = nh.nh_family == AF_INET6 ? AF_INET6 : AF_INET;
  const std::size_t attrsAt = NLMSG_LENGTH(sizeof(nhmsg));
  const bool ok = forEachAttr(msg.substr(attrsAt), at + attrsAt, why_, bad_, [&](std::uint16_t t, std::string_view v, std::uint64_t) {
    switch (t) {
      case NHA_ID: return u32Attr(v, "NHA_ID", m.id, why_);
      case NHA_BLACKHOLE: m.blackhole = true; return true;
      case NHA_OIF: return u32Attr(v, "NHA_OIF", m.path.ifindex, why_);
      case NHA_GATEWAY: m.path.family = static_cast<std::uint8_t>(family); return addressAttr(v, family, "NHA_GATEWAY", m.path.gateway, why_);
      case NHA_GROUP:
        if (v.empty() || v.size() % sizeof(nexthop_grp) != 0) {
          why_ = "NHA_GROUP of " + num(v.size()) + " bytes, not a whole number of members";
          return false;
        }
        for (std::size_t i = 0; i < v.size(); i += sizeof(nexthop_grp)) {
          const auto g = load<nexthop_grp>(v, i);
          m.group.push_back({g.id, static_cast<std::uint16_t>(g.weight + 1)});
        }
        return true;
      default: return true;
    }
  });
  if (!ok) {
    why_ = std::string(name) + " (message at " + num(at) + "): " + why_;
    return false;
  }
  bad_ = at;
  if (m.id == 0) {
    why_ = std::string(name) + " without NHA_ID";
    return false;
  }
  sink.nextHop(m);
  return true;
}

// ---- writing messages

namespace {

// Starts a message; its length is set by endMessage.
std::size_t beginMessage(std::string& out, std::uint16_t type, std::uint16_t flags, std::uint32_t seq) {
  const std::size_t start = out.size();
  put(out, nlmsghdr{0, type, flags, seq, 0});
  return start;
}

void endMessage(std::string& out, std::size_t start) {
  const auto len = static_cast<std::uint32_t>(out.size() - start);
  std::memcpy(out.data() + start, &len, sizeof len);
}

void appendAttr(std::string& out, std::uint16_t type, const void* data, std::size_t size) {
  put(out, rtattr{static_cast<unsigned short>(sizeof(rtattr) + size), type});
  out.append(static_cast<const char*>(data), size);
  out.append(align4(size) - size, '\0');
}

void appendU32(std::string& out, std::uint16_t type, std::uint32_t v) { appendAttr(out, type, &v, sizeof v); }

void appendGateway(std::string& out, const NextHopPath& p, bool ipv6) {
  if (p.family == 0) return;
  const std::size_t size = p.family == AF_INET6 ? 16 : 4;
  if ((p.family == AF_INET6) == ipv6) {
    appendAttr(out, RTA_GATEWAY, p.gateway.data(), size);
    return;
  }
  std::string via;
  put(via, static_cast<std::uint16_t>(p.family));
  via.append(reinterpret_cast<const char*>(p.gateway.data()), size);
  appendAttr(out, RTA_VIA, via.data(), via.size());
}

void appendMultipath(std::string& out, const std::vector<NextHopPath>& paths, bool ipv6) {
  std::string nested;
  for (const NextHopPath& p : paths) {
    const std::size_t start = nested.size();
    put(nested, rtnexthop{0, 0, static_cast<unsigned char>(p.weight - 1), static_cast<int>(p.ifindex)});
    appendGateway(nested, p, ipv6);
    const auto len = static_cast<std::uint16_t>(nested.size() - start);
    std::memcpy(nested.data() + start, &len, sizeof len);
  }
  appendAttr(out, RTA_MULTIPATH, nested.data(), nested.size());
}

}  // namespace

void appendRoute(std::string& out, const RouteMessage& m, std::uint32_t seq) {
  const std::uint16_t flags = m.add ? NLM_F_REQUEST | NLM_F_CREATE | NLM_F_REPLACE : NLM_F_REQUEST;
  const std::size_t start = beginMessage(out, m.add ? RTM_NEWROUTE : RTM_DELROUTE, flags, seq);
  rtmsg rtm{};
  rtm.rtm_family = m.ipv6 ? AF_INET6 : AF_INET;
  rtm.rtm_dst_len = m.len;
  rtm.rtm_table = static_cast<unsigned char>(m.table < 256 ? m.table : RT_TABLE_COMPAT);
  rtm.rtm_protocol = m.protocol;
  rtm.rtm_type = m.type;
  rtm.rtm_flags = m.flags;
  put(out, rtm);
  appendAttr(out, RTA_DST, m.dst.data(), m.ipv6 ? 16 : 4);
  appendU32(out, RTA_TABLE, m.table);
  if (m.priority) appendU32(out, RTA_PRIORITY, *m.priority);
  if (m.nhId) {
    appendU32(out, RTA_NH_ID, *m.nhId);
  } else if (m.paths.size() == 1) {
    appendGateway(out, m.paths[0], m.ipv6);
    if (m.paths[0].ifindex) appendU32(out, RTA_OIF, m.paths[0].ifindex);
  } else if (m.paths.size() > 1) {
    appendMultipath(out, m.paths, m.ipv6);
  }
  endMessage(out, start);
}

void appendNextHop(std::string& out, const NextHopMessage& m, std::uint32_t seq) {
  const std::uint16_t flags = m.add ? NLM_F_REQUEST | NLM_F_CREATE | NLM_F_REPLACE : NLM_F_REQUEST;
  const std::size_t start = beginMessage(out, m.add ? RTM_NEWNEXTHOP : RTM_DELNEXTHOP, flags, seq);
  nhmsg nh{};
  nh.nh_family = m.group.empty() && !m.blackhole ? (m.path.family ? m.path.family : AF_INET) : AF_UNSPEC;
  put(out, nh);
  appendU32(out, NHA_ID, m.id);
  if (!m.add) return endMessage(out, start);
  if (m.blackhole) {
    appendAttr(out, NHA_BLACKHOLE, nullptr, 0);
  } else if (!m.group.empty()) {
    std::string members;
    for (const auto& g : m.group) put(members, nexthop_grp{g.id, static_cast<std::uint8_t>(g.weight - 1), 0, 0});
    appendAttr(out, NHA_GROUP, members.data(), members.size());
  } else {
    if (m.path.family) appendAttr(out, NHA_GATEWAY, m.path.gateway.data(), m.path.family == AF_INET6 ? 16 : 4);
    if (m.path.ifindex) appendU32(out, NHA_OIF, m.path.ifindex);
  }
  endMessage(out, start);
}

std::string gatewayStr(const NextHopPath& p) {
  if (p.family != AF_INET && p.family != AF_INET6) return "";
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(p.family, p.gateway.data(), text, sizeof text) ? text : "";
}

}  // namespace xplpm::fpm
