// The yardstick the tool times programming against: the same keys and blocks stored in the
// simplest fast map there is, an open-addressing table with linear probing, sized for every key
// before the clock starts (so it never grows, allocates or faults a page while timed). It says
// how fast a route can be stored at all on this machine; the library does far more per route.
#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

#include "agent/XpLpmAgent.h"

namespace xplpm {

template <class Key>
class Yardstick {
 public:
  // Room for `keys` keys at most half full; every slot written once, outside the timed region.
  explicit Yardstick(std::size_t keys) {
    std::size_t size = 16;
    while (size < 2 * keys) size *= 2;
    slots_.resize(size);
    mask_ = size - 1;
    std::memset(static_cast<void*>(slots_.data()), 0, size * sizeof(Slot));
  }

  void set(const Key& key, const XpLib::Agent::NextHopBlock& block) {
    std::size_t i = key.hash() & mask_;
    while (slots_[i].used && !(slots_[i].key == key)) i = (i + 1) & mask_;
    slots_[i] = Slot{key, block, true};
  }

  // Backward-shift deletion: no tombstones, so later probes stay short.
  void erase(const Key& key) {
    std::size_t i = key.hash() & mask_;
    while (slots_[i].used && !(slots_[i].key == key)) i = (i + 1) & mask_;
    if (!slots_[i].used) return;
    for (std::size_t j = (i + 1) & mask_; slots_[j].used; j = (j + 1) & mask_) {
      const std::size_t home = slots_[j].key.hash() & mask_;
      // The entry at j may fill the hole at i when its home is not cyclically in (i, j].
      if (((j - home) & mask_) >= ((j - i) & mask_)) {
        slots_[i] = slots_[j];
        i = j;
      }
    }
    slots_[i].used = false;
  }

 private:
  struct Slot {
    Key key;
    XpLib::Agent::NextHopBlock block;
    bool used;
  };
  std::vector<Slot> slots_;
  std::size_t mask_ = 0;
};

}  // namespace xplpm
