// LPM prefixes: one route key (VRF + IP prefix) as the LPM model sees it, a
// left-aligned bit string of 16 VRF bits followed by the address bits.
#pragma once

#include <memory>
#include <string>

#include "XpLpm/XpLpmTypes.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "platform/HashMap.h"
#include "platform/IpPrefix.h"
#include "platform/LinkQueue.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

using XpLpmNextHop::NextHopBlock;
using XpLpmNextHop::NextHopBlockList;

enum class AddressFamily : U32 { none = 0, ipv4 = 1, ipv6 = 2 };

// The VRF width of every LPM key.
inline constexpr U8 kVrfBits = 16;

class LpmPrefix : public PtrInterface {
 public:
  // Key length in bits, VRF bits included.
  virtual U8 len() const;
  // The first branchLen key bits, left-aligned, the rest zero.
  virtual SubTrieBranch branch(U8 branchLen) const;
  // "vrf N prefix P".
  virtual std::string stringValue() const;

  // Value identity, so collections keyed by prefixes hash and order by content.
  virtual AddressFamily addressFamily() const { return AddressFamily::none; }
  virtual U32 keyHash() const { return 0; }
  bool keyEquals(const LpmPrefix& o) const {
    return this == &o || (addressFamily() == o.addressFamily() && keyCompare(o) == 0);
  }
  bool keyLess(const LpmPrefix& o) const {
    if (addressFamily() != o.addressFamily()) return addressFamily() < o.addressFamily();
    return keyCompare(o) < 0;
  }

 protected:
  // Compares with a prefix of the same family: negative, zero or positive.
  virtual int keyCompare(const LpmPrefix&) const { return 0; }
};

std::ostream& operator<<(std::ostream& os, const LpmPrefix& p);

// Hash and equality by the prefix's value, for collections keyed by Ptr<LpmPrefix>.
struct LpmPrefixHash {
  U32 operator()(const Ptr<LpmPrefix>& p) const { return p->keyHash(); }
};
// A null entry (a free slot of a prefix list) equals only another null entry.
struct LpmPrefixEq {
  bool operator()(const Ptr<LpmPrefix>& a, const Ptr<LpmPrefix>& b) const {
    return a == b || (a && b && a->keyEquals(*b));
  }
};
struct LpmPrefixLess {
  bool operator()(const Ptr<LpmPrefix>& a, const Ptr<LpmPrefix>& b) const { return a->keyLess(*b); }
};
template <class V>
using LpmPrefixMap = HashMap<Ptr<LpmPrefix>, V, LpmPrefixHash, LpmPrefixEq>;

class LpmPrefixV4 : public LpmPrefix {
 public:
  using KeyMap = HashMap<VrfAndPrefix, bool>;

  explicit LpmPrefixV4(const VrfAndPrefix& key) : vrfAndPrefix_(key) {}

  U8 len() const override { return vrfAndPrefix_.prefix.len() + kVrfBits; }
  SubTrieBranch branch(U8 branchLen) const override;
  std::string stringValue() const override;
  AddressFamily addressFamily() const override { return AddressFamily::ipv4; }
  U32 keyHash() const override { return vrfAndPrefix_.hash(); }

  const VrfAndPrefix& vrfAndPrefix() const { return vrfAndPrefix_; }

  const Ptr<LpmPrefixV4>& ownerLpmPrefix() const { return ownerLpmPrefix_; }
  void ownerLpmPrefixIs(const Ptr<LpmPrefixV4>& owner) { ownerLpmPrefix_ = owner; }

  const NextHopBlock& nhBlock() const { return nhBlock_; }
  void nhBlockIs(const NextHopBlock& b) { nhBlock_ = b; }

  // Further requested prefixes that produced this same fanout prefix.
  bool otherOwnerList(const VrfAndPrefix& key) const { return lookup(otherOwnerList_, key); }
  U32 otherOwnerLists() const { return otherOwnerList_ ? otherOwnerList_->size() : 0; }
  const KeyMap& otherOwnerListMap() const { return orEmpty(otherOwnerList_); }
  void otherOwnerListIs(const VrfAndPrefix& key, bool v) { assign(otherOwnerList_, key, v); }
  void newOtherOwnerList(const VrfAndPrefix& key, bool v) { assign(otherOwnerList_, key, v); }
  void otherOwnerListDel(const VrfAndPrefix& key) { erase(otherOwnerList_, key); }
  void otherOwnerListDelAll() { otherOwnerList_.reset(); }

  // The fanout prefixes that this prefix produced.
  bool prefixFanoutList(const VrfAndPrefix& key) const { return lookup(prefixFanoutList_, key); }
  U32 prefixFanoutLists() const { return prefixFanoutList_ ? prefixFanoutList_->size() : 0; }
  const KeyMap& prefixFanoutListMap() const { return orEmpty(prefixFanoutList_); }
  void prefixFanoutListIs(const VrfAndPrefix& key, bool v) { assign(prefixFanoutList_, key, v); }
  void newPrefixFanoutList(const VrfAndPrefix& key, bool v) { assign(prefixFanoutList_, key, v); }
  void prefixFanoutListDel(const VrfAndPrefix& key) { erase(prefixFanoutList_, key); }
  void prefixFanoutListDelAll() { prefixFanoutList_.reset(); }

  // Expands this prefix into every prefix of key length targetTread that it covers.
  void createFanoutPrefixV4(U32 targetTread);

  // Bytes owned on the heap beyond the object itself, for memory accounting.
  std::size_t heapBytes() const;

 protected:
  int keyCompare(const LpmPrefix& o) const override;

 private:
  // Fanout bookkeeping is rare; an empty collection costs one null pointer.
  static bool lookup(const std::unique_ptr<KeyMap>& m, const VrfAndPrefix& key) { return m && m->get(key); }
  static const KeyMap& orEmpty(const std::unique_ptr<KeyMap>& m);
  static void assign(std::unique_ptr<KeyMap>& m, const VrfAndPrefix& key, bool v);
  static void erase(std::unique_ptr<KeyMap>& m, const VrfAndPrefix& key);

  const VrfAndPrefix vrfAndPrefix_;
  Ptr<LpmPrefixV4> ownerLpmPrefix_;
  std::unique_ptr<KeyMap> otherOwnerList_;
  std::unique_ptr<KeyMap> prefixFanoutList_;
  NextHopBlock nhBlock_;
};

class LpmPrefixV6 : public LpmPrefix {
 public:
  explicit LpmPrefixV6(const VrfAndIp6Prefix& key) : vrfAndIp6Prefix_(key) {}

  U8 len() const override { return vrfAndIp6Prefix_.prefix.len() + kVrfBits; }
  SubTrieBranch branch(U8 branchLen) const override;
  std::string stringValue() const override;
  AddressFamily addressFamily() const override { return AddressFamily::ipv6; }
  U32 keyHash() const override { return vrfAndIp6Prefix_.hash(); }

  const VrfAndIp6Prefix& vrfAndIp6Prefix() const { return vrfAndIp6Prefix_; }

 protected:
  int keyCompare(const LpmPrefix& o) const override;

 private:
  const VrfAndIp6Prefix vrfAndIp6Prefix_;
};

Ptr<LpmPrefixV4> lpmPrefixV4Factory(const VrfAndPrefix& key);
Ptr<LpmPrefixV6> lpmPrefixV6Factory(const VrfAndIp6Prefix& key);

// The prefixes of one prefix-table write, in slot order: list index = slot.
class LpmPrefixList {
 public:
  using const_iterator = LinkQueue<Ptr<LpmPrefix>>::const_iterator;

  void newPrefix(U32 index, const Ptr<LpmPrefix>& p) { q_.insert(index, p); }
  void prefixDel(U32 index) { q_.erase(index); }
  void prefixDeq() { q_.pop(); }
  void prefixDelAll() { q_.clear(); }
  // The prefix under `index`, or null.
  Ptr<LpmPrefix> prefix(U32 index) const {
    const Ptr<LpmPrefix>* p = q_.find(index);
    return p ? *p : Ptr<LpmPrefix>();
  }
  U32 prefixs() const { return q_.size(); }
  const QueueMetadata& prefixMetadata() const { return q_.metadata(); }
  const_iterator begin() const { return q_.begin(); }
  const_iterator end() const { return q_.end(); }

  bool operator==(const LpmPrefixList& o) const;
  bool operator!=(const LpmPrefixList& o) const { return !(*this == o); }

 private:
  LinkQueue<Ptr<LpmPrefix>> q_;
};

}  // namespace XpLpm
}  // namespace XpLib
