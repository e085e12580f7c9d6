// Fixed-length bit array with range set/clear and first/last set or clear bit searches.
#include "platform/Bitmap.h"

#include <algorithm>
#include <bit>

#include "platform/Assert.h"

namespace XpLib {

namespace {
constexpr U64 kAllOnes = ~U64(0);

// The bits of one word that fall inside [lo, hi] (bit positions within the word, lo <= hi < 64).
U64 wordMask(U32 lo, U32 hi) { return (kAllOnes << lo) & (kAllOnes >> (63 - hi)); }
}  // namespace

// A sub-trie holds one bitmap per prefix-table entry: keep it to one cache line.
static_assert(sizeof(Bitmap) <= 64);

Bitmap::Bitmap(const U64& key, U32 length, BitState initial) : length_(length), key_(key) {
  if (numWords() > kInlineWords) heapWords_ = std::make_unique<U64[]>(numWords());
  if (initial == bitSet && length_ > 0) assignRange(0, length_ - 1, true);
}

Bitmap::Bitmap(const Bitmap& other)
    : PtrInterface(other), length_(other.length_), key_(other.key_), inlineWords_(other.inlineWords_) {
  if (!other.heapWords_) return;
  heapWords_ = std::make_unique<U64[]>(numWords());
  std::copy_n(other.heapWords_.get(), numWords(), heapWords_.get());
}

Bitmap& Bitmap::operator=(const Bitmap& other) {
  if (this == &other) return *this;
  Bitmap copy(other);
  length_ = copy.length_;
  key_ = copy.key_;
  inlineWords_ = copy.inlineWords_;
  heapWords_ = std::move(copy.heapWords_);
  return *this;
}

U32 Bitmap::numSet() const {
  U32 count = 0;
  const U64* w = words();
  for (U32 i = 0; i < numWords(); ++i) count += static_cast<U32>(std::popcount(w[i]));
  return count;
}

void Bitmap::checkIndex(U32 index) const {
  XP_ASSERT_V(index < length_, " bitmap " << key_ << " index " << index << " length " << length_);
}

bool Bitmap::isSet(U32 index) const {
  checkIndex(index);
  return (words()[index / 64] >> (index % 64)) & 1;
}

void Bitmap::setBit(U32 index) {
  checkIndex(index);
  words()[index / 64] |= U64(1) << (index % 64);
}

void Bitmap::clearBit(U32 index) {
  checkIndex(index);
  words()[index / 64] &= ~(U64(1) << (index % 64));
}

void Bitmap::setBitsInRange(U32 lo, U32 hi) {
  if (lo > hi) return;
  checkIndex(hi);
  assignRange(lo, hi, true);
}

void Bitmap::clearBitsInRange(U32 lo, U32 hi) {
  if (lo > hi) return;
  checkIndex(hi);
  assignRange(lo, hi, false);
}

U32 Bitmap::findClearBitInRange(U32 lo, U32 hi, IndexPreference pref) const {
  if (lo > hi) return npos;
  checkIndex(hi);
  return findInRange(lo, hi, pref, false);
}

U32 Bitmap::findSetBitInRange(U32 lo, U32 hi, IndexPreference pref) const {
  if (lo > hi) return npos;
  checkIndex(hi);
  return findInRange(lo, hi, pref, true);
}

void Bitmap::assignRange(U32 lo, U32 hi, bool value) {
  U64* w = words();
  const U32 first = lo / 64;
  const U32 last = hi / 64;
  for (U32 i = first; i <= last; ++i) {
    const U64 mask = wordMask(i == first ? lo % 64 : 0, i == last ? hi % 64 : 63);
    w[i] = value ? (w[i] | mask) : (w[i] & ~mask);
  }
}

U32 Bitmap::findInRange(U32 lo, U32 hi, IndexPreference pref, bool value) const {
  const U64* w = words();
  const U32 first = lo / 64;
  const U32 last = hi / 64;
  const U64 flip = value ? 0 : kAllOnes;
  auto candidates = [&](U32 i) {
    return (w[i] ^ flip) & wordMask(i == first ? lo % 64 : 0, i == last ? hi % 64 : 63);
  };
  if (pref == indexHighest) {
    for (U32 i = last + 1; i-- > first;) {
      if (const U64 bits = candidates(i)) return i * 64 + 63 - static_cast<U32>(std::countl_zero(bits));
    }
    return npos;
  }
  for (U32 i = first; i <= last; ++i) {
    if (const U64 bits = candidates(i)) return i * 64 + static_cast<U32>(std::countr_zero(bits));
  }
  return npos;
}

}  // namespace XpLib
