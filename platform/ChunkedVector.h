// ChunkedVector: a vector for the collections that hold one entry per route.
//
// Entries live in fixed chunks of 2^kChunkBits, so growing never copies what is
// there and never holds the old and the new array at once: a vector of a million
// routes doubling to 2^20 entries wastes almost half of them and touches twice
// as many pages while it moves. Here the waste is at most one chunk.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "platform/Types.h"

namespace XpLib {

template <class T, U32 kChunkBits = 12>
class ChunkedVector {
 public:
  static constexpr U32 kChunk = 1u << kChunkBits;

  ChunkedVector() = default;
  ChunkedVector(const ChunkedVector&) = delete;
  ChunkedVector& operator=(const ChunkedVector&) = delete;
  ~ChunkedVector() { clear(); }

  U32 size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T& operator[](U32 i) { return chunks_[i >> kChunkBits][i & (kChunk - 1)]; }
  const T& operator[](U32 i) const { return chunks_[i >> kChunkBits][i & (kChunk - 1)]; }
  T& back() { return (*this)[size_ - 1]; }

  void push_back(T v) {
    if (size_ == chunks_.size() * kChunk) chunks_.push_back(std::make_unique<T[]>(kChunk));
    (*this)[size_++] = std::move(v);
  }
  // Leaves a default value behind, so that a chunk holds nothing of what left it. A chunk goes
  // once a second one is empty, so that a size going to and fro across a boundary costs nothing.
  void pop_back() {
    back() = T();
    --size_;
    if (size_ + 2 * kChunk <= chunks_.size() * kChunk) chunks_.pop_back();
  }
  void clear() {
    while (size_) pop_back();
    chunks_.clear();
    chunks_.shrink_to_fit();
  }

  std::size_t heapBytes() const { return chunks_.capacity() * sizeof(void*) + chunks_.size() * kChunk * sizeof(T); }

 private:
  std::vector<std::unique_ptr<T[]>> chunks_;
  U32 size_ = 0;
};

}  // namespace XpLib
