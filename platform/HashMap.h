// HashMap: the entity framework's hashed collection, with a deterministic order.
//
// Entries live in one dense vector, in the order they were added; removal moves
// the last entry into the hole. Iteration therefore depends only on the history
// of operations, never on addresses or on the index size, which keeps command
// streams identical from run to run.
//
// Memory matters at a million routes, so:
//  - a map of up to kLinearMax entries has no index at all and is searched
//    linearly (most per-block and per-prefix collections hold one or two);
//  - the index is open addressing with linear probing over 4-byte slots: the
//    entry's position (24 bits, plus one) and 8 bits of its hash, which spare
//    most key comparisons on a probe;
//  - the entry vector grows by half, not by doubling.
// An empty map allocates nothing.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/Hash.h"
#include "platform/Types.h"

namespace XpLib {

template <class K, class V, class H = HashOf<K>, class E = std::equal_to<K>>
class HashMap {
 public:
  using value_type = std::pair<K, V>;
  using iterator = typename std::vector<value_type>::iterator;
  using const_iterator = typename std::vector<value_type>::const_iterator;
  // The most entries one map holds: positions are 24 bits wide.
  static constexpr U32 kMaxEntries = (1u << 24) - 2;

  HashMap() = default;
  HashMap(const HashMap& o) : entries_(o.entries_) { rebuildIndex(); }
  HashMap(HashMap&&) noexcept = default;
  HashMap& operator=(const HashMap& o) {
    if (this != &o) {
      entries_ = o.entries_;
      rebuildIndex();
    }
    return *this;
  }
  HashMap& operator=(HashMap&&) noexcept = default;

  U32 size() const { return static_cast<U32>(entries_.size()); }
  bool empty() const { return entries_.empty(); }

  iterator begin() { return entries_.begin(); }
  iterator end() { return entries_.end(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

  V* find(const K& key) {
    U32 pos = locate(key);
    return pos == kNone ? nullptr : &entries_[pos].second;
  }
  const V* find(const K& key) const { return const_cast<HashMap*>(this)->find(key); }
  bool contains(const K& key) const { return find(key) != nullptr; }
  // A lookup of `key` in steps, for a caller that looks up keys spread over a large map one after
  // another: step 0 starts loading the index slot a lookup reads first; step 1, once that slot
  // has arrived, the entry it names. Changes nothing.
  void prefetch(const K& key, U32 step) const {
    if (!slots_) return;
    const U32 h = H()(key);
    if (step == 0) {
      __builtin_prefetch(&slots_[h & mask_]);
    } else if (const U32 s = slots_[h & mask_]; s != 0 && (s & 0xFF000000u) == (h & 0xFF000000u)) {
      __builtin_prefetch(&entries_[positionIn(s)]);
    }
  }

  // The value under `key`, or `dflt` when there is none.
  V get(const K& key, const V& dflt = V()) const {
    const V* v = find(key);
    return v ? *v : dflt;
  }

  // Sets the value; returns true when the key was new.
  template <class VV>
  bool set(const K& key, VV&& value) {
    if (V* held = find(key)) {
      *held = std::forward<VV>(value);
      return false;
    }
    append(key, std::forward<VV>(value));
    return true;
  }

  // The value under `key`, default-constructed first when absent, and whether it was.
  std::pair<V*, bool> findOrInsert(const K& key) {
    if (V* v = find(key)) return {v, false};
    append(key, V());
    return {&entries_.back().second, true};
  }

  // The value under `key`, default-constructed first when absent.
  V& operator[](const K& key) {
    if (V* v = find(key)) return *v;
    append(key, V());
    return entries_.back().second;
  }

  bool erase(const K& key) {
    U32 pos;
    if (!slots_) {
      pos = linearFind(key);
      if (pos == kNone) return false;
    } else {
      const U32 slot = locateSlot(key, H()(key));
      if (slot == kNone) return false;
      pos = positionIn(slots_[slot]);
      removeSlot(slot);
    }
    const U32 last = static_cast<U32>(entries_.size() - 1);
    if (pos != last) {
      // The last entry takes the hole; its slot must follow it.
      if (slots_) {
        const K& lastKey = entries_[last].first;
        U32 lastSlot = locateSlot(lastKey, H()(lastKey));
        slots_[lastSlot] = makeSlot(pos, H()(lastKey));
      }
      entries_[pos] = std::move(entries_[last]);
    }
    entries_.pop_back();
    if (slots_ && entries_.size() <= kLinearMax / 2) dropIndex();
    return true;
  }

  void clear() {
    entries_.clear();
    entries_.shrink_to_fit();
    dropIndex();
  }

  void reserve(U32 n) {
    if (n > entries_.capacity()) entries_.reserve(n);
  }

  // Bytes owned on the heap, for memory accounting.
  std::size_t heapBytes() const { return entries_.capacity() * sizeof(value_type) + slotCount() * sizeof(U32); }

 private:
  static constexpr U32 kNone = 0xFFFFFFFFu;
  static constexpr U32 kLinearMax = 8;

  // A slot: 0 when empty, else (position + 1) in the low 24 bits and the top 8
  // bits of the entry's hash above them.
  static U32 makeSlot(U32 pos, U32 hash) { return (pos + 1) | (hash & 0xFF000000u); }
  static U32 positionIn(U32 slot) { return (slot & 0x00FFFFFFu) - 1; }

  U32 slotCount() const { return slots_ ? mask_ + 1 : 0; }

  U32 linearFind(const K& key) const {
    for (U32 p = 0; p < entries_.size(); ++p)
      if (E()(entries_[p].first, key)) return p;
    return kNone;
  }

  U32 locateSlot(const K& key, U32 h) const {
    const U32 tag = h & 0xFF000000u;
    for (U32 i = h & mask_;; i = (i + 1) & mask_) {
      const U32 s = slots_[i];
      if (s == 0) return kNone;
      if ((s & 0xFF000000u) == tag && E()(entries_[positionIn(s)].first, key)) return i;
    }
  }

  U32 locate(const K& key) const {
    if (!slots_) return linearFind(key);
    const U32 slot = locateSlot(key, H()(key));
    return slot == kNone ? kNone : positionIn(slots_[slot]);
  }

  template <class VV>
  void append(const K& key, VV&& value) {
    if (entries_.size() == entries_.capacity()) {
      // One at a time while small (most maps hold one or two entries), then half
      // again, so that a large map wastes at most a third of its entries.
      const std::size_t n = entries_.size();
      entries_.reserve(n < 4 ? n + 1 : n + n / 2);
    }
    if (entries_.size() >= kMaxEntries) throw std::length_error("HashMap: more than 2^24 - 2 entries");
    entries_.emplace_back(key, std::forward<VV>(value));
    const U32 n = static_cast<U32>(entries_.size());
    if (n <= kLinearMax && !slots_) return;
    if (!slots_ || n + n / 8 > slotCount()) {
      rebuildIndex();
    } else {
      insertSlot(H()(key), n - 1);
    }
  }

  void insertSlot(U32 h, U32 pos) {
    U32 i = h & mask_;
    while (slots_[i] != 0) i = (i + 1) & mask_;
    slots_[i] = makeSlot(pos, h);
  }

  // Backward-shift deletion keeps probe sequences unbroken without tombstones.
  void removeSlot(U32 hole) {
    for (U32 i = (hole + 1) & mask_; slots_[i] != 0; i = (i + 1) & mask_) {
      const U32 home = H()(entries_[positionIn(slots_[i])].first) & mask_;
      if (((i - home) & mask_) >= ((i - hole) & mask_)) {
        slots_[hole] = slots_[i];
        hole = i;
      }
    }
    slots_[hole] = 0;
  }

  void dropIndex() {
    slots_.reset();
    mask_ = 0;
  }

  // An index sized for a load of at most 8/9, doubled, so it lasts until the map doubles.
  void rebuildIndex() {
    const U32 n = static_cast<U32>(entries_.size());
    if (n <= kLinearMax) {
      dropIndex();
      return;
    }
    U32 cap = 16;
    while (cap < 2 * n) cap *= 2;
    slots_ = std::make_unique<U32[]>(cap);
    mask_ = cap - 1;
    for (U32 p = 0; p < n; ++p) insertSlot(H()(entries_[p].first), p);
  }

  std::vector<value_type> entries_;
  std::unique_ptr<U32[]> slots_;
  U32 mask_ = 0;
};

}  // namespace XpLib
