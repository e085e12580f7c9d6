// The next-hop block state machine and its compaction.
#include "XpLpmNextHop/XpLpmNextHopSm.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpmNextHop {

void LpmNextHopSm::ConfigReactor::onRequest(SwId swId) { owner_->handleRequest(swId); }

LpmNextHopSm::LpmNextHopSm(const Name& name, const Ptr<Config>& config, const Ptr<Status>& status)
    : name_(name), config_(config), status_(status) {
  reactor_ = std::make_unique<ConfigReactor>(this);
  reactor_->notifierIs(config);
  handleInitialized();
}

LpmNextHopSm::~LpmNextHopSm() = default;

void LpmNextHopSm::handleInitialized() {
  U32 tableSize = config_->tableSize();
  U32 blockSize = 1024;
  if (const char* env = std::getenv("NH_TABLE_SIZE")) {
    tableSize = static_cast<U32>(std::strtol(env, nullptr, 10));
    // A test setting of the table size scales the block limit with it.
    blockSize = tableSize >> 1;
  }
  if (const char* env = std::getenv("NH_MAX_BLOCK_SIZE")) blockSize = static_cast<U32>(std::strtol(env, nullptr, 10));
  XP_TRACE(1, "LpmNextHopSm::handleInitialized tableSize " << tableSize << " blockSize " << blockSize);
  status_->shuffleCmdDelAll();
  status_->swIdToNextHopBlockDelAll();
  allocator_ = makePtr<BestFitAllocator>("allocator", tableSize, 0, blockSize);
  initialized_ = true;
  std::vector<SwId> requested;
  requested.reserve(config_->requests());
  for (const auto& entry : config_->requestMap()) requested.push_back(entry.first);
  for (SwId swId : requested) handleRequest(swId);
}

void LpmNextHopSm::handleRequest(SwId swId) {
  XP_TRACE(3, "LpmNextHopSm::handleRequest swId " << swId);
  const Nway nway = config_->request(swId);
  const bool placed = status_->swIdToNextHopBlock(swId) != NextHopBlock();
  // A request of 65535 is no request at all.
  if (nway != Nway()) {
    placed ? updateEntry(swId, nway) : insertEntry(swId, nway);
  } else if (placed) {
    deleteEntry(swId);
  }
}

void LpmNextHopSm::insertEntry(SwId swId, Nway nway) {
  numNhBlockAllocInc(1);
  XP_TRACE(3, "LpmNextHopSm::insertEntry swId " << swId << " nway " << nway);
  if (!isNhBlockAvailable(nway)) return;
  Ptr<Blk> blk = allocator_->alloc(nway.value());
  if (!blk) XP_FAIL("blk", " freeentries " << allocator_->freeEntries() << " nway " << nway);
  const NextHopTableIdx base(blk->base());
  swIdToBlock_.set(swId, blk);
  baseIdxToSwId_.set(base, swId);
  status_->swIdToNextHopBlockIs(swId, NextHopBlock(base, nway));
  XP_TRACE(3, "LpmNextHopSm::insertEntry allocated block " << NextHopBlock(base, nway));
}

bool LpmNextHopSm::isNhBlockAvailable(Nway nway) {
  XP_TRACE(7, "LpmNextHopSm::isNhBlockAvailable numfree entries " << allocator_->freeEntries() << " nway " << nway);
  if (nway.value() > allocator_->freeEntries()) {
    XP_TRACE(7, "LpmNextHopSm::isNhBlockAvailable nexthop table full ");
    numNhBlockOverflowInc(1);
    return false;
  }
  for (const auto& [start, size] : allocator_->freeBlkStartIndexToSz())
    if (size >= nway.value()) return true;
  // Enough entries in sum, scattered: compact, after which one run holds them.
  doDefragment();
  return true;
}

void LpmNextHopSm::updateEntry(SwId swId, Nway nway) {
  XP_TRACE(3, "LpmNextHopSm::updateEntry swId " << swId << " nway " << nway);
  if (!swIdToBlock_.contains(swId)) XP_FAIL("blk", " swId " << swId);
  const Nway current = status_->swIdToNextHopBlock(swId).size();
  XP_TRACE(3, "LpmNextHopSm::updateEntry nexthopblock size  " << current);
  if (nway == current) {
    numNhBlockUpdateInc(1);
    XP_TRACE(3, "LpmNextHopSm::updateEntry same size - numNhBlockUpdate " << numNhBlockUpdate_);
    return;
  }
  // The new block is taken while the old one is held; the old base stays in
  // baseIdxToSwId, by design.
  insertEntry(swId, nway);
}

void LpmNextHopSm::deleteEntry(SwId swId) {
  numNhBlockFreeInc(1);
  XP_TRACE(3, "LpmNextHopSm::deleteEntry swId " << swId << " frees " << numNhBlockFree_);
  Ptr<Blk> blk = swIdToBlock(swId);
  if (!blk) XP_FAIL("blk", " swId " << swId);
  XP_TRACE(3, "LpmNextHopSm::deleteEntry startIndex " << blk->base());
  baseIdxToSwId_.erase(NextHopTableIdx(blk->base()));
  blk = nullptr;
  swIdToBlock_.erase(swId);
  status_->swIdToNextHopBlockDel(swId);
}

void LpmNextHopSm::doDefragment() {
  XP_TRACE(7, "LpmNextHopSm::doDefragment");
  Ptr<PendingCmds> defragCmds = allocator_->defragment();
  XP_ASSERT(defragCmds);
  processDefrag(defragCmds);
}

// Applied strictly in log order: each move goes to entries that are free or
// were vacated by an earlier move, so a reader applying the queued commands in
// order copies each block only after the blocks moved out of its way.
void LpmNextHopSm::processDefrag(const Ptr<PendingCmds>& defragCmds) {
  XP_TRACE(7, "LpmNextHopSm::processDefrag size " << defragCmds->size());
  numNhBlockDefragInc(1);
  while (defragCmds->size() > 0) {
    PendingCmds::Entry move = defragCmds->pendingCmdLogDeq();
    const NextHopTableIdx oldIdx(move.oldBase), newIdx(move.blk->base());
    XP_TRACE(7, "LpmNextHopSm::processDefrag oldIdx " << oldIdx << ", newIdx " << newIdx);
    const SwId shuffledSwId = baseIdxToSwId_.get(oldIdx, SwId());
    const Nway shuffledNway = status_->swIdToNextHopBlock(shuffledSwId).size();
    XP_TRACE(7, "LpmNextHopSm::processDefrag shuffleSwId " << shuffledSwId << " shuffledNway " << shuffledNway);
    if (shuffledSwId == SwId()) XP_FAIL("shuffledSwId != SwId()", " oldbaseIdx " << oldIdx);
    Ptr<ShuffleCmd> cmd =
        shuffleCmdFactory(shuffledSwId, NextHopBlock(newIdx, shuffledNway), NextHopBlock(oldIdx, shuffledNway));
    baseIdxToSwId_.erase(oldIdx);
    baseIdxToSwId_.set(newIdx, shuffledSwId);
    swIdToBlock_.set(shuffledSwId, move.blk);
    status_->swIdToNextHopBlockIs(shuffledSwId, NextHopBlock(newIdx, shuffledNway));
    status_->shuffleCmdEnq(cmd);
  }
}

void LpmNextHopSm::showSoftwareSummary(int fd) const {
  dprintf(fd, "\nNexthop block summary\n");
  dprintf(fd, " allocs: %llu, updates: %llu frees: %llu\n", (unsigned long long)numNhBlockAlloc_,
          (unsigned long long)numNhBlockUpdate_, (unsigned long long)numNhBlockFree_);
  dprintf(fd, " overflows: %llu, defrags: %llu\n", (unsigned long long)numNhBlockOverflow_,
          (unsigned long long)numNhBlockDefrag_);
}

U64 LpmNextHopSm::verify() const {
  allocator_->verify();
  XP_ASSERT_V(swIdToBlock_.size() == status_->swIdToNextHopBlocks(),
              " blocks " << swIdToBlock_.size() << " placements " << status_->swIdToNextHopBlocks());
  U64 held = 0;
  for (const auto& [swId, block] : status_->swIdToNextHopBlockMap()) {
    const Ptr<Blk> blk = swIdToBlock(swId);
    XP_ASSERT_V(blk && blk->base() == block.base().value() && blk->blkSz() == block.size().value() &&
                    baseIdxToSwId(block.base()) == swId,
                " swId " << swId << " block " << block);
    held += blk->blkSz();
  }
  XP_ASSERT_V(held + allocator_->freeEntries() == allocator_->entriesCapacity(),
              " held " << held << " free " << allocator_->freeEntries());
  return swIdToBlock_.size();
}

Ptr<LpmNextHopSm> lpmNextHopSmFactory(const Name& name, const Ptr<Config>& config, const Ptr<Status>& status) {
  return makePtr<LpmNextHopSm>(name, config, status);
}

Ptr<LpmNextHopSm> LpmNextHopSmIs(const Name& name, const Ptr<Config>& config, const Ptr<Status>& status) {
  return lpmNextHopSmFactory(name, config, status);
}

}  // namespace XpLpmNextHop
}  // namespace XpLib
