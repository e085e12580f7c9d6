// LinkQueue: the entity framework's queue, ordered by a running 32-bit index.
//
// Entries keep the order in which they were appended; each carries the index it
// was given. The two-counter metadata record belongs to the queue's owner, which
// decides how the next index is chosen (see enqRunning and enqReuseLast).
#pragma once

#include <algorithm>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/InlineVector.h"
#include "platform/Types.h"

namespace XpLib {

// The running-index bookkeeping of a queue. `head` is the index of the oldest
// entry; the meaning of `tail` is the owning queue's enqueue rule.
struct QueueMetadata {
  U32 head = 0;
  U32 tail = 0;
  bool operator==(const QueueMetadata&) const = default;
};

// kInline > 0 keeps that many entries inside the queue before it takes heap memory.
template <class V, std::size_t kInline = 0>
class LinkQueue {
 public:
  using value_type = std::pair<U32, V>;
  using Storage =
      std::conditional_t<kInline == 0, std::vector<value_type>, InlineVector<value_type, kInline>>;
  using const_iterator = typename Storage::const_iterator;

  U32 size() const { return static_cast<U32>(items_.size() - first_); }
  bool empty() const { return first_ == items_.size(); }
  const_iterator begin() const { return items_.begin() + first_; }
  const_iterator end() const { return items_.end(); }
  const value_type& front() const { return items_[first_]; }
  const value_type& back() const { return items_.back(); }

  const QueueMetadata& metadata() const { return md_; }
  void metadataIs(const QueueMetadata& md) { md_ = md; }

  // Appends under `tail`, the next unused index, so indexes only grow.
  U32 enqRunning(V v) {
    U32 index = md_.tail;
    if (!empty()) index = std::max(index, back().first + 1);
    push(index, std::move(v));
    md_.tail = index + 1;
    return index;
  }

  // Appends under `tail`, the last index used, moving past it only while the
  // queue still holds that index: a drained queue gives its last index again.
  U32 enqReuseLast(V v) {
    U32 index = md_.tail;
    if (!empty() && index <= back().first) index = back().first + 1;
    push(index, std::move(v));
    md_.tail = index;
    return index;
  }

  // Inserts under a given index, keeping the queue ordered by index; an entry
  // already under that index is replaced.
  void insert(U32 index, V v) {
    if (empty() || back().first < index) {
      push(index, std::move(v));
      md_.tail = std::max(md_.tail, index + 1);
      return;
    }
    auto it = std::lower_bound(items_.begin() + first_, items_.end(), index,
                               [](const value_type& e, U32 i) { return e.first < i; });
    md_.tail = std::max(md_.tail, index + 1);
    if (it != items_.end() && it->first == index) {
      it->second = std::move(v);
    } else {
      items_.insert(it, value_type(index, std::move(v)));
      md_.head = front().first;
    }
  }

  const V* find(U32 index) const {
    auto it = std::lower_bound(begin(), end(), index, [](const value_type& e, U32 i) { return e.first < i; });
    return it != end() && it->first == index ? &it->second : nullptr;
  }

  // Removes the oldest entry; an empty queue stays as it is.
  void pop() {
    if (empty()) return;
    items_[first_] = value_type();  // drop the reference now, not at compaction
    ++first_;
    if (first_ == items_.size()) {
      items_.clear();
      first_ = 0;
    } else if (first_ >= 32 && first_ * 2 >= items_.size()) {
      items_.erase(items_.begin(), items_.begin() + first_);
      first_ = 0;
    }
    md_.head = empty() ? md_.tail : front().first;
  }

  bool erase(U32 index) {
    auto it = std::lower_bound(items_.begin() + first_, items_.end(), index,
                               [](const value_type& e, U32 i) { return e.first < i; });
    if (it == items_.end() || it->first != index) return false;
    if (it == items_.begin() + first_) {
      pop();
      return true;
    }
    items_.erase(it);
    return true;
  }

  void clear() {
    items_.clear();
    first_ = 0;
    md_.head = md_.tail;
  }

  bool sameEntries(const LinkQueue& o) const { return std::equal(begin(), end(), o.begin(), o.end()); }

 private:
  void push(U32 index, V v) {
    if (empty()) md_.head = index;
    items_.emplace_back(index, std::move(v));
  }

  Storage items_;
  std::size_t first_ = 0;
  QueueMetadata md_;
};

}  // namespace XpLib
