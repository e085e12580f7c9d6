// A route-keyed collection whose entries live in the routes' key objects.
//
// A configuration holds one LpmPrefix object per key, so a collection of an LPM instance can keep
// its entry for a route in that object (LpmPrefixRecord): no index, no hashing, no allocation per
// route. It behaves exactly as an LpmPrefixMap (HashMap) would, iteration order included: the order
// is a dense vector of the keys in the order they were added, removal moving the last key into the
// hole, and each object knows its place in it.
//
// That needs two things of every key the collection meets: that it is the one object of its key
// in its configuration (its record's domain), and that no other collection of the same field
// keeps its entry there. The second is a claim: one collection of a field at a time keeps entries
// in the records of a domain, so a record's place always names a place in the claimant's order and
// a lookup reads nothing but the record. A key that does not qualify (an object made outside a
// configuration, one of another configuration, or a key of a domain another collection of the
// field has claimed) turns the collection into a plain LpmPrefixMap, in the same order, for as
// long as it holds anything: the result is the same, only slower.
#pragma once

#include <mutex>
#include <unordered_set>
#include <utility>

#include "XpLpm/LpmPrefix.h"
#include "platform/ChunkedVector.h"
#include "platform/HashMap.h"

namespace XpLib {
namespace XpLpm {

// The fields of a record, one collection each. A field gives its place in the order and its
// value: get returns it, put stores it (taking or dropping what the value holds).
struct RequestField {
  using Value = NextHopBlock;
  static U32& at(LpmPrefixRecord& r) { return r.requestAt; }
  static const NextHopBlock& get(const LpmPrefixRecord& r) { return r.request; }
  static void put(LpmPrefixRecord& r, const NextHopBlock& v) { r.request = v; }
};

struct InstalledField {
  using Value = NextHopBlock;
  static U32& at(LpmPrefixRecord& r) { return r.installedAt; }
  static const NextHopBlock& get(const LpmPrefixRecord& r) { return r.installed; }
  static void put(LpmPrefixRecord& r, const NextHopBlock& v) { r.installed = v; }
};

template <class Field>
class LpmPrefixRecordMap {
 public:
  using Value = typename Field::Value;

  // One entry, as a HashMap's iteration gives it.
  struct Entry {
    Ptr<LpmPrefix> first;
    Value second;
  };
  class const_iterator {
   public:
    const_iterator(const LpmPrefixRecordMap* m, U32 i) : m_(m), i_(i) {}
    Entry operator*() const { return m_->entry(i_); }
    const_iterator& operator++() {
      ++i_;
      return *this;
    }
    bool operator==(const const_iterator& o) const { return i_ == o.i_; }
    bool operator!=(const const_iterator& o) const { return i_ != o.i_; }

   private:
    const LpmPrefixRecordMap* m_;
    U32 i_;
  };

  LpmPrefixRecordMap() = default;
  LpmPrefixRecordMap(const LpmPrefixRecordMap&) = delete;
  LpmPrefixRecordMap& operator=(const LpmPrefixRecordMap&) = delete;
  ~LpmPrefixRecordMap() { clear(); }

  U32 size() const { return spilled_ ? spill_.size() : keys_.size(); }
  bool empty() const { return size() == 0; }
  const_iterator begin() const { return const_iterator(this, 0); }
  const_iterator end() const { return const_iterator(this, size()); }

  // The value under `p`, or the default value.
  Value get(const Ptr<LpmPrefix>& p) const {
    if (!spilled_) {
      if (holds(*p)) return Field::get(p->record());
      if (keptHere(*p)) return Value();
      const_cast<LpmPrefixRecordMap*>(this)->spill();
    }
    return spill_.get(p);
  }
  bool contains(const Ptr<LpmPrefix>& p) const {
    if (!spilled_) {
      if (holds(*p)) return true;
      if (keptHere(*p)) return false;
      const_cast<LpmPrefixRecordMap*>(this)->spill();
    }
    return spill_.contains(p);
  }

  // Sets the value; returns whether anything changed (a new key, or another value).
  bool assign(const Ptr<LpmPrefix>& p, const Value& v) {
    if (!spilled_) {
      LpmPrefixRecord& r = p->record();
      if (holds(*p)) {
        if (Field::get(r) == v) return false;
        Field::put(r, v);
        return true;
      }
      if (keptHere(*p) && Field::at(r) == LpmPrefixRecord::kNowhere && (!keys_.empty() || claim(r.domain))) {
        Field::at(r) = keys_.size();
        keys_.push_back(p->ref());
        p->newRef();
        Field::put(r, v);
        return true;
      }
      spill();
    }
    auto [held, added] = spill_.findOrInsert(p);
    if (!added && *held == v) return false;
    *held = v;
    return true;
  }

  bool erase(const Ptr<LpmPrefix>& p) {
    if (spilled_) {
      const bool erased = spill_.erase(p);
      if (spill_.empty()) spilled_ = false;
      return erased;
    }
    if (!holds(*p)) {
      if (keptHere(*p)) return false;
      spill();
      return erase(p);
    }
    // The caller's reference may be the collection's own.
    const Ptr<LpmPrefix> keep = p;
    LpmPrefixRecord& r = keep->record();
    const U32 at = Field::at(r);
    if (at + 1 != keys_.size()) {
      keys_[at] = keys_.back();
      Field::at(lpmPrefixAt(keys_[at])->record()) = at;
    }
    keys_.pop_back();
    Field::at(r) = LpmPrefixRecord::kNowhere;
    Field::put(r, Value());
    keep->deleteRef();
    if (keys_.empty()) unclaim();
    return true;
  }

  void clear() {
    while (!empty()) erase(entry(size() - 1).first);
  }

  // Bytes owned on the heap, for memory accounting; the records are part of the key objects.
  std::size_t heapBytes() const { return keys_.heapBytes() + spill_.heapBytes(); }

 private:
  Entry entry(U32 i) const {
    if (spilled_) {
      const auto& e = *(spill_.begin() + i);
      return Entry{e.first, e.second};
    }
    LpmPrefix* k = lpmPrefixAt(keys_[i]);
    return Entry{Ptr<LpmPrefix>(k), Field::get(k->record())};
  }

  // Whether this collection keeps p's entry in p's record: only the claimant of p's domain places
  // keys there.
  bool holds(const LpmPrefix& p) const {
    return domain_ != 0 && p.record().domain == domain_ && Field::at(p.record()) != LpmPrefixRecord::kNowhere;
  }
  // Whether p is its configuration's one object for its key, of the configuration whose objects
  // this collection keeps: then no other key object of p's key can be here.
  bool keptHere(const LpmPrefix& p) const {
    const U32 d = p.record().domain;
    return d != 0 && (keys_.empty() || domain_ == d);
  }

  // The domains whose records a collection of this field has claimed.
  struct Claims {
    std::mutex mutex;  // collections of separate instances may live in separate threads
    std::unordered_set<U32> domains;
  };
  static Claims& claims() {
    // Never destroyed: a collection may empty while other statics go away at exit.
    static Claims* c = new Claims;
    return *c;
  }
  // Taken with the first key, given back with the last: rare, so the lock costs nothing.
  bool claim(U32 domain) {
    Claims& c = claims();
    const std::lock_guard<std::mutex> lock(c.mutex);
    if (!c.domains.insert(domain).second) return false;
    domain_ = domain;
    return true;
  }
  void unclaim() {
    if (domain_ == 0) return;
    Claims& c = claims();
    const std::lock_guard<std::mutex> lock(c.mutex);
    c.domains.erase(domain_);
    domain_ = 0;
  }

  // Moves every entry out of the records into a plain map, in the same order.
  void spill() {
    for (U32 i = 0; i < keys_.size(); ++i) {
      const Ptr<LpmPrefix> k(lpmPrefixAt(keys_[i]));
      LpmPrefixRecord& r = k->record();
      spill_.set(k, Field::get(r));
      Field::at(r) = LpmPrefixRecord::kNowhere;
      Field::put(r, Value());
      k->deleteRef();
    }
    keys_.clear();
    unclaim();
    spilled_ = true;
  }

  // The keys by name (LpmPrefix::ref), each holding a reference: half the room of a Ptr.
  ChunkedVector<U32> keys_;
  U32 domain_ = 0;  // the domain claimed, while keys_ holds anything
  bool spilled_ = false;
  LpmPrefixMap<Value> spill_;
};

}  // namespace XpLpm
}  // namespace XpLib
