// Tests of BestFitAllocator: a brute-force occupancy model, and compaction logs replayed on simulated memory.
#include "platform/BestFitAllocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <vector>

namespace XpLib {
namespace {

constexpr int kFree = -1;

struct Held {
  int id;
  Ptr<Blk> blk;
};

// Owner id of every entry, built from the blocks the test holds.
std::vector<int> occupancy(const std::vector<Held>& held, U32 memSz) {
  std::vector<int> owner(memSz, kFree);
  for (const Held& h : held) {
    for (U32 i = h.blk->base(); i < h.blk->end(); ++i) {
      EXPECT_EQ(owner[i], kFree) << "blocks overlap at " << i;
      owner[i] = h.id;
    }
  }
  return owner;
}

std::map<U32, U32> freeRuns(const std::vector<int>& owner) {
  std::map<U32, U32> runs;
  for (U32 i = 0; i < owner.size(); ++i) {
    if (owner[i] != kFree) continue;
    if (i > 0 && owner[i - 1] == kFree) {
      ++std::prev(runs.end())->second;
    } else {
      runs[i] = 1;
    }
  }
  return runs;
}

// Length of the run of entries with no owner that ends just below `end` (backward) or starts at `start`.
U32 freeSpanBelow(const std::vector<int>& owner, U32 end) {
  U32 n = 0;
  while (n < end && owner[end - 1 - n] == kFree) ++n;
  return n;
}
U32 freeSpanFrom(const std::vector<int>& owner, U32 start) {
  U32 n = 0;
  while (start + n < owner.size() && owner[start + n] == kFree) ++n;
  return n;
}

// (base, size) of every block, ascending by base.
std::set<std::pair<U32, U32>> byBase(const std::map<int, std::pair<U32, U32>>& places) {
  std::set<std::pair<U32, U32>> result;
  for (const auto& [id, place] : places) result.insert(place);
  return result;
}

class AllocatorModel {
 public:
  AllocatorModel(U32 memSz, U32 maxBlkSz)
      : memSz_(memSz), maxBlkSz_(maxBlkSz), alloc_(makePtr<BestFitAllocator>("test", memSz, 0, maxBlkSz)) {}

  void check() {
    alloc_->verify();
    auto owner = occupancy(held_, memSz_);
    ASSERT_EQ(alloc_->freeBlkStartIndexToSz(), freeRuns(owner));
    ASSERT_EQ(alloc_->freeEntries(), std::count(owner.begin(), owner.end(), kFree));
  }

  void allocOne(U32 size) {
    auto runs = freeRuns(occupancy(held_, memSz_));
    U32 best = 0;
    for (auto [start, len] : runs) {
      if (len >= size && (best == 0 || len < best)) best = len;
    }
    Ptr<Blk> blk = alloc_->alloc(size);
    const bool expectOk = size > 0 && size <= maxBlkSz_ && best > 0;
    ASSERT_EQ(bool(blk), expectOk) << "alloc " << size;
    if (!blk) return;
    ASSERT_EQ(blk->blkSz(), size);
    auto run = std::prev(runs.upper_bound(blk->base()));
    EXPECT_EQ(run->second, best) << "not the best-fitting run for " << size;
    held_.push_back({nextId_++, blk});
  }

  void release(size_t which) { held_.erase(held_.begin() + which); }

  // Resizes a held block in place, or claims a random range when `which` is past the held blocks.
  void reallocOne(size_t which, U32 base, U32 size) {
    auto owner = occupancy(held_, memSz_);
    if (which >= held_.size()) {
      // A claim at the base of a held block resizes that block.
      auto same = std::find_if(held_.begin(), held_.end(), [&](const Held& h) { return h.blk->base() == base; });
      which = same - held_.begin();
    }
    const bool live = which < held_.size();
    if (live) base = held_[which].blk->base();
    bool expectOk = size > 0 && base < memSz_ && size <= memSz_ - base;
    for (U32 i = base; expectOk && i < base + size; ++i) {
      expectOk = owner[i] == kFree || (live && owner[i] == held_[which].id);
    }
    Ptr<Blk> blk = alloc_->realloc(base, size);
    ASSERT_EQ(bool(blk), expectOk) << "realloc " << base << " " << size << " live " << live;
    if (!blk) return;
    ASSERT_EQ(blk->base(), base);
    ASSERT_EQ(blk->blkSz(), size);
    if (live) {
      ASSERT_EQ(blk, held_[which].blk) << "resizing in place must keep the Blk";
      ASSERT_EQ(alloc_->realloc(base, size), blk) << "a repeated realloc must return the same Blk";
    } else {
      held_.push_back({nextId_++, blk});
    }
  }

  // Replays the log on a memory whose entries hold their block's id, one move at a time.
  void defragmentAndReplay() {
    std::vector<int> memory = occupancy(held_, memSz_);
    std::vector<int> live = memory;  // entries still read: unmoved blocks' old places and moved blocks' new ones
    std::map<const Blk*, Held*> byBlk;
    std::map<int, std::pair<U32, U32>> oldPlace;
    for (Held& h : held_) {
      byBlk[h.blk.ptr()] = &h;
      oldPlace[h.id] = {h.blk->base(), h.blk->blkSz()};
    }
    const bool wasCompact = alloc_->freeBlkStartIndexToSz().size() <= 1;
    // Sliding every block down in order overlaps a block whenever less than its size is free below it.
    int slideDownOverlaps = 0;
    U32 packed = 0;
    for (auto [base, size] : byBase(oldPlace)) {
      slideDownOverlaps += base > packed && base - packed < size;
      packed += size;
    }
    Ptr<PendingCmds> log = alloc_->defragment();
    ASSERT_TRUE(log);
    if (wasCompact) {
      EXPECT_EQ(log->size(), 0u);
    }
    const auto& runs = alloc_->freeBlkStartIndexToSz();
    const U32 freeEnd = runs.empty() ? memSz_ : runs.begin()->first + runs.begin()->second;
    std::set<int> inLog;
    for (const auto& move : log->pendingCmdLog()) inLog.insert(byBlk.at(move.blk.ptr())->id);
    std::map<int, bool> moved;
    int overlaps = 0;
    while (!log->empty()) {
      PendingCmds::Entry move = log->pendingCmdLogDeq();
      ASSERT_TRUE(byBlk.count(move.blk.ptr()));
      const int id = byBlk[move.blk.ptr()]->id;
      const auto [oldBase, size] = oldPlace[id];
      ASSERT_FALSE(moved[id]) << "block " << id << " moved twice";
      ASSERT_EQ(move.oldBase, oldBase);
      const U32 dest = move.blk->base();
      ++moves_;
      ASSERT_NE(dest, oldBase);
      if (dest < oldBase + size && oldBase < dest + size) {
        ++overlaps;
        // Allowed only when the free span on the block's side is too short: just above it when it moves
        // up; when it moves down, just below it and above every block still to move or staying below.
        if (dest > oldBase) {
          EXPECT_LT(freeSpanFrom(live, oldBase + size), size) << "block " << id << " could have moved up clear";
        } else {
          U32 highestUnmoved = 0;
          for (auto& [otherId, place] : oldPlace) {
            if (!moved[otherId] && (inLog.count(otherId) || place.first < freeEnd)) {
              highestUnmoved = std::max(highestUnmoved, place.first + place.second);
            }
          }
          EXPECT_LT(freeSpanBelow(live, oldBase), size) << "block " << id << " could have slid down clear";
          EXPECT_LT(freeSpanFrom(live, highestUnmoved), size) << "block " << id << " could have gone on top";
        }
      }
      for (U32 i = oldBase; i < oldBase + size; ++i) live[i] = kFree;
      for (U32 i = 0; i < size; ++i) {
        ASSERT_EQ(live[dest + i], kFree) << "move of block " << id << " overwrites a block still in use";
        memory[dest + i] = id;
        live[dest + i] = id;
      }
      moved[id] = true;
      for (auto& [otherId, place] : oldPlace) {
        if (moved[otherId]) continue;
        for (U32 i = place.first; i < place.first + place.second; ++i) ASSERT_EQ(memory[i], otherId);
      }
    }
    EXPECT_LE(overlaps, slideDownOverlaps);
    selfOverlaps_ += overlaps;
    for (const Held& h : held_) {
      if (!moved[h.id]) {
        EXPECT_EQ(h.blk->base(), oldPlace[h.id].first) << "block " << h.id << " moved silently";
      }
      for (U32 i = h.blk->base(); i < h.blk->end(); ++i) ASSERT_EQ(memory[i], h.id);
    }
    check();
    ASSERT_LE(alloc_->freeBlkStartIndexToSz().size(), 1u);
    const U32 want = std::min(alloc_->freeEntries(), maxBlkSz_);
    if (want > 0) {
      EXPECT_TRUE(alloc_->alloc(want)) << "alloc " << want << " after compaction";
    }
  }

  size_t numHeld() const { return held_.size(); }
  int selfOverlaps() const { return selfOverlaps_; }
  int moves() const { return moves_; }

 private:
  U32 memSz_;
  U32 maxBlkSz_;
  Ptr<BestFitAllocator> alloc_;
  std::vector<Held> held_;
  int nextId_ = 0;
  int selfOverlaps_ = 0;
  int moves_ = 0;
};

TEST(BestFitAllocatorTest, RandomOperationsMatchModelAndCompactionIsSafe) {
  const unsigned seed = 20240611;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  struct Config {
    U32 memSz, maxBlkSz;
  };
  for (const Config& config : {Config{16, 4}, Config{40, 9}, Config{64, 27}, Config{100, 100}}) {
    SCOPED_TRACE(testing::Message() << "memSz " << config.memSz << " maxBlkSz " << config.maxBlkSz);
    AllocatorModel model(config.memSz, config.maxBlkSz);
    auto uniform = [&](U32 lo, U32 hi) { return std::uniform_int_distribution<U32>(lo, hi)(rng); };
    for (int step = 0; step < 3000; ++step) {
      const U32 op = uniform(0, 9);
      if (op < 4) {
        model.allocOne(uniform(0, config.maxBlkSz + 1));
      } else if (op < 7 && model.numHeld() > 0) {
        model.release(uniform(0, model.numHeld() - 1));
      } else if (op < 9) {
        const size_t which = uniform(0, model.numHeld() + 1);  // past the end: claim a random range
        model.reallocOne(which, uniform(0, config.memSz), uniform(0, config.maxBlkSz));
      } else {
        model.defragmentAndReplay();
      }
      if (testing::Test::HasFatalFailure()) return;
      model.check();
    }
    std::cout << "memSz " << config.memSz << ": " << model.moves() << " moves, of which unavoidably self-overlapping "
              << model.selfOverlaps() << "\n";
  }
}

TEST(BestFitAllocatorTest, FragmentedRangeCompactsAndBlocksKeepIdentity) {
  auto alloc = makePtr<BestFitAllocator>("nhiAllocator", 8, 0, 8);
  std::vector<Ptr<Blk>> blks;
  for (int i = 0; i < 8; ++i) blks.push_back(alloc->alloc(1));
  for (int i = 0; i < 8; i += 2) blks[i] = nullptr;
  EXPECT_EQ(alloc->freeEntries(), 4u);
  EXPECT_FALSE(alloc->alloc(2));
  alloc->verify();
  Ptr<PendingCmds> log = alloc->defragment();
  EXPECT_GT(log->size(), 0u);
  for (int i = 1; i < 8; i += 2) EXPECT_EQ(blks[i]->allocator(), alloc.ptr());
  Ptr<Blk> big = alloc->alloc(4);
  ASSERT_TRUE(big);
  EXPECT_EQ(alloc->freeEntries(), 0u);
  alloc->verify();
}

TEST(BestFitAllocatorTest, BlockOutlivesItsAllocatorsLastHolder) {
  auto alloc = makePtr<BestFitAllocator>("allocator", 10, 0, 4);
  Ptr<Blk> blk = alloc->alloc(3);
  BestFitAllocator* raw = alloc.ptr();
  alloc = nullptr;
  EXPECT_EQ(raw->freeEntries(), 7u);
  blk = nullptr;  // frees the allocator too; the sanitizers would catch a leak or a use after free
}

}  // namespace
}  // namespace XpLib
