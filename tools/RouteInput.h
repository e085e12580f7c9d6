// Reading route files for the tool: "PREFIX NEXTHOP [VRF]" lines and the
// `bgpdump -m` lines of MRT RIB dumps, plain or gzip-compressed, both families
// possibly mixed. Bad lines are reported with their file and line.
#pragma once

#include <string>
#include <vector>

#include "agent/XpLpmAgent.h"

namespace xplpm {

struct InputError {
  std::string where;  // "FILE:LINE" or "FILE"
  std::string what;
};

struct RouteSet {
  std::vector<XpLib::Agent::Route> routes;  // in file order, the last of duplicate keys kept in place of the first
  XpLib::U64 lines = 0;
  XpLib::U64 duplicates = 0;
  XpLib::U64 otherFamily = 0;  // routes of the family not selected
  std::vector<InputError> badLines;
  bool hasV4 = false, hasV6 = false;
};

enum class FamilyFilter { any, ipv4, ipv6 };

// Reads every route of `path`. A file that cannot be read, or a truncated
// gzip stream, is an error returned in `fatal`; bad lines are collected and,
// unless skipBad is set, stop the reading at the first one.
RouteSet readRoutes(const std::string& path, FamilyFilter family, bool skipBad, InputError* fatal);

}  // namespace xplpm
