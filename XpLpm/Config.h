// The LPM configuration entity: the hardware one LPM instance drives (key width,
// prefix tables, NHI geometry, least treads, strides) and the routes wanted.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "XpLpm/LpmPrefix.h"
#include "XpLpm/LpmPrefixRecordMap.h"
#include "XpLpm/PrefixTable.h"
#include "XpLpm/XpLpmTypes.h"
#include "platform/HashMap.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

class ConfigBase : public PtrInterface {
 public:
  class Notifiee : public BaseNotifiee<ConfigBase, Notifiee> {
   public:
    virtual void onAddressFamily() {}
    virtual void onKeyType() {}
    virtual void onPrefixTableConfig(PrefixTableId) {}
    virtual void onNhiPairPerEntry() {}
    virtual void onNhiBlockBaseWidth() {}
    virtual void onNhiTableSize() {}
    virtual void onNhiEntriesPerTile() {}
    virtual void onNhiAvailableTiles() {}
    virtual void onSupportMultiNhiEntriesPerSubTrie() {}
    virtual void onLeastTreadForPrefixLen(U8 /*keyLen*/) {}
    virtual void onPrefixTableSortedByTread(U8 /*position*/) {}
    virtual void onAvailableStride(U8 /*stride*/) {}
    virtual void onRestartMode() {}
    virtual void onRequest(const Ptr<LpmPrefix>&) {}

   protected:
    virtual ~Notifiee() = default;
  };

  explicit ConfigBase(const Name& name) : name_(name) {}
  const Name& name() const { return name_; }

  AddressFamily addressFamily() const { return addressFamily_; }
  virtual void addressFamilyIs(AddressFamily af);

  KeyType keyType() const { return keyType_; }
  void keyTypeIs(KeyType t);

  // The hardware prefix tables, keyed by their table id.
  Ptr<PrefixTableConfig> prefixTableConfig(PrefixTableId id) const { return prefixTableConfig_.get(id); }
  U32 prefixTableConfigs() const { return prefixTableConfig_.size(); }
  const HashMap<PrefixTableId, Ptr<PrefixTableConfig>>& prefixTableConfigMap() const { return prefixTableConfig_; }
  // Files the table under its own id; a null table throws RangeException.
  void prefixTableConfigIs(const Ptr<PrefixTableConfig>& cfg);
  void prefixTableConfigDel(PrefixTableId id);
  void prefixTableConfigDelAll();

  U8 nhiPairPerEntry() const { return nhiPairPerEntry_; }
  void nhiPairPerEntryIs(U8 n);
  U8 nhiBlockBaseWidth() const { return nhiBlockBaseWidth_; }
  void nhiBlockBaseWidthIs(U8 n);
  U32 nhiTableSize() const { return nhiTableSize_; }
  void nhiTableSizeIs(U32 n);
  U16 nhiEntriesPerTile() const { return nhiEntriesPerTile_; }
  void nhiEntriesPerTileIs(U16 n);
  U8 nhiAvailableTiles() const { return nhiAvailableTiles_; }
  void nhiAvailableTilesIs(U8 n);
  bool supportMultiNhiEntriesPerSubTrie() const { return supportMultiNhiEntriesPerSubTrie_; }
  void supportMultiNhiEntriesPerSubTrieIs(bool b);

  // The smallest tread a prefix of that key length may be stored at (0 when absent).
  U8 leastTreadForPrefixLen(U8 keyLen) const { return leastTreadForPrefixLen_.get(keyLen); }
  U32 leastTreadForPrefixLens() const { return leastTreadForPrefixLen_.size(); }
  void leastTreadForPrefixLenIs(U8 keyLen, U8 tread);
  void leastTreadForPrefixLenDel(U8 keyLen);
  void leastTreadForPrefixLenDelAll();
  // Fills one entry per key length 0..keyLength(); all 0 when the user configured the treads.
  virtual void populateLeastTreadForPrefixLenSettings(bool lpmTreadUserCfgd) = 0;

  // The prefix tables by decreasing tread, filled by the state machine at start-up.
  Ptr<PrefixTable> prefixTableSortedByTread(U8 position) const;
  U32 prefixTableSortedByTreads() const { return static_cast<U32>(prefixTableSortedByTread_.size()); }
  void prefixTableSortedByTreadIs(U8 position, const Ptr<PrefixTable>& table);
  void prefixTableSortedByTreadDelAll() { prefixTableSortedByTread_.clear(); }

  bool availableStride(U8 stride) const;
  const std::map<U8, bool>& availableStrideMap() const { return availableStride_; }
  void availableStrideIs(U8 stride, bool available);
  void availableStrideDel(U8 stride);

  RestartMode restartMode() const { return restartMode_; }
  void restartModeIs(RestartMode m);

  // The routes wanted: prefix -> next-hop block; the default block when absent.
  NextHopBlock request(const Ptr<LpmPrefix>& p) const { return request_.get(p); }
  U32 requests() const { return request_.size(); }
  const LpmPrefixRecordMap<RequestField>& requestMap() const { return request_; }
  void requestIs(const Ptr<LpmPrefix>& p, const NextHopBlock& block);
  void newRequest(const Ptr<LpmPrefix>& p, const NextHopBlock& block) { requestIs(p, block); }
  void requestDel(const Ptr<LpmPrefix>& p);
  void requestDelAll();

  static constexpr U8 vrfBits() { return kVrfBits; }
  // 48 for keyShort48b, 144 for keyLong144b.
  U8 keyLength() const;
  // Bits of one next-hop pair for that many pairs per NHI entry; 0 for a count the NHI entry does
  // not come in (6, 7, 8 and 10 are the ones it does).
  static U8 nhiPairWidth(U8 pairsPerEntry);
  // Bits of a next-hop pair beyond the block base.
  U8 nhiBlockEcmpWidth() const;
  // The largest NHI block a sub-trie can need: ceil(216 / nhiPairPerEntry).
  U8 nhiMaxBlockSize() const { return static_cast<U8>((216 + nhiPairPerEntry_ - 1) / nhiPairPerEntry_); }
  // The key length to which a prefix of key length prefixLen must be expanded to fit a table.
  U8 fanoutPrefixLen(int prefixLen) const;

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeRemove(Notifiee* n) { notifiees_.remove(n); }

 protected:
  void addressFamilyInit(AddressFamily af) { addressFamily_ = af; }
  template <class F>
  void announce(F&& f) {
    notifiees_.announce(std::forward<F>(f));
  }

 private:
  Name name_;
  AddressFamily addressFamily_ = AddressFamily::none;
  KeyType keyType_ = keyShort48b;
  U8 nhiPairPerEntry_ = 0;
  U8 nhiBlockBaseWidth_ = 0;
  U8 nhiAvailableTiles_ = 0;
  bool supportMultiNhiEntriesPerSubTrie_ = true;
  U16 nhiEntriesPerTile_ = 0;
  U32 nhiTableSize_ = 0;
  RestartMode restartMode_ = modeNoRestart;
  HashMap<PrefixTableId, Ptr<PrefixTableConfig>> prefixTableConfig_;
  HashMap<U8, U8> leastTreadForPrefixLen_;
  std::vector<Ptr<PrefixTable>> prefixTableSortedByTread_;
  std::map<U8, bool> availableStride_;
  LpmPrefixRecordMap<RequestField> request_;
  NotifieeList<Notifiee> notifiees_;
};

// A configuration's one prefix object per key (the lpmPrefix collection). Its objects carry the
// configuration's domain, which lets the route-keyed collections keep their entries in them. An
// object dropped while such a collection still keeps an entry in it stays the key's object, to
// come back on the next newLpmPrefix, so that a key never has two objects the collections could
// take for two routes.
template <class K, class P>
class LpmPrefixObjects {
 public:
  LpmPrefixObjects();
  LpmPrefixObjects(const LpmPrefixObjects&) = delete;
  LpmPrefixObjects& operator=(const LpmPrefixObjects&) = delete;
  // The objects stay what they are for whoever still holds them.
  ~LpmPrefixObjects() {
    for (const Slot& s : slots_)
      if (s.tag) objectAt(s).deleteRef();
  }

  U32 size() const { return count_; }
  Ptr<P> get(const K& key) const {
    const U32 at = locate(key);
    return at == kNone ? Ptr<P>() : Ptr<P>(&objectAt(slots_[at]));
  }
  // The key's object, made on first use.
  Ptr<P> intern(const K& key);
  // A lookup in two steps, for a caller about to look up many keys one after another: step 0
  // starts loading the index slot a probe for `key` reads first; step 1, once that has arrived,
  // the object it names. Changes nothing.
  void prefetch(const K& key, U32 step) const {
    if (slots_.empty()) return;
    const U32 h = key.hash();
    const Slot& s = slots_[h & (slots_.size() - 1)];
    if (step == 0) {
      __builtin_prefetch(&s);
    } else if (s.tag == tagOf(h)) {
      __builtin_prefetch(&objectAt(s));
    }
  }
  void set(const K& key, const Ptr<P>& p);
  void erase(const K& key);
  void clear();

 private:
  static constexpr U32 kNone = 0xFFFFFFFFu;

  // An object leaves the collection: it stays the key's object while anything keeps it.
  void release(const Ptr<P>& p, const K& key);
  void pruneDropped();

  // The index: open addressing over the objects themselves, which hold their key, so that an
  // entry costs the object's 32-bit name (LpmPrefix::ref) rather than a copy of the key. Each
  // slot holds a reference. Beside the name, the key's hash with the top bit set (0 when empty):
  // a new route's probe, growing and removing then read no object.
  struct Slot {
    U32 tag = 0;
    U32 ref = 0;
  };
  static P& objectAt(const Slot& s) { return *static_cast<P*>(lpmPrefixAt(s.ref)); }
  U32 locate(const K& key) const;
  void insert(P* p);
  void remove(U32 at);
  void grow();

  static U32 tagOf(U32 hash) { return hash | 0x80000000u; }

  U32 domain_;
  std::vector<Slot> slots_;
  U32 count_ = 0;
  HashMap<K, Ptr<P>> dropped_;
  U32 droppedAtPrune_ = 0;
};

class ConfigV4 : public ConfigBase {
 public:
  explicit ConfigV4(const Name& name) : ConfigBase(name) { addressFamilyInit(AddressFamily::ipv4); }

  // Throws ImmutableAttrMutationException: the family of an IPv4 configuration is fixed.
  void addressFamilyIs(AddressFamily af) override;
  void populateLeastTreadForPrefixLenSettings(bool lpmTreadUserCfgd) override;

  // The configuration's one prefix object for `key`, created on first use.
  Ptr<LpmPrefixV4> newLpmPrefix(const VrfAndPrefix& key);
  Ptr<LpmPrefixV4> lpmPrefix(const VrfAndPrefix& key) const { return lpmPrefix_.get(key); }
  void lpmPrefixPrefetch(const VrfAndPrefix& key, U32 step) const { lpmPrefix_.prefetch(key, step); }
  U32 lpmPrefixs() const { return lpmPrefix_.size(); }
  void lpmPrefixIs(const VrfAndPrefix& key, const Ptr<LpmPrefixV4>& p) { lpmPrefix_.set(key, p); }
  void lpmPrefixDel(const VrfAndPrefix& key) { lpmPrefix_.erase(key); }
  void lpmPrefixDelAll() { lpmPrefix_.clear(); }

 private:
  LpmPrefixObjects<VrfAndPrefix, LpmPrefixV4> lpmPrefix_;
};

class ConfigV6 : public ConfigBase {
 public:
  explicit ConfigV6(const Name& name) : ConfigBase(name) { addressFamilyInit(AddressFamily::ipv6); }

  // Throws ImmutableAttrMutationException: the family of an IPv6 configuration is fixed.
  void addressFamilyIs(AddressFamily af) override;
  void populateLeastTreadForPrefixLenSettings(bool lpmTreadUserCfgd) override;

  Ptr<LpmPrefixV6> newLpmPrefix(const VrfAndIp6Prefix& key);
  Ptr<LpmPrefixV6> lpmPrefix(const VrfAndIp6Prefix& key) const { return lpmPrefix_.get(key); }
  void lpmPrefixPrefetch(const VrfAndIp6Prefix& key, U32 step) const { lpmPrefix_.prefetch(key, step); }
  U32 lpmPrefixs() const { return lpmPrefix_.size(); }
  void lpmPrefixIs(const VrfAndIp6Prefix& key, const Ptr<LpmPrefixV6>& p) { lpmPrefix_.set(key, p); }
  void lpmPrefixDel(const VrfAndIp6Prefix& key) { lpmPrefix_.erase(key); }
  void lpmPrefixDelAll() { lpmPrefix_.clear(); }

 private:
  LpmPrefixObjects<VrfAndIp6Prefix, LpmPrefixV6> lpmPrefix_;
};

Ptr<ConfigV4> configV4Factory(const Name& name);
Ptr<ConfigV6> configV6Factory(const Name& name);

}  // namespace XpLpm
}  // namespace XpLib
