// Reading route files for the tool: "PREFIX NEXTHOP [VRF]" lines and the
// `bgpdump -m` lines of MRT RIB dumps, plain or gzip-compressed, from a file or
// standard input ("-"), both families possibly mixed.
//
// Every line is accounted for: it is a route (kept, a duplicate of an earlier
// key, or of the family not selected), blank or a comment, or bad. Lines end at
// LF, CR or CR LF, so a file written with old Mac line ends is read line by
// line; a NUL byte or an overlong line makes its line bad instead of joining it
// to the next.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Errors.h"
#include "agent/RouteFile.h"
#include "agent/XpLpmAgent.h"

namespace xplpm {

struct RouteSet {
  std::string source;                       // the file, or "standard input"
  std::vector<XpLib::Agent::Route> routes;  // in file order, the last of duplicate keys kept in place of the first
  XpLib::U64 lines = 0;
  XpLib::U64 blank = 0;  // blank lines and comments
  XpLib::U64 duplicates = 0;
  XpLib::U64 otherFamily = 0;  // routes of the family not selected
  std::vector<InputError> badLines;
  bool hasV4 = false, hasV6 = false;
};

enum class FamilyFilter { any, ipv4, ipv6 };

// The longest line read; a longer one is bad.
inline constexpr std::size_t kMaxLineBytes = 64 * 1024;

// Reads every route of `path` ("-": standard input). A file that cannot be read,
// or a truncated gzip stream, throws BadInput; bad lines are collected and,
// unless skipBad is set, stop the reading at the first one.
RouteSet readRoutes(const std::string& path, FamilyFilter family, bool skipBad);

// The same over text already in memory, named `source` in messages.
RouteSet readRouteText(const std::string& source, std::string_view text, FamilyFilter family, bool skipBad);

// One `bgpdump -m` RIB line (TABLE_DUMP2|time|B|peer|peerAS|PREFIX|AS_PATH|...): the
// origin AS (the last AS of the path, the first of a trailing set; the peer's AS when
// the path is empty) is the next hop.
XpLib::Agent::LineKind parseBgpdumpLine(std::string_view line, XpLib::Agent::Route& out, std::string& why);

}  // namespace xplpm
