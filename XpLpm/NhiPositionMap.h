// NhiPositionMap: a collection keyed by the position of an NHI block (tile, offset).
//
// The NHI blocks in use cover most of a full tile, and each route update looks up, adds and drops
// blocks by position: a hash map costs two cache misses a lookup (its index, then its entry) and
// more on a removal (the entry moved into the hole is found again). Here each tile the collection
// has met is one array indexed by offset, so a lookup is one load, and an entry costs the array
// slot, 8 bytes per position of the tile. A tile's array grows to the next power of two past the
// highest offset met.
//
// Iteration goes by position: tile, then offset. A null value is no entry.
#pragma once

#include <bit>
#include <utility>
#include <vector>

#include "XpLpm/XpLpmTypes.h"
#include "platform/Types.h"

namespace XpLib {
namespace XpLpm {

template <class V>
class NhiPositionMap {
 public:
  using value_type = std::pair<NhiTableIdx, V>;

  class const_iterator {
   public:
    const_iterator(const NhiPositionMap* m, U32 tile, U32 offset) : m_(m), tile_(tile), offset_(offset) { settle(); }
    value_type operator*() const {
      return value_type(NhiTableIdx(static_cast<U8>(tile_), static_cast<U16>(offset_)), m_->tiles_[tile_][offset_]);
    }
    const_iterator& operator++() {
      ++offset_;
      settle();
      return *this;
    }
    bool operator==(const const_iterator& o) const { return tile_ == o.tile_ && offset_ == o.offset_; }
    bool operator!=(const const_iterator& o) const { return !(*this == o); }

   private:
    // Onto the next position that holds something, or the end.
    void settle() {
      while (tile_ < m_->tiles_.size()) {
        const std::vector<V>& t = m_->tiles_[tile_];
        while (offset_ < t.size() && !t[offset_]) ++offset_;
        if (offset_ < t.size()) return;
        ++tile_;
        offset_ = 0;
      }
      offset_ = 0;
    }

    const NhiPositionMap* m_;
    U32 tile_, offset_;
  };

  U32 size() const { return count_; }
  bool empty() const { return count_ == 0; }
  const_iterator begin() const { return const_iterator(this, 0, 0); }
  const_iterator end() const { return const_iterator(this, static_cast<U32>(tiles_.size()), 0); }

  // The value at `idx`, or null.
  const V* find(const NhiTableIdx& idx) const {
    const U32 tile = idx.tile().value();
    if (tile >= tiles_.size() || idx.offset() >= tiles_[tile].size() || !tiles_[tile][idx.offset()]) return nullptr;
    return &tiles_[tile][idx.offset()];
  }
  V get(const NhiTableIdx& idx) const {
    const V* v = find(idx);
    return v ? *v : V();
  }
  bool contains(const NhiTableIdx& idx) const { return find(idx) != nullptr; }
  // Starts loading the place of `idx`; changes nothing.
  void prefetch(const NhiTableIdx& idx) const {
    const U32 tile = idx.tile().value();
    if (tile < tiles_.size() && idx.offset() < tiles_[tile].size()) __builtin_prefetch(&tiles_[tile][idx.offset()]);
  }

  // Setting null erases.
  void set(const NhiTableIdx& idx, const V& v) {
    if (!v) {
      erase(idx);
      return;
    }
    const U32 tile = idx.tile().value();
    if (tile >= tiles_.size()) tiles_.resize(tile + 1);
    std::vector<V>& t = tiles_[tile];
    if (idx.offset() >= t.size()) t.resize(std::bit_ceil(idx.offset() + 1u));
    count_ += !t[idx.offset()];
    t[idx.offset()] = v;
  }
  bool erase(const NhiTableIdx& idx) {
    const U32 tile = idx.tile().value();
    if (!find(idx)) return false;
    tiles_[tile][idx.offset()] = V();
    --count_;
    return true;
  }

  std::size_t heapBytes() const {
    std::size_t bytes = tiles_.capacity() * sizeof(std::vector<V>);
    for (const auto& t : tiles_) bytes += t.capacity() * sizeof(V);
    return bytes;
  }

 private:
  std::vector<std::vector<V>> tiles_;
  U32 count_ = 0;
};

}  // namespace XpLpm
}  // namespace XpLib
