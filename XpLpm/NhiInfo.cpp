// NHI sharing keys and records.
#include "XpLpm/NhiInfo.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace XpLib {
namespace XpLpm {

namespace {
auto bySlot = [](const NhiInfoKey::Entry& e, U8 slot) { return e.first < slot; };
}  // namespace

Ptr<NhiInfoKey::Rep> NhiInfoKey::Rep::make(U32 capacity) {
  void* memory = ::operator new(sizeof(Rep) + capacity * sizeof(Entry));
  Rep* rep = new (memory) Rep;
  std::uninitialized_value_construct_n(rep->entries(), capacity);
  rep->capacity = static_cast<U16>(capacity);
  return Ptr<Rep>(rep);
}

NhiInfoKey::Rep& NhiInfoKey::mutableRep(U32 more) {
  const U32 size = slotToNextHopBlocks();
  if (!rep_ || rep_->references() > 1 || size + more > rep_->capacity) {
    // A key is built one slot at a time: grow by half, and by at least four.
    const U32 room = size + (rep_ && rep_->references() == 1 ? std::max({more, size / 2, 4u}) : more);
    Ptr<Rep> copy = Rep::make(std::max(room, 1u));
    if (size) std::copy(begin(), end(), copy->entries());
    copy->size = static_cast<U16>(size);
    rep_ = std::move(copy);
  }
  rep_->hashValid = false;
  rep_->mapHashValid = false;
  return *rep_;
}

void NhiInfoKey::clearKeepingRoom() {
  if (!rep_ || rep_->references() > 1) {
    rep_ = nullptr;
    return;
  }
  rep_->size = 0;
  rep_->hashValid = false;
  rep_->mapHashValid = false;
}

void NhiInfoKey::reserve(U32 n) {
  const U32 size = slotToNextHopBlocks();
  if (n > size && (!rep_ || n > rep_->capacity)) mutableRep(n - size);
}

void NhiInfoKey::newSlotToNextHopBlock(U8 slot, const NextHopBlock& block) {
  const Entry* e = begin();
  const U32 size = slotToNextHopBlocks();
  const Entry* it = size && e[size - 1].first < slot ? e + size : std::lower_bound(e, e + size, slot, bySlot);
  const U32 at = static_cast<U32>(it - e);
  const bool replace = at < size && it->first == slot;
  Rep& r = mutableRep(replace ? 0 : 1);
  Entry* m = r.entries();
  if (!replace) {
    std::copy_backward(m + at, m + r.size, m + r.size + 1);
    ++r.size;
  }
  m[at] = Entry(slot, block);
}

void NhiInfoKey::slotToNextHopBlockDel(U8 slot) {
  const Entry* e = begin();
  const U32 size = slotToNextHopBlocks();
  const Entry* it = std::lower_bound(e, e + size, slot, bySlot);
  if (it == e + size || it->first != slot) return;
  if (size == 1) {
    rep_ = nullptr;
    return;
  }
  const U32 at = static_cast<U32>(it - e);
  Rep& r = mutableRep(0);
  std::copy(r.entries() + at + 1, r.entries() + r.size, r.entries() + at);
  --r.size;
}

NextHopBlock NhiInfoKey::slotToNextHopBlock(U8 slot) const {
  const Entry* it = std::lower_bound(begin(), end(), slot, bySlot);
  return it != end() && it->first == slot ? it->second : NextHopBlock();
}

U32 NhiInfoKey::hash() const {
  if (!rep_) return 0;
  if (rep_->hashValid) return rep_->hash;
  OneAtATimeHash h;
  for (const auto& [slot, block] : *this) {
    h.add(slot);
    h.addLittleEndian(block.hash());
  }
  rep_->hash = h.finish();
  rep_->hashValid = true;
  return rep_->hash;
}

U32 NhiInfoKey::mapHash() const {
  if (!rep_) return 0;
  if (rep_->mapHashValid) return rep_->mapHash;
  U64 h = 0x9E3779B97F4A7C15ull ^ rep_->size;
  for (const auto& [slot, block] : *this) {
    h ^= U64(slot) << 56 | U64(block.base().value()) << 16 | block.size().value();
    h *= 0x9E3779B97F4A7C15ull;
    h ^= h >> 29;
  }
  rep_->mapHash = static_cast<U32>(h ^ (h >> 32));
  rep_->mapHashValid = true;
  return rep_->mapHash;
}

std::string NhiInfoKey::str() const {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%x,%u", hash(), slotToNextHopBlocks());
  return buf;
}

std::ostream& operator<<(std::ostream& os, const NhiInfoKey& k) { return os << k.str(); }

std::string NhiInfo::str() const {
  return nhiInfoKey_.str() + "/" + nhiBaseIdx_.str() + "/" + std::to_string(subTrieCount_);
}

Ptr<NhiInfo> nhiInfoFactory(const NhiInfoKey& key) { return makePtr<NhiInfo>(key); }

}  // namespace XpLpm
}  // namespace XpLib
