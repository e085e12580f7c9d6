// Write command generation: a sub-trie becomes NHI writes and a prefix-table
// write on the Status queue, in the order the hardware must see them.
#include <bit>
#include <utility>

#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

// NHI entries go first so the hardware never follows a prefix entry to NHI
// entries not yet written.
void LpmSm::generateSubTrieWriteCmds(const Ptr<SubTrie>& subTrie, bool generatePrefixCmds, bool generateNhiCmds) {
  XP_TRACE(4, "LpmSm::generateSubTrieWriteCmds subTrie " << *subTrie << " generatePrefixCmds " << generatePrefixCmds
                                                         << " generateNhiCmds " << generateNhiCmds);
  XP_ASSERT(generateNhiCmds || generatePrefixCmds);
  if (generateNhiCmds) generateNhiWriteCmds(subTrie);
  if (generatePrefixCmds) generatePrefixTableWriteCmds(subTrie);
}

// Slot s lives in NHI entry s / pairs, pair s % pairs; a block never spans tiles.
void LpmSm::generateNhiWriteCmds(const Ptr<SubTrie>& subTrie) {
  XP_TRACE(4, " LpmSm::generateNhiWriteCmds subTrie " << *subTrie);
  const U8 maxSlot = subTrie->maxPrefixSlot();
  const U8 blocks = nhiBlockSize(maxSlot);
  if (blocks == 0 || maxSlot == 0) return;
  const U32 pairs = config_->nhiPairPerEntry();
  const NhiTableIdx base = subTrie->nhiBaseIdx();
  const bool tracing = Trace::on(4);
  for (U32 j = 0; j < blocks; ++j) {
    NextHopBlockList list;
    for (U32 k = 0; k < pairs && j * pairs + k < maxSlot; ++k) {
      const U8 slot = static_cast<U8>(j * pairs + k);
      Ptr<LpmPrefix> p = subTrie->prefix(slot);
      if (p) {
        const NextHopBlock block = requestedBlock(p);
        if (tracing) {
          XP_TRACE_ON(4, "LpmSm::generateNhiWriteCmds  adding prefix " << *p << " nhblk " << block << " slot "
                                                                      << +slot << " j " << j);
        }
        list.nextHopBlockEnq(block);
      } else {
        if (tracing) {
          XP_TRACE_ON(4, "LpmSm::generateNhiWriteCmds  adding empty nhblk " << NextHopBlock() << " slot " << +slot
                                                                           << " j " << j);
        }
        list.nextHopBlockEnq(NextHopBlock());
      }
    }
    const NhiTableIdx index(base.tile(), static_cast<U16>(base.offset() + j));
    if (tracing) {
      XP_TRACE_ON(4, "LpmSm::generateNhiWriteCmds  enqueue nhi cmd nhiBaseIdx " << index << " nhBlockLists "
                                                                               << list.str());
    }
    enqueue(nhiCommandFactory(index, std::move(list)));
  }
}

void LpmSm::generatePrefixTableWriteCmds(const Ptr<SubTrie>& subTrie) {
  XP_TRACE(4, " LpmSm::generatePrefixTableWriteCmds subTrie " << *subTrie);
  LpmPrefixList list;
  const bool tracing = Trace::on(4);
  for (U32 slot = 0; slot < subTrie->maxPrefixSlot(); ++slot) {
    Ptr<LpmPrefix> p = subTrie->prefix(static_cast<U8>(slot));
    if (tracing && p) XP_TRACE_ON(4, "LpmSm::generatePrefixTableWriteCmds  adding prefix " << *p << " slot " << slot);
    if (tracing && !p) XP_TRACE_ON(4, "LpmSm::generatePrefixTableWriteCmds  adding empty prefix  slot " << slot);
    list.newPrefix(slot, p);
  }
  enqueue(prefixCommandFactory(subTrie->table()->tableId(), subTrie->index(), subTrie->branch(), subTrie->branchLen(),
                               subTrie->stride(), subTrie->mode(), std::move(list), subTrie->nhiBaseIdx()));
}

// A vacated entry is written with the sub-trie's shape and every slot empty.
void LpmSm::generatePrefixTableIdxDeleteWriteCmd(const Ptr<PrefixTable>& prefixTable, PrefixTableIdx idx,
                                                 const Ptr<SubTrie>& subTrie) {
  XP_TRACE(4, "LpmSm::generatePrefixTableIdxDeleteWriteCmd prefixTable " << prefixTable->str() << " idx " << idx
                                                                         << " subTrie " << *subTrie);
  LpmPrefixList list;
  for (U32 slot = 0; slot < subTrie->maxPrefixSlot(); ++slot) list.newPrefix(slot, Ptr<LpmPrefix>());
  enqueue(prefixCommandFactory(prefixTable->tableId(), idx, subTrie->branch(), subTrie->branchLen(), subTrie->stride(),
                               subTrie->mode(), std::move(list), subTrie->nhiBaseIdx()));
}

// The leaf holds the prefix bits below the branch behind a marker 1 bit, whose
// position is the number of those bits.
U8 combineBranchAndLeaf(SubTrieBranch& branch, U8 branchLen, U64& leafVal, U64& leafValHigh) {
  XP_ASSERT(leafVal || leafValHigh);
  unsigned p;
  if (leafValHigh) {
    p = 64 + 63 - static_cast<unsigned>(std::countl_zero(leafValHigh));
    leafValHigh &= ~(U64(1) << (p - 64));
  } else {
    p = 63 - static_cast<unsigned>(std::countl_zero(leafVal));
    leafVal &= ~(U64(1) << p);
  }
  // Walk the p bits from the most significant, placing each after the branch.
  for (unsigned i = 0; i < p; ++i) {
    const unsigned src = p - 1 - i;  // bit position in the 128-bit leaf
    const bool bit = src >= 64 ? (leafValHigh >> (src - 64)) & 1 : (leafVal >> src) & 1;
    if (!bit) continue;
    const unsigned keyBit = branchLen + i;  // 0 = most significant key bit
    const U32 chunk = keyBit / 64;
    branch.u64Is(chunk, branch.u64(chunk) | (U64(1) << (63 - keyBit % 64)));
  }
  return static_cast<U8>(branchLen + p);
}

}  // namespace XpLpm
}  // namespace XpLib
