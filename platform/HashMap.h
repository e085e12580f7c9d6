// HashMap: the entity framework's hashed collection, with a deterministic order.
//
// Entries live in one dense vector, in the order they were added; removal moves
// the last entry into the hole. Iteration therefore depends only on the history
// of operations, never on addresses or on the index size, which keeps command
// streams identical from run to run. The index is open addressing with linear
// probing over slots that hold the entry's position and its hash; an empty map
// allocates nothing.
#pragma once

#include <functional>
#include <memory>
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

  HashMap() = default;
  HashMap(const HashMap& o) : entries_(o.entries_) { rebuildIndex(entries_.size()); }
  HashMap(HashMap&&) noexcept = default;
  HashMap& operator=(const HashMap& o) {
    if (this != &o) {
      entries_ = o.entries_;
      rebuildIndex(entries_.size());
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
    U32 pos = locate(key, H()(key));
    return pos == kNone ? nullptr : &entries_[pos].second;
  }
  const V* find(const K& key) const { return const_cast<HashMap*>(this)->find(key); }
  bool contains(const K& key) const { return find(key) != nullptr; }

  // The value under `key`, or `dflt` when there is none.
  V get(const K& key, const V& dflt = V()) const {
    const V* v = find(key);
    return v ? *v : dflt;
  }

  // Sets the value; returns true when the key was new.
  template <class VV>
  bool set(const K& key, VV&& value) {
    U32 h = H()(key);
    U32 pos = locate(key, h);
    if (pos != kNone) {
      entries_[pos].second = std::forward<VV>(value);
      return false;
    }
    grow();
    entries_.emplace_back(key, std::forward<VV>(value));
    insertSlot(h, static_cast<U32>(entries_.size() - 1));
    return true;
  }

  // The value under `key`, default-constructed first when absent.
  V& operator[](const K& key) {
    if (V* v = find(key)) return *v;
    set(key, V());
    return entries_.back().second;
  }

  bool erase(const K& key) {
    U32 h = H()(key);
    U32 slot = locateSlot(key, h);
    if (slot == kNone) return false;
    U32 pos = slots_[slot].pos;
    removeSlot(slot);
    U32 last = static_cast<U32>(entries_.size() - 1);
    if (pos != last) {
      // The last entry takes the hole; its slot must follow it.
      U32 lastSlot = locateSlot(entries_[last].first, H()(entries_[last].first));
      slots_[lastSlot].pos = pos;
      entries_[pos] = std::move(entries_[last]);
    }
    entries_.pop_back();
    return true;
  }

  void clear() {
    entries_.clear();
    entries_.shrink_to_fit();
    slots_.reset();
    mask_ = 0;
  }

  void reserve(U32 n) {
    entries_.reserve(n);
    if (capacityFor(n) > slotCount()) rebuildIndex(n);
  }

  // Bytes owned on the heap, for memory accounting.
  std::size_t heapBytes() const { return entries_.capacity() * sizeof(value_type) + slotCount() * sizeof(Slot); }

 private:
  struct Slot {
    U32 pos = kNone;  // position in entries_, kNone when empty
    U32 hash = 0;
  };
  static constexpr U32 kNone = 0xFFFFFFFFu;

  U32 slotCount() const { return slots_ ? mask_ + 1 : 0; }
  // Index sized to keep the load at or below 7/8.
  static U32 capacityFor(U32 n) {
    U32 c = 8;
    while (c - c / 8 < n + 1) c *= 2;
    return c;
  }

  U32 locateSlot(const K& key, U32 h) const {
    if (!slots_) return kNone;
    for (U32 i = h & mask_;; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (s.pos == kNone) return kNone;
      if (s.hash == h && E()(entries_[s.pos].first, key)) return i;
    }
  }
  U32 locate(const K& key, U32 h) const {
    U32 slot = locateSlot(key, h);
    return slot == kNone ? kNone : slots_[slot].pos;
  }

  void insertSlot(U32 h, U32 pos) {
    U32 i = h & mask_;
    while (slots_[i].pos != kNone) i = (i + 1) & mask_;
    slots_[i] = Slot{pos, h};
  }

  // Backward-shift deletion keeps probe sequences unbroken without tombstones.
  void removeSlot(U32 hole) {
    for (U32 i = (hole + 1) & mask_; slots_[i].pos != kNone; i = (i + 1) & mask_) {
      U32 home = slots_[i].hash & mask_;
      bool movable = ((i - home) & mask_) >= ((i - hole) & mask_);
      if (movable) {
        slots_[hole] = slots_[i];
        hole = i;
      }
    }
    slots_[hole] = Slot{};
  }

  void grow() {
    U32 n = static_cast<U32>(entries_.size()) + 1;
    if (capacityFor(n) > slotCount()) rebuildIndex(n);
  }

  void rebuildIndex(std::size_t n) {
    if (n == 0 && entries_.empty()) {
      slots_.reset();
      mask_ = 0;
      return;
    }
    U32 cap = capacityFor(static_cast<U32>(std::max(n, entries_.size())));
    slots_ = std::make_unique<Slot[]>(cap);
    mask_ = cap - 1;
    for (U32 p = 0; p < entries_.size(); ++p) insertSlot(H()(entries_[p].first), p);
  }

  std::vector<value_type> entries_;
  std::unique_ptr<Slot[]> slots_;
  U32 mask_ = 0;
};

}  // namespace XpLib
