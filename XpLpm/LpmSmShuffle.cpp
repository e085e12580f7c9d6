// Hash shuffling: a collision is resolved by moving the occupying sub-trie to
// another table of the same tread, where its own hash finds a free position.
#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

RouteReturnCode LpmSm::moveSubTrie(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& srcPrefixTable) {
  XP_TRACE(3, "LpmSm::moveSubTrie lpmPrefix " << *prefix << " prefixTable " << srcPrefixTable->str());
  const PrefixTableIdx srcPrefixTableIdx = srcPrefixTable->positionOf(prefix);
  XP_TRACE(3, "LpmSm::moveSubTrie srcPrefixTable " << srcPrefixTable->str() << " srcPrefixTableIdx "
                                                   << srcPrefixTableIdx);
  Ptr<SubTrie> srcSubTrie = srcPrefixTable->subTrie(srcPrefixTableIdx);
  if (!srcSubTrie) XP_FAIL("srcSubTrie", " lpmPrefix " << *prefix << " srcPrefixTable " << srcPrefixTable->str());

  // Every prefix of a sub-trie shares its first tread bits, so any one of them
  // gives the sub-trie's position in another table of that tread.
  Ptr<LpmPrefix> srcLpmPrefix;
  const Ptr<Bitmap>& bitmap = srcSubTrie->prefixBitmap();
  if (bitmap && bitmap->length() > 0) {
    U32 slot = bitmap->findSetBitInRange(0, bitmap->length() - 1, Bitmap::indexLowest);
    if (slot != Bitmap::npos) srcLpmPrefix = srcSubTrie->prefix(static_cast<U8>(slot));
  }
  if (!srcLpmPrefix) XP_FAIL("srcLpmPrefix", srcPrefixTable->str() << " subTrie " << *srcSubTrie);

  const U8 srcTread = srcPrefixTable->tableConfig()->tread();
  const U32 numTables = config_->prefixTableSortedByTreads();
  for (U32 i = 0; i < numTables; ++i) {
    Ptr<PrefixTable> dst = config_->prefixTableSortedByTread(static_cast<U8>(i));
    if (!dst) XP_FAIL("dstPrefixTable", " lpmPrefix " << *prefix << " i " << i);
    XP_TRACE(3, "LpmSm::moveSubTrie  i " << i << " dstPrefixTable " << dst->str());
    if (dst->tableId() == srcPrefixTable->tableId()) {
      XP_TRACE(3, "LpmSm::moveSubTrie skip - src and dst are same ");
      continue;
    }
    if (dst->tableConfig()->tread() != srcTread) {
      XP_TRACE(3, "LpmSm::moveSubTrie skip - tread are different ");
      continue;
    }
    const PrefixTableIdx dstPrefixTableIdx = dst->positionOf(srcLpmPrefix);
    XP_TRACE(3, "LpmSm::moveSubTrie dstPrefixTableIdx " << dstPrefixTableIdx);
    // The occupant of a destination is never moved in turn: shuffling is one level deep.
    if (const Ptr<SubTrie>* occupant = dst->subTrieMap().find(dstPrefixTableIdx)) {
      XP_TRACE(3, "LpmSm::moveSubTrie skip - subtrie already present " << **occupant);
      continue;
    }

    // The new entry is written before the old one is cleared, so the routes are
    // found in the hardware at every moment.
    XP_TRACE(3, "LpmSm::moveSubTrie insert to " << dst->str() << "/" << dstPrefixTableIdx);
    srcSubTrie->tableIs(dst.ptr());
    srcSubTrie->indexIs(dstPrefixTableIdx);
    dst->subTrieIs(dstPrefixTableIdx, srcSubTrie);
    generatePrefixTableWriteCmds(srcSubTrie);
    if (Trace::on(3)) {
      for (U32 s = 0; s < srcSubTrie->maxPrefixSlot(); ++s) {
        if (Ptr<LpmPrefix> p = srcSubTrie->prefix(static_cast<U8>(s)))
          XP_TRACE(3, "LpmSm::moveSubTrie   moving slot " << s << " lpmPrefix " << *p);
      }
    }
    XP_TRACE(3, "LpmSm::moveSubTrie moved  delete from " << srcPrefixTable->str() << "/" << srcPrefixTableIdx);
    generatePrefixTableIdxDeleteWriteCmd(srcPrefixTable, srcPrefixTableIdx, srcSubTrie);
    srcPrefixTable->subTrieDel(srcPrefixTableIdx);
    return pass;
  }
  return fail;
}

}  // namespace XpLpm
}  // namespace XpLib
