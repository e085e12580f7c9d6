// Table contexts: what the chip reports about its LPM and next-hop tables, and
// the system status that holds them by table-context id.
#pragma once

#include <array>
#include <bit>
#include <map>
#include <optional>
#include <string>
#include <variant>

#include "platform/Ptr.h"
#include "platform/Types.h"

namespace XpXdk {

using XpLib::U16;
using XpLib::U32;
using XpLib::U64;
using XpLib::U8;

// SDK return codes.
enum XP_STATUS : int {
  XP_NO_ERR = 0,
  XP_ERR_INVALID_ARG = 9,
  XP_ERR_OUT_OF_RANGE = 11,
  XP_ERR_INVALID_DATA = 42,
};

// One hardware prefix table as the chip describes it.
struct xpPrefixTableContext {
  bool valid = false;
  U32 depth = 0;      // entries (hash positions)
  U32 sramWidth = 0;  // bits of one entry: 128 or 256
  U8 tread = 0;       // leading key bits hashed to choose an entry
  U8 hashSelector = 0;  // column of the chip's polynomial table, 0..3
};

struct xpLpmTableContext {
  static constexpr U32 kPrefixTables = 32;
  U32 vrfIdWidth = 0;
  U32 keyLength = 0;  // 48 (IPv4) or 144 (IPv6), VRF bits included
  std::array<xpPrefixTableContext, kPrefixTables> prefixTableContext{};
  U32 nhiTableSize = 0;
  U8 nhiPairPerEntry = 0;
  U8 nhiBlockBaseWidth = 0;
  // One bit per available NHI tile; byte i counts only when bit i of the mask is set.
  std::array<U8, 8> nhiTileBitmap{};
  U8 nhiTileBitmapValidMask = 0;

  // The tiles the bitmap marks in its valid bytes.
  U32 nhiTiles() const {
    U32 tiles = 0;
    for (U32 i = 0; i < nhiTileBitmap.size(); ++i)
      if ((nhiTileBitmapValidMask >> i) & 1) tiles += static_cast<U32>(std::popcount(nhiTileBitmap[i]));
    return tiles;
  }
};

// NHI entries in one tile of the chip's NHI table.
inline constexpr U32 kNhiEntriesPerTile = 16384;

struct xpNhTableContext {
  U32 rowBlkInc = 0;  // next-hop entries in the table
};

// One table context as the system status keeps it.
class TableContextEntry {
 public:
  TableContextEntry() = default;
  explicit TableContextEntry(const xpLpmTableContext& c) : context_(c) {}
  explicit TableContextEntry(const xpNhTableContext& c) : context_(c) {}

  // Fills the context; XP_ERR_INVALID_ARG when the entry holds the other kind.
  XP_STATUS xpTblContext(xpLpmTableContext& out) const;
  XP_STATUS xpTblContext(xpNhTableContext& out) const;

 private:
  std::variant<std::monostate, xpLpmTableContext, xpNhTableContext> context_;
};

}  // namespace XpXdk

namespace XpSystem {

// The chip's table contexts by table-context id (51 IPv4 LPM, 52 IPv6 LPM, 53 next hops).
class SystemStatus : public XpLib::PtrInterface {
 public:
  static constexpr XpLib::U32 kLpmV4ContextId = 51;
  static constexpr XpLib::U32 kLpmV6ContextId = 52;
  static constexpr XpLib::U32 kNextHopContextId = 53;

  // The entry with that id, or null.
  const XpXdk::TableContextEntry* tableContextEntry(XpLib::U32 id) const {
    auto it = tableContextEntry_.find(id);
    return it == tableContextEntry_.end() ? nullptr : &it->second;
  }
  void tableContextEntryIs(XpLib::U32 id, const XpXdk::TableContextEntry& e) { tableContextEntry_[id] = e; }
  void tableContextEntryDel(XpLib::U32 id) { tableContextEntry_.erase(id); }

 private:
  std::map<XpLib::U32, XpXdk::TableContextEntry> tableContextEntry_;
};

}  // namespace XpSystem
