// Sub-trie slot management and the capacity rule of one prefix-table entry.
#include "XpLpm/SubTrie.h"

#include <algorithm>
#include <sstream>

#include "XpLpm/PrefixTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

U32 SubTrie::entrySize() const { return table_->tableConfig()->entrySize(); }

void SubTrie::prefixIs(U8 slot, const Ptr<LpmPrefix>& p) {
  if (slot >= slotCount_) {
    if (slot >= slotRoom_) {
      // Room in powers of two from 4: a sub-trie fills slot by slot.
      U16 room = std::max<U16>(slotRoom_, 4);
      while (room <= slot) room = static_cast<U16>(2 * room);
      auto grown = std::make_unique<U32[]>(room);
      std::copy_n(slots_.get(), slotCount_, grown.get());
      slots_ = std::move(grown);
      slotRoom_ = room;
    }
    std::fill(slots_.get() + slotCount_, slots_.get() + slot + 1, kFree);
    slotCount_ = static_cast<U16>(slot + 1);
  }
  U32& held = slots_[slot];
  if (p) p->newRef();
  if (held != kFree) {
    --numPrefixes_;
    lpmPrefixAt(held)->deleteRef();
  }
  held = p ? p->ref() : kFree;
  numPrefixes_ += held != kFree;
}

void SubTrie::prefixDel(U8 slot) {
  if (slot >= slotCount_ || slots_[slot] == kFree) return;
  prefixIs(slot, nullptr);
  while (slotCount_ && slots_[slotCount_ - 1] == kFree) --slotCount_;
}

void SubTrie::prefixDelAll() {
  for (U32 s = 0; s < slotCount_; ++s)
    if (slots_[s] != kFree) lpmPrefixAt(slots_[s])->deleteRef();
  slots_.reset();
  slotCount_ = slotRoom_ = 0;
  numPrefixes_ = 0;
}

std::optional<U8> SubTrie::prefixToSlot(const Ptr<LpmPrefix>& p) const {
  for (U32 s = 0; s < slotCount_; ++s)
    if (slots_[s] != kFree && (slots_[s] == p->ref() || lpmPrefixAt(slots_[s])->keyEquals(*p))) return static_cast<U8>(s);
  return std::nullopt;
}

bool SubTrie::fit(U8 branchLen, U8 stride, U8 numPrefixes, SubTrieMode mode) const {
  const U32 size = entrySize();
  XP_ASSERT_TEXT(size >= branchLen, "table()->tableConfig()->entrySize() >= branchLen");
  const U32 availBits = size - branchLen;
  // The count is 16 bits wide: large bitmap and CPE strides wrap, exactly as the rule is defined.
  auto pow2 = [](int e) -> U64 { return e < 0 || e >= 64 ? 0 : U64(1) << e; };
  U16 usedBits = 0;
  switch (mode) {
    case modeSparse: usedBits = static_cast<U16>(stride * numPrefixes); break;
    case modeBitmap: usedBits = static_cast<U16>(pow2(stride) - 1); break;
    case modeCpe: usedBits = static_cast<U16>(pow2(stride - 1)); break;
    default: XP_ASSERT(false);
  }
  XP_TRACE(6, "SubTrie::fit branchLen " << +branchLen << " stride " << +stride << " numPrefixes " << +numPrefixes
                                        << " mode " << mode << " entrySize " << size << " usedBits " << usedBits
                                        << " availBits " << availBits);
  return usedBits <= availBits;
}

void SubTrie::allocatePrefixBitmap() {
  XP_ASSERT(!prefixBitmap());
  XP_ASSERT(stride());
  const U32 size = entrySize();
  const U8 maxNumPrefixes = static_cast<U8>((size - branchLen_) / stride_);
  prefixBitmapIs(0, maxNumPrefixes, Bitmap::bitClear);
  XP_TRACE(6, "SubTrie::allocatePrefixBitmap maxNumPrefixes " << +maxNumPrefixes << " subTrieLen " << size);
}

void SubTrie::addPrefix(const Ptr<LpmPrefix>& p) {
  const U8 slot = static_cast<U8>(prefixBitmap_->findClearBitInRange(0, prefixBitmap_->length() - 1,
                                                                      Bitmap::indexLowest));
  prefixIs(slot, p);
  prefixBitmap_->setBit(slot);
  if (slot >= maxPrefixSlot_) maxPrefixSlot_ = static_cast<U8>(slot + 1);
  XP_TRACE(6, "SubTrie::addPrefix slot " << +slot << " lpmPrefix " << *p);
  XP_TRACE(6, "SubTrie::addPrefix added prefix subtrie " << str());
}

void SubTrie::removePrefix(const Ptr<LpmPrefix>& p) {
  const U8 slot = prefixToSlot(p).value_or(0);
  XP_ASSERT_V(slot < maxPrefixSlot(), " slot " << +slot << " subtrie " << str());
  prefixDel(slot);
  prefixBitmap_->clearBit(slot);
  XP_TRACE(6, "SubTrie::removePrefix slot " << +slot << " lpmPrefix " << *p);
  XP_TRACE(6, "SubTrie::removePrefix removed prefix subtrie " << str());
}

void SubTrie::compactPrefixes() {
  U8 c = 0;
  const bool tracing = Trace::on(6);
  for (U32 s = 0; s < slotCount_; ++s) {
    if (slots_[s] == kFree) continue;
    if (tracing) XP_TRACE_ON(6, "SubTrie::compactPrefixes lpmPrefix " << *lpmPrefixAt(slots_[s]) << " slot " << +c);
    slots_[c++] = slots_[s];
  }
  slotCount_ = c;
  maxPrefixSlot_ = c;
  const U32 length = (entrySize() - branchLen_) / stride_;
  if (length > 0 && prefixBitmap_ && prefixBitmap_->length() == length && prefixBitmap_->references() == 1) {
    // A bitmap of the right size is cleared in place rather than made anew.
    prefixBitmap_->clearBitsInRange(0, length - 1);
  } else {
    prefixBitmapDel();
    allocatePrefixBitmap();
  }
  if (c > 0) prefixBitmap_->setBitsInRange(0, c - 1);
  XP_TRACE(6, "SubTrie::compactPrefixes compacted subtrie " << str());
}

std::string SubTrie::str() const {
  std::ostringstream os;
  os << index_.value() << ',' << +branchLen_ << ',' << +stride_ << ',' << mode_ << ',' << +nhiBlkSize_ << ','
     << numPrefixes_ << ',' << +maxPrefixSlot_ << ',' << (prefixBitmap_ ? prefixBitmap_->length() : 0) << '/'
     << nhiInfoKey_.str() << '/' << nhiBaseIdx_.str();
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const SubTrie& st) { return os << st.str(); }

void SubTrie::dump() const {
  XP_TRACE(9, "-- SubTrie " << index_.value());
  XP_TRACE(9, "  -- branchLen " << +branchLen_);
  XP_TRACE(9, "  -- stride " << +stride_);
  XP_TRACE(9, "  -- numPrefixes " << numPrefixes_);
  XP_TRACE(9, "  -- maxPrefixSlot " << +maxPrefixSlot_);
  XP_TRACE(9, "  -- nhiBaseIdx " << nhiBaseIdx_.str());
  XP_TRACE(9, "  -- nhiBlkSize " << +nhiBlkSize_);
  XP_TRACE(9, "  -- nhiInfoKey " << nhiInfoKey_.str());
  XP_TRACE(9, "  -- prefixSlots: ");
  for (U32 s = 0; s < maxPrefixSlot_; ++s) {
    Ptr<LpmPrefix> p = prefix(static_cast<U8>(s));
    if (p) {
      XP_TRACE(9, "    -- prefix slot " << s << ' ' << *p);
    } else {
      XP_TRACE(9, "    -- prefix slot " << s << " EMPTY");
    }
  }
  for (const auto& entry : nhiInfoKey_) XP_TRACE(9, "    -- nhBlk slot " << +entry.first << ' ' << entry.second);
}

void SubTrie::verify() const {
  U32 occupied = 0;
  for (U32 s = 0; s < slotCount_; ++s) {
    const bool held = slots_[s] != kFree;
    occupied += held;
    XP_ASSERT_V(!held || s < maxPrefixSlot_, " slot " << s << " subtrie " << str());
    XP_ASSERT_V(!prefixBitmap_ || held == prefixBitmap_->isSet(static_cast<U32>(s)), " slot " << s << " subtrie " << str());
  }
  XP_ASSERT_V(occupied == numPrefixes_, " occupied " << occupied << " subtrie " << str());
  XP_ASSERT_V(!prefixBitmap_ || prefixBitmap_->numSet() == numPrefixes_, " subtrie " << str());
}

std::size_t SubTrie::heapBytes() const {
  return slotRoom_ * sizeof(U32) + nhiInfoKey_.heapBytes() + (prefixBitmap_ ? sizeof(Bitmap) : 0);
}

Ptr<SubTrie> subTrieFactory(PrefixTableIdx index, const SubTrieBranch& branch, U8 branchLen, U8 stride,
                            SubTrieMode mode, PrefixTable* table) {
  return makePtr<SubTrie>(index, branch, branchLen, stride, mode, table);
}

void SubTrieSet::subTrieIs(const Ptr<SubTrie>& st) {
  if (!many_) {
    if (!one_.first || one_.first == st) {
      one_.first = st;
      return;
    }
    many_ = std::make_unique<Map>();
    many_->set(std::exchange(one_.first, nullptr), true);
  }
  many_->set(st, true);
}

void SubTrieSet::subTrieDel(const Ptr<SubTrie>& st) {
  if (!many_) {
    if (one_.first == st) one_.first = nullptr;
    return;
  }
  many_->erase(st);
  if (many_->empty()) many_.reset();
}

Ptr<SubTrieSet> subTrieSetFactory() { return makePtr<SubTrieSet>(); }

}  // namespace XpLpm
}  // namespace XpLib
