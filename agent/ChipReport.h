// Reports on what the chip holds: fill of every prefix table and NHI tile, and
// an audit of NHI blocks that overlap in the chip's own view.
#pragma once

#include <vector>

#include "xdk/xpChip.h"

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

std::vector<TableFill> tableFill(const XpXdk::xpLpmMemory& lpm);
std::vector<NhiFill> nhiFill(const XpXdk::xpLpmMemory& lpm);
NhiOverlapAudit auditNhiOverlaps(const XpXdk::xpLpmMemory& lpm);

}  // namespace Agent
}  // namespace XpLib
