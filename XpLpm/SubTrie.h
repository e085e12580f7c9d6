// SubTrie: the content of one prefix-table entry, the prefixes that share its
// branch (the first branchLen key bits), each in a numbered slot, and the NHI
// block that holds their next hops by slot.
//
// Slots are one small array indexed by slot number, holding each prefix's 32-bit
// name (free slots hold none): both directions of the slot <-> prefix mapping stay
// within one cache-friendly array of at most 216 entries, 4 bytes an entry.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "XpLpm/LpmPrefix.h"
#include "XpLpm/NhiInfo.h"
#include "XpLpm/XpLpmTypes.h"
#include "platform/Bitmap.h"
#include "platform/HashMap.h"
#include "platform/ObjectPool.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

class PrefixTable;

class SubTrie : public PtrInterface {
 public:
  // The slots as a sequence of prefixes, index = slot, null = free.
  class Slots {
   public:
    using const_iterator = LpmPrefixRefIterator;

    Slots(const U32* refs, U32 size) : refs_(refs), size_(size) {}
    U32 size() const { return size_; }
    Ptr<LpmPrefix> operator[](U32 slot) const { return lpmPrefixOf(refs_[slot]); }
    const_iterator begin() const { return const_iterator(refs_); }
    const_iterator end() const { return const_iterator(refs_ + size_); }
    // The names themselves (kNoLpmPrefix = free), for a caller that must not touch the objects.
    const U32* refs() const { return refs_; }

   private:
    const U32* refs_;
    U32 size_;
  };

  SubTrie(PrefixTableIdx index, const SubTrieBranch& branch, U8 branchLen, U8 stride, SubTrieMode mode,
          PrefixTable* table)
      : index_(index), branch_(branch), branchLen_(branchLen), stride_(stride), mode_(mode), table_(table) {}
  SubTrie(const SubTrie&) = delete;
  SubTrie& operator=(const SubTrie&) = delete;
  ~SubTrie() override { prefixDelAll(); }

  // One per prefix-table entry in use: from the pool, not the heap.
  static void* operator new(std::size_t) { return PoolOf<SubTrie>::allocate(); }
  static void operator delete(void* p) { PoolOf<SubTrie>::release(p); }

  PrefixTableIdx index() const { return index_; }
  void indexIs(PrefixTableIdx idx) { index_ = idx; }
  const SubTrieBranch& branch() const { return branch_; }
  void branchIs(const SubTrieBranch& b) { branch_ = b; }
  U8 branchLen() const { return branchLen_; }
  void branchLenIs(U8 n) { branchLen_ = n; }
  U8 stride() const { return stride_; }
  void strideIs(U8 s) { stride_ = s; }
  SubTrieMode mode() const { return mode_; }
  void modeIs(SubTrieMode m) { mode_ = m; }
  // The owning table; not counted, the table outlives its sub-tries.
  PrefixTable* table() const { return table_; }
  void tableIs(PrefixTable* t) { table_ = t; }

  const NhiTableIdx& nhiBaseIdx() const { return nhiBaseIdx_; }
  void nhiBaseIdxIs(const NhiTableIdx& idx) { nhiBaseIdx_ = idx; }
  U8 nhiBlkSize() const { return nhiBlkSize_; }
  void nhiBlkSizeIs(U8 n) { nhiBlkSize_ = n; }
  const NhiInfoKey& nhiInfoKey() const { return nhiInfoKey_; }
  void nhiInfoKeyIs(const NhiInfoKey& k) { nhiInfoKey_ = k; }
  U8 maxPrefixSlot() const { return maxPrefixSlot_; }
  void maxPrefixSlotIs(U8 n) { maxPrefixSlot_ = n; }

  // Prefixes by slot.
  Ptr<LpmPrefix> prefix(U8 slot) const { return slot < slotCount_ ? lpmPrefixOf(slots_[slot]) : Ptr<LpmPrefix>(); }
  U32 prefixs() const { return numPrefixes_; }
  U32 numPrefixes() const { return numPrefixes_; }
  void prefixIs(U8 slot, const Ptr<LpmPrefix>& p);
  void prefixDel(U8 slot);
  void prefixDelAll();
  // The slot of a prefix held here, or nullopt.
  std::optional<U8> prefixToSlot(const Ptr<LpmPrefix>& p) const;
  // The slot view is the inverse of the prefix view by construction: both are one array.
  void prefixToSlotIs(const Ptr<LpmPrefix>& p, U8 slot) { prefixIs(slot, p); }
  // The slots, index = slot, null = free; may be fewer than maxPrefixSlot.
  Slots slots() const { return Slots(slots_.get(), slotCount_); }

  const Ptr<Bitmap>& prefixBitmap() const { return prefixBitmap_; }
  void prefixBitmapIs(U64 id, U32 size, Bitmap::BitState initial) { prefixBitmap_ = makePtr<Bitmap>(id, size, initial); }
  void prefixBitmapDel() { prefixBitmap_ = nullptr; }

  // Would numPrefixes prefixes of this stride fit one entry of this table at this branch length and mode.
  bool fit(U8 branchLen, U8 stride, U8 numPrefixes, SubTrieMode mode) const;
  // Creates the slot bitmap: one bit per slot the entry can hold, all free.
  void allocatePrefixBitmap();
  // Puts a prefix in the lowest free slot. Requires: fit() said there is room.
  void addPrefix(const Ptr<LpmPrefix>& p);
  // Frees the prefix's slot; the high-water mark stays until compaction.
  void removePrefix(const Ptr<LpmPrefix>& p);
  // Renumbers the occupied slots densely from 0, in ascending slot order.
  void compactPrefixes();

  // "index,branchLen,stride,mode,nhiBlkSize,prefixes,maxPrefixSlot,bitmapSize/<nhiInfoKey>/<tile>,<offset>".
  std::string str() const;
  // The sub-trie as trace lines.
  void dump() const;
  // Fatal unless the slot array, bitmap and counters agree.
  void verify() const;

  std::size_t heapBytes() const;

 private:
  static constexpr U32 kFree = kNoLpmPrefix;
  U32 entrySize() const;

  PrefixTableIdx index_;
  SubTrieBranch branch_;
  U8 branchLen_;
  U8 stride_;
  U8 nhiBlkSize_ = 0;
  U8 maxPrefixSlot_ = 0;
  SubTrieMode mode_;
  U32 numPrefixes_ = 0;
  // The slot array's length (up to the last slot in use) and room, in slots.
  U16 slotCount_ = 0, slotRoom_ = 0;
  NhiTableIdx nhiBaseIdx_;
  PrefixTable* table_;
  NhiInfoKey nhiInfoKey_;
  Ptr<Bitmap> prefixBitmap_;
  // The prefixes by slot, each by its 32-bit name (LpmPrefix::ref) holding a reference, kFree when
  // free: both directions of the slot <-> prefix mapping in one small array, 4 bytes a slot.
  std::unique_ptr<U32[]> slots_;
};

Ptr<SubTrie> subTrieFactory(PrefixTableIdx index, const SubTrieBranch& branch, U8 branchLen, U8 stride,
                            SubTrieMode mode, PrefixTable* table);

std::ostream& operator<<(std::ostream& os, const SubTrie& st);

// Hash of an object by its address; iteration order of a HashMap does not depend
// on hash values, so this keeps runs deterministic.
struct AddressHash {
  template <class T>
  U32 operator()(const Ptr<T>& p) const {
    return hashMix(reinterpret_cast<std::uintptr_t>(p.ptr()));
  }
};

// The sub-tries that use one NHI block. Most blocks have one user: it sits in the set itself,
// and a map is made only for a second, which then comes after it as it would in the map alone.
class SubTrieSet : public PtrInterface {
 public:
  using Map = HashMap<Ptr<SubTrie>, bool, AddressHash>;
  using const_iterator = const Map::value_type*;

  bool subTrie(const Ptr<SubTrie>& st) const { return many_ ? many_->contains(st) : (one_.first && one_.first == st); }
  U32 subTries() const { return many_ ? many_->size() : (one_.first ? 1 : 0); }
  void subTrieIs(const Ptr<SubTrie>& st);
  void newSubTrie(const Ptr<SubTrie>& st) { subTrieIs(st); }
  void subTrieDel(const Ptr<SubTrie>& st);
  void subTrieDelAll() {
    many_.reset();
    one_.first = nullptr;
  }
  // A map is never left empty.
  const_iterator begin() const { return many_ ? &*many_->begin() : &one_; }
  const_iterator end() const { return begin() + subTries(); }

  // Made and dropped with the NHI records: from the pool, not the heap.
  static void* operator new(std::size_t) { return PoolOf<SubTrieSet>::allocate(); }
  static void operator delete(void* p) { PoolOf<SubTrieSet>::release(p); }

 private:
  Map::value_type one_{nullptr, true};
  std::unique_ptr<Map> many_;
};

Ptr<SubTrieSet> subTrieSetFactory();

// The state machine's sub-trie of a route, kept in the route's record (see LpmPrefixRecordMap);
// the record holds a reference to it.
struct SubTrieField {
  using Value = Ptr<SubTrie>;
  static U32& at(LpmPrefixRecord& r) { return r.subTrieAt; }
  static Ptr<SubTrie> get(const LpmPrefixRecord& r) { return Ptr<SubTrie>(r.subTrie); }
  static void put(LpmPrefixRecord& r, const Ptr<SubTrie>& v) {
    if (v) v->newRef();
    if (SubTrie* old = std::exchange(r.subTrie, v.ptr())) old->deleteRef();
  }
};

}  // namespace XpLpm
}  // namespace XpLib
