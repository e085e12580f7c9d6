// What a chip's tables hold and can still take, read from the state machines' models, in the
// manner of SONiC's CRM: used and available per resource, with its thresholds (an alarm at
// 85 % used, cleared below 70 %). Routes are not among them: how many more fit is measured
// by adding them (Capacity.h), no count of free entries says it.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "agent/XpLpmAgent.h"

namespace xplpm {

using XpLib::U32;
using XpLib::U64;

// SONiC's CRM defaults, in percent used.
inline constexpr double kThresholdHigh = 85.0;
inline constexpr double kThresholdLow = 70.0;

struct Resource {
  bool shared = false;  // the next-hop table, which both families use
  bool ipv6 = false;
  std::string kind;     // "routes", "prefix-table entries", "NHI entries", "next-hop entries"
  std::string name;     // "tread 36 (tables 0-3)", "tile 2", or empty
  U32 tread = 0;
  U64 used = 0, available = 0;

  // "ipv4 prefix-table entries, tread 36 (tables 0-3)", "next-hop entries".
  std::string label() const;
};

enum class Threshold { ok, low, high };  // below the low mark, at or above it, at or above the high mark

// The percentage as every report prints it: one decimal.
std::string percentText(U64 used, U64 total);
// The threshold of the percentage as printed, so that a table shown at 85.0 % is high.
Threshold thresholdOf(U64 used, U64 total);
const char* thresholdName(Threshold t);

// Prefix-table entries per tread, NHI entries per tile of each family in use, and the
// next-hop table's entries.
std::vector<Resource> modelResources(const XpLib::Agent::XpLpmAgent& agent, const bool inUse[2]);

// The prefix tables a prefix of this length may be placed in, as (id, tread) in the order the
// state machine tries them: descending tread from the longest below the key length, then the
// tables whose tread is the key length.
std::vector<std::pair<U32, U32>> candidateTables(const XpLib::Agent::XpLpmAgent& agent, bool ipv6, U32 prefixLen);

}  // namespace xplpm
