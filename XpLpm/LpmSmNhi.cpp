// NHI blocks: sizing, allocation over the tiles with compaction, and sharing of
// one block by every sub-trie whose next-hop contents are equal.
#include <algorithm>

#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

namespace {
// The tile the last block was handed out from, one value for the whole process.
U8 gLastNhiTile = 255;
}  // namespace

U8 LpmSm::lastNhiTile() { return gLastNhiTile; }
void LpmSm::lastNhiTileIs(U8 tile) { gLastNhiTile = tile; }

U8 LpmSm::nhiBlockSize(U8 numPrefixes) const {
  const U8 pairs = config_->nhiPairPerEntry();
  return static_cast<U8>(numPrefixes / pairs + (numPrefixes % pairs ? 1 : 0));
}

bool LpmSm::isNhiBlockAvailable(U8 numPrefixes) {
  const U8 size = nhiBlockSize(numPrefixes);
  XP_TRACE(7, "LpmSm::isNhiBlockAvailable numPrefixes " << +numPrefixes << " allocate a block of " << +size);
  const bool tracing = Trace::on(7);
  for (const auto& entry : nhiAllocator_) {
    const BestFitAllocator& allocator = *entry.second;
    if (tracing) XP_TRACE_ON(7, "LpmSm::isNhiBlockAvailable tile " << entry.first << " free entries " << allocator.freeEntries());
    if (size <= allocator.freeEntries()) return true;
  }
  return false;
}

U8 LpmSm::maxSubTrieSlots() const {
  const auto& strides = config_->availableStrideMap();
  U8 smallest = 0;
  for (const auto& [stride, available] : strides) {
    if (available && stride > 0) {
      smallest = stride;
      break;
    }
  }
  if (smallest == 0) return 0;
  U32 widest = 0;
  for (const auto& [id, cfg] : config_->prefixTableConfigMap()) widest = std::max(widest, cfg->entrySize());
  return static_cast<U8>(std::min<U32>(widest / smallest, 255));
}

U8 LpmSm::nhiBlockSizeToDelete(const Ptr<LpmPrefix>& prefix) const {
  const Ptr<SubTrie> subTrie = prefixToSubTrie(prefix);
  if (!subTrie || subTrie->numPrefixes() <= 1) return 0;
  // The key the deletion will ask for: the other prefixes, compacted in slot order.
  NhiInfoKey key;
  U8 slot = 0;
  for (const Ptr<LpmPrefix>& p : subTrie->slots()) {
    if (!p || LpmPrefixEq()(p, prefix)) continue;
    key.newSlotToNextHopBlock(slot++, requestedBlock(p));
  }
  if (key == subTrie->nhiInfoKey() || sharedNhi_.contains(key)) return 0;
  return nhiBlockSize(slot);
}

// The block is the last visited tile's, filed under the first tile visited. This
// is the established placement rule: with several tiles the offset may belong to
// another tile's allocator. nhiOwnTileFilingEnabled files it under its own tile.
NhiTableIdx LpmSm::allocateNhiBlock(U8 numPrefixes) {
  const U8 size = nhiBlockSize(numPrefixes);
  XP_TRACE(7, "LpmSm::allocateNhiBlock numPrefixes " << +numPrefixes << " allocate a block of " << +size);
  const U32 tiles = nhiAllocator_.size();
  XP_ASSERT_TEXT(tiles > 0, "allocatorIter");

  U32 first = 0;
  if (gLastNhiTile != 255) {
    U32 last = tiles;
    for (U32 i = 0; i < tiles; ++i)
      if ((nhiAllocator_.begin() + i)->first.value() == gLastNhiTile) last = i;
    first = last == tiles ? 0 : (last + 1) % tiles;
  }
  const NhiTileIdx firstTile = (nhiAllocator_.begin() + first)->first;

  // Every tile with room is visited, compacted when fragmented, and its block
  // given up for the next tile's: only the last tile's block is kept. Taking and
  // giving back a block leaves an allocator exactly as it was, so the blocks that
  // would be given up are not taken at all.
  BestFitAllocator* last = nullptr;
  NhiTileIdx lastTile = firstTile;
  const bool tracing = Trace::on(7);
  for (U32 n = 0; n < tiles; ++n) {
    const auto& entry = *(nhiAllocator_.begin() + (first + n) % tiles);
    const NhiTileIdx tile = entry.first;
    const Ptr<BestFitAllocator>& allocator = entry.second;
    if (tracing) {
      XP_TRACE_ON(7, "LpmSm::allocateNhiBlock trying to allocate in tile " << tile << " free entries "
                                                                           << allocator->freeEntries());
    }
    if (size > allocator->freeEntries()) continue;
    if (!allocator->canAlloc(size)) {
      XP_TRACE(7, "LpmSm::allocateNhiBlock tile needs defragmentation ");
      Ptr<PendingCmds> defragCmds = allocator->defragment();
      XP_ASSERT(defragCmds);
      processNhiDefrag(tile, defragCmds);
      XP_ASSERT_TEXT(allocator->canAlloc(size), "blk");
    }
    last = allocator.ptr();
    lastTile = tile;
  }
  Ptr<Blk> held = last ? last->alloc(size) : Ptr<Blk>();
  if (!held) {
    XP_TRACE(7, "LpmSm::allocateNhiBlock all nhi tiles are full ");
    numNhiOverflowInc(1);
    return NhiTableIdx();
  }
  const NhiTileIdx filedTile = nhiOwnTileFilingEnabled_ ? lastTile : firstTile;
  const NhiTableIdx result(filedTile, static_cast<U16>(held->base()));
  gLastNhiTile = firstTile.value();
  nhiBaseIdxToBlkIs(result, held);
  XP_TRACE(7, "LpmSm::allocateNhiBlock allocated a block of " << +size << " nhiIdx " << result << " free entries "
                                                              << nhiAllocator(filedTile)->freeEntries());
  return result;
}

void LpmSm::reallocNhiBlock(const NhiTableIdx& baseIdx, U8 numPrefixes) {
  XP_TRACE(7, "LpmSm::reallocNhiBlock baseIdx " << baseIdx << " numPrefixes " << +numPrefixes);
  const U8 size = nhiBlockSize(numPrefixes);
  Ptr<BestFitAllocator> allocator = nhiAllocator(baseIdx.tile());
  XP_ASSERT(allocator);
  XP_TRACE(7, "LpmSm::reallocNhiBlock reallocate a block of " << +size);
  Ptr<Blk> blk = allocator->realloc(baseIdx.offset(), size);
  XP_ASSERT(blk);
  nhiBaseIdxToBlkIs(baseIdx, blk);
}

void LpmSm::releaseNhiBlock(const NhiTableIdx& baseIdx) {
  XP_TRACE(7, "LpmSm::releaseNhiBlock baseIdx " << baseIdx);
  Ptr<Blk> blk = nhiBaseIdxToBlk(baseIdx);
  if (!blk) XP_FAIL("blk", " baseIdx " << baseIdx);
  XP_TRACE(7, "LpmSm::releaseNhiBlock release a block of " << blk->blkSz() << " nhiIdx " << baseIdx);
  nhiBaseIdxToBlkDel(baseIdx);
}

// Moves are applied strictly in log order, one at a time: the allocator ordered
// them so that each block's new place is free or already vacated.
void LpmSm::processNhiDefrag(NhiTileIdx tile, const Ptr<PendingCmds>& defragCmds) {
  XP_TRACE(7, "LpmSm::processNhiDefrag tile " << tile << " pendingCmdLogs " << defragCmds->size());
  numNhiBlockDefragInc(1);
  while (defragCmds->size() > 0) {
    PendingCmds::Entry move = defragCmds->pendingCmdLogDeq();
    const NhiTableIdx oldIdx(tile, static_cast<U16>(move.oldBase));
    const NhiTableIdx newIdx(tile, static_cast<U16>(move.blk->base()));
    Ptr<SubTrieSet> subTrieSetOld = nhiBaseIdxToSubTrie(oldIdx);
    if (!subTrieSetOld) XP_FAIL("subTrieSetOld", " oldNhiIdx " << oldIdx);
    const Ptr<SubTrieSet> newSet = nhiUsersAt(newIdx);

    while (subTrieSetOld->subTries() > 0) {
      Ptr<SubTrie> subTrie = subTrieSetOld->begin()->first;
      XP_TRACE(7, "LpmSm::processNhiDefrag subTrie at table " << *subTrie);
      const NhiInfoKey& nhiInfoKey = subTrie->nhiInfoKey();
      XP_ASSERT_V(nhiInfoKey != NhiInfoKey(), " subtrie " << *subTrie << " nhiidx old " << oldIdx << " new " << newIdx);
      Ptr<NhiInfo> nhiInfo = sharedNhiIs(nhiInfoKey);
      XP_ASSERT_V(nhiInfo, " subtrie " << *subTrie << " nhiidx old " << oldIdx << " new " << newIdx);
      subTrie->nhiBaseIdxIs(newIdx);
      nhiBaseIdxToBlkIs(newIdx, move.blk);
      nhiInfo->nhiBaseIdxIs(newIdx);
      nhiBaseIdxToBlkDel(oldIdx);
      newSet->subTrieIs(subTrie);
      subTrieSetOld->subTrieDel(subTrie);
      generateSubTrieWriteCmds(subTrie, true, true);
    }
    nhiBaseIdxToSubTrie_.erase(oldIdx);
  }
}

Ptr<SubTrieSet> LpmSm::nhiUsersAt(const NhiTableIdx& idx) {
  Ptr<SubTrieSet> users = nhiBaseIdxToSubTrie(idx);
  if (!users) {
    users = subTrieSetFactory();
    nhiBaseIdxToSubTrie_.set(idx, users);
  }
  return users;
}

Ptr<NhiInfo> LpmSm::sharedNhiIs(const NhiInfoKey& key) {
  Ptr<NhiInfo>& record = sharedNhi_[key];
  if (!record) record = nhiInfoFactory(key);
  return record;
}

NhiInfoKey LpmSm::generateNhiInfoKey(const Ptr<SubTrie>& subTrie) const {
  XP_TRACE(7, "LpmSm::generateNhiInfoKey subtrie " << *subTrie);
  NhiInfoKey& key = keyScratch_;
  key.clearKeepingRoom();
  if (subTrie->numPrefixes()) key.reserve(subTrie->numPrefixes());
  U8 slot = 0;
  for (const Ptr<LpmPrefix>& p : subTrie->slots()) {
    if (p) key.newSlotToNextHopBlock(slot, requestedBlock(p));
    ++slot;
  }
  XP_TRACE(7, "LpmSm::generateNhiInfoKey nhiInfoKey " << key);
  return key;
}

NhiTableIdx LpmSm::nhiBaseIdxFromNhiInfoKey(const Ptr<SubTrie>& subTrie, const NhiInfoKey& key) const {
  XP_TRACE(7, "LpmSm::nhiBaseIdxFromNhiInfoKey subtrie " << *subTrie << " subtrieNhiInfoKey " << key);
  if (const Ptr<NhiInfo>* nhiInfo = sharedNhi_.find(key)) {
    XP_TRACE(7, "LpmSm::nhiBaseIdxFromNhiInfoKey nhiInfo available " << (*nhiInfo)->str());
    return (*nhiInfo)->nhiBaseIdx();
  }
  return NhiTableIdx();
}

Ptr<NhiInfo> LpmSm::allocateNhiInfo(const Ptr<SubTrie>& subTrie, const NhiInfoKey& key, const NhiTableIdx& nhiBaseIdx) {
  XP_TRACE(7, "LpmSm::allocateNhiInfo subtrie " << *subTrie << " subtrieNhiInfoKey " << key << " nhiBaseIdx "
                                                << nhiBaseIdx);
  XP_ASSERT_V(nhiBaseIdx != NhiTableIdx(), " subtrie " << *subTrie);
  XP_ASSERT_V(subTrie->prefixs(), " subtrie " << *subTrie);
  Ptr<NhiInfo> nhiInfo = sharedNhi(key);
  if (nhiInfo) {
    XP_TRACE(7, "LpmSm::allocateNhiInfo nhiInfo found " << nhiInfo->str());
    XP_ASSERT_V(nhiBaseIdx == nhiInfo->nhiBaseIdx(), " subtrie " << *subTrie << " nhiInfo " << nhiInfo->str());
    const NhiInfoKey& nhiInfoKey = key;
    XP_ASSERT_V(nhiInfo->nhiInfoKey() == nhiInfoKey, " subtrie " << *subTrie << " nhinfoKey " << key);
  } else {
    nhiInfo = sharedNhiIs(key);
    nhiInfo->nhiBaseIdxIs(nhiBaseIdx);
    nhiInfo->subTrieCountIs(0);
    XP_TRACE(7, "LpmSm::allocateNhiInfo nhiInfo created " << nhiInfo->str());
  }
  nhiUsersAt(nhiBaseIdx)->subTrieIs(subTrie);
  nhiInfo->subTrieCountInc(1);
  if (nhiInfo->subTrieCount() > 1) nhiSharedDeleteNeed_ += nhiBlockSize(static_cast<U8>(key.slotToNextHopBlocks() - 1));
  subTrie->nhiBaseIdxIs(nhiBaseIdx);
  // The record's key, not the caller's equal copy: every sub-trie of a shared block then holds
  // one representation of it.
  subTrie->nhiInfoKeyIs(nhiInfo->nhiInfoKey());
  return nhiInfo;
}

void LpmSm::prefetchNhiRecords(const SubTrie& subTrie, U32 step) const {
  const NhiInfoKey& key = subTrie.nhiInfoKey();
  const NhiTableIdx base = subTrie.nhiBaseIdx();
  switch (step) {
    case 0:
      key.prefetch();
      nhiBaseIdxToSubTrie_.prefetch(base);
      nhiBaseIdxToBlk_.prefetch(base);
      break;
    case 1:
      if (key.slotToNextHopBlocks()) sharedNhi_.prefetch(key, 0);
      if (const Ptr<SubTrieSet>* users = nhiBaseIdxToSubTrie_.find(base)) __builtin_prefetch(users->ptr());
      if (const Ptr<Blk>* blk = nhiBaseIdxToBlk_.find(base)) __builtin_prefetch(blk->ptr());
      break;
    case 2:
      if (key.slotToNextHopBlocks()) sharedNhi_.prefetch(key, 1);
      break;
    case 3:
      if (key.slotToNextHopBlocks())
        if (const Ptr<NhiInfo>* shared = sharedNhi_.find(key)) __builtin_prefetch(shared->ptr());
      break;
  }
}

void LpmSm::releaseNhiInfo(const Ptr<SubTrie>& subTrie) {
  XP_TRACE(7, "LpmSm::releaseNhiInfo subtrie " << *subTrie);
  // Nothing below changes the sub-trie's key.
  const NhiInfoKey& nhiInfoKey = subTrie->nhiInfoKey();
  if (nhiInfoKey == NhiInfoKey()) {
    XP_TRACE(7, "LpmSm::releaseNhiInfo nhiInfoKey not present ");
    return;
  }
  // One probe of each map, for its check and its value. The users are looked up first by the
  // sub-trie's base, which is the record's unless the model is broken, so that the two lookups
  // do not wait for each other: each is a cache miss in a full table. Both entries stay until
  // their maps drop them at the end.
  const Ptr<SubTrieSet>* users = nhiBaseIdxToSubTrie_.find(subTrie->nhiBaseIdx());
  const Ptr<NhiInfo>* shared = sharedNhi_.find(nhiInfoKey);
  XP_ASSERT_TEXT_V(shared, "sharedNhiIterator().isMemberOf( nhiInfoKey )", " subtrie " << *subTrie);
  NhiInfo* const nhiInfo = shared->ptr();
  XP_ASSERT_V(nhiInfo, " subtrie " << *subTrie);
  const NhiTableIdx nhiBaseIdx = nhiInfo->nhiBaseIdx();
  if (nhiBaseIdx != subTrie->nhiBaseIdx()) users = nhiBaseIdxToSubTrie_.find(nhiBaseIdx);
  XP_ASSERT_TEXT_V(users, "nhiBaseIdxToSubTrieIterator().isMemberOf( nhiBaseIdx )", " subtrie " << *subTrie);
  XP_ASSERT_V(subTrie->nhiBaseIdx() == nhiInfo->nhiBaseIdx(), " subtrie " << *subTrie << " nhiInfo " << nhiInfo->str());
  SubTrieSet* const subTrieSet = users->ptr();
  XP_ASSERT_V(subTrieSet, " subtrie " << *subTrie);
  XP_ASSERT_TEXT_V(subTrieSet->subTrie(subTrie), "subTrieSet->subTrieIterator().isMemberOf( subTrie )",
                   " subtrie " << *subTrie);

  subTrieSet->subTrieDel(subTrie);
  if (subTrieSet->subTries() == 0) nhiBaseIdxToSubTrie_.erase(nhiBaseIdx);
  if (nhiInfo->subTrieCount() > 1) nhiSharedDeleteNeed_ -= nhiBlockSize(static_cast<U8>(nhiInfoKey.slotToNextHopBlocks() - 1));
  nhiInfo->subTrieCountDec(1);
  if (nhiInfo->subTrieCount() > 0) {
    XP_TRACE(7, "LpmSm::releaseNhiInfo not releasing nhiInfo " << nhiInfo->str());
    return;
  }
  releaseNhiBlock(nhiBaseIdx);
  sharedNhiDel(nhiInfoKey);
}

bool LpmSm::updateNhiInfoForSubTrie(const Ptr<SubTrie>& subTrie) {
  XP_TRACE(7, "LpmSm:: updateNhiInfoForSubTrie subTrie " << *subTrie);
  const NhiInfoKey key = generateNhiInfoKey(subTrie);
  XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie new subTrieNhiInfoKey " << key);
  if (key == subTrie->nhiInfoKey()) {
    XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie nothing changed in subtrie ");
    return true;
  }
  NhiTableIdx nhiBaseIdx = nhiBaseIdxFromNhiInfoKey(subTrie, key);
  if (nhiBaseIdx != NhiTableIdx()) {
    XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie nhiinfo available ");
    releaseNhiInfo(subTrie);
    if (subTrie->prefixs()) {
      if (!allocateNhiInfo(subTrie, key, nhiBaseIdx))
        XP_FAIL("allocateNhiInfo( subTrie, subTrieNhiInfoKey, nhiBaseIdx ) != NULL", " subTrie " << *subTrie);
    } else {
      XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie subtrie is empty ");
    }
    return true;
  }
  if (subTrie->prefixs()) {
    XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie allocating a new nhiInfo ");
    // Allocated while the old block is still held: the tile needs room for both.
    nhiBaseIdx = allocateNhiBlock(subTrie->maxPrefixSlot());
    if (nhiBaseIdx == NhiTableIdx()) {
      XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie nhi block not available ");
      return false;
    }
    XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie allocated nhiBaseIdx " << nhiBaseIdx);
    releaseNhiInfo(subTrie);
    if (!allocateNhiInfo(subTrie, key, nhiBaseIdx)) XP_FAIL("nhiInfo", " subtrie " << *subTrie << " nhiBaseIdx " << nhiBaseIdx);
    return true;
  }
  releaseNhiInfo(subTrie);
  XP_TRACE(7, "LpmSm::updateNhiInfoForSubTrie subtrie is empty ");
  return true;
}

}  // namespace XpLpm
}  // namespace XpLib
