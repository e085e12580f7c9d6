// Self-check of one installed route, and table dumps into the trace facility.
#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

// Follows the route from prefix to sub-trie, shared record, block and allocator
// block, checking every link the NHI code maintains; any mismatch is fatal.
void LpmSm::verifyLpmRoute(const Ptr<LpmPrefix>& prefix) const {
  XP_TRACE(3, "LpmSm:: verifyLpmRoute Prefix:: " << *prefix);
  Ptr<SubTrie> subTrie = prefixToSubTrie(prefix);
  XP_ASSERT_V(subTrie, " prefix " << *prefix);
  const NhiInfoKey nhiInfoKey = subTrie->nhiInfoKey();
  XP_ASSERT_V(nhiInfoKey != NhiInfoKey(), " prefix " << *prefix << " subtrie " << *subTrie);
  Ptr<NhiInfo> nhiInfo = sharedNhi(nhiInfoKey);
  XP_ASSERT_V(nhiInfo, " prefix " << *prefix << " subtrie " << *subTrie << " nhiInfoKey " << nhiInfoKey);
  XP_ASSERT_V(( nhiInfo->nhiBaseIdx() == subTrie->nhiBaseIdx() ),
              " base index mismatch " << " prefix " << *prefix << " subtrie " << *subTrie << " nhiInfo "
                                      << nhiInfo->str());
  const NhiTableIdx nhiBaseIdx = nhiInfo->nhiBaseIdx();
  XP_ASSERT_V(nhiBaseIdx != NhiTableIdx(), " prefix " << *prefix << " nhiInfo " << nhiInfo->str());
  const U8 slot = subTrie->prefixToSlot(prefix).value_or(0);
  const NextHopBlock nhBlock = requestedBlock(prefix);
  XP_ASSERT_V(( nhiInfoKey.slotToNextHopBlock( slot ) == nhBlock ),
              " next hop block mismatch " << " prefix " << *prefix << " subtrie " << *subTrie << " nhiInfoKey "
                                          << nhiInfoKey);
  XP_ASSERT_V(nhiInfo->subTrieCount(), " prefix " << *prefix << " nhiInfo " << nhiInfo->str());
  Ptr<SubTrieSet> subTrieSet = nhiBaseIdxToSubTrie(nhiBaseIdx);
  XP_ASSERT_V(subTrieSet, " prefix " << *prefix << " subtrie " << *subTrie);
  XP_ASSERT_TEXT_V(subTrieSet->subTrie(subTrie), "subTrieSet->subTrieIterator().isMemberOf( subTrie )",
                   " prefix " << *prefix << " subtrie " << *subTrie);
  XP_ASSERT_V(subTrieSet->subTries() == nhiInfo->subTrieCount(), " prefix " << *prefix << " nhiInfo " << nhiInfo->str());
  Ptr<Blk> blk = nhiBaseIdxToBlk(nhiBaseIdx);
  XP_ASSERT_V(blk, " prefix " << *prefix << " subtrie " << *subTrie);
  XP_ASSERT_V(subTrie->prefixBitmap(), " prefix " << *prefix << " subtrie " << *subTrie);
  XP_ASSERT_V(subTrie->maxPrefixSlot() > 0, " prefix " << *prefix << " subtrie " << *subTrie);
  const U32 expectedBlkSize = nhiBlockSize(subTrie->maxPrefixSlot());
  XP_ASSERT_V(blk->blkSz() == expectedBlkSize, " prefix " << *prefix << " subtrie " << *subTrie << " blkSz "
                                                          << blk->blkSz() << " expectedBlkSize " << expectedBlkSize);
}

void LpmSm::dumpPrefixTable(const Ptr<PrefixTable>& prefixTable) const {
  XP_TRACE(9, "Dump prefix table " << prefixTable->tableId() << " tread " << +prefixTable->tableConfig()->tread());
  for (const auto& entry : prefixTable->subTrieMap()) entry.second->dump();
}

void LpmSm::dumpPrefixTables() const {
  for (const auto& entry : prefixTable_) dumpPrefixTable(entry.second);
}

}  // namespace XpLpm
}  // namespace XpLib
