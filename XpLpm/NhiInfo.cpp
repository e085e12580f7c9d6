// NHI sharing keys and records.
#include "XpLpm/NhiInfo.h"

#include <algorithm>
#include <cstdio>

namespace XpLib {
namespace XpLpm {

namespace {
auto bySlot = [](const NhiInfoKey::Entry& e, U8 slot) { return e.first < slot; };
const std::vector<NhiInfoKey::Entry> kNoEntries;
}  // namespace

const std::vector<NhiInfoKey::Entry>& NhiInfoKey::entries() const { return rep_ ? rep_->entries : kNoEntries; }

NhiInfoKey::Rep& NhiInfoKey::mutableRep() {
  if (!rep_) {
    rep_ = makePtr<Rep>();
  } else if (rep_->references() > 1) {
    Ptr<Rep> copy = makePtr<Rep>();
    copy->entries = rep_->entries;
    rep_ = copy;
  }
  rep_->hashValid = false;
  rep_->mapHashValid = false;
  return *rep_;
}

void NhiInfoKey::reserve(U32 n) { mutableRep().entries.reserve(n); }

void NhiInfoKey::newSlotToNextHopBlock(U8 slot, const NextHopBlock& block) {
  std::vector<Entry>& e = mutableRep().entries;
  if (e.empty() || e.back().first < slot) {
    e.emplace_back(slot, block);
    return;
  }
  auto it = std::lower_bound(e.begin(), e.end(), slot, bySlot);
  if (it != e.end() && it->first == slot) {
    it->second = block;
  } else {
    e.insert(it, Entry(slot, block));
  }
}

void NhiInfoKey::slotToNextHopBlockDel(U8 slot) {
  const auto& e = entries();
  auto it = std::lower_bound(e.begin(), e.end(), slot, bySlot);
  if (it == e.end() || it->first != slot) return;
  std::vector<Entry>& m = mutableRep().entries;
  m.erase(m.begin() + (it - e.begin()));
  if (m.empty()) rep_ = nullptr;
}

NextHopBlock NhiInfoKey::slotToNextHopBlock(U8 slot) const {
  const auto& e = entries();
  auto it = std::lower_bound(e.begin(), e.end(), slot, bySlot);
  return it != e.end() && it->first == slot ? it->second : NextHopBlock();
}

U32 NhiInfoKey::hash() const {
  if (!rep_) return 0;
  if (rep_->hashValid) return rep_->hash;
  OneAtATimeHash h;
  for (const auto& [slot, block] : rep_->entries) {
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
  U64 h = 0x9E3779B97F4A7C15ull ^ rep_->entries.size();
  for (const auto& [slot, block] : rep_->entries) {
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
