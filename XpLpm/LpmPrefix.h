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
#include "platform/ObjectPool.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

using XpLpmNextHop::NextHopBlock;
using XpLpmNextHop::NextHopBlockList;

enum class AddressFamily : U32 { none = 0, ipv4 = 1, ipv6 = 2 };

// The VRF width of every LPM key.
inline constexpr U8 kVrfBits = 16;

class SubTrie;

// Where the route-keyed collections of one LPM instance keep a route: its configuration's request,
// its Status's installed block and its state machine's sub-trie live in the route's one key object,
// each with the route's place in that collection's order, rather than in maps of their own (see
// LpmPrefixRecordMap). A route then costs one probe, of the configuration's key index.
struct LpmPrefixRecord {
  static constexpr U32 kNowhere = 0xFFFFFFFFu;
  // First, so that the padding is all at the end (see LpmPrefix::record_).
  SubTrie* subTrie = nullptr;  // holds a reference while subTrieAt is set
  // The configuration whose one object for this key this is; 0 for an object made outside one.
  U32 domain = 0;
  // Places in the collections' orders.
  U32 requestAt = kNowhere, installedAt = kNowhere, subTrieAt = kNowhere;
  // Room for the configuration's owner (the agent) to keep its own record of the route: a place
  // in one of its lists, a word and a tag. The library never reads them.
  U32 ownerAt = kNowhere, ownerWord = 0, ownerTag = 0;
  NextHopBlock request, installed;

  // Whether a collection holds the route here; the configuration keeps such an object as the one
  // for its key even after dropping it, so that no second object of the key meets them.
  bool held() const { return requestAt != kNowhere || installedAt != kNowhere || subTrieAt != kNowhere; }
};

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

  LpmPrefixRecord& record() const { return record_; }
  // The object's name in 32 bits (see lpmPrefixAt), for the collections that hold one per route.
  U32 ref() const { return ref_; }

 protected:
  // A bare prefix names nothing: it is no route, and no collection holds it by name.
  LpmPrefix() = default;
  // `ref` names the object (see lpmPrefixAt): the factories make every route's key object.
  explicit LpmPrefix(U32 ref) : ref_(ref) {}
  // Compares with a prefix of the same family: negative, zero or positive.
  virtual int keyCompare(const LpmPrefix&) const { return 0; }

 private:
  U32 ref_ = 0xFFFFFFFFu;
  // The collections' entries, not the key: a const prefix is still a member of them. Overlappable,
  // so that a derived key fills the record's tail padding (an IPv4 key object takes 80 bytes, not 88).
  [[no_unique_address]] mutable LpmPrefixRecord record_;
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

  // One per route, from the pool, made by lpmPrefixV4Factory only: it names the object by its
  // pool handle.
  static void* operator new(std::size_t) = delete;
  static void operator delete(void* p) { PoolOf<LpmPrefixV4>::release(p); }

  LpmPrefixV4(const VrfAndPrefix& key, U32 ref) : LpmPrefix(ref), vrfAndPrefix_(key) {}
  LpmPrefixV4(const LpmPrefixV4&) = delete;
  LpmPrefixV4& operator=(const LpmPrefixV4&) = delete;
  ~LpmPrefixV4() override;

  U8 len() const override { return vrfAndPrefix_.prefix.len() + kVrfBits; }
  SubTrieBranch branch(U8 branchLen) const override;
  std::string stringValue() const override;
  AddressFamily addressFamily() const override { return AddressFamily::ipv4; }
  U32 keyHash() const override { return vrfAndPrefix_.hash(); }

  const VrfAndPrefix& vrfAndPrefix() const { return vrfAndPrefix_; }

  Ptr<LpmPrefixV4> ownerLpmPrefix() const {
    const Fanout* f = fanoutIfAny();
    return f ? f->owner : Ptr<LpmPrefixV4>();
  }
  void ownerLpmPrefixIs(const Ptr<LpmPrefixV4>& owner);

  NextHopBlock nhBlock() const {
    const Fanout* f = fanoutIfAny();
    return f ? f->nhBlock : NextHopBlock();
  }
  void nhBlockIs(const NextHopBlock& b);

  // Further requested prefixes that produced this same fanout prefix.
  bool otherOwnerList(const VrfAndPrefix& key) const { return otherOwnerListMap().get(key); }
  U32 otherOwnerLists() const { return otherOwnerListMap().size(); }
  const KeyMap& otherOwnerListMap() const {
    const Fanout* f = fanoutIfAny();
    return f ? f->otherOwners : emptyKeyMap();
  }
  void otherOwnerListIs(const VrfAndPrefix& key, bool v) { fanout().otherOwners.set(key, v); }
  void newOtherOwnerList(const VrfAndPrefix& key, bool v) { otherOwnerListIs(key, v); }
  void otherOwnerListDel(const VrfAndPrefix& key);
  void otherOwnerListDelAll();

  // The fanout prefixes that this prefix produced.
  bool prefixFanoutList(const VrfAndPrefix& key) const { return prefixFanoutListMap().get(key); }
  U32 prefixFanoutLists() const { return prefixFanoutListMap().size(); }
  const KeyMap& prefixFanoutListMap() const {
    const Fanout* f = fanoutIfAny();
    return f ? f->fanouts : emptyKeyMap();
  }
  void prefixFanoutListIs(const VrfAndPrefix& key, bool v) { fanout().fanouts.set(key, v); }
  void newPrefixFanoutList(const VrfAndPrefix& key, bool v) { prefixFanoutListIs(key, v); }
  void prefixFanoutListDel(const VrfAndPrefix& key);
  void prefixFanoutListDelAll();

  // Expands this prefix into every prefix of key length targetTread that it covers.
  void createFanoutPrefixV4(U32 targetTread);

  // Bytes owned on the heap beyond the object itself, for memory accounting.
  std::size_t heapBytes() const;

 protected:
  int keyCompare(const LpmPrefix& o) const override;

 private:
  // Fanout bookkeeping is rare (prefix expansion only): it lives beside the objects that have any,
  // not as a pointer in each of a million, and goes when empty.
  struct Fanout {
    Ptr<LpmPrefixV4> owner;
    NextHopBlock nhBlock;
    KeyMap otherOwners;
    KeyMap fanouts;
  };
  struct FanoutTable;
  static FanoutTable& fanoutTable();
  const Fanout* fanoutIfAny() const;
  Fanout& fanout();
  void dropFanoutIfEmpty();
  void dropFanout();
  static const KeyMap& emptyKeyMap();

  const VrfAndPrefix vrfAndPrefix_;
};

class LpmPrefixV6 : public LpmPrefix {
 public:
  // One per route, from the pool, made by lpmPrefixV6Factory only.
  static void* operator new(std::size_t) = delete;
  static void operator delete(void* p) { PoolOf<LpmPrefixV6>::release(p); }

  LpmPrefixV6(const VrfAndIp6Prefix& key, U32 ref) : LpmPrefix(ref), vrfAndIp6Prefix_(key) {}

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

// The key object named `ref`: its pool handle, and whether it is an IPv6 one in the lowest bit.
// Valid while the object lives.
inline LpmPrefix* lpmPrefixAt(U32 ref) {
  if (ref & 1) return static_cast<LpmPrefixV6*>(PoolOf<LpmPrefixV6>::fromHandle(ref >> 1));
  return static_cast<LpmPrefixV4*>(PoolOf<LpmPrefixV4>::fromHandle(ref >> 1));
}

// The name of no key object: a free place in a sequence of names.
inline constexpr U32 kNoLpmPrefix = 0xFFFFFFFFu;
inline Ptr<LpmPrefix> lpmPrefixOf(U32 ref) { return ref == kNoLpmPrefix ? Ptr<LpmPrefix>() : Ptr<LpmPrefix>(lpmPrefixAt(ref)); }

// Walks an array of names as the key objects they name (null for kNoLpmPrefix).
class LpmPrefixRefIterator {
 public:
  explicit LpmPrefixRefIterator(const U32* at) : at_(at) {}
  Ptr<LpmPrefix> operator*() const { return lpmPrefixOf(*at_); }
  LpmPrefixRefIterator& operator++() {
    ++at_;
    return *this;
  }
  bool operator!=(const LpmPrefixRefIterator& o) const { return at_ != o.at_; }

 private:
  const U32* at_;
};

// The prefixes of one prefix-table write, in slot order: list index = slot.
class LpmPrefixList {
 public:
  // The most slots a wide entry holds: a list that long still needs no heap memory.
  static constexpr U32 kInlineSlots = 27;
  using const_iterator = LinkQueue<Ptr<LpmPrefix>, kInlineSlots>::const_iterator;

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
  LinkQueue<Ptr<LpmPrefix>, kInlineSlots> q_;
};

}  // namespace XpLpm
}  // namespace XpLib
