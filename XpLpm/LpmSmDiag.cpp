// Diagnostics: the operator's summaries and table prints, table dumps into the
// trace facility, and the self-check of one installed route.
#include <cstdio>

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

LpmSm::VerifyCounts LpmSm::verify() const {
  VerifyCounts counts;
  verifySubTries(counts);
  verifyNhiBlocks(counts);
  verifyRoutes(counts);
  return counts;
}

// Every sub-trie sits where its table says, holds prefixes of its branch and stride that hash to
// its position, and uses a shared record and a block that know it.
void LpmSm::verifySubTries(VerifyCounts& counts) const {
  for (const auto& [id, table] : prefixTable_) {
    const U8 tread = table->tableConfig()->tread();
    for (const auto& [idx, st] : table->subTrieMap()) {
      ++counts.subTries;
      st->verify();
      XP_ASSERT_V(st->table() == table.ptr() && st->index() == idx, " table " << id << " index " << idx << " subtrie " << *st);
      XP_ASSERT_V(st->numPrefixes() > 0 && st->branchLen() >= tread, " table " << id << " subtrie " << *st);
      for (const Ptr<LpmPrefix>& p : st->slots()) {
        if (!p) continue;
        SubTrieBranch branch = st->branch();
        U8 common = 0;
        findCommonBranch(branch, p->branch(st->branchLen()), st->branchLen(), common);
        XP_ASSERT_V(prefixToSubTrie(p) == st && common == st->branchLen() &&
                        p->len() + 1 <= st->branchLen() + st->stride() && table->positionOf(p) == idx,
                    " prefix " << *p << " subtrie " << *st);
      }
      const Ptr<NhiInfo> info = sharedNhi(st->nhiInfoKey());
      const Ptr<SubTrieSet> users = nhiBaseIdxToSubTrie(st->nhiBaseIdx());
      XP_ASSERT_V(info && info->nhiBaseIdx() == st->nhiBaseIdx() && users && users->subTrie(st), " subtrie " << *st);
    }
  }
}

// Blocks, their users and the shared records agree one to one; the deletion need is what the
// shared records add up to; the allocators' free entries and the blocks held fill the tiles.
void LpmSm::verifyNhiBlocks(VerifyCounts& counts) const {
  XP_ASSERT_V(nhiBaseIdxToBlk_.size() == nhiBaseIdxToSubTrie_.size() && sharedNhi_.size() == nhiBaseIdxToBlk_.size(),
              " blocks " << nhiBaseIdxToBlk_.size() << " users " << nhiBaseIdxToSubTrie_.size() << " records "
                         << sharedNhi_.size());
  U64 held = 0, need = 0;
  for (const auto& [base, blk] : nhiBaseIdxToBlk_) {
    ++counts.blocks;
    held += blk->blkSz();
    const Ptr<SubTrieSet> users = nhiBaseIdxToSubTrie(base);
    XP_ASSERT_V(users && users->subTries() > 0, " nhiBaseIdx " << base);
    for (const auto& [st, unused] : *users) {
      const Ptr<NhiInfo> info = sharedNhi(st->nhiInfoKey());
      XP_ASSERT_V(st->nhiBaseIdx() == base && info && info->subTrieCount() == users->subTries() &&
                      blk->blkSz() == nhiBlockSize(st->maxPrefixSlot()),
                  " nhiBaseIdx " << base << " subtrie " << *st);
    }
  }
  for (const auto& [key, info] : sharedNhi_) {
    ++counts.sharedRecords;
    XP_ASSERT_V(key != NhiInfoKey() && nhiBaseIdxToBlk(info->nhiBaseIdx()), " nhiInfo " << info->str());
    if (info->subTrieCount() > 1)
      need += (info->subTrieCount() - 1) * nhiBlockSize(static_cast<U8>(key.slotToNextHopBlocks() - 1));
  }
  XP_ASSERT_V(need == nhiSharedDeleteNeed_, " need " << need << " counted " << nhiSharedDeleteNeed_);
  U64 free = 0;
  for (const auto& [tile, allocator] : nhiAllocator_) {
    allocator->verify();
    free += allocator->freeEntries();
  }
  XP_ASSERT_V(free + held == U64(config_->nhiEntriesPerTile()) * nhiAllocator_.size(),
              " free " << free << " held " << held);
}

// The sub-tries hold exactly the installed routes, and each is followed to its block.
void LpmSm::verifyRoutes(VerifyCounts& counts) const {
  U64 inSubTries = 0;
  for (const auto& [id, table] : prefixTable_)
    for (const auto& [idx, st] : table->subTrieMap()) inSubTries += st->numPrefixes();
  XP_ASSERT_V(inSubTries == prefixToSubTrie_.size(), " in sub-tries " << inSubTries << " installed "
                                                                      << prefixToSubTrie_.size());
  for (const auto& [prefix, st] : prefixToSubTrie_) {
    ++counts.routes;
    // An update that found no block leaves Status and the NHI contents on an earlier block, and a
    // later rewrite of the sub-trie may bring the contents to the request without Status.
    const NextHopBlock wanted = requestedBlock(prefix);
    const std::optional<U8> slot = st->prefixToSlot(prefix);
    if (status_->prefixToNextHopBlock(prefix) != wanted || !slot ||
        st->nhiInfoKey().slotToNextHopBlock(*slot) != wanted) {
      ++counts.routesStale;
      continue;
    }
    verifyLpmRoute(prefix);
  }
}

U32 LpmSm::numSharedNhiBlocks() const {
  U32 shared = 0;
  for (const auto& [base, set] : nhiBaseIdxToSubTrie_) shared += set->subTries() > 1;
  return shared;
}

void LpmSm::showSoftwareSummary(int fd) const {
  dprintf(fd, "\nIPv%c Lpm Summary\n", config_->addressFamily() == AddressFamily::ipv6 ? '6' : '4');
  dprintf(fd, " Hash shuffling enabled: %s\n", hashShufflingEnabled_ ? "True" : "False");
  if (hashShufflingEnabled_) {
    dprintf(fd, "  attempts: %llu, success: %llu\n", (unsigned long long)numHashShufflingAttempt_,
            (unsigned long long)numHashShufflingSuccess_);
  }
  dprintf(fd, " Nexthop index block overflows: %llu, defrags: %llu, shared: %u\n", (unsigned long long)numNhiOverflow_,
          (unsigned long long)numNhiBlockDefrag_, numSharedNhiBlocks());
}

void LpmSm::printPrefixTables(int fd) const {
  for (const auto& [id, table] : prefixTable_) {
    U32 totalPrefixes = 0;
    for (const auto& [idx, subTrie] : table->subTrieMap()) totalPrefixes += subTrie->numPrefixes();
    dprintf(fd, "{");
    dprintf(fd, "'prefixTblId':%u,", id.value());
    dprintf(fd, "'prefixTblTread':%u,", table->tableConfig()->tread());
    dprintf(fd, "'subTries':%u,", table->subTries());
    dprintf(fd, "'totalPrefixes':%u,", totalPrefixes);
    dprintf(fd, "'subTriesCapacity':%u,", table->tableConfig()->depth());
    dprintf(fd, "},");
  }
}

void LpmSm::printNhiTiles(int fd) const {
  for (const auto& [tile, allocator] : nhiAllocator_) {
    dprintf(fd, "{");
    dprintf(fd, "'tileId':%u,", tile.value());
    dprintf(fd, "'freeEntries':%u,", allocator->freeEntries());
    dprintf(fd, "'entriesCapacity':%u,", allocator->entriesCapacity());
    dprintf(fd, "},");
  }
}

void LpmSm::printSubTrieInfo(int fd) const {
  static const char* const kModes[] = {"'mode':'sparse',", "'mode':'bitmap',", "'mode':'cpe',"};
  for (const auto& [id, table] : prefixTable_) {
    dprintf(fd, "{");
    dprintf(fd, "'prefixTblId':%u,", id.value());
    dprintf(fd, "'prefixTblTread':%u,", table->tableConfig()->tread());
    dprintf(fd, "'subTries':[");
    for (const auto& [idx, st] : table->subTrieMap()) {
      dprintf(fd, "{");
      dprintf(fd, "'index':%u,", idx.value());
      dprintf(fd, "'branchLen':%u,", st->branchLen());
      dprintf(fd, "'stride':%u,", st->stride());
      dprintf(fd, "%s", st->mode() <= modeCpe ? kModes[st->mode()] : "'mode':'unknown',");
      dprintf(fd, "'maxPrefixSlot':%u,", st->maxPrefixSlot());
      dprintf(fd, "'nhiTile':%u,", st->nhiBaseIdx().tile().value());
      dprintf(fd, "'nhiOffset':%u,", st->nhiBaseIdx().offset());
      dprintf(fd, "'nhiBlkSize':%u,", st->nhiBlkSize());
      dprintf(fd, "'prefixes':[");
      for (U32 slot = 0; slot < st->slots().size(); ++slot) {
        const Ptr<LpmPrefix>& p = st->slots()[slot];
        if (!p) continue;
        const bool v6 = p->addressFamily() == AddressFamily::ipv6;
        const U32 vrf = v6 ? static_cast<const LpmPrefixV6&>(*p).vrfAndIp6Prefix().vrf
                           : static_cast<const LpmPrefixV4&>(*p).vrfAndPrefix().vrf;
        const std::string text = v6 ? static_cast<const LpmPrefixV6&>(*p).vrfAndIp6Prefix().prefix.str()
                                    : static_cast<const LpmPrefixV4&>(*p).vrfAndPrefix().prefix.str();
        dprintf(fd, "{");
        dprintf(fd, "'slot':%u,", slot);
        dprintf(fd, "'lpmPrefix': {");
        dprintf(fd, "'vrf':%d,", static_cast<int>(vrf));
        dprintf(fd, "'prefix':'%s',", text.c_str());
        dprintf(fd, "},");
        dprintf(fd, "'nhBlock':'%s',", st->nhiInfoKey().slotToNextHopBlock(static_cast<U8>(slot)).str().c_str());
        dprintf(fd, "},");
      }
      dprintf(fd, "],");
      dprintf(fd, "},");
    }
    dprintf(fd, "],");
    dprintf(fd, "},");
  }
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
