// Parsing of route lines.
#include "agent/RouteFile.h"

#include <charconv>

namespace XpLib {
namespace Agent {

namespace {

std::string_view nextField(std::string_view& rest) {
  const auto start = rest.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) {
    rest = {};
    return {};
  }
  rest.remove_prefix(start);
  const auto end = rest.find_first_of(" \t\r\n");
  std::string_view field = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
  return field;
}

template <class T>
bool parseNumber(std::string_view text, T& out) {
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace

LineKind parseRouteLine(std::string_view line, Route& out, std::string& why) {
  if (auto hash = line.find('#'); hash != std::string_view::npos) line = line.substr(0, hash);
  std::string_view rest = line;
  const std::string_view prefix = nextField(rest);
  if (prefix.empty()) return LineKind::skip;
  const std::string_view nextHop = nextField(rest);
  const std::string_view vrf = nextField(rest);
  if (nextHop.empty()) {
    why = "missing next hop after the prefix";
    return LineKind::error;
  }
  if (!nextField(rest).empty()) {
    why = "more than three fields (expected PREFIX NEXTHOP [VRF])";
    return LineKind::error;
  }
  Route r;
  std::string prefixWhy;
  if (prefix.find(':') != std::string_view::npos) {
    auto p = Ip6Prefix::parse(prefix, &prefixWhy);
    if (!p) {
      why = "bad IPv6 prefix '" + std::string(prefix) + "': " + prefixWhy;
      return LineKind::error;
    }
    r.ipv6 = true;
    r.v6 = *p;
  } else {
    auto p = Prefix::parse(prefix, &prefixWhy);
    if (!p) {
      why = "bad IPv4 prefix '" + std::string(prefix) + "': " + prefixWhy;
      return LineKind::error;
    }
    r.v4 = *p;
  }
  if (!parseNumber(nextHop, r.nextHop)) {
    why = "next hop '" + std::string(nextHop) + "' is not a non-negative number";
    return LineKind::error;
  }
  if (!vrf.empty() && (!parseNumber(vrf, r.vrf) || r.vrf > 0xFFFF)) {
    why = "VRF '" + std::string(vrf) + "' is not a number from 0 to 65535";
    return LineKind::error;
  }
  out = r;
  return LineKind::route;
}

}  // namespace Agent
}  // namespace XpLib
