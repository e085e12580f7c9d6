// NHI sharing records: what a sub-trie's NHI block must hold (NhiInfoKey), and
// the shared block that sub-tries with equal keys use together (NhiInfo).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "XpLpm/XpLpmTypes.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

using XpLpmNextHop::NextHopBlock;

// Slot -> next-hop block of the prefix in that slot, in ascending slot order.
// Kept as a sorted vector: a sub-trie has at most a few dozen slots, and one
// key per sub-trie must stay small at a million routes.
class NhiInfoKey {
 public:
  using Entry = std::pair<U8, NextHopBlock>;
  using const_iterator = std::vector<Entry>::const_iterator;

  void newSlotToNextHopBlock(U8 slot, const NextHopBlock& block);
  void slotToNextHopBlockIs(U8 slot, const NextHopBlock& block) { newSlotToNextHopBlock(slot, block); }
  void slotToNextHopBlockDel(U8 slot);
  void slotToNextHopBlockDelAll() { entries_.clear(); }
  // The block of `slot`, or the default block.
  NextHopBlock slotToNextHopBlock(U8 slot) const;
  U32 slotToNextHopBlocks() const { return static_cast<U32>(entries_.size()); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

  // Jenkins one-at-a-time over, per entry in slot order, the slot byte and the
  // four bytes of the block's hash, least significant first.
  U32 hash() const;
  // "0x<hash in hex>,<entries>".
  std::string str() const;

  bool operator==(const NhiInfoKey& o) const { return entries_ == o.entries_; }
  bool operator!=(const NhiInfoKey& o) const { return !(*this == o); }
  // Lexicographic over the entries in slot order.
  bool operator<(const NhiInfoKey& o) const { return entries_ < o.entries_; }

  std::size_t heapBytes() const { return entries_.capacity() * sizeof(Entry); }

 private:
  std::vector<Entry> entries_;
};

std::ostream& operator<<(std::ostream& os, const NhiInfoKey& k);

// One shared NHI block: its key, base, and how many sub-tries use it.
class NhiInfo : public PtrInterface {
 public:
  explicit NhiInfo(const NhiInfoKey& key) : nhiInfoKey_(key) {}

  const NhiInfoKey& nhiInfoKey() const { return nhiInfoKey_; }
  const NhiTableIdx& nhiBaseIdx() const { return nhiBaseIdx_; }
  void nhiBaseIdxIs(const NhiTableIdx& idx) { nhiBaseIdx_ = idx; }
  U32 subTrieCount() const { return subTrieCount_; }
  void subTrieCountIs(U32 n) { subTrieCount_ = n; }
  void subTrieCountInc(U32 n = 1) { subTrieCount_ += n; }
  void subTrieCountDec(U32 n = 1) { subTrieCount_ -= n; }

  // "<key>/<tile>,<offset>/<count>".
  std::string str() const;

 private:
  const NhiInfoKey nhiInfoKey_;
  NhiTableIdx nhiBaseIdx_;
  U32 subTrieCount_ = 0;
};

Ptr<NhiInfo> nhiInfoFactory(const NhiInfoKey& key);

}  // namespace XpLpm
}  // namespace XpLib
