// NHI sharing keys and records.
#include "XpLpm/NhiInfo.h"

#include <algorithm>
#include <cstdio>

namespace XpLib {
namespace XpLpm {

namespace {
auto bySlot = [](const NhiInfoKey::Entry& e, U8 slot) { return e.first < slot; };
}

void NhiInfoKey::newSlotToNextHopBlock(U8 slot, const NextHopBlock& block) {
  if (entries_.empty() || entries_.back().first < slot) {
    entries_.emplace_back(slot, block);
    return;
  }
  auto it = std::lower_bound(entries_.begin(), entries_.end(), slot, bySlot);
  if (it != entries_.end() && it->first == slot) {
    it->second = block;
  } else {
    entries_.insert(it, Entry(slot, block));
  }
}

void NhiInfoKey::slotToNextHopBlockDel(U8 slot) {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), slot, bySlot);
  if (it != entries_.end() && it->first == slot) entries_.erase(it);
}

NextHopBlock NhiInfoKey::slotToNextHopBlock(U8 slot) const {
  auto it = std::lower_bound(entries_.begin(), entries_.end(), slot, bySlot);
  return it != entries_.end() && it->first == slot ? it->second : NextHopBlock();
}

U32 NhiInfoKey::hash() const {
  OneAtATimeHash h;
  for (const auto& [slot, block] : entries_) {
    h.add(slot);
    h.addLittleEndian(block.hash());
  }
  return h.finish();
}

std::string NhiInfoKey::str() const {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%x,%zu", hash(), entries_.size());
  return buf;
}

std::ostream& operator<<(std::ostream& os, const NhiInfoKey& k) { return os << k.str(); }

std::string NhiInfo::str() const {
  return nhiInfoKey_.str() + "/" + nhiBaseIdx_.str() + "/" + std::to_string(subTrieCount_);
}

Ptr<NhiInfo> nhiInfoFactory(const NhiInfoKey& key) { return makePtr<NhiInfo>(key); }

}  // namespace XpLpm
}  // namespace XpLib
