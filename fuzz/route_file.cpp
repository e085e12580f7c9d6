// Fuzz target: route files ("PREFIX NEXTHOP [VRF]" and bgpdump RIB and update lines, any line ends).
// Every line must be accounted for, every message printable, and every route the
// reader accepts a valid prefix of its family.
#include <cstdint>
#include <string_view>

#include "FuzzCheck.h"
#include "RouteInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (bool skipBad : {true, false}) {
    const xplpm::RouteSet set = xplpm::readRouteText("fuzz", text, xplpm::FamilyFilter::any, skipBad);
    xplpm_fuzz::require(!skipBad || set.lines == set.accounted(), "a line neither a route, a withdrawal, blank nor bad");
    xplpm_fuzz::require(skipBad || set.badLines.size() <= 1, "reading went on after a bad line");
    for (const auto& bad : set.badLines) xplpm_fuzz::requirePrintable(bad);
    for (const auto& op : set.ops) xplpm_fuzz::require(op.route.ipv6 ? set.hasV6 : set.hasV4, "a replayed route of no family read");
    for (const auto& r : set.routes) {
      xplpm_fuzz::require(r.ipv6 ? XpLib::Ip6Prefix::validAsPrefix(r.v6.address(), r.v6.len())
                                 : XpLib::Prefix::validAsPrefix(r.v4.address(), r.v4.len()),
                          "an accepted route that is not a prefix");
      xplpm_fuzz::require(r.vrf <= 0xFFFF, "a VRF beyond 16 bits");
    }
  }
  return 0;
}
