// Prefix insertion: choice of prefix table, joining or creating the sub-trie at
// the prefix's hash position, and widening a sub-trie's branch or stride.
#include <algorithm>

#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

namespace {
U8 treadOf(const Ptr<PrefixTable>& table) { return table->tableConfig()->tread(); }
}  // namespace

void findCommonBranch(SubTrieBranch& branch, const SubTrieBranch& other, U8 maxLen, U8& newLen) {
  const U32 bytes = (maxLen + 7u) / 8u;
  for (U32 k = 0; k < bytes; ++k) {
    const U8 a = branch.byteAt(k), b = other.byteAt(k);
    if (a == b) continue;
    const U32 equalBits = static_cast<U32>(std::countl_zero(static_cast<U8>(a ^ b)));
    if (8 * k + equalBits < maxLen) {
      newLen = static_cast<U8>(8 * k + equalBits);
      // Only this byte is trimmed; the bytes after it keep what they held.
      branch.u8Is(k, static_cast<U8>(equalBits == 0 ? 0 : a & (0xFF << (8 - equalBits))));
      return;
    }
    break;
  }
  newLen = maxLen;
}

U8 getNextAvailableStride(const Ptr<ConfigBase>& config, U8 wanted) {
  const auto& strides = config->availableStrideMap();
  for (auto it = strides.lower_bound(wanted); it != strides.end(); ++it)
    if (it->second) return it->first;
  return 255;
}

void LpmSm::insertPrefix(const Ptr<LpmPrefix>& prefix) {
  XP_TRACE(3, "LpmSm::insertPrefix lpmPrefix " << *prefix);
  const U8 len = prefix->len();
  const U8 least = config_->leastTreadForPrefixLen(len);
  XP_TRACE(3, "LpmSm::insertPrefix least tread " << +least);

  RouteReturnCode ret = fail;
  bool prefixTableFound = false;
  bool prefixEqTreadFound = false;
  const U32 numTables = config_->prefixTableSortedByTreads();
  for (U32 i = 0; i < numTables;) {
    Ptr<PrefixTable> table = config_->prefixTableSortedByTread(static_cast<U8>(i));
    if (!table) XP_FAIL("prefixTable", i);
    const U8 t = treadOf(table);
    XP_TRACE(3, "LpmSm::insertPrefix  i " << i << " prefixTable " << table->str());
    if (t < least) {
      XP_TRACE(3, "LpmSm::insertPrefix skip - tread lesser than least tread " << +t << ", " << +least);
      ++i;
      continue;
    }
    if (t > len) {
      XP_TRACE(3, "LpmSm::insertPrefix skip - tread larger than prefix len " << +t << ", " << +len);
      ++i;
      continue;
    }
    prefixTableFound = true;
    if (t == len) {
      // Kept for the second pass: a prefix goes where its length is the tread only
      // when every shorter-tread table has refused it.
      XP_TRACE(3, "LpmSm::insertPrefix skip - tread is equal to prefix len " << +len << ", " << +t);
      prefixEqTreadFound = true;
      ++i;
      continue;
    }
    ret = insertPrefixInternal(prefix, table);
    XP_TRACE(3, "LpmSm::insertPrefix ret " << ret);
    if (ret == pass) break;
    XP_TRACE(3, "LpmSm::insertPrefix failing for table " << table->str());
    if (ret != retry) ++i;
  }
  XP_TRACE(3, "LpmSm::insertPrefix prefixTableFound " << prefixTableFound << " prefixEqTreadFound "
                                                      << prefixEqTreadFound);
  if (!prefixTableFound && !prefixEqTreadFound) XP_FAIL("prefixTableFound", *prefix);

  if (ret != pass && prefixEqTreadFound) {
    for (U32 i = 0; i < numTables;) {
      Ptr<PrefixTable> table = config_->prefixTableSortedByTread(static_cast<U8>(i));
      if (!table) XP_FAIL("prefixTable", i);
      XP_TRACE(3, "LpmSm::insertPrefix  i " << i);
      if (treadOf(table) != len) {
        ++i;
        continue;
      }
      ret = insertPrefixInternal(prefix, table);
      if (ret == pass) break;
      XP_TRACE(3, "LpmSm::insertPrefix failing for table " << table->str());
      if (ret != retry) ++i;
    }
  }

  XP_TRACE(3, "LpmSm::insertPrefix insert - ret " << ret);
  lastInsertReturnCode_ = ret;
  if (ret == pass) {
    status_->prefixToNextHopBlockIs(prefix, requestedBlock(prefix));
  } else {
    XP_TRACE(3, "LpmSm::insertPrefix insert - fail ");
  }
  if (Trace::on(9)) dumpPrefixTables();
}

RouteReturnCode LpmSm::insertPrefixInternal(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& table) {
  XP_TRACE(3, "LpmSm::insertPrefixInternal lpmPrefix " << *prefix << " prefixTable " << table->str());
  RouteReturnCode ret = insertPrefixToTable(prefix, table);
  if (ret == pass) return pass;
  if (ret == hashCollision && hashShufflingEnabled_) {
    numHashShufflingAttemptInc(1);
    XP_TRACE(3, "LpmSm::insertPrefixInternal numHashShufflingAttempt " << numHashShufflingAttempt_);
    RouteReturnCode moved = moveSubTrie(prefix, table);
    XP_TRACE(3, "LpmSm::insertPrefixInternal subTrieMoved " << moved);
    if (moved == pass) {
      numHashShufflingSuccessInc(1);
      ret = retry;
    }
    XP_TRACE(3, "LpmSm::insertPrefixInternal numHashShufflingSuccess " << numHashShufflingSuccess_);
    return ret;
  }
  // Deliberately falls through to creation, which answers subTriePresent for an
  // occupied position: the table simply counts as one more that refused.
  return createSubTrieWithPrefix(prefix, table);
}

RouteReturnCode LpmSm::insertPrefixToTable(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& table) {
  XP_TRACE(3, "LpmSm::insertPrefixToTable lpmPrefix " << *prefix << " prefixTable " << table->str());
  const PrefixTableIdx idx = table->positionOf(prefix);
  XP_TRACE(3, "LpmSm::insertPrefixToTable prefixTableIdx " << idx);
  if (const Ptr<SubTrie>* subTrie = table->subTrieMap().find(idx)) return insertPrefixToSubTrie(prefix, *subTrie);
  XP_TRACE(3, "LpmSm::insertPrefixToTable prefixTableIdx not in subTrie ");
  return subTrieNotPresent;
}

RouteReturnCode LpmSm::createSubTrieWithPrefix(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& table) {
  XP_TRACE(3, "LpmSm::createSubTrieWithPrefix lpmPrefix " << *prefix << " prefixTable " << table->str());
  const PrefixTableIdx idx = table->positionOf(prefix);
  XP_TRACE(3, "LpmSm::createSubTrieWithPrefix prefixTableIdx " << idx);
  if (table->subTrieMap().contains(idx)) {
    XP_TRACE(3, "LpmSm::createSubTrieWithPrefix prefixTableIdx in subTrie ");
    return subTriePresent;
  }
  const U8 t = treadOf(table), len = prefix->len();
  if (t > len) XP_FAIL("branchLen >= tread", +len << " tread " << +t);

  Ptr<SubTrie> subTrie = subTrieFactory(idx, prefix->branch(len), len, 0, modeSparse, table.ptr());
  table->subTrieIs(idx, subTrie);
  XP_TRACE(3, "LpmSm::createSubTrieWithPrefix creating subtrie " << *subTrie);
  RouteReturnCode ret = insertPrefixToSubTrie(prefix, subTrie);
  if (ret != pass) table->subTrieDel(idx);
  XP_TRACE(3, "LpmSm::createSubTrieWithPrefix ret " << ret);
  return ret;
}

RouteReturnCode LpmSm::insertPrefixToSubTrie(const Ptr<LpmPrefix>& prefix, const Ptr<SubTrie>& subTrie) {
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie lpmPrefix " << *prefix << " subTrie " << *subTrie);
  const U8 len = prefix->len();
  const U8 tread = subTrie->table()->tableConfig()->tread();

  const U8 m = std::min(len, subTrie->branchLen());
  SubTrieBranch newBranch = subTrie->branch();
  U8 newBranchLen = 0;
  findCommonBranch(newBranch, prefix->branch(m), m, newBranchLen);
  if (newBranchLen < tread) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie hash collision ");
    return hashCollision;
  }

  // Both the deepest level already held and the new prefix's level, seen from the new branch.
  const int wanted = std::max(subTrie->branchLen() + subTrie->stride() - newBranchLen, len - newBranchLen + 1);
  U8 newStride = getNextAvailableStride(config_, static_cast<U8>(std::min(wanted, 255)));
  U8 newNumPrefixes = static_cast<U8>(subTrie->maxPrefixSlot() + 1);
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie newNumPrefixes " << +newNumPrefixes);
  bool inPlace = true;

  if (!subTrie->fit(newBranchLen, newStride, newNumPrefixes, subTrie->mode())) {
    // Rebuild the shape from every prefix: the tightest common branch, then the
    // branch pushed down as far as the stride that covers the longest prefix allows.
    newBranch = prefix->branch(len);
    newBranchLen = len;
    U8 maxPrefixLen = len;
    for (const Ptr<LpmPrefix>& q : subTrie->slots()) {
      if (!q) continue;
      const U8 qLen = q->len();
      findCommonBranch(newBranch, q->branch(qLen), std::min(newBranchLen, qLen), newBranchLen);
      maxPrefixLen = std::max(maxPrefixLen, qLen);
    }
    XP_ASSERT(maxPrefixLen >= newBranchLen);
    newStride = getNextAvailableStride(config_, static_cast<U8>(maxPrefixLen - newBranchLen + 1));
    const int pushed = newStride <= maxPrefixLen ? maxPrefixLen + 1 - newStride : 0;
    if (pushed >= tread) newBranchLen = static_cast<U8>(pushed);
    if (subTrie->numPrefixes() < subTrie->maxPrefixSlot()) {
      newNumPrefixes = static_cast<U8>(subTrie->numPrefixes() + 1);
      inPlace = false;
      XP_TRACE(3, "LpmSm::insertPrefixToSubTrie newNumPrefixes " << +newNumPrefixes);
    }
    if (!subTrie->fit(newBranchLen, newStride, newNumPrefixes, subTrie->mode())) {
      XP_TRACE(3, "LpmSm::insertPrefixToSubTrie full prefix table ");
      return full;
    }
  }

  if (newStride != subTrie->stride() || newBranchLen != subTrie->branchLen()) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie disable inplace update - changed stride or branchlen ");
    inPlace = false;
  }
  if (newNumPrefixes > config_->nhiPairPerEntry() && !config_->supportMultiNhiEntriesPerSubTrie()) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie exceeded NHI entry's capacity ");
    return nhiCapacityExceeded;
  }
  if (subTrie->nhiBaseIdx() == NhiTableIdx() || nhiBlockSize(newNumPrefixes) > subTrie->nhiBlkSize()) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie disable inplace update - no nhi or more nhi rqd ");
    inPlace = false;
  }
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie update inPlace " << inPlace << " newStride " << +newStride
                                                             << " newBranchLen " << +newBranchLen);
  if (inPlace && !(subTrie->stride() == newStride && subTrie->branchLen() == newBranchLen)) {
    XP_FAIL("subTrie->stride() == newStride && subTrie->branchLen() == newBranchLen",
            " newStride " << +newStride << " newBranchLen " << +newBranchLen);
  }
  // Asked also for an in-place insertion, which keeps its block: an insertion is
  // refused whenever no fresh block of the needed size could be had.
  if (!isNhiBlockAvailable(newNumPrefixes)) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie full NHI table ");
    return nhiTableFull;
  }

  subTrie->branchIs(newBranch);
  subTrie->branchLenIs(newBranchLen);
  subTrie->strideIs(newStride);
  subTrie->nhiBlkSizeIs(nhiBlockSize(newNumPrefixes));
  if (!inPlace) subTrie->compactPrefixes();
  subTrie->addPrefix(prefix);

  if (!updateNhiInfoForSubTrie(subTrie)) {
    XP_FAIL("updateNhiInfoForSubTrie( subTrie )", " subtrie " << *subTrie << " lpmPrefix " << *prefix);
  }
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie inserted prefix in subtrie " << *subTrie);
  generateSubTrieWriteCmds(subTrie, true, true);
  prefixToSubTrieIs(prefix, subTrie);
  return pass;
}

}  // namespace XpLpm
}  // namespace XpLib
