// Best-fit allocator of contiguous blocks inside one fixed range of table entries, with compaction.
//
// The allocator hands out `Blk`s: runs of entries [base, base + blkSz) of the range 0 .. memSz - 1.
// There is no free operation: a block's entries come back when its last Ptr<Blk> drops.
//
// Ownership. A Blk holds a Ptr to its allocator, so an allocator lives as long as any of its blocks;
// the allocator keeps only raw pointers to its live blocks, so there is no cycle. Hold the allocator
// itself through a Ptr as well (makePtr<BestFitAllocator>(...)): its last reference may be the one a
// dying block drops.
//
// Indexes. Free runs are kept twice, by start (`freeBlkStartIndexToSz`, which callers iterate) and by
// (size, start) for the best-fit search; neighbouring free runs are always coalesced. Live blocks are
// found by base in an array over the range, for `realloc` and `defragment`. With n free runs, alloc and
// release are O(log n), and
// in the steady state they do no heap allocation: map nodes and Blk objects of released blocks are
// kept in small stashes and reused.
//
// Compaction (`defragment`). The caller applies the returned move log one entry at a time, in order:
// it copies the block's entries from the old base to the new one, then re-points its readers. The
// final layout is [packed bottom][one free run][packed top]. With the live blocks ascending by base,
// a split k sends blocks [k, n) to the top and blocks [0, k) to the bottom; k is chosen to minimise,
// first, the moves that would overlap their own old entries and, then, the moves (each block's cost
// depends only on its own side, so all splits are priced in O(n)). Then:
//   - the top group slides up, highest block first, each to just below the ones already placed
//     (a block already there stays);
//   - the bottom group is walked upwards with a bottom cursor `bot` and the top cursor `top` left
//     by the top group. For a block b at [p, p + s), with h the end of the highest bottom-group
//     block not yet walked (h >= p + s):
//       p == bot: b stays, bot += s;
//       b is the last one and p + s == top: b stays, top = p;
//       p - bot >= s: b slides down to bot (clear of its own old entries);
//       top - h >= s: b goes to top - s instead (clear of its own entries and every unmoved block);
//       otherwise b slides down to bot, overlapping its own old entries.
// Why the log is safe:
//   (1) Destinations avoid the blocks not yet moved. A top-group block at [p, p + s) goes to
//       [t, t + s) with t >= p, above every block still below it, and below the blocks placed
//       before it. In the walk, the blocks not yet moved are b, the later bottom-group blocks (at
//       or above p + s), and the blocks that stayed (below bot, or at or above top). A slide ends
//       at bot + s <= p + s; a jump to the top lies in [top - s, top) with top - s >= h. Every
//       destination lies in [bot, top), since the blocks still to place always fit between them:
//       bot + (sizes left to place) + (memSz - top) = live entries <= memSz.
//   (2) A move overlaps its own old entries only when the free span on its side is too short:
//       for a top-group block, the free entries just above it; for a bottom-group block, both the
//       free entries just below it and those above every unmoved block (the jump). A jump never
//       adds an overlap: it happens only after a non-zero gap, gaps never shrink along the walk,
//       and it lowers bot for the later blocks, widening their gaps. So the log has at most as
//       many overlapping moves as the best split, never more than sliding every block down (k = n).
//   (3) Afterwards the live blocks fill [0, bot) and [top, memSz): the free entries form the single
//       run [bot, top), so alloc(size) succeeds for every size <= min(freeEntries, maxBlkSz).
// Each block is placed once, so it moves at most once, and its Blk already carries its final base
// when the log is returned. A range whose free entries already form one run gives an empty log.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "platform/ObjectPool.h"
#include "platform/Ptr.h"
#include "platform/Types.h"

namespace XpLib {

class Blk;
class PendingCmds;

namespace detail {

// A few spare nodes of a node-based container, so that erase-then-insert cycles reuse memory.
template <class Container>
class NodeStash {
 public:
  using Node = typename Container::node_type;

  NodeStash() { nodes_.reserve(kMaxNodes); }
  void put(Node&& node) {
    if (nodes_.size() < kMaxNodes) nodes_.push_back(std::move(node));
  }
  // An empty node when the stash is empty.
  Node take() {
    if (nodes_.empty()) return Node();
    Node node = std::move(nodes_.back());
    nodes_.pop_back();
    return node;
  }

 private:
  static constexpr size_t kMaxNodes = 8;
  std::vector<Node> nodes_;
};

}  // namespace detail

class BestFitAllocator : public PtrInterface {
 public:
  // Manages entries 0 .. memSz - 1, all free. The third argument is reserved (callers pass 0) and ignored.
  // maxBlkSz bounds what alloc hands out.
  BestFitAllocator(Name name, U32 memSz, U32 reserved, U32 maxBlkSz);

  // A block of exactly `size` entries taken from the smallest free run that holds it (lowest start among
  // equals). Null, with nothing changed, when size is 0, size > maxBlkSz(), or no single free run is long
  // enough (even if freeEntries() >= size).
  Ptr<Blk> alloc(U32 size);

  // A block of `size` entries starting exactly at `base`. If a live block starts at base, that same Blk is
  // resized in place: shrinking returns its tail, growing needs the entries right after it to be free.
  // Otherwise the entries [base, base + size) are claimed as a new block if all of them are free. Null,
  // with nothing changed, when size is 0, the range runs past the end, or the entries are not free.
  // Calling it again with the same base and size returns the same Blk and changes nothing (restart
  // recovery claims a shared block once per user). Not bounded by maxBlkSz(): it claims what exists.
  Ptr<Blk> realloc(U32 base, U32 size);

  // Whether realloc(base, size) would keep or claim exactly those entries without resizing or
  // overlapping another block: a live block starts at base with that size, or they are all free.
  bool claimable(U32 base, U32 size) const;

  // Whether alloc(size) would succeed now, without changing anything.
  bool canAlloc(U32 size) const {
    return size != 0 && size <= maxBlkSz_ && !freeBySize_.empty() && freeBySize_.rbegin()->first >= size;
  }

  // Moves live blocks so that the free entries form one run; see the file comment for the move order.
  // Never null; the log is empty when nothing had to move.
  Ptr<PendingCmds> defragment();

  const Name& name() const { return name_; }
  U32 freeEntries() const { return freeEntries_; }
  U32 entriesCapacity() const { return memSz_; }
  U32 maxBlkSz() const { return maxBlkSz_; }
  U32 numBlks() const { return numLive_; }
  // Start index -> length of every free run, ascending by start.
  const std::map<U32, U32>& freeBlkStartIndexToSz() const { return freeByStart_; }

  // Checks every invariant of the indexes (a full scan) and stops on a fatal assertion if one is broken.
  void verify() const;

 protected:
  ~BestFitAllocator() override;

 private:
  friend class Blk;
  using FreeByStart = std::map<U32, U32>;
  using FreeBySize = std::set<std::pair<U32, U32>>;  // (length, start)

  Ptr<Blk> resizeInPlace(Blk* blk, U32 size);
  Ptr<Blk> claim(U32 base, U32 size);
  Blk* newBlk(U32 base, U32 size);
  void releaseBlk(Blk* blk);

  // Removes [base, base + size) from the free run `run` (whose size-index entry is `bySize`); it must contain it.
  void takeFromRun(FreeByStart::iterator run, FreeBySize::iterator bySize, U32 base, U32 size);
  // Returns [base, base + size) to the free runs, merged with its free neighbours.
  void giveBack(U32 base, U32 size);
  void freeRunAdd(U32 start, U32 len);
  FreeBySize::iterator sizeEntry(FreeByStart::iterator run);
  void freeRunDel(FreeByStart::iterator run, FreeBySize::iterator bySize);
  // Moves or resizes a run within its gap between its neighbours.
  void freeRunIs(FreeByStart::iterator run, FreeBySize::iterator bySize, U32 start, U32 len);

  size_t chooseSplit(const std::vector<Blk*>& blks) const;
  // Places the blocks (ascending by base) and logs the moves; returns the final bottom and top cursors.
  std::pair<U32, U32> placeForCompaction(const std::vector<Blk*>& blks, PendingCmds& log);
  void reindexAfterCompaction(U32 bot, U32 top);
  // The live blocks in ascending base.
  std::vector<Blk*> liveBlocks() const;

  Name name_;
  U32 memSz_;
  U32 maxBlkSz_;
  U32 freeEntries_;
  FreeByStart freeByStart_;
  FreeBySize freeBySize_;
  // The live block that starts at each index, null elsewhere: O(1) in both
  // directions, and smaller than a tree node per block once a tile fills.
  std::vector<Blk*> liveAt_;
  U32 numLive_ = 0;
  detail::NodeStash<FreeByStart> spareStartNodes_;
  detail::NodeStash<FreeBySize> spareSizeNodes_;
  std::vector<Blk*> spareBlks_;
};

// One allocated block. Compaction may change its base; the object itself stays the same.
class Blk final : public PtrInterface {
 public:
  U32 base() const { return base_; }
  U32 blkSz() const { return sz_; }
  // One past the last entry.
  U32 end() const { return base_ + sz_; }
  BestFitAllocator* allocator() const { return allocator_.ptr(); }

  // One per NHI block in use: from the pool, not the heap, whose header and rounding add half.
  static void* operator new(std::size_t) { return PoolOf<Blk>::allocate(); }
  static void operator delete(void* p) { PoolOf<Blk>::release(p); }

 private:
  friend class BestFitAllocator;
  Blk() = default;
  ~Blk() override = default;
  // The last reference gives the entries back to the allocator instead of simply deleting the object.
  void onZeroReferences() const override;

  U32 base_ = 0;
  U32 sz_ = 0;
  Ptr<BestFitAllocator> allocator_;
};

// The move log of one compaction, oldest move first.
class PendingCmds : public PtrInterface {
 public:
  struct Entry {
    U32 oldBase;
    Ptr<Blk> blk;  // blk->base() is the new base
  };

  U32 size() const { return static_cast<U32>(pendingCmdLog_.size()); }
  bool empty() const { return pendingCmdLog_.empty(); }
  const std::deque<Entry>& pendingCmdLog() const { return pendingCmdLog_; }

  void pendingCmdLogEnq(U32 oldBase, Ptr<Blk> blk);
  // Requires: !empty().
  Entry pendingCmdLogDeq();

 private:
  std::deque<Entry> pendingCmdLog_;
};

}  // namespace XpLib
