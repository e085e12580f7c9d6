// Reading route files for the tool: "PREFIX NEXTHOP [VRF]" lines, and the `bgpdump -m`
// lines of MRT RIB dumps (TABLE_DUMP, TABLE_DUMP2) and of update files (BGP4MP, BGP4MP_ET:
// announcements and withdrawals); plain or compressed with gzip, bzip2, xz or zstd (told
// by their bytes, not by the name); from a file or standard input ("-"); both families
// possibly mixed.
//
// One route per prefix (VRF and prefix). Of PREFIX NEXTHOP lines, the last line of a prefix
// wins. bgpdump lines come from peers, and every peer keeps its own path for a prefix: the
// route follows the best path, the shortest AS path (an AS set counts as one AS), then the
// lowest peer address (an IPv4 peer counts as its IPv4-mapped IPv6 address), and its next
// hop is that path's origin AS. A withdrawal takes the peer's path away; the prefix is
// withdrawn when no peer has a path left. An input with update lines is replayed: the routes
// as they stood at the first update line are announced, then every change of a prefix's
// route in file order. A STATE line (a session changing state) carries no route, and a
// session going down does not take its peer's paths away.
//
// Every line is accounted for: it is a route (one wanted at the end, one withdrawn again, a
// duplicate of a prefix already given, or of the family not selected), a withdrawal, blank
// or a comment, or bad. Lines end at LF, CR or CR LF, so a file written with old Mac line
// ends is read line by line; a NUL byte or an overlong line makes its line bad instead of
// joining it to the next.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "Errors.h"
#include "agent/RouteFile.h"
#include "agent/XpLpmAgent.h"

namespace xplpm {

// A route's key, VRF and prefix of either family, for sets and maps of routes by key.
struct RouteKey {
  XpLib::U32 vrf = 0;
  XpLib::U8 len = 0;
  bool v6 = false;
  std::array<XpLib::U8, 16> address{};
  bool operator==(const RouteKey&) const = default;
};
struct RouteKeyHash {
  std::size_t operator()(const RouteKey& k) const;
};
RouteKey routeKey(const XpLib::Agent::Route& r);

// One request of an update input's replay.
struct RouteOp {
  bool withdraw = false;
  XpLib::Agent::Route route;
};

struct RouteSet {
  std::string source;                       // the file, or "standard input"
  std::vector<XpLib::Agent::Route> routes;  // wanted at the end, in the order their prefixes first came
  std::vector<RouteOp> ops;                 // an update input's replay, in order; empty for other inputs
  XpLib::U64 lines = 0;
  XpLib::U64 blank = 0;        // blank lines, comments and bgpdump lines without a route (STATE)
  XpLib::U64 duplicates = 0;   // route lines of a prefix given before, by the same or another peer
  XpLib::U64 otherFamily = 0;  // routes of the family not selected
  XpLib::U64 withdrawals = 0;  // withdrawal lines
  XpLib::U64 withdrawn = 0;    // prefixes given, then withdrawn: not wanted at the end
  std::vector<InputError> badLines;
  bool hasV4 = false, hasV6 = false;

  // Every line is one of these.
  XpLib::U64 accounted() const {
    return routes.size() + withdrawn + duplicates + otherFamily + withdrawals + badLines.size() + blank;
  }
};

enum class FamilyFilter { any, ipv4, ipv6 };

// The longest line read; a longer one is bad.
inline constexpr std::size_t kMaxLineBytes = 64 * 1024;

// Reads every route of `path` ("-": standard input). A file that cannot be read, or a
// truncated or corrupt compressed stream, throws BadInput; bad lines are collected and,
// unless skipBad is set, stop the reading at the first one.
RouteSet readRoutes(const std::string& path, FamilyFilter family, bool skipBad);

// The same over text already in memory, named `source` in messages.
RouteSet readRouteText(const std::string& source, std::string_view text, FamilyFilter family, bool skipBad);

// One `bgpdump -m` line.
struct BgpdumpLine {
  enum class Kind { rib, announce, withdraw, state } kind = Kind::rib;
  // The prefix; for a RIB line or an announcement, the origin AS (the last AS of the path,
  // the first of a trailing set; the peer's AS when the path is empty) as next hop.
  XpLib::Agent::Route route;
  std::array<XpLib::U8, 16> peer{};  // the peer's address, an IPv4 one IPv4-mapped
  XpLib::U32 pathLength = 0;         // ASes on the path, an AS set counting one
};

// Parses TABLE_DUMP|time|B|peer|peerAS|PREFIX|AS_PATH|..., BGP4MP|time|A|peer|peerAS|PREFIX|
// AS_PATH|..., BGP4MP|time|W|peer|peerAS|PREFIX and BGP4MP|time|STATE|... lines.
XpLib::Agent::LineKind parseBgpdumpLine(std::string_view line, BgpdumpLine& out, std::string& why);

}  // namespace xplpm
