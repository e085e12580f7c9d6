// Reports on what the chip holds, read through the chip port: fill of every prefix table and NHI
// tile, and an audit of NHI blocks that overlap in the chip's own view.
#pragma once

#include <vector>

#include "agent/ChipPort.h"

namespace XpLib {
namespace Agent {

struct TableFill {
  U32 tableId = 0;
  U32 tread = 0;
  U32 depth = 0;
  U32 occupied = 0;  // positions holding an entry with at least one prefix
  U64 prefixes = 0;
};

struct NhiFill {
  U32 tile = 0;
  U32 entries = 0;
  U32 used = 0;  // entries referenced by some prefix-table entry
};

// Prefix-table entries point at NHI blocks; blocks at equal bases are shared by
// design, blocks that overlap without being equal would corrupt each other.
struct NhiOverlapAudit {
  U64 blocks = 0;         // distinct (tile, base, size) blocks referenced
  U64 sharedBlocks = 0;   // of those, referenced by more than one entry
  U64 overlappingPairs = 0;
};

// Everything one family's prefix tables hold, read once; the reports are computed from it.
class ChipSurvey {
 public:
  // `context` is the family's table context, which tells the tables and the NHI geometry.
  ChipSurvey(ChipPort& chip, bool ipv6, const XpXdk::xpLpmTableContext& context);

  std::vector<TableFill> tableFill() const;
  std::vector<NhiFill> nhiFill() const;
  NhiOverlapAudit nhiOverlaps() const;

 private:
  XpXdk::xpLpmTableContext context_;
  // The non-empty entries by table and position, and the table of each.
  std::vector<XpXdk::xpLpmPrefixEntry> entries_;
  std::vector<U32> tables_;
};

}  // namespace Agent
}  // namespace XpLib
