// Best-fit allocator of contiguous blocks inside one fixed range of table entries, with compaction.
#include "platform/BestFitAllocator.h"

#include <iterator>

#include "platform/Assert.h"

namespace XpLib {

namespace {
// Released Blk objects kept for reuse; enough for the churn of one request.
constexpr size_t kMaxSpareBlks = 16;
}  // namespace

BestFitAllocator::BestFitAllocator(Name name, U32 memSz, U32 /*reserved*/, U32 maxBlkSz)
    : name_(std::move(name)), memSz_(memSz), maxBlkSz_(maxBlkSz), freeEntries_(0), liveAt_(memSz, nullptr) {
  spareBlks_.reserve(kMaxSpareBlks);
  if (memSz_ > 0) freeRunAdd(0, memSz_);
  freeEntries_ = memSz_;
}

BestFitAllocator::~BestFitAllocator() {
  // Every live block holds a reference to us, so none can be left.
  XP_ASSERT_V(numLive_ == 0, " allocator " << name_ << " live blocks " << numLive_);
  for (Blk* blk : spareBlks_) delete blk;
}

Ptr<Blk> BestFitAllocator::alloc(U32 size) {
  if (size == 0 || size > maxBlkSz_) return nullptr;
  auto fit = freeBySize_.lower_bound({size, 0});
  if (fit == freeBySize_.end()) return nullptr;
  const U32 base = fit->second;
  takeFromRun(freeByStart_.find(base), fit, base, size);
  return Ptr<Blk>(newBlk(base, size));
}

Ptr<Blk> BestFitAllocator::realloc(U32 base, U32 size) {
  if (size == 0 || base >= memSz_ || size > memSz_ - base) return nullptr;
  if (Blk* live = liveAt_[base]) return resizeInPlace(live, size);
  return claim(base, size);
}

bool BestFitAllocator::claimable(U32 base, U32 size) const {
  if (size == 0 || base >= memSz_ || size > memSz_ - base) return false;
  if (const Blk* live = liveAt_[base]) return live->sz_ == size;
  auto run = freeByStart_.upper_bound(base);
  if (run == freeByStart_.begin()) return false;
  --run;
  return run->first + run->second >= base + size;
}

Ptr<Blk> BestFitAllocator::resizeInPlace(Blk* blk, U32 size) {
  const U32 oldSz = blk->sz_;
  if (size < oldSz) {
    giveBack(blk->base_ + size, oldSz - size);
  } else if (size > oldSz) {
    // The entry just before the block's end is the block's own, so a free run that covers the
    // block's end must start exactly there.
    auto run = freeByStart_.find(blk->end());
    if (run == freeByStart_.end() || run->second < size - oldSz) return nullptr;
    takeFromRun(run, sizeEntry(run), blk->end(), size - oldSz);
  }
  blk->sz_ = size;
  return Ptr<Blk>(blk);
}

Ptr<Blk> BestFitAllocator::claim(U32 base, U32 size) {
  auto run = freeByStart_.upper_bound(base);
  if (run == freeByStart_.begin()) return nullptr;
  --run;
  if (run->first + run->second < base + size) return nullptr;
  takeFromRun(run, sizeEntry(run), base, size);
  return Ptr<Blk>(newBlk(base, size));
}

Blk* BestFitAllocator::newBlk(U32 base, U32 size) {
  Blk* blk;
  if (spareBlks_.empty()) {
    blk = new Blk();
  } else {
    blk = spareBlks_.back();
    spareBlks_.pop_back();
  }
  blk->base_ = base;
  blk->sz_ = size;
  blk->allocator_ = this;
  liveAt_[base] = blk;
  ++numLive_;
  return blk;
}

void BestFitAllocator::releaseBlk(Blk* blk) {
  XP_ASSERT_V(blk->base_ < memSz_ && liveAt_[blk->base_] == blk,
              " allocator " << name_ << " base " << blk->base_ << " size " << blk->sz_);
  liveAt_[blk->base_] = nullptr;
  --numLive_;
  giveBack(blk->base_, blk->sz_);
  if (spareBlks_.size() < kMaxSpareBlks) {
    spareBlks_.push_back(blk);
  } else {
    delete blk;
  }
}

void BestFitAllocator::takeFromRun(FreeByStart::iterator run, FreeBySize::iterator bySize, U32 base, U32 size) {
  const U32 runStart = run->first;
  const U32 runEnd = run->first + run->second;
  const U32 leftLen = base - runStart;
  const U32 rightLen = runEnd - (base + size);
  if (leftLen == 0 && rightLen == 0) {
    freeRunDel(run, bySize);
  } else if (leftLen == 0) {
    freeRunIs(run, bySize, base + size, rightLen);
  } else {
    freeRunIs(run, bySize, runStart, leftLen);
    if (rightLen > 0) freeRunAdd(base + size, rightLen);
  }
  freeEntries_ -= size;
}

void BestFitAllocator::giveBack(U32 base, U32 size) {
  freeEntries_ += size;
  auto next = freeByStart_.lower_bound(base);
  const bool mergeNext = next != freeByStart_.end() && next->first == base + size;
  auto prev = next == freeByStart_.begin() ? freeByStart_.end() : std::prev(next);
  const bool mergePrev = prev != freeByStart_.end() && prev->first + prev->second == base;
  if (mergePrev && mergeNext) {
    const U32 len = prev->second + size + next->second;
    freeRunDel(next, sizeEntry(next));
    freeRunIs(prev, sizeEntry(prev), prev->first, len);
  } else if (mergePrev) {
    freeRunIs(prev, sizeEntry(prev), prev->first, prev->second + size);
  } else if (mergeNext) {
    freeRunIs(next, sizeEntry(next), base, size + next->second);
  } else {
    freeRunAdd(base, size);
  }
}

void BestFitAllocator::freeRunAdd(U32 start, U32 len) {
  auto startNode = spareStartNodes_.take();
  if (startNode.empty()) {
    freeByStart_.emplace(start, len);
  } else {
    startNode.key() = start;
    startNode.mapped() = len;
    freeByStart_.insert(std::move(startNode));
  }
  auto sizeNode = spareSizeNodes_.take();
  if (sizeNode.empty()) {
    freeBySize_.emplace(len, start);
  } else {
    sizeNode.value() = {len, start};
    freeBySize_.insert(std::move(sizeNode));
  }
}

void BestFitAllocator::freeRunDel(FreeByStart::iterator run, FreeBySize::iterator bySize) {
  spareSizeNodes_.put(freeBySize_.extract(bySize));
  spareStartNodes_.put(freeByStart_.extract(run));
}

BestFitAllocator::FreeBySize::iterator BestFitAllocator::sizeEntry(FreeByStart::iterator run) {
  return freeBySize_.find({run->second, run->first});
}

void BestFitAllocator::freeRunIs(FreeByStart::iterator run, FreeBySize::iterator bySize, U32 start, U32 len) {
  auto sizeNode = freeBySize_.extract(bySize);
  sizeNode.value() = {len, start};
  freeBySize_.insert(std::move(sizeNode));
  if (run->first == start) {
    run->second = len;
    return;
  }
  // The run keeps its place among the others, so its old successor is an exact insertion hint.
  auto hint = std::next(run);
  auto startNode = freeByStart_.extract(run);
  startNode.key() = start;
  startNode.mapped() = len;
  freeByStart_.insert(hint, std::move(startNode));
}

Ptr<PendingCmds> BestFitAllocator::defragment() {
  Ptr<PendingCmds> log = makePtr<PendingCmds>();
  if (freeByStart_.size() <= 1) return log;
  std::vector<Blk*> blks = liveBlocks();
  for (Blk* blk : blks) liveAt_[blk->base_] = nullptr;
  const auto [bot, top] = placeForCompaction(blks, *log);
  for (Blk* blk : blks) liveAt_[blk->base_] = blk;
  reindexAfterCompaction(bot, top);
  return log;
}

// Live blocks fill exactly the gaps between free runs, so walking the runs finds
// every block in ascending order without scanning the whole range.
std::vector<Blk*> BestFitAllocator::liveBlocks() const {
  std::vector<Blk*> blks;
  blks.reserve(numLive_);
  auto run = freeByStart_.begin();
  for (U32 p = 0; p < memSz_;) {
    if (run != freeByStart_.end() && run->first == p) {
      p += run->second;
      ++run;
      continue;
    }
    Blk* blk = liveAt_[p];
    XP_ASSERT_V(blk, " allocator " << name_ << " nothing at " << p);
    blks.push_back(blk);
    p += blk->sz_;
  }
  return blks;
}

namespace {
// What packing blocks costs: moves that overlap their own old entries first, then moves at all.
struct PackCost {
  U32 overlaps = 0;
  U32 moves = 0;

  auto operator<=>(const PackCost&) const = default;
  PackCost operator+(const PackCost& o) const { return {overlaps + o.overlaps, moves + o.moves}; }
};

PackCost packCost(U32 distance, U32 size) {
  if (distance == 0) return {};
  return {distance < size ? 1u : 0u, 1};
}
}  // namespace

size_t BestFitAllocator::chooseSplit(const std::vector<Blk*>& blks) const {
  // Blocks [split, n) are packed against the end of the range, blocks [0, split) against its start.
  // Neither cost depends on where the other group ends, so every split is priced in one pass each way.
  const size_t n = blks.size();
  std::vector<PackCost> topCost(n + 1);
  U32 top = memSz_;
  for (size_t j = n; j-- > 0;) {
    top -= blks[j]->sz_;
    topCost[j] = topCost[j + 1] + packCost(top - blks[j]->base_, blks[j]->sz_);
  }
  size_t best = 0;
  PackCost bestCost = topCost[0];
  PackCost botCost;
  U32 bot = 0;
  for (size_t k = 1; k <= n; ++k) {
    botCost = botCost + packCost(blks[k - 1]->base_ - bot, blks[k - 1]->sz_);
    bot += blks[k - 1]->sz_;
    const PackCost cost = botCost + topCost[k];
    if (cost <= bestCost) {
      best = k;
      bestCost = cost;
    }
  }
  return best;
}

std::pair<U32, U32> BestFitAllocator::placeForCompaction(const std::vector<Blk*>& blks, PendingCmds& log) {
  const size_t split = chooseSplit(blks);
  // The top group slides up, highest first: each destination lies above every block below it.
  U32 top = memSz_;
  for (size_t j = blks.size(); j-- > split;) {
    Blk* blk = blks[j];
    top -= blk->sz_;
    if (blk->base_ == top) continue;
    const U32 oldBase = blk->base_;
    blk->base_ = top;
    log.pendingCmdLogEnq(oldBase, Ptr<Blk>(blk));
  }
  U32 bot = 0;
  for (size_t i = 0; i < split; ++i) {
    Blk* blk = blks[i];
    const U32 base = blk->base_;
    const U32 size = blk->sz_;
    const U32 highestUnmoved = blks[split - 1]->end();
    if (base == bot) {
      bot += size;
      continue;
    }
    if (i + 1 == split && blk->end() == top) {
      top = base;
      continue;
    }
    if (base - bot >= size || top - highestUnmoved < size) {
      blk->base_ = bot;
      bot += size;
    } else {
      top -= size;
      blk->base_ = top;
    }
    log.pendingCmdLogEnq(base, Ptr<Blk>(blk));
  }
  return {bot, top};
}

void BestFitAllocator::reindexAfterCompaction(U32 bot, U32 top) {
  XP_ASSERT_V(top - bot == freeEntries_, " allocator " << name_ << " bot " << bot << " top " << top
                                                         << " freeEntries " << freeEntries_);
  while (!freeByStart_.empty()) freeRunDel(freeByStart_.begin(), sizeEntry(freeByStart_.begin()));
  if (top > bot) freeRunAdd(bot, top - bot);
}

void BestFitAllocator::verify() const {
  XP_ASSERT_V(freeBySize_.size() == freeByStart_.size(),
              " allocator " << name_ << " by size " << freeBySize_.size() << " by start " << freeByStart_.size());
  // Free runs and live blocks, merged by start, must tile the range exactly, with no two free runs adjacent.
  U64 cursor = 0;
  U64 freeSum = 0;
  bool prevFree = false;
  auto run = freeByStart_.begin();
  U32 liveSeen = 0;
  while (cursor < memSz_) {
    if (run != freeByStart_.end() && run->first == cursor) {
      XP_ASSERT_V(run->first == cursor && run->second > 0 && !prevFree,
                  " allocator " << name_ << " free run " << run->first << "+" << run->second << " cursor " << cursor
                                << " after free run " << prevFree);
      XP_ASSERT_V(freeBySize_.count({run->second, run->first}) == 1,
                  " allocator " << name_ << " free run not indexed by size " << run->first << "+" << run->second);
      cursor += run->second;
      freeSum += run->second;
      prevFree = true;
      ++run;
      continue;
    }
    const Blk* blk = liveAt_[cursor];
    XP_ASSERT_V(blk != nullptr && blk->base_ == cursor && blk->sz_ > 0 && blk->allocator_.ptr() == this &&
                    blk->references() > 0,
                " allocator " << name_ << " no block at cursor " << cursor);
    for (U32 i = 1; i < blk->sz_; ++i)
      XP_ASSERT_V(liveAt_[cursor + i] == nullptr, " allocator " << name_ << " block inside block at " << cursor);
    cursor += blk->sz_;
    prevFree = false;
    ++liveSeen;
  }
  XP_ASSERT_V(run == freeByStart_.end() && liveSeen == numLive_,
              " allocator " << name_ << " live " << numLive_ << " seen " << liveSeen);
  XP_ASSERT_V(cursor == memSz_ && freeSum == freeEntries_,
              " allocator " << name_ << " covered " << cursor << " of " << memSz_ << " free sum " << freeSum
                            << " freeEntries " << freeEntries_);
}

void Blk::onZeroReferences() const {
  Blk* self = const_cast<Blk*>(this);
  // Keeps the allocator alive while it takes the entries back, even if this was its last user.
  Ptr<BestFitAllocator> owner = std::move(self->allocator_);
  owner->releaseBlk(self);
}

void PendingCmds::pendingCmdLogEnq(U32 oldBase, Ptr<Blk> blk) {
  pendingCmdLog_.push_back(Entry{oldBase, std::move(blk)});
}

PendingCmds::Entry PendingCmds::pendingCmdLogDeq() {
  XP_ASSERT(!pendingCmdLog_.empty());
  Entry entry = std::move(pendingCmdLog_.front());
  pendingCmdLog_.pop_front();
  return entry;
}

}  // namespace XpLib
