// The LPM configuration entity: attribute changes, derived geometry, least treads.
#include "XpLpm/Config.h"

#include <atomic>

#include "platform/Assert.h"
#include "platform/Exception.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

// Writes an attribute and announces it, unless it already holds the value.
#define XP_CONFIG_SETTER(Type, name, member, handler)         \
  void ConfigBase::name##Is(Type v) {                         \
    if (v == member) return;                                  \
    member = v;                                               \
    announce([](Notifiee& n) { n.handler(); });               \
  }

XP_CONFIG_SETTER(KeyType, keyType, keyType_, onKeyType)
XP_CONFIG_SETTER(U8, nhiPairPerEntry, nhiPairPerEntry_, onNhiPairPerEntry)
XP_CONFIG_SETTER(U8, nhiBlockBaseWidth, nhiBlockBaseWidth_, onNhiBlockBaseWidth)
XP_CONFIG_SETTER(U32, nhiTableSize, nhiTableSize_, onNhiTableSize)
XP_CONFIG_SETTER(U16, nhiEntriesPerTile, nhiEntriesPerTile_, onNhiEntriesPerTile)
XP_CONFIG_SETTER(U8, nhiAvailableTiles, nhiAvailableTiles_, onNhiAvailableTiles)
XP_CONFIG_SETTER(bool, supportMultiNhiEntriesPerSubTrie, supportMultiNhiEntriesPerSubTrie_,
                 onSupportMultiNhiEntriesPerSubTrie)
XP_CONFIG_SETTER(RestartMode, restartMode, restartMode_, onRestartMode)

#undef XP_CONFIG_SETTER

void ConfigBase::addressFamilyIs(AddressFamily af) {
  if (af == addressFamily_) return;
  addressFamily_ = af;
  announce([](Notifiee& n) { n.onAddressFamily(); });
}

void ConfigBase::prefixTableConfigIs(const Ptr<PrefixTableConfig>& cfg) {
  if (!cfg) {
    throw RangeException(
        "null _prefixTableConfig parameter to mutator for XpLib::XpLpm::ConfigBase::prefixTableConfig not allowed\"");
  }
  PrefixTableId id = cfg->tableId();
  if (const auto* held = prefixTableConfig_.find(id); held && *held == cfg) return;
  prefixTableConfig_.set(id, cfg);
  announce([id](Notifiee& n) { n.onPrefixTableConfig(id); });
}

void ConfigBase::prefixTableConfigDel(PrefixTableId id) {
  if (!prefixTableConfig_.erase(id)) return;
  announce([id](Notifiee& n) { n.onPrefixTableConfig(id); });
}

void ConfigBase::prefixTableConfigDelAll() {
  while (!prefixTableConfig_.empty()) prefixTableConfigDel(prefixTableConfig_.begin()->first);
}

void ConfigBase::leastTreadForPrefixLenIs(U8 keyLen, U8 tread) {
  if (const U8* held = leastTreadForPrefixLen_.find(keyLen); held && *held == tread) return;
  leastTreadForPrefixLen_.set(keyLen, tread);
  announce([keyLen](Notifiee& n) { n.onLeastTreadForPrefixLen(keyLen); });
}

void ConfigBase::leastTreadForPrefixLenDel(U8 keyLen) {
  if (!leastTreadForPrefixLen_.erase(keyLen)) return;
  announce([keyLen](Notifiee& n) { n.onLeastTreadForPrefixLen(keyLen); });
}

void ConfigBase::leastTreadForPrefixLenDelAll() {
  while (!leastTreadForPrefixLen_.empty()) leastTreadForPrefixLenDel(leastTreadForPrefixLen_.begin()->first);
}

Ptr<PrefixTable> ConfigBase::prefixTableSortedByTread(U8 position) const {
  return position < prefixTableSortedByTread_.size() ? prefixTableSortedByTread_[position] : Ptr<PrefixTable>();
}

void ConfigBase::prefixTableSortedByTreadIs(U8 position, const Ptr<PrefixTable>& table) {
  if (position >= prefixTableSortedByTread_.size()) prefixTableSortedByTread_.resize(position + 1);
  if (prefixTableSortedByTread_[position] == table) return;
  prefixTableSortedByTread_[position] = table;
  announce([position](Notifiee& n) { n.onPrefixTableSortedByTread(position); });
}

bool ConfigBase::availableStride(U8 stride) const {
  auto it = availableStride_.find(stride);
  return it != availableStride_.end() && it->second;
}

void ConfigBase::availableStrideIs(U8 stride, bool available) {
  auto [it, inserted] = availableStride_.try_emplace(stride, available);
  if (!inserted) {
    if (it->second == available) return;
    it->second = available;
  }
  announce([stride](Notifiee& n) { n.onAvailableStride(stride); });
}

void ConfigBase::availableStrideDel(U8 stride) {
  if (availableStride_.erase(stride) == 0) return;
  announce([stride](Notifiee& n) { n.onAvailableStride(stride); });
}

void ConfigBase::requestIs(const Ptr<LpmPrefix>& p, const NextHopBlock& block) {
  if (!request_.assign(p, block)) return;
  announce([&p](Notifiee& n) { n.onRequest(p); });
}

void ConfigBase::requestDel(const Ptr<LpmPrefix>& p) {
  Ptr<LpmPrefix> keep = p;  // the caller's reference may be the map's own key
  if (!request_.erase(keep)) return;
  announce([&keep](Notifiee& n) { n.onRequest(keep); });
}

void ConfigBase::requestDelAll() {
  while (!request_.empty()) requestDel((*request_.begin()).first);
}

U8 ConfigBase::keyLength() const {
  if (keyType_ == keyShort48b) return 48;
  XP_ASSERT_TEXT(keyType_ == keyLong144b, "keyType() == keyLong144b_");
  return 144;
}

U8 ConfigBase::nhiPairWidth(U8 pairsPerEntry) {
  switch (pairsPerEntry) {
    case 6: return 21;
    case 7: return 18;
    case 8: return 16;
    case 10: return 12;
    default: return 0;
  }
}

U8 ConfigBase::nhiBlockEcmpWidth() const {
  const U8 nhiPairSize = nhiPairWidth(nhiPairPerEntry_);
  XP_ASSERT_TEXT(nhiPairSize != 0, "false && \"Unknown NHI pair per entry\"");
  XP_ASSERT_TEXT(nhiPairSize >= nhiBlockBaseWidth(), "nhiPairSize >= nhiBlockBaseWidth()");
  return static_cast<U8>(nhiPairSize - nhiBlockBaseWidth());
}

U8 ConfigBase::fanoutPrefixLen(int prefixLen) const {
  const U8 least = leastTreadForPrefixLen(static_cast<U8>(prefixLen));
  XP_ASSERT_TEXT(!prefixTableSortedByTread_.empty(), "prefixTableFound");
  U8 result = 0;
  bool prefixTableFound = false;
  for (std::size_t i = 0; i < prefixTableSortedByTread_.size(); ++i) {
    const Ptr<PrefixTable>& prefixTable = prefixTableSortedByTread_[i];
    XP_ASSERT(prefixTable);
    int tread = prefixTable->tableConfig()->tread();
    if (least <= tread && tread <= prefixLen) {
      prefixTableFound = true;
      result = i == 0 ? static_cast<U8>(prefixLen) : prefixTableSortedByTread_[i - 1]->tableConfig()->tread();
      break;
    }
  }
  XP_ASSERT(prefixTableFound);
  XP_TRACE(1, "Lpm::fanoutPrefixLen prefixLen " << prefixLen << " fanoutLen " << +result);
  return result;
}

void ConfigV4::addressFamilyIs(AddressFamily af) {
  if (af == addressFamily()) return;
  throw ImmutableAttrMutationException("XpLib::XpLpm::ConfigV4::addressFamily");
}

// These least treads are the tuning of the hardware tables: short prefixes may sit
// anywhere, /20 and /21 (key 36, 37) no lower than tread 30, longer ones no lower than 35.
void ConfigV4::populateLeastTreadForPrefixLenSettings(bool lpmTreadUserCfgd) {
  leastTreadForPrefixLenDelAll();
  for (U32 len = 0; len <= keyLength(); ++len) {
    U8 least = 0;
    if (!lpmTreadUserCfgd) least = len <= 35 ? 0 : len <= 37 ? 30 : 35;
    leastTreadForPrefixLenIs(static_cast<U8>(len), least);
  }
}

Ptr<LpmPrefixV4> ConfigV4::newLpmPrefix(const VrfAndPrefix& key) { return lpmPrefix_.intern(key); }

void ConfigV6::addressFamilyIs(AddressFamily af) {
  if (af == addressFamily()) return;
  throw ImmutableAttrMutationException("XpLib::XpLpm::ConfigV6::addressFamily");
}

void ConfigV6::populateLeastTreadForPrefixLenSettings(bool lpmTreadUserCfgd) {
  leastTreadForPrefixLenDelAll();
  for (U32 len = 0; len <= keyLength(); ++len) {
    U8 least = 0;
    if (!lpmTreadUserCfgd) least = len <= 59 ? 0 : 60;
    leastTreadForPrefixLenIs(static_cast<U8>(len), least);
  }
}

Ptr<LpmPrefixV6> ConfigV6::newLpmPrefix(const VrfAndIp6Prefix& key) { return lpmPrefix_.intern(key); }

namespace {
std::atomic<U32> nextDomain{1};

Ptr<LpmPrefixV4> makeObject(const VrfAndPrefix& key) { return lpmPrefixV4Factory(key); }
Ptr<LpmPrefixV6> makeObject(const VrfAndIp6Prefix& key) { return lpmPrefixV6Factory(key); }
const VrfAndPrefix& keyOf(const LpmPrefixV4& p) { return p.vrfAndPrefix(); }
const VrfAndIp6Prefix& keyOf(const LpmPrefixV6& p) { return p.vrfAndIp6Prefix(); }
}  // namespace

// Objects that outlive their configuration keep its domain: no new object of it can appear.
template <class K, class P>
LpmPrefixObjects<K, P>::LpmPrefixObjects() : domain_(nextDomain++) {}

template <class K, class P>
Ptr<P> LpmPrefixObjects<K, P>::intern(const K& key) {
  if (const U32 at = locate(key); at != kNone) return Ptr<P>(&objectAt(slots_[at]));
  Ptr<P> p;
  if (!dropped_.empty()) {
    p = dropped_.get(key);
    dropped_.erase(key);
  }
  if (!p) {
    p = makeObject(key);
    p->record().domain = domain_;
  }
  insert(p.ptr());
  return p;
}

template <class K, class P>
void LpmPrefixObjects<K, P>::set(const K& key, const Ptr<P>& p) {
  const U32 at = locate(key);
  if (at != kNone && &objectAt(slots_[at]) == p.ptr()) return;
  if (at != kNone) {
    const Ptr<P> held(&objectAt(slots_[at]));
    remove(at);
    release(held, key);
  }
  if (!p) return;
  // Taken as the key's object unless a dropped one still is, or another configuration's.
  const Ptr<P> dropped = dropped_.get(key);
  if (dropped == p) dropped_.erase(key);
  if (!dropped && p->record().domain == 0) p->record().domain = domain_;
  insert(p.ptr());
}

template <class K, class P>
void LpmPrefixObjects<K, P>::erase(const K& key) {
  const U32 at = locate(key);
  if (at == kNone) return;
  const Ptr<P> held(&objectAt(slots_[at]));
  remove(at);
  release(held, key);
}

template <class K, class P>
void LpmPrefixObjects<K, P>::clear() {
  std::vector<Slot> slots;
  slots.swap(slots_);
  count_ = 0;
  // Let go in a scrambled slot order: in slot order the keys would come in hash order, and
  // filling the dropped map's smaller table in hash order piles them into one long probe run.
  const U32 mask = static_cast<U32>(slots.size() - 1);
  for (U32 n = 0; n < slots.size(); ++n) {
    const Slot& s = slots[(n * 0x9E3779B1u) & mask];
    if (!s.tag) continue;
    P* p = &objectAt(s);
    const Ptr<P> held(p);
    p->deleteRef();
    release(held, keyOf(*held));
  }
}

template <class K, class P>
U32 LpmPrefixObjects<K, P>::locate(const K& key) const {
  if (slots_.empty()) return kNone;
  const U32 mask = static_cast<U32>(slots_.size() - 1);
  const U32 h = key.hash();
  const U32 tag = tagOf(h);
  for (U32 i = h & mask;; i = (i + 1) & mask) {
    const U32 t = slots_[i].tag;
    if (t == 0) return kNone;
    if (t == tag && keyOf(objectAt(slots_[i])) == key) return i;
  }
}

template <class K, class P>
void LpmPrefixObjects<K, P>::insert(P* p) {
  // At most three quarters full, so that a miss (every new route) ends after a few probes.
  if (4 * (count_ + 1) > 3 * slots_.size()) grow();
  const U32 mask = static_cast<U32>(slots_.size() - 1);
  const U32 h = keyOf(*p).hash();
  U32 i = h & mask;
  while (slots_[i].tag) i = (i + 1) & mask;
  slots_[i] = Slot{tagOf(h), p->ref()};
  p->newRef();
  ++count_;
}

template <class K, class P>
void LpmPrefixObjects<K, P>::grow() {
  std::vector<Slot> oldSlots(slots_.empty() ? 16 : 2 * slots_.size());
  oldSlots.swap(slots_);
  const U32 mask = static_cast<U32>(slots_.size() - 1);
  for (const Slot& s : oldSlots) {
    if (!s.tag) continue;
    U32 i = s.tag & mask;
    while (slots_[i].tag) i = (i + 1) & mask;
    slots_[i] = s;
  }
}

// Backward-shift deletion keeps probe sequences unbroken without tombstones.
template <class K, class P>
void LpmPrefixObjects<K, P>::remove(U32 hole) {
  P& gone = objectAt(slots_[hole]);
  const U32 mask = static_cast<U32>(slots_.size() - 1);
  for (U32 i = (hole + 1) & mask; slots_[i].tag; i = (i + 1) & mask) {
    const U32 home = slots_[i].tag & mask;
    if (((i - home) & mask) >= ((i - hole) & mask)) {
      slots_[hole] = slots_[i];
      hole = i;
    }
  }
  slots_[hole] = Slot{};
  --count_;
  gone.deleteRef();
}

template <class K, class P>
void LpmPrefixObjects<K, P>::release(const Ptr<P>& p, const K& key) {
  if (p->record().domain != domain_) return;
  if (!p->record().held()) {
    p->record().domain = 0;
    return;
  }
  dropped_.set(key, p);
  // Dropped objects are rare (a route let go while the state machine still holds it): sweep
  // out the ones nothing keeps any more whenever their number has doubled.
  if (dropped_.size() >= 2 * droppedAtPrune_ + 8) pruneDropped();
}

template <class K, class P>
void LpmPrefixObjects<K, P>::pruneDropped() {
  std::vector<K> free;
  for (const auto& [key, p] : dropped_)
    if (!p->record().held()) free.push_back(key);
  for (const K& key : free) {
    dropped_.get(key)->record().domain = 0;
    dropped_.erase(key);
  }
  droppedAtPrune_ = dropped_.size();
}

template class LpmPrefixObjects<VrfAndPrefix, LpmPrefixV4>;
template class LpmPrefixObjects<VrfAndIp6Prefix, LpmPrefixV6>;

Ptr<ConfigV4> configV4Factory(const Name& name) { return makePtr<ConfigV4>(name); }
Ptr<ConfigV6> configV6Factory(const Name& name) { return makePtr<ConfigV6>(name); }

}  // namespace XpLpm
}  // namespace XpLib
