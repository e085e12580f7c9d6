// Restart recovery: the state machine's model rebuilt from the chip's tables.
#include "XpLpm/RestartHelperBase.h"

#include <bit>
#include <cstdio>

#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Exception.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

namespace {

// SDK codes a recovery read or write may return and still count as done: besides success, the
// SDK flags a record whose contents it finds suspect (invalid data) and an argument it would
// have clamped (invalid argument) while still transferring the record. The recovery judges the
// contents itself, so both are taken as read.
bool accepted(int code) {
  return code == XpXdk::XP_NO_ERR || code == XpXdk::XP_ERR_INVALID_DATA || code == XpXdk::XP_ERR_INVALID_ARG;
}

// `line` is the failed call's, so that the report points at it rather than at this function.
[[noreturn]] void apiError(unsigned line, const char* call, int code) {
  std::fprintf(stderr, "%s:%u: %s API ERROR %d\n", __FILE__, line, call, code);
  std::fflush(stderr);
  XP_ASSERT_TEXT(false, "!(true)");
  std::abort();
}

}  // namespace

// The machine is held by a plain pointer: it owns this helper, and calls it
// from its own constructor, before any Ptr to it exists.
RestartHelperBase::RestartHelperBase(const Ptr<ConfigBase>& config, const Ptr<Status>& lpmStatus)
    : config_(config), lpmStatus_(lpmStatus) {}

Ptr<LpmPrefix> RestartHelperBase::createPrefix(const SubTrieBranch&, U8, const U64&, const U64&, U8) {
  throw NoImplementationException("createPrefix must be implemented in the derived class");
}

void RestartHelperBase::deletePrefix(const Ptr<LpmPrefix>&) {
  throw NoImplementationException("deletePrefix must be implemented in the derived class");
}

SubTrieBranch entryBranch(const XpXdk::xpLpmPrefixEntry& e) {
  // Byte k of the model's branch is made of entry bytes m - 1 - k (its high part) and m - 2 - k,
  // shifted right by the bits the last byte leaves unused.
  SubTrieBranch branch;
  const U32 m = (e.branchLen + 7u) / 8u;
  const U32 shift = e.branchLen % 8 ? e.branchLen % 8 : 8;
  for (U32 k = 0; k < m && k < SubTrieBranch::kBytes; ++k) {
    const U32 hi = e.branch[m - 1 - k];
    const U32 lo = k == m - 1 ? 0 : e.branch[m - 2 - k];
    branch.u8Is(k, static_cast<U8>(((hi << 8) | lo) >> shift));
  }
  return branch;
}

int RestartHelperBase::doRestart(bool removeStale, LpmSm* lpmSm) {
  XP_TRACE(5, "RestartHelperBase::doRestart");
  lpmSmIs(lpmSm);
  counts_ = Counts();
  invalidEntries_.clear();
  for (const auto& tableEntry : config_->prefixTableConfigMap()) {
    const PrefixTableId tableId = tableEntry.first;  // a named copy: the trace lambdas capture it
    const Ptr<PrefixTableConfig>& tableConfig = tableEntry.second;
    Ptr<PrefixTable> table = lpmSm_->prefixTableIs(tableId, tableConfig);
    const bool tracing = Trace::on(8);
    for (U32 offset = 0; offset < tableConfig->depth(); ++offset) {
      if (tracing) XP_TRACE_ON(8, "RestartHelperBase::doRestart reading prefix table entry " << offset << " in table " << tableId);
      XpXdk::xpLpmPrefixEntry entry;
      const int ret = xdkLpmMgr_->readPrefixEntry(0, tableId.value(), offset, &entry, 0);
      if (ret == XpXdk::XP_ERR_OUT_OF_RANGE) continue;
      XP_ASSERT_TEXT(ret == XpXdk::XP_NO_ERR, "ret == XP_NO_ERR");
      ++counts_.entriesRead;
      if (entry.branchLen == 0 && entry.stride == 0) {
        XP_TRACE(5, "RestartHelperBase::doRestart empty prefix entry");
        ++counts_.entriesEmpty;
        continue;
      }
      SubTrieBranch branch;
      std::vector<Place> places;
      std::string reason = parsePrefixTableEntry(entry, table, offset, branch, places);
      bool any = false;
      for (const Place& p : places) any = any || p.prefix;
      NhiInfoKey nhiInfoKey;
      if (reason.empty() && any) reason = readNhiBlock(entry, places, nhiInfoKey);
      XP_TRACE(5, "RestartHelperBase::parsePrefixTableEntry valid " << reason.empty() << " reason " << reason);
      if (!reason.empty()) {
        ++counts_.entriesInvalid;
        invalidEntries_.push_back(InvalidEntry{tableId, offset, reason});
        dropInvalid(removeStale, tableId.value(), offset, places);
        continue;
      }
      if (!any) {
        XP_TRACE(5, "RestartHelperBase::doRestart no prefix is allocated");
        continue;
      }
      XP_TRACE(5, "RestartHelperBase::doRestart valid prefix entry at offset " << offset << " in table " << tableId);
      rebuild(entry, table, offset, branch, places, nhiInfoKey);
    }
  }
  return 0;
}

std::string RestartHelperBase::parsePrefixTableEntry(const XpXdk::xpLpmPrefixEntry& e, const Ptr<PrefixTable>& table,
                                                     U32 offset, SubTrieBranch& branch, std::vector<Place>& places) {
  XP_ASSERT_TEXT(places.size() == 0, "prefixes.size() == 0");
  if (std::string why = checkEntryShape(e, table); !why.empty()) return why;
  branch = entryBranch(e);
  XP_TRACE(5, "RestartHelperBase::parsePrefixTableEntry offset " << offset << " branch 0: " << branch.word0()
                                                                 << " 1: " << branch.word1() << " 2: "
                                                                 << branch.word2() << " 3: " << branch.word3()
                                                                 << " 4: " << branch.word4() << " tableId "
                                                                 << table->tableId());

  // At most as many slots as the entry was written with, within the entry's own limits.
  const U32 entrySize = table->tableConfig()->entrySize();
  const U32 limit = std::min<U32>({(entrySize - e.branchLen) / e.stride, XpXdk::xpLpmPrefixEntry::kMaxSlots,
                                   U32(e.numSlots)});
  for (U32 s = 0; s < limit; ++s) {
    if (std::string why = parseSlot(e, e.slots[s], branch, table, offset, places); !why.empty()) return why;
  }

  if (e.nhiTile >= config_->nhiAvailableTiles()) return "NHI tile doesn't exist";
  XP_ASSERT_TEXT(lpmSm_->nhiAllocator(NhiTileIdx(e.nhiTile)), "nhiAllocator");
  const U32 blockSize = lpmSm_->nhiBlockSize(static_cast<U8>(places.size()));
  if (e.nhiOffset >= config_->nhiEntriesPerTile() || U32(e.nhiOffset) + blockSize > config_->nhiEntriesPerTile()) {
    XP_TRACE(5, "RestartHelperBase::parsePrefixTableEntry nhiBlkSize " << blockSize << " nhiOffset " << e.nhiOffset
                                                                       << " nhiEntriesPerTile "
                                                                       << config_->nhiEntriesPerTile());
    return "NHI block out of bound";
  }
  return {};
}

std::string RestartHelperBase::checkEntryShape(const XpXdk::xpLpmPrefixEntry& e, const Ptr<PrefixTable>& table) const {
  using Entry = XpXdk::xpLpmPrefixEntry;
  const U8 wantKeySize = config_->keyType() == keyShort48b ? Entry::kKeySizeShort : Entry::kKeySizeLong;
  if (e.keySize != wantKeySize) return "wrong keySize";
  // Every entry this system writes is sparse; the model rebuilds no other mode.
  if (e.mode != Entry::kModeSparse) return "wrong mode";
  if (U32(e.branchLen) + e.stride > table->tableConfig()->entrySize()) return "branch length + stride too large";
  if (e.stride == 0) return "stride is zero";
  // Our writes never hold a branch longer than the key, nor one shorter than the table's tread.
  if (e.branchLen > config_->keyLength()) return "branch length beyond the key";
  if (e.branchLen < table->tableConfig()->tread()) return "branch shorter than the table's tread";
  return {};
}

std::string RestartHelperBase::parseSlot(const XpXdk::xpLpmPrefixEntry& e, const XpXdk::xpLpmLeaf& leaf,
                                         const SubTrieBranch& branch, const Ptr<PrefixTable>& table, U32 offset,
                                         std::vector<Place>& places) {
  if (leaf.empty()) {
    places.push_back(Place{});
    return {};
  }
  // A leaf whose prefix would not fit the entry's stride or the key cannot come from a write of ours.
  const U32 bits = leaf.leafValHigh ? 127 - static_cast<U32>(std::countl_zero(leaf.leafValHigh))
                                    : 63 - static_cast<U32>(std::countl_zero(leaf.leafVal));
  if (bits >= e.stride || e.branchLen + bits > config_->keyLength()) return "leaf longer than the stride";
  // A corrupt entry can spell a key that is no prefix at all; that is the entry's fault, not ours.
  Ptr<LpmPrefix> prefix;
  try {
    prefix = createPrefix(branch, e.branchLen, leaf.leafVal, leaf.leafValHigh, e.stride);
  } catch (const RangeException& ex) {
    return std::string("slot does not hold a prefix: ") + ex.what();
  }
  if (!prefix) return "slot does not hold a prefix";
  XP_TRACE(5, "RestartHelperBase::parsePrefixTableEntry found prefix " << *prefix);
  places.push_back(Place{prefix});
  if (config_->request(prefix) != NextHopBlock()) return "duplicate prefixes";
  for (std::size_t q = 0; q + 1 < places.size(); ++q)
    if (places[q].prefix && LpmPrefixEq()(places[q].prefix, prefix)) return "duplicate prefixes";
  if (table->positionOf(prefix) != PrefixTableIdx(offset)) return "prefix hash does not match with offset";
  return {};
}

void RestartHelperBase::dropInvalid(bool removeStale, U32 tableId, U32 offset, const std::vector<Place>& places) {
  for (const Place& p : places)
    if (p.prefix) deletePrefix(p.prefix);
  XP_ASSERT_TEXT(config_->restartMode() != modeRestartTest, "0 && \"Recovering prefix entry failed\"");
  if (!removeStale) return;
  XP_TRACE(5, "RestartHelperBase::doRestart clear prefix entry");
  XpXdk::xpLpmPrefixEntry xpPrefixEntry;
  const int ret = xdkLpmMgr_->writePrefixEntry(0, tableId, offset, &xpPrefixEntry);
  if (!accepted(ret))
    apiError(__LINE__, "((xdkLpmMgr()->writePrefixEntry( 0, tableId.value(), offset, &xpPrefixEntry )))", ret);
  ++counts_.entriesCleared;
}

// The block must be one this machine can hold as it was held before: its entries free, or an
// already recovered block of exactly that size and contents (a shared block). Anything else would
// resize or overlap another block, or give one contents two records.
std::string RestartHelperBase::readNhiBlock(const XpXdk::xpLpmPrefixEntry& e, const std::vector<Place>& places,
                                            NhiInfoKey& nhiInfoKey) {
  const U8 n = static_cast<U8>(places.size());
  const NhiTableIdx nhiBaseIdx(NhiTileIdx(e.nhiTile), e.nhiOffset);
  if (!lpmSm_->nhiAllocator(nhiBaseIdx.tile())->claimable(e.nhiOffset, lpmSm_->nhiBlockSize(n)))
    return "NHI block overlaps another block";
  const U32 pairs = config_->nhiPairPerEntry();
  for (U32 i = 0; i * pairs < n; ++i) {
    XpXdk::xpLpmNhiEntry xpNhiEntry;
    const int ret = xdkLpmMgr_->readNhiEntry(0, nhiBaseIdx.tile().value(), nhiBaseIdx.offset() + i, &xpNhiEntry, 0);
    if (!accepted(ret)) {
      apiError(__LINE__,
               "((xdkLpmMgr()->readNhiEntry( 0, nhiBaseIdx.tile().value(), nhiBaseIdx.offset() + i, &xpNhiEntry, 0 )))",
               ret);
    }
    for (U32 j = 0; j < pairs && i * pairs + j < n; ++j) {
      const U8 s = static_cast<U8>(i * pairs + j);
      if (!places[s].prefix) continue;
      const NextHopBlock block(xpNhiEntry.pair[j].base, xpNhiEntry.pair[j].size);
      // An occupied slot is only ever written with the block its route was requested with.
      if (block == NextHopBlock()) return "NHI pair of an occupied slot is empty";
      nhiInfoKey.newSlotToNextHopBlock(s, block);
    }
  }
  if (const Ptr<NhiInfo> info = lpmSm_->sharedNhi(nhiInfoKey); info && info->nhiBaseIdx() != nhiBaseIdx)
    return "NHI contents already recovered at another block";
  if (const Ptr<SubTrieSet> users = lpmSm_->nhiBaseIdxToSubTrie(nhiBaseIdx);
      users && users->subTries() > 0 && users->begin()->first->nhiInfoKey() != nhiInfoKey)
    return "NHI block shared with other contents";
  return {};
}

void RestartHelperBase::rebuild(const XpXdk::xpLpmPrefixEntry& e, const Ptr<PrefixTable>& table, U32 offset,
                                const SubTrieBranch& branch, const std::vector<Place>& places,
                                const NhiInfoKey& nhiInfoKey) {
  const U8 n = static_cast<U8>(places.size());
  Ptr<SubTrie> subTrie = subTrieFactory(PrefixTableIdx(offset), branch, e.branchLen, e.stride, modeSparse, table.ptr());
  table->subTrieIs(PrefixTableIdx(offset), subTrie);
  const NhiTableIdx nhiBaseIdx(NhiTileIdx(e.nhiTile), e.nhiOffset);
  subTrie->nhiBaseIdxIs(nhiBaseIdx);
  subTrie->nhiBlkSizeIs(lpmSm_->nhiBlockSize(n));
  subTrie->maxPrefixSlotIs(n);
  subTrie->allocatePrefixBitmap();
  for (U8 s = 0; s < n; ++s) {
    if (!places[s].prefix) continue;
    subTrie->prefixIs(s, places[s].prefix);
    subTrie->prefixToSlotIs(places[s].prefix, s);
    subTrie->prefixBitmap()->setBit(s);
  }
  XP_ASSERT_TEXT_V(subTrie->fit(subTrie->branchLen(), subTrie->stride(), static_cast<U8>(subTrie->prefixs()),
                                subTrie->mode()),
                   "subTrie->fit( subTrie->branchLen(), subTrie->stride(), subTrie->prefixs(), subTrie->mode() )",
                   " subtrie " << *subTrie);
  XP_TRACE(5, "RestartHelperBase::doRestart created subTrie " << *subTrie);

  Ptr<Blk> blk = lpmSm_->nhiAllocator(nhiBaseIdx.tile())->realloc(e.nhiOffset, subTrie->nhiBlkSize());
  XP_ASSERT_V(blk, " subtrie " << *subTrie);

  for (U8 s = 0; s < n; ++s) {
    const Ptr<LpmPrefix>& prefix = places[s].prefix;
    if (!prefix) continue;
    const NextHopBlock block = nhiInfoKey.slotToNextHopBlock(s);
    config_->requestIs(prefix, block);
    lpmStatus_->prefixToNextHopBlockIs(prefix, block);
    XP_TRACE(5, "RestartHelperBase::doRestart recovered prefix " << *prefix << " nexthop block " << block << " slot "
                                                                 << +s);
  }
  Ptr<NhiInfo> nhiInfo = lpmSm_->allocateNhiInfo(subTrie, nhiInfoKey, nhiBaseIdx);
  if (!nhiInfo) XP_FAIL("nhiInfo", " subtrie " << *subTrie);
  subTrie->nhiInfoKeyIs(nhiInfoKey);
  lpmSm_->nhiBaseIdxToBlkIs(nhiBaseIdx, blk);
  for (const Place& p : places) {
    if (!p.prefix) continue;
    XP_TRACE(5, "RestartHelperBase::doRestart prefix " << *p.prefix << " subtrie " << *subTrie);
    lpmSm_->prefixToSubTrieIs(p.prefix, subTrie);
    ++counts_.routes;
  }
  ++counts_.subTries;
}

}  // namespace XpLpm
}  // namespace XpLib
