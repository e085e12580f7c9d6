// The simulated chip: the memory of its LPM tables (prefix tables, NHI tiles)
// per address family and its next-hop table, the SDK accessor that reads and
// writes them, and the chip's own longest-prefix-match lookup.
//
// The chip is the oracle of every forwarding check: it knows nothing of the
// library's model, only its table contexts and what was written to it, and
// hashes a looked-up key with the same CRC the hardware uses.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/ChunkedVector.h"
#include "xdk/xpHashFunction.h"
#include "xdk/xpIpRouteLpmMgr.h"
#include "xdk/xpLpmLookup.h"
#include "xdk/xpLpmEntry.h"
#include "xdk/xpTableContext.h"

namespace XpXdk {

// One write to the chip, as a write hook sees it.
struct xpChipWrite {
  enum Kind : U8 { prefix, nhi, nextHop };
  Kind kind = prefix;
  bool ipv6 = false;
  U32 where = 0;  // prefix table or NHI tile; 0 for the next-hop table
  U32 offset = 0;
};
using xpWriteHook = std::function<void(const xpChipWrite&)>;

// The non-empty entries of one prefix table, packed: a position names its entry's place in the
// pack, so a read is two array loads rather than a hash-map probe, and the pack holds only what
// was written. A removal moves the last entry into the hole, so the order of the pack depends only
// on the history of writes.
class xpPrefixTableStore {
 public:
  class const_iterator {
   public:
    using value_type = std::pair<U32, const xpLpmPrefixEntry&>;
    const_iterator(const xpPrefixTableStore* store, U32 i) : store_(store), i_(i) {}
    value_type operator*() const { return {store_->positions_[i_], store_->entries_[i_]}; }
    const_iterator& operator++() {
      ++i_;
      return *this;
    }
    bool operator==(const const_iterator&) const = default;

   private:
    const xpPrefixTableStore* store_;
    U32 i_;
  };

  void depthIs(U32 depth) { placeOf_.assign(depth, 0); }
  // The entry at a position, or null where the position holds none (or lies past the table).
  const xpLpmPrefixEntry* find(U32 position) const {
    const U32 place = position < placeOf_.size() ? placeOf_[position] : 0;
    return place ? &entries_[place - 1] : nullptr;
  }
  bool count(U32 position) const { return find(position) != nullptr; }
  // Throws std::out_of_range where the position holds no entry.
  const xpLpmPrefixEntry& at(U32 position) const;
  void put(U32 position, const xpLpmPrefixEntry& entry);
  void erase(U32 position);

  U32 size() const { return static_cast<U32>(entries_.size()); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return {this, 0}; }
  const_iterator end() const { return {this, size()}; }
  std::size_t heapBytes() const {
    return placeOf_.capacity() * sizeof(U32) + entries_.heapBytes() + positions_.capacity() * sizeof(U32);
  }

 private:
  std::vector<U32> placeOf_;  // by position: 1 + the entry's place in the pack, 0 for none
  // In chunks of 256 entries: a full table's pack never moves as it grows, and a small table
  // takes no more than a chunk.
  XpLib::ChunkedVector<xpLpmPrefixEntry, 8> entries_;
  std::vector<U32> positions_;  // by place: the entry's position
};

// The memory of one LPM instance (one address family).
class xpLpmMemory {
 public:
  explicit xpLpmMemory(const xpLpmTableContext& context);

  const xpLpmTableContext& context() const { return context_; }
  U32 nhiTiles() const { return static_cast<U32>(nhi_.size()); }
  U32 nhiEntriesPerTile() const { return nhiEntriesPerTile_; }

  XP_STATUS readPrefixEntry(U32 tableId, U32 offset, xpLpmPrefixEntry* entry) const;
  XP_STATUS writePrefixEntry(U32 tableId, U32 offset, const xpLpmPrefixEntry& entry);
  XP_STATUS readNhiEntry(U32 tile, U32 offset, xpLpmNhiEntry* entry) const;
  XP_STATUS writeNhiEntry(U32 tile, U32 offset, const xpLpmNhiEntry& entry);

  // The longest match over every valid prefix table.
  xpLpmLookupResult lookup(const xpLpmKey& key) const;

  // Heap held by the stored prefix entries, so that a tool can tell the chip's memory from the
  // library's.
  std::size_t prefixEntryBytes() const;
  // Positions of one table that hold a non-empty entry, for audits and fill reports.
  U32 occupied(U32 tableId) const;
  // Every non-empty entry of one table, with its position.
  const xpPrefixTableStore& entries(U32 tableId) const { return tables_[tableId].entries; }

 private:
  struct Table {
    std::unique_ptr<xpHashFunction> hash;
    xpPrefixTableStore entries;
    // One bit per position: a lookup passes an empty position without a cache miss in the larger
    // position array of `entries`.
    std::vector<U64> occupancy;
  };

  xpLpmTableContext context_;
  std::array<Table, xpLpmTableContext::kPrefixTables> tables_;
  U32 nhiEntriesPerTile_ = 0;
  std::vector<std::vector<xpLpmNhiEntry>> nhi_;
};

// The SDK accessor over the simulated memory of one LPM instance. Device ids are ignored (one
// chip). Reads can be told to fail, for tests of the readers' error handling.
class xpSimLpmMgr final : public xpIpRouteLpmMgr {
 public:
  explicit xpSimLpmMgr(xpLpmMemory* memory) : memory_(memory) {}

  XP_STATUS readPrefixEntry(U32 devId, U32 tableId, U32 offset, xpLpmPrefixEntry* entry, U32 flags) override;
  XP_STATUS writePrefixEntry(U32 devId, U32 tableId, U32 offset, const xpLpmPrefixEntry* entry) override;
  XP_STATUS readNhiEntry(U32 devId, U32 tile, U32 offset, xpLpmNhiEntry* entry, U32 flags) override;
  XP_STATUS writeNhiEntry(U32 devId, U32 tile, U32 offset, const xpLpmNhiEntry* entry) override;

  // The next read of that prefix-table position (or NHI entry) returns `status`, once.
  void failPrefixEntryReadIs(U32 tableId, U32 offset, XP_STATUS status);
  void failNhiEntryReadIs(U32 tile, U32 offset, XP_STATUS status);

  U64 reads() const { return reads_; }
  U64 writes() const { return writes_; }
  // Called after every write, for tests that watch the chip between writes.
  void afterWriteIs(const xpWriteHook* f) { afterWrite_ = f; }

 private:
  std::optional<XP_STATUS> injected(std::unordered_map<U64, XP_STATUS>& failures, U64 key);

  xpLpmMemory* memory_;
  std::unordered_map<U64, XP_STATUS> prefixReadFailures_;
  std::unordered_map<U64, XP_STATUS> nhiReadFailures_;
  U64 reads_ = 0;
  U64 writes_ = 0;
  const xpWriteHook* afterWrite_ = nullptr;
};

// The whole chip: one LPM memory per family and the next-hop table.
class xpChip {
 public:
  xpChip(const xpLpmTableContext& ipv4, const xpLpmTableContext& ipv6, const xpNhTableContext& nh);
  xpChip(const xpChip&) = delete;
  xpChip& operator=(const xpChip&) = delete;

  xpLpmMemory& lpm(bool ipv6) { return ipv6 ? *v6_ : *v4_; }
  const xpLpmMemory& lpm(bool ipv6) const { return ipv6 ? *v6_ : *v4_; }
  xpSimLpmMgr& lpmMgr(bool ipv6) { return ipv6 ? v6Mgr_ : v4Mgr_; }

  U32 nextHopEntries() const { return static_cast<U32>(nh_.size()); }
  XP_STATUS readNextHop(U32 index, xpNhEntry* entry) const;
  XP_STATUS writeNextHop(U32 index, const xpNhEntry& entry);
  // The next-hop entry a looked-up packet reaches: member `selector % size` of
  // the matched block (the packet's flow hash picks the member). Null on a miss
  // or a block outside the table.
  const xpNhEntry* resolve(const xpLpmLookupResult& r, U64 selector) const;
  // A hook run after every write to any of the chip's tables, so that a test can
  // check forwarding between two writes; none by default.
  void afterWriteIs(xpWriteHook f);

 private:
  std::unique_ptr<xpLpmMemory> v4_, v6_;
  xpSimLpmMgr v4Mgr_, v6Mgr_;
  std::vector<xpNhEntry> nh_;
  xpWriteHook afterWrite_;
};

}  // namespace XpXdk
