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

}  // namespace

ChipSurvey::ChipSurvey(ChipPort& chip, bool ipv6, const XpXdk::xpLpmTableContext& context) : context_(context) {
  XpXdk::xpIpRouteLpmMgr& mgr = chip.lpmMgr(ipv6);
  for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t) {
    const auto& c = context.prefixTableContext[t];
    if (!c.valid) continue;
    for (U32 position = 0; position < c.depth; ++position) {
      XpXdk::xpLpmPrefixEntry e;
      if (mgr.readPrefixEntry(0, t, position, &e, 0) != XpXdk::XP_NO_ERR || e.empty()) continue;
      entries_.push_back(e);
      tables_.push_back(t);
    }
  }
}

std::vector<TableFill> ChipSurvey::tableFill() const {
  std::vector<TableFill> out;
  std::map<U32, std::size_t> at;
  for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t) {
    const auto& c = context_.prefixTableContext[t];
    if (!c.valid) continue;
    at[t] = out.size();
    out.push_back(TableFill{t, c.tread, c.depth, 0, 0});
  }
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    TableFill& f = out[at.at(tables_[i])];
    const U32 used = usedSlots(entries_[i]);
    f.occupied += used > 0;
    f.prefixes += used;
  }
  return out;
}

// The NHI block of every entry that holds prefixes, with how many entries point at it.
static std::map<Block, U32> referencedBlocks(const std::vector<XpXdk::xpLpmPrefixEntry>& entries, U32 pairs) {
  std::map<Block, U32> blocks;
  for (const auto& e : entries) {
    if (usedSlots(e) == 0) continue;
    ++blocks[Block{e.nhiTile, e.nhiOffset, (e.numSlots + pairs - 1) / pairs}];
  }
  return blocks;
}

std::vector<NhiFill> ChipSurvey::nhiFill() const {
  const U32 tiles = context_.nhiTiles();
  const U32 perTile = tiles ? context_.nhiTableSize / tiles : 0;
  std::vector<NhiFill> out;
  for (U32 t = 0; t < tiles; ++t) out.push_back(NhiFill{t, perTile, 0});
  std::vector<std::vector<bool>> used(tiles, std::vector<bool>(perTile));
  for (const auto& [b, refs] : referencedBlocks(entries_, std::max<U32>(1, context_.nhiPairPerEntry))) {
    if (b.tile >= used.size()) continue;
    for (U32 i = b.base; i < b.base + b.size && i < used[b.tile].size(); ++i) {
      out[b.tile].used += !used[b.tile][i];
      used[b.tile][i] = true;
    }
  }
  return out;
}

NhiOverlapAudit ChipSurvey::nhiOverlaps() const {
  NhiOverlapAudit audit;
  const std::map<Block, U32> blocks = referencedBlocks(entries_, std::max<U32>(1, context_.nhiPairPerEntry));
  audit.blocks = blocks.size();
  // Blocks come sorted by (tile, base, size): an overlap is a block starting
  // inside one that starts earlier (or at the same base with another size).
  std::vector<Block> open;
  U32 tile = ~0u;
  for (const auto& [block, refs] : blocks) {
    const Block b = block;  // a structured binding cannot be captured before C++20 compilers catch up
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
