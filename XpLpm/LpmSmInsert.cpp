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

// Which tables a walk over prefixTableSortedByTread tries: the first every candidate
// table of smaller tread, the second only the tables whose tread is the prefix's length.
struct LpmSm::TablePass {
  bool second;
  U8 len;
  U8 least;
  bool candidateFound = false;   // prefixTableFound
  bool equalTreadFound = false;  // prefixEqTreadFound
};

bool LpmSm::tableTried(const Ptr<PrefixTable>& table, U32 i, TablePass& walk) const {
  const U8 t = treadOf(table);
  if (walk.second) {
    XP_TRACE(3, "LpmSm::insertPrefix  i " << i);
    return t == walk.len;
  }
  XP_TRACE(3, "LpmSm::insertPrefix  i " << i << " prefixTable " << table->str());
  if (t < walk.least) {
    XP_TRACE(3, "LpmSm::insertPrefix skip - tread lesser than least tread " << +t << ", " << +walk.least);
    return false;
  }
  if (t > walk.len) {
    XP_TRACE(3, "LpmSm::insertPrefix skip - tread larger than prefix len " << +t << ", " << +walk.len);
    return false;
  }
  walk.candidateFound = true;
  if (t == walk.len) {
    // Kept for the second pass: a prefix goes where its length is the tread only
    // when every shorter-tread table has refused it.
    XP_TRACE(3, "LpmSm::insertPrefix skip - tread is equal to prefix len " << +walk.len << ", " << +t);
    walk.equalTreadFound = true;
    return false;
  }
  return true;
}

// Tries the tables of one pass in descending tread until one takes the prefix; a table that
// answers retry (a colliding sub-trie was moved away) is tried again.
RouteReturnCode LpmSm::insertPrefixPass(const Ptr<LpmPrefix>& prefix, TablePass& walk) {
  RouteReturnCode ret = fail;
  const U32 numTables = config_->prefixTableSortedByTreads();
  for (U32 i = 0; i < numTables;) {
    Ptr<PrefixTable> table = config_->prefixTableSortedByTread(static_cast<U8>(i));
    if (!table) XP_FAIL("prefixTable", i);
    if (!tableTried(table, i, walk)) {
      ++i;
      continue;
    }
    ret = insertPrefixInternal(prefix, table);
    if (!walk.second) XP_TRACE(3, "LpmSm::insertPrefix ret " << ret);
    if (ret == pass) break;
    XP_TRACE(3, "LpmSm::insertPrefix failing for table " << table->str());
    if (ret != retry) ++i;
  }
  return ret;
}

void LpmSm::insertPrefix(const Ptr<LpmPrefix>& prefix) {
  XP_TRACE(3, "LpmSm::insertPrefix lpmPrefix " << *prefix);
  TablePass walk{false, prefix->len(), config_->leastTreadForPrefixLen(prefix->len())};
  XP_TRACE(3, "LpmSm::insertPrefix least tread " << +walk.least);
  RouteReturnCode ret = insertPrefixPass(prefix, walk);
  XP_TRACE(3, "LpmSm::insertPrefix prefixTableFound " << walk.candidateFound << " prefixEqTreadFound "
                                                      << walk.equalTreadFound);
  if (!walk.candidateFound && !walk.equalTreadFound) XP_FAIL("prefixTableFound", *prefix);
  if (ret != pass && walk.equalTreadFound) {
    walk.second = true;
    ret = insertPrefixPass(prefix, walk);
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

// The shape a sub-trie takes to hold one more prefix.
struct LpmSm::SubTrieShape {
  SubTrieBranch branch;
  U8 branchLen = 0;
  U8 stride = 0;
  U8 numPrefixes = 0;
  bool inPlace = true;
};

// The branch the prefix shares with the sub-trie; false when they differ within the table's tread.
bool LpmSm::commonBranch(const Ptr<LpmPrefix>& prefix, const SubTrie& subTrie, SubTrieShape& shape) const {
  const U8 m = std::min(prefix->len(), subTrie.branchLen());
  shape.branch = subTrie.branch();
  findCommonBranch(shape.branch, prefix->branch(m), m, shape.branchLen);
  if (shape.branchLen >= subTrie.table()->tableConfig()->tread()) return true;
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie hash collision ");
  return false;
}

// Widens the stride over the new branch, and when that does not fit, rebuilds the shape from
// every prefix: the tightest common branch, pushed down as far as the stride that covers the
// longest prefix allows, with the slots compacted. False when even that does not fit.
bool LpmSm::shapeFor(const Ptr<LpmPrefix>& prefix, const SubTrie& subTrie, SubTrieShape& shape) const {
  const U8 len = prefix->len();
  const U8 tread = subTrie.table()->tableConfig()->tread();
  // Both the deepest level already held and the new prefix's level, seen from the new branch.
  const int wanted = std::max(subTrie.branchLen() + subTrie.stride() - shape.branchLen, len - shape.branchLen + 1);
  shape.stride = getNextAvailableStride(config_, static_cast<U8>(std::min(wanted, 255)));
  shape.numPrefixes = static_cast<U8>(subTrie.maxPrefixSlot() + 1);
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie newNumPrefixes " << +shape.numPrefixes);
  if (subTrie.fit(shape.branchLen, shape.stride, shape.numPrefixes, subTrie.mode())) return true;

  shape.branch = prefix->branch(len);
  shape.branchLen = len;
  U8 maxPrefixLen = len;
  for (const Ptr<LpmPrefix>& q : subTrie.slots()) {
    if (!q) continue;
    const U8 qLen = q->len();
    findCommonBranch(shape.branch, q->branch(qLen), std::min(shape.branchLen, qLen), shape.branchLen);
    maxPrefixLen = std::max(maxPrefixLen, qLen);
  }
  XP_ASSERT(maxPrefixLen >= shape.branchLen);
  shape.stride = getNextAvailableStride(config_, static_cast<U8>(maxPrefixLen - shape.branchLen + 1));
  const int pushed = shape.stride <= maxPrefixLen ? maxPrefixLen + 1 - shape.stride : 0;
  if (pushed >= tread) shape.branchLen = static_cast<U8>(pushed);
  if (subTrie.numPrefixes() < subTrie.maxPrefixSlot()) {
    shape.numPrefixes = static_cast<U8>(subTrie.numPrefixes() + 1);
    shape.inPlace = false;
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie newNumPrefixes " << +shape.numPrefixes);
  }
  if (subTrie.fit(shape.branchLen, shape.stride, shape.numPrefixes, subTrie.mode())) return true;
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie full prefix table ");
  return false;
}

// Whether the shape's NHI needs can be met; decides whether the sub-trie keeps its block.
RouteReturnCode LpmSm::nhiFor(const SubTrie& subTrie, SubTrieShape& shape) {
  if (shape.stride != subTrie.stride() || shape.branchLen != subTrie.branchLen()) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie disable inplace update - changed stride or branchlen ");
    shape.inPlace = false;
  }
  if (shape.numPrefixes > config_->nhiPairPerEntry() && !config_->supportMultiNhiEntriesPerSubTrie()) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie exceeded NHI entry's capacity ");
    return nhiCapacityExceeded;
  }
  if (subTrie.nhiBaseIdx() == NhiTableIdx() || nhiBlockSize(shape.numPrefixes) > subTrie.nhiBlkSize()) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie disable inplace update - no nhi or more nhi rqd ");
    shape.inPlace = false;
  }
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie update inPlace " << shape.inPlace << " newStride " << +shape.stride
                                                             << " newBranchLen " << +shape.branchLen);
  if (shape.inPlace && !(subTrie.stride() == shape.stride && subTrie.branchLen() == shape.branchLen)) {
    XP_FAIL("subTrie->stride() == newStride && subTrie->branchLen() == newBranchLen",
            " newStride " << +shape.stride << " newBranchLen " << +shape.branchLen);
  }
  // Asked also for an in-place insertion, which keeps its block: an insertion is
  // refused whenever no fresh block of the needed size could be had.
  if (!isNhiBlockAvailable(shape.numPrefixes)) {
    XP_TRACE(3, "LpmSm::insertPrefixToSubTrie full NHI table ");
    return nhiTableFull;
  }
  return pass;
}

RouteReturnCode LpmSm::insertPrefixToSubTrie(const Ptr<LpmPrefix>& prefix, const Ptr<SubTrie>& subTrie) {
  XP_TRACE(3, "LpmSm::insertPrefixToSubTrie lpmPrefix " << *prefix << " subTrie " << *subTrie);
  SubTrieShape shape;
  if (!commonBranch(prefix, *subTrie, shape)) return hashCollision;
  if (!shapeFor(prefix, *subTrie, shape)) return full;
  if (const RouteReturnCode ret = nhiFor(*subTrie, shape); ret != pass) return ret;

  // Nothing has changed up to here: every refusal leaves the sub-trie as it was.
  subTrie->branchIs(shape.branch);
  subTrie->branchLenIs(shape.branchLen);
  subTrie->strideIs(shape.stride);
  subTrie->nhiBlkSizeIs(nhiBlockSize(shape.numPrefixes));
  if (!shape.inPlace) subTrie->compactPrefixes();
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
