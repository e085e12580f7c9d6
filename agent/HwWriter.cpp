// Draining the pending command queue into the chip.
#include "agent/HwWriter.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "XpLpm/XpLpmSm.h"
#include "agent/EntryCodec.h"

namespace XpLib {
namespace Agent {

namespace {

// FNV-1a over the fields one by one: a record's padding bytes are not part of its content. A zero
// byte only multiplies by the prime, so a run of n zero bytes is one multiplication by the prime's
// n-th power: most of a prefix entry is empty slots.
class Digest {
 public:
  static constexpr U64 kPrime = kFnv1aPrime;

  explicit Digest(U64& d) : d_(d) {}
  template <class T>
  Digest& operator<<(const T& v) {
    const U64 bits = static_cast<U64>(v);
    // Bytes above the highest non-zero one are zero.
    const unsigned used = bits ? (71 - static_cast<unsigned>(std::countl_zero(bits))) / 8 : 0;
    for (unsigned i = 0; i < used && i < sizeof(T); ++i) {
      d_ ^= static_cast<U8>(bits >> (8 * i));
      d_ *= kPrime;
    }
    if (used < sizeof(T)) d_ *= power(sizeof(T) - used);
    return *this;
  }
  // n zero bytes.
  Digest& zeros(unsigned n) {
    if (n) d_ *= power(n);
    return *this;
  }

 private:
  static U64 power(unsigned n) {
    static const std::array<U64, 512> powers = [] {
      std::array<U64, 512> p{};
      p[0] = 1;
      for (std::size_t i = 1; i < p.size(); ++i) p[i] = p[i - 1] * kPrime;
      return p;
    }();
    return powers[n];
  }

  U64& d_;
};

void mix(U64& digest, U32 table, U32 offset, const XpXdk::xpLpmPrefixEntry& e) {
  Digest d(digest);
  d << U32(0) << table << offset << e.keySize << e.mode << e.branchLen << e.stride << e.nhiTile << e.nhiOffset
    << e.numSlots;
  for (U8 b : e.branch) d << b;
  // Empty slots, in runs.
  unsigned empty = 0;
  for (const auto& leaf : e.slots) {
    if (leaf.leafVal == 0 && leaf.leafValHigh == 0) {
      empty += sizeof(leaf.leafVal) + sizeof(leaf.leafValHigh);
      continue;
    }
    d.zeros(empty) << leaf.leafVal << leaf.leafValHigh;
    empty = 0;
  }
  d.zeros(empty);
}

void mix(U64& digest, U32 tile, U32 offset, const XpXdk::xpLpmNhiEntry& e) {
  Digest d(digest);
  d << U32(1) << tile << offset;
  for (const auto& pair : e.pair) d << pair.base << pair.size;
}

U64 positionKey(U32 a, U32 b) { return (U64(a) << 32) | b; }

// Whether two prefix commands ask for the same entry at the same place.
bool sameCommand(const XpLpm::PrefixCommand& a, const XpLpm::PrefixCommand& b) {
  return a.tableId() == b.tableId() && a.index() == b.index() && a.nhiBaseIdx() == b.nhiBaseIdx() &&
         a.branchLen() == b.branchLen() && a.stride() == b.stride() && a.mode() == b.mode() && a.branch() == b.branch() &&
         a.prefixList() == b.prefixList();
}

}  // namespace

HwWriter::HwWriter(const Ptr<XpLpm::Status>& status, const Ptr<XpLpm::ConfigBase>& config, const XpLpm::LpmSm* sm,
                   XpXdk::xpIpRouteLpmMgr* mgr)
    : status_(status), config_(config), sm_(sm), mgr_(mgr), compactionsSeen_(sm->numNhiBlockDefrag()) {
  readers_.assign(config->nhiAvailableTiles(), std::vector<U16>(config->nhiEntriesPerTile(), 0));
  for (const auto& [id, table] : config->prefixTableConfigMap()) {
    for (U32 offset = 0; offset < table->depth(); ++offset) {
      XpXdk::xpLpmPrefixEntry e;
      if (mgr_->readPrefixEntry(0, id.value(), offset, &e, 0) == XpXdk::XP_NO_ERR && !e.empty()) countReads(e, +1);
    }
  }
}

void HwWriter::countReads(const XpXdk::xpLpmPrefixEntry& e, int delta) {
  const U32 pairs = config_->nhiPairPerEntry();
  if (pairs == 0 || e.nhiTile >= readers_.size()) return;
  std::vector<U16>& tile = readers_[e.nhiTile];
  U32 last = ~0u;
  const U32 slots = std::min<U32>(e.numSlots, XpXdk::xpLpmPrefixEntry::kMaxSlots);
  for (U32 s = 0; s < slots; ++s) {
    if (e.slots[s].empty()) continue;
    const U32 entry = e.nhiOffset + s / pairs;
    if (entry == last || entry >= tile.size()) continue;
    last = entry;
    tile[entry] = static_cast<U16>(tile[entry] + delta);
  }
}

U32 HwWriter::readers(U32 tile, U32 offset) const {
  return tile < readers_.size() && offset < readers_[tile].size() ? readers_[tile][offset] : 0;
}

bool HwWriter::writePrefix(U32 table, U32 offset, const XpXdk::xpLpmPrefixEntry& entry,
                           const XpXdk::xpLpmPrefixEntry& held) {
  if (mgr_->writePrefixEntry(0, table, offset, &entry) != XpXdk::XP_NO_ERR) {
    ++counters_.errors;
    return false;
  }
  countReads(held, -1);
  countReads(entry, +1);
  return true;
}

bool HwWriter::writeNhi(U32 tile, U32 offset, const XpXdk::xpLpmNhiEntry& entry) {
  if (mgr_->writeNhiEntry(0, tile, offset, &entry) != XpXdk::XP_NO_ERR) {
    ++counters_.errors;
    return false;
  }
  return true;
}

bool HwWriter::clearPrefixEntry(U32 table, U32 offset) {
  lastPrefixCmd_ = nullptr;
  XpXdk::xpLpmPrefixEntry held;
  if (mgr_->readPrefixEntry(0, table, offset, &held, 0) != XpXdk::XP_NO_ERR) return false;
  return writePrefix(table, offset, XpXdk::xpLpmPrefixEntry(), held);
}

void HwWriter::drain() {
  if (status_->pendingCmds() == 0) return;
  timer_.run([this] { drainQueue(); });
}

void HwWriter::drainQueue() {
  // Between drains the chip may have been written by others.
  lastPrefixCmd_ = nullptr;
  if (sm_->numNhiBlockDefrag() != compactionsSeen_) {
    compactionsSeen_ = sm_->numNhiBlockDefrag();
    drainAfterCompaction();
    return;
  }
  while (status_->pendingCmds() > 0) {
    // Hold the command: dequeuing drops the queue's reference.
    Ptr<XpLpm::CommandBase> cmd = status_->pendingCmdQueue().front().second;
    write(*cmd);
    status_->pendingCmdDeq();
  }
}

void HwWriter::write(const XpLpm::CommandBase& cmd) {
  if (cmd.cmdType() == XpLpm::commandTypePrefix) {
    const auto& prefixCmd = static_cast<const XpLpm::PrefixCommand&>(cmd);
    const U32 table = prefixCmd.tableId().value(), offset = prefixCmd.index().value();
    if (lastPrefixCmd_ && sameCommand(*lastPrefixCmd_, prefixCmd)) {
      mix(counters_.digest, table, offset, lastPrefixEntry_);
      ++counters_.prefixSkipped;
      return;
    }
    lastPrefixCmd_ = nullptr;
    // Encoded where a repeat of the command will find it.
    const XpXdk::xpLpmPrefixEntry& entry = lastPrefixEntry_;
    encodePrefixEntry(prefixCmd, config_->keyType(), lastPrefixEntry_);
    XpXdk::xpLpmPrefixEntry held;
    mix(counters_.digest, table, offset, entry);
    if (mgr_->readPrefixEntry(0, table, offset, &held, 0) == XpXdk::XP_NO_ERR && held == entry) {
      ++counters_.prefixSkipped;
    } else if (writePrefix(table, offset, entry, held)) {
      ++counters_.prefixWrites;
    } else {
      return;
    }
    lastPrefixCmd_ = Ptr<const XpLpm::PrefixCommand>(&prefixCmd);
    return;
  }
  const auto& nhiCmd = static_cast<const XpLpm::NhiCommand&>(cmd);
  const XpXdk::xpLpmNhiEntry entry = encodeNhiEntry(nhiCmd);
  XpXdk::xpLpmNhiEntry held;
  const U32 tile = nhiCmd.index().tile().value(), offset = nhiCmd.index().offset();
  mix(counters_.digest, tile, offset, entry);
  if (mgr_->readNhiEntry(0, tile, offset, &held, 0) == XpXdk::XP_NO_ERR && held == entry) {
    ++counters_.nhiSkipped;
    return;
  }
  if (writeNhi(tile, offset, entry)) ++counters_.nhiWrites;
}

// One queued command, encoded.
struct HwWriter::Item {
  bool prefix;
  U32 where;  // table or tile
  U32 offset;
  XpXdk::xpLpmPrefixEntry prefixEntry;
  XpXdk::xpLpmNhiEntry nhiEntry;
};

// The drain of one request that compacted a tile: what the chip must hold at the end, and the
// moves that keep every prefix entry reading what it read until its own write.
class HwWriter::Plan {
 public:
  Plan(HwWriter& w, std::vector<Item> items) : w_(w), items_(std::move(items)) {
    for (std::size_t i = 0; i < items_.size(); ++i) {
      const Item& it = items_[i];
      if (it.prefix) lastPrefixWrite_[positionKey(it.where, it.offset)] = i;
    }
  }

  void run() {
    for (std::size_t i = 0; i < items_.size(); ++i) items_[i].prefix ? prefix(i) : nhi(i);
  }

 private:
  // A prefix entry is written once, with its last image; until then it keeps reading what it read.
  void prefix(std::size_t i) {
    const Item& it = items_[i];
    if (lastPrefixWrite_.at(positionKey(it.where, it.offset)) != i) {
      ++w_.counters_.guarded;
      return;
    }
    XpXdk::xpLpmPrefixEntry held;
    if (w_.mgr_->readPrefixEntry(0, it.where, it.offset, &held, 0) == XpXdk::XP_NO_ERR && held == it.prefixEntry) {
      ++w_.counters_.prefixSkipped;
      return;
    }
    if (w_.writePrefix(it.where, it.offset, it.prefixEntry, held)) ++w_.counters_.prefixWrites;
  }

  // An NHI entry is written only with what the live block there wants at the end.
  void nhi(std::size_t i) {
    const Item& it = items_[i];
    const std::optional<XpXdk::xpLpmNhiEntry> want = wanted(it.where, it.offset);
    if (!want || *want != it.nhiEntry) {
      ++w_.counters_.guarded;
      w_.counters_.guardedLive += want.has_value();
      return;
    }
    XpXdk::xpLpmNhiEntry held;
    if (w_.mgr_->readNhiEntry(0, it.where, it.offset, &held, 0) == XpXdk::XP_NO_ERR && held == it.nhiEntry) {
      ++w_.counters_.nhiSkipped;
      return;
    }
    if (w_.readers(it.where, it.offset) > 0 && !moveReadersAside(i)) ++w_.counters_.unprotected;
    if (w_.writeNhi(it.where, it.offset, it.nhiEntry)) ++w_.counters_.nhiWrites;
  }

  // The contents the model's live block wants in an NHI entry at the end, or nullopt where no live
  // block holds the entry or its slots do not reach it.
  std::optional<XpXdk::xpLpmNhiEntry> wanted(U32 tile, U32 offset) {
    const U64 key = positionKey(tile, offset);
    if (auto it = wanted_.find(key); it != wanted_.end()) return it->second;
    std::optional<XpXdk::xpLpmNhiEntry> out;
    const XpLpm::LpmSm& sm = *w_.sm_;
    const U32 largest = sm.nhiBlockSize(sm.maxSubTrieSlots());
    for (U32 k = 0; k < largest && k <= offset; ++k) {
      const XpLpm::NhiTableIdx base(static_cast<U8>(tile), static_cast<U16>(offset - k));
      const Ptr<Blk> blk = sm.nhiBaseIdxToBlk(base);
      if (!blk) continue;
      if (blk->blkSz() <= k) break;
      const Ptr<XpLpm::SubTrieSet> users = sm.nhiBaseIdxToSubTrie(base);
      if (users && users->subTries() > 0) out = contents(*users->begin()->first, k);
      break;
    }
    wanted_[key] = out;
    return out;
  }

  // NHI entry j of a sub-trie's block, as its write commands would fill it.
  std::optional<XpXdk::xpLpmNhiEntry> contents(const XpLpm::SubTrie& st, U32 j) const {
    const XpLpm::LpmSm& sm = *w_.sm_;
    if (j >= sm.nhiBlockSize(st.maxPrefixSlot())) return std::nullopt;
    const U32 pairs = w_.config_->nhiPairPerEntry();
    XpXdk::xpLpmNhiEntry e;
    for (U32 k = 0; k < pairs && j * pairs + k < st.maxPrefixSlot() && k < XpXdk::xpLpmNhiEntry::kMaxPairs; ++k) {
      const Ptr<XpLpm::LpmPrefix> p = st.prefix(static_cast<U8>(j * pairs + k));
      const XpLpm::NextHopBlock block = p ? w_.config_->request(p) : XpLpm::NextHopBlock();
      e.pair[k] = XpXdk::xpLpmNhiPair{block.base().value(), block.size().value()};
    }
    return e;
  }

  // Points every prefix entry that reads the NHI entry of item i at a copy of what it reads, in
  // entries nobody reads or will be given. Only entries written again later in the queue qualify:
  // their own write takes them off the copy. False when some reader is not one of them, or no
  // room for a copy was found.
  bool moveReadersAside(std::size_t i) {
    const Item& target = items_[i];
    const U32 pairs = w_.config_->nhiPairPerEntry();
    struct Reader {
      U32 table, offset;
      XpXdk::xpLpmPrefixEntry held;
    };
    std::map<std::pair<U32, U32>, std::vector<Reader>> byBlock;  // (tile, base) -> readers
    std::map<std::pair<U32, U32>, U32> span;                     // entries read from that base
    U32 found = 0;
    for (const auto& [key, last] : lastPrefixWrite_) {
      if (last <= i) continue;
      Reader r{static_cast<U32>(key >> 32), static_cast<U32>(key), {}};
      if (w_.mgr_->readPrefixEntry(0, r.table, r.offset, &r.held, 0) != XpXdk::XP_NO_ERR) continue;
      if (r.held.nhiTile != target.where) continue;
      U32 lastSlot = 0;
      bool reads = false, any = false;
      for (U32 s = 0; s < std::min<U32>(r.held.numSlots, XpXdk::xpLpmPrefixEntry::kMaxSlots); ++s) {
        if (r.held.slots[s].empty()) continue;
        any = true;
        lastSlot = s;
        reads = reads || r.held.nhiOffset + s / pairs == target.offset;
      }
      if (!any || !reads) continue;
      ++found;
      const auto block = std::make_pair(U32(r.held.nhiTile), U32(r.held.nhiOffset));
      span[block] = std::max(span[block], lastSlot / pairs + 1);
      byBlock[block].push_back(r);
    }
    if (found != w_.readers(target.where, target.offset)) return false;
    for (const auto& [block, readers] : byBlock) {
      const std::optional<std::pair<U32, U32>> copy = freeRun(span[block]);
      if (!copy) return false;
      for (U32 k = 0; k < span[block]; ++k) {
        XpXdk::xpLpmNhiEntry e;
        w_.mgr_->readNhiEntry(0, block.first, block.second + k, &e, 0);
        if (w_.writeNhi(copy->first, copy->second + k, e)) ++w_.counters_.stagingWrites;
        taken_.insert(positionKey(copy->first, copy->second + k));
      }
      for (const Reader& r : readers) {
        XpXdk::xpLpmPrefixEntry moved = r.held;
        moved.nhiTile = static_cast<U8>(copy->first);
        moved.nhiOffset = static_cast<U16>(copy->second);
        if (w_.writePrefix(r.table, r.offset, moved, r.held)) ++w_.counters_.stagingWrites;
      }
    }
    return true;
  }

  // `n` consecutive NHI entries of one tile that no prefix entry reads and no live block holds:
  // no write of this drain lands there (it writes only what live blocks want), and nothing
  // reads them until the readers moved there.
  std::optional<std::pair<U32, U32>> freeRun(U32 n) {
    const XpLpm::LpmSm& sm = *w_.sm_;
    for (const auto& [tileIdx, allocator] : sm.nhiAllocatorMap()) {
      const U32 tile = tileIdx.value();
      for (const auto& [start, len] : allocator->freeBlkStartIndexToSz()) {
        U32 run = 0;
        for (U32 o = start; o < start + len; ++o) {
          const bool usable =
              w_.readers(tile, o) == 0 && !taken_.count(positionKey(tile, o)) && !wanted(tile, o);
          run = usable ? run + 1 : 0;
          if (run == n) return std::make_pair(tile, o + 1 - n);
        }
      }
    }
    return std::nullopt;
  }

  HwWriter& w_;
  std::vector<Item> items_;
  std::unordered_map<U64, std::size_t> lastPrefixWrite_;
  std::unordered_map<U64, std::optional<XpXdk::xpLpmNhiEntry>> wanted_;
  std::unordered_set<U64> taken_;  // copies made in this drain
};

void HwWriter::drainAfterCompaction() {
  ++counters_.compactionDrains;
  lastPrefixCmd_ = nullptr;
  std::vector<Item> items;
  items.reserve(status_->pendingCmds());
  for (const auto& [index, cmd] : status_->pendingCmdQueue()) {
    Item it{};
    it.prefix = cmd->cmdType() == XpLpm::commandTypePrefix;
    if (it.prefix) {
      const auto& c = static_cast<const XpLpm::PrefixCommand&>(*cmd);
      it.where = c.tableId().value();
      it.offset = c.index().value();
      it.prefixEntry = encodePrefixEntry(c, config_->keyType());
      mix(counters_.digest, it.where, it.offset, it.prefixEntry);
    } else {
      const auto& c = static_cast<const XpLpm::NhiCommand&>(*cmd);
      it.where = c.index().tile().value();
      it.offset = c.index().offset();
      it.nhiEntry = encodeNhiEntry(c);
      mix(counters_.digest, it.where, it.offset, it.nhiEntry);
    }
    items.push_back(std::move(it));
  }
  Plan(*this, std::move(items)).run();
  while (status_->pendingCmds() > 0) status_->pendingCmdDeq();
}

}  // namespace Agent
}  // namespace XpLib
