// Fixed-length bit array with range set/clear and first/last set or clear bit searches.
//
// Bits live in 64-bit words, bit i in word i / 64 at position i % 64; bits past length() in the last word
// are always 0. Up to 256 bits (the largest user needs 216) the words are stored inside the object;
// longer bitmaps keep them on the heap. Searches go a word at a time.
#pragma once

#include <array>
#include <memory>

#include "platform/ObjectPool.h"
#include "platform/Ptr.h"
#include "platform/Types.h"

namespace XpLib {

class Bitmap : public PtrInterface {
 public:
  // The state of one bit. A set bit is an occupied slot; `bitClear` (value 1) makes a bitmap whose
  // every slot is free.
  enum BitState : U32 { bitSet = 0, bitClear = 1 };
  // Which index a range search returns when several qualify.
  enum IndexPreference : U32 { indexLowest = 0, indexHighest = 1 };
  // Returned by the searches when no bit in the range qualifies.
  static constexpr U32 npos = 0xFFFFFFFF;

  Bitmap(const U64& key, U32 length, BitState initial);
  Bitmap(const Bitmap& other);
  Bitmap& operator=(const Bitmap& other);
  ~Bitmap() override = default;

  // One per sub-trie: from the pool, not the heap, whose header and rounding would add a quarter.
  static void* operator new(std::size_t) { return PoolOf<Bitmap>::allocate(); }
  static void operator delete(void* p) { PoolOf<Bitmap>::release(p); }

  U64 key() const { return key_; }
  U32 length() const { return length_; }
  // Number of set bits.
  U32 numSet() const;

  // Requires (for every index argument here and below): index < length(); a violation is fatal.
  bool isSet(U32 index) const;
  bool bit(U32 index) const { return isSet(index); }
  void setBit(U32 index);
  void clearBit(U32 index);

  // Inclusive ranges; lo > hi is an empty range (no change, and the searches return npos).
  void setBitsInRange(U32 lo, U32 hi);
  void clearBitsInRange(U32 lo, U32 hi);
  U32 findClearBitInRange(U32 lo, U32 hi, IndexPreference pref) const;
  U32 findSetBitInRange(U32 lo, U32 hi, IndexPreference pref) const;

 private:
  static constexpr U32 kInlineWords = 4;

  U64* words() { return heapWords_ ? heapWords_.get() : inlineWords_.data(); }
  const U64* words() const { return heapWords_ ? heapWords_.get() : inlineWords_.data(); }
  U32 numWords() const { return (length_ + 63) / 64; }
  void checkIndex(U32 index) const;
  void assignRange(U32 lo, U32 hi, bool value);
  U32 findInRange(U32 lo, U32 hi, IndexPreference pref, bool value) const;

  U32 length_;  // first, so that it fills the padding after the reference count
  U64 key_;
  std::array<U64, kInlineWords> inlineWords_{};
  std::unique_ptr<U64[]> heapWords_;
};

}  // namespace XpLib
