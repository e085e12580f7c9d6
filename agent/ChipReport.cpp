// Fill reports and the NHI overlap audit.
#include "agent/ChipReport.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace XpLib {
namespace Agent {

namespace {

struct Block {
  U32 tile, base, size;
  auto operator<=>(const Block&) const = default;
};

U32 usedSlots(const XpXdk::xpLpmPrefixEntry& e) {
  U32 n = 0;
  for (U32 s = 0; s < e.numSlots && s < XpXdk::xpLpmPrefixEntry::kMaxSlots; ++s) n += !e.slots[s].empty();
  return n;
}

// The NHI block of every entry that holds prefixes, with how many entries point at it.
std::map<Block, U32> referencedBlocks(const XpXdk::xpLpmMemory& lpm) {
  std::map<Block, U32> blocks;
  const U32 pairs = std::max<U32>(1, lpm.context().nhiPairPerEntry);
  for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t) {
    if (!lpm.context().prefixTableContext[t].valid) continue;
    for (const auto& [position, e] : lpm.entries(t)) {
      if (usedSlots(e) == 0) continue;
      ++blocks[Block{e.nhiTile, e.nhiOffset, (e.numSlots + pairs - 1) / pairs}];
    }
  }
  return blocks;
}

}  // namespace

std::vector<TableFill> tableFill(const XpXdk::xpLpmMemory& lpm) {
  std::vector<TableFill> out;
  for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t) {
    const auto& c = lpm.context().prefixTableContext[t];
    if (!c.valid) continue;
    TableFill f{t, c.tread, c.depth, 0, 0};
    for (const auto& [position, e] : lpm.entries(t)) {
      const U32 used = usedSlots(e);
      f.occupied += used > 0;
      f.prefixes += used;
    }
    out.push_back(f);
  }
  return out;
}

std::vector<NhiFill> nhiFill(const XpXdk::xpLpmMemory& lpm) {
  std::vector<NhiFill> out;
  for (U32 t = 0; t < lpm.nhiTiles(); ++t) out.push_back(NhiFill{t, lpm.nhiEntriesPerTile(), 0});
  std::vector<std::vector<bool>> used(lpm.nhiTiles(), std::vector<bool>(lpm.nhiEntriesPerTile()));
  for (const auto& [b, refs] : referencedBlocks(lpm)) {
    if (b.tile >= used.size()) continue;
    for (U32 i = b.base; i < b.base + b.size && i < used[b.tile].size(); ++i) {
      out[b.tile].used += !used[b.tile][i];
      used[b.tile][i] = true;
    }
  }
  return out;
}

NhiOverlapAudit auditNhiOverlaps(const XpXdk::xpLpmMemory& lpm) {
  NhiOverlapAudit audit;
  const std::map<Block, U32> blocks = referencedBlocks(lpm);
  audit.blocks = blocks.size();
  // Blocks come sorted by (tile, base, size): an overlap is a block starting
  // inside one that starts earlier (or at the same base with another size).
  std::vector<Block> open;
  U32 tile = ~0u;
  for (const auto& [b, refs] : blocks) {
    audit.sharedBlocks += refs > 1;
    if (b.tile != tile) {
      open.clear();
      tile = b.tile;
    }
    open.erase(std::remove_if(open.begin(), open.end(), [&](const Block& o) { return o.base + o.size <= b.base; }),
               open.end());
    audit.overlappingPairs += open.size();
    open.push_back(b);
  }
  return audit;
}

}  // namespace Agent
}  // namespace XpLib
