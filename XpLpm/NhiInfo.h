// NHI sharing records: what a sub-trie's NHI block must hold (NhiInfoKey), and
// the shared block that sub-tries with equal keys use together (NhiInfo).
#pragma once

#include <algorithm>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "XpLpm/XpLpmTypes.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "platform/ObjectPool.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

using XpLpmNextHop::NextHopBlock;

// Slot -> next-hop block of the prefix in that slot, in ascending slot order.
//
// Every shared block holds its key three times (the sub-trie's, the sharing
// map's and the record's), so copies share one immutable representation and a
// change copies it first. The representation is one allocation, the entries
// following its header, and keeps its hashes: a fast one that the sharing map and
// equality use on every lookup, and the documented one, computed only when asked
// for (diagnostics print it).
class NhiInfoKey {
 public:
  // (slot, block), as a pair reads it (first, second, and bound in that order). The block comes
  // first in memory so that the slot fills its padding: 8 bytes an entry instead of 12.
  struct Entry {
    Entry() = default;
    Entry(U8 slot, const NextHopBlock& block) : second(block), first(slot) {}
    [[no_unique_address]] NextHopBlock second;
    U8 first = 0;

    template <std::size_t I>
    const auto& get() const {
      if constexpr (I == 0) return first;
      else return second;
    }
    bool operator==(const Entry& o) const { return first == o.first && second == o.second; }
    bool operator<(const Entry& o) const { return first != o.first ? first < o.first : second < o.second; }
  };
  using const_iterator = const Entry*;

  NhiInfoKey() = default;

  void newSlotToNextHopBlock(U8 slot, const NextHopBlock& block);
  void slotToNextHopBlockIs(U8 slot, const NextHopBlock& block) { newSlotToNextHopBlock(slot, block); }
  void slotToNextHopBlockDel(U8 slot);
  void slotToNextHopBlockDelAll() { rep_ = nullptr; }
  // Empties the key, keeping its room when no copy shares it.
  void clearKeepingRoom();
  // The block of `slot`, or the default block.
  NextHopBlock slotToNextHopBlock(U8 slot) const;
  U32 slotToNextHopBlocks() const { return rep_ ? rep_->size : 0; }
  // Starts loading the representation, for a caller that will compare or hash the key soon.
  void prefetch() const {
    if (rep_) __builtin_prefetch(rep_.ptr());
  }
  const_iterator begin() const { return rep_ ? rep_->entries() : nullptr; }
  const_iterator end() const { return rep_ ? rep_->entries() + rep_->size : nullptr; }
  // Room for n entries, for a caller that knows how many it will add.
  void reserve(U32 n);

  // Jenkins one-at-a-time over, per entry in slot order, the slot byte and the
  // four bytes of the block's hash, least significant first.
  U32 hash() const;
  // "0x<hash in hex>,<entries>".
  std::string str() const;
  // A multiply-xorshift hash of the same entries, for the sharing map: a few operations per
  // entry where hash() takes several per byte.
  U32 mapHash() const;

  bool operator==(const NhiInfoKey& o) const {
    return rep_ == o.rep_ || (mapHash() == o.mapHash() && std::equal(begin(), end(), o.begin(), o.end()));
  }
  bool operator!=(const NhiInfoKey& o) const { return !(*this == o); }
  // Lexicographic over the entries in slot order.
  bool operator<(const NhiInfoKey& o) const { return std::lexicographical_compare(begin(), end(), o.begin(), o.end()); }

  // Heap bytes of the representation, shared among the copies.
  std::size_t heapBytes() const { return rep_ ? sizeof(Rep) + rep_->capacity * sizeof(Entry) : 0; }

 private:
  struct Rep : PtrInterface {
    mutable U32 hash = 0, mapHash = 0;
    U16 size = 0, capacity = 0;
    mutable bool hashValid = false, mapHashValid = false;

    Entry* entries() { return reinterpret_cast<Entry*>(this + 1); }
    const Entry* entries() const { return reinterpret_cast<const Entry*>(this + 1); }
    // A representation with room for `capacity` entries after its header.
    static Ptr<Rep> make(U32 capacity);
    static void operator delete(void* p) { ::operator delete(p); }
  };
  static_assert(std::is_trivially_destructible_v<Entry> && sizeof(Rep) % alignof(Entry) == 0);

  // The representation, unshared and with room for `more` further entries, for a change.
  Rep& mutableRep(U32 more);

  Ptr<Rep> rep_;
};

std::ostream& operator<<(std::ostream& os, const NhiInfoKey& k);

}  // namespace XpLpm
}  // namespace XpLib

template <>
struct std::tuple_size<XpLib::XpLpm::NhiInfoKey::Entry> : std::integral_constant<std::size_t, 2> {};
template <>
struct std::tuple_element<0, XpLib::XpLpm::NhiInfoKey::Entry> {
  using type = const XpLib::U8;
};
template <>
struct std::tuple_element<1, XpLib::XpLpm::NhiInfoKey::Entry> {
  using type = const XpLib::XpLpmNextHop::NextHopBlock;
};

namespace XpLib {
namespace XpLpm {

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

  // A sub-trie's record is made again on most of its changes: from the pool, not the heap.
  static void* operator new(std::size_t) { return PoolOf<NhiInfo>::allocate(); }
  static void operator delete(void* p) { PoolOf<NhiInfo>::release(p); }

 private:
  const NhiInfoKey nhiInfoKey_;
  NhiTableIdx nhiBaseIdx_;
  U32 subTrieCount_ = 0;
};

Ptr<NhiInfo> nhiInfoFactory(const NhiInfoKey& key);

}  // namespace XpLpm
}  // namespace XpLib
