// Tests of one sub-trie: the capacity rule per mode, the slot bitmap, slot reuse and compaction.
#include "XpLpm/SubTrie.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "XpLpm/PrefixTable.h"

namespace XpLib {
namespace XpLpm {
namespace {

Ptr<PrefixTable> tableOf(PrefixTableType type) {
  return prefixTableFactory(PrefixTableId(0), xpPrefixTableConfigFactory(PrefixTableId(0), type, 16, 24));
}

Ptr<LpmPrefix> pfx(const std::string& text) { return lpmPrefixV4Factory(VrfAndPrefix{0, *Prefix::parse(text)}); }

// A sparse sub-trie of branch length 24 and stride 8 in a narrow table: 88 - 24 = 64 bits, 8 slots.
struct NarrowSubTrie {
  Ptr<PrefixTable> table = tableOf(prefixTableNarrow128b);
  Ptr<SubTrie> st = subTrieFactory(PrefixTableIdx(5), SubTrieBranch(), 24, 8, modeSparse, table.ptr());
  NarrowSubTrie() { st->allocatePrefixBitmap(); }

  std::vector<bool> bits() const {
    std::vector<bool> v;
    for (U32 i = 0; i < st->prefixBitmap()->length(); ++i) v.push_back(st->prefixBitmap()->isSet(i));
    return v;
  }
};

TEST(SubTrieFitTest, CapacityPerModeAndWidth) {
  struct Case {
    PrefixTableType type;
    U8 branchLen, stride, numPrefixes;
    SubTrieMode mode;
    bool fits;
  } cases[] = {
      // sparse: stride x prefixes against entrySize - branchLen
      {prefixTableNarrow128b, 24, 8, 8, modeSparse, true},    // 64 <= 64
      {prefixTableNarrow128b, 24, 8, 9, modeSparse, false},   // 72 > 64
      {prefixTableNarrow128b, 88, 8, 0, modeSparse, true},    // nothing in no room
      {prefixTableNarrow128b, 88, 1, 1, modeSparse, false},
      {prefixTableWide256b, 0, 1, 216, modeSparse, true},     // the largest bitmap there is
      {prefixTableWide256b, 40, 16, 11, modeSparse, true},    // 176 <= 176
      {prefixTableWide256b, 40, 16, 12, modeSparse, false},
      // bitmap: 2^stride - 1, whatever the count
      {prefixTableWide256b, 40, 7, 200, modeBitmap, true},    // 127 <= 176
      {prefixTableWide256b, 40, 8, 1, modeBitmap, false},     // 255 > 176
      {prefixTableNarrow128b, 25, 6, 1, modeBitmap, true},    // 63 <= 63
      {prefixTableNarrow128b, 26, 6, 1, modeBitmap, false},
      // CPE: 2^(stride - 1)
      {prefixTableWide256b, 24, 8, 1, modeCpe, true},         // 128 <= 192
      {prefixTableWide256b, 24, 9, 1, modeCpe, false},        // 256 > 192
      {prefixTableNarrow128b, 24, 7, 50, modeCpe, true},      // 64 <= 64
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << "type " << c.type << " branchLen " << +c.branchLen << " stride " << +c.stride
                                      << " n " << +c.numPrefixes << " " << c.mode);
    auto table = tableOf(c.type);
    auto st = subTrieFactory(PrefixTableIdx(0), SubTrieBranch(), 24, 8, modeSparse, table.ptr());
    EXPECT_EQ(st->fit(c.branchLen, c.stride, c.numPrefixes, c.mode), c.fits);
  }
}

TEST(SubTrieBitmapTest, OneBitPerSlotTheEntryCanHold) {
  struct Case {
    PrefixTableType type;
    U8 branchLen, stride;
    U32 bits;
  } cases[] = {{prefixTableNarrow128b, 24, 8, 8}, {prefixTableNarrow128b, 40, 9, 5},
               {prefixTableWide256b, 40, 7, 25}, {prefixTableWide256b, 0, 1, 216}};
  for (const Case& c : cases) {
    auto table = tableOf(c.type);
    auto st = subTrieFactory(PrefixTableIdx(0), SubTrieBranch(), c.branchLen, c.stride, modeSparse, table.ptr());
    st->allocatePrefixBitmap();
    ASSERT_TRUE(st->prefixBitmap());
    EXPECT_EQ(st->prefixBitmap()->length(), c.bits) << +c.branchLen << "/" << +c.stride;
    EXPECT_EQ(st->prefixBitmap()->numSet(), 0u);
  }
}

TEST(SubTrieSlotTest, RemovalLeavesAHoleThatTheNextAddReuses) {
  NarrowSubTrie t;
  auto a = pfx("10.0.0.0/24"), b = pfx("10.0.1.0/24"), c = pfx("10.0.2.0/24"), d = pfx("10.0.3.0/24");
  for (const auto& p : {a, b, c}) t.st->addPrefix(p);
  EXPECT_EQ(t.st->prefixToSlot(a), 0);
  EXPECT_EQ(t.st->prefixToSlot(b), 1);
  EXPECT_EQ(t.st->prefixToSlot(c), 2);
  EXPECT_EQ(t.st->maxPrefixSlot(), 3);

  t.st->removePrefix(b);
  EXPECT_EQ(t.st->maxPrefixSlot(), 3) << "the high-water mark falls only at compaction";
  EXPECT_EQ(t.st->numPrefixes(), 2u);
  EXPECT_FALSE(t.st->prefix(1));
  EXPECT_FALSE(t.st->prefixToSlot(b));
  EXPECT_EQ(t.bits(), (std::vector<bool>{true, false, true, false, false, false, false, false}));

  t.st->addPrefix(d);
  EXPECT_EQ(t.st->prefixToSlot(d), 1);
  EXPECT_EQ(t.st->maxPrefixSlot(), 3);
  t.st->verify();
}

TEST(SubTrieSlotTest, CompactionRenumbersDenselyAndRebuildsTheBitmap) {
  NarrowSubTrie t;
  auto a = pfx("10.0.0.0/24"), b = pfx("10.0.1.0/24"), c = pfx("10.0.2.0/24"), e = pfx("10.0.4.0/24");
  for (const auto& p : {a, b, c}) t.st->addPrefix(p);
  t.st->removePrefix(a);
  t.st->removePrefix(b);
  t.st->compactPrefixes();
  EXPECT_EQ(t.st->prefixToSlot(c), 0);
  EXPECT_TRUE(LpmPrefixEq()(t.st->prefix(0), c));
  EXPECT_EQ(t.st->maxPrefixSlot(), 1);
  EXPECT_EQ(t.bits(), (std::vector<bool>{true, false, false, false, false, false, false, false}));
  t.st->addPrefix(e);
  EXPECT_EQ(t.st->prefixToSlot(e), 1);
  t.st->verify();

  // Holes spread over the slots: what remains takes 0..n-1, each prefix once.
  NarrowSubTrie u;
  std::vector<Ptr<LpmPrefix>> ps;
  for (int i = 0; i < 8; ++i) ps.push_back(pfx("10.0." + std::to_string(i) + ".0/24"));
  for (const auto& p : ps) u.st->addPrefix(p);
  for (int i : {0, 3, 4, 7}) u.st->removePrefix(ps[i]);
  u.st->compactPrefixes();
  EXPECT_EQ(u.st->maxPrefixSlot(), 4);
  std::vector<bool> seen(4, false);
  for (int i : {1, 2, 5, 6}) {
    auto slot = u.st->prefixToSlot(ps[i]);
    ASSERT_TRUE(slot && *slot < 4) << i;
    EXPECT_FALSE(seen[*slot]);
    seen[*slot] = true;
  }
  u.st->verify();
}

TEST(SubTrieSlotTest, CompactingAnEmptySubTrie) {
  NarrowSubTrie t;
  auto a = pfx("10.0.0.0/24");
  t.st->addPrefix(a);
  t.st->removePrefix(a);
  t.st->compactPrefixes();
  EXPECT_EQ(t.st->maxPrefixSlot(), 0);
  EXPECT_EQ(t.st->numPrefixes(), 0u);
  EXPECT_EQ(t.st->prefixBitmap()->length(), 8u);
  EXPECT_EQ(t.st->prefixBitmap()->numSet(), 0u);

  NarrowSubTrie fresh;
  fresh.st->compactPrefixes();
  EXPECT_EQ(fresh.st->maxPrefixSlot(), 0);
  EXPECT_EQ(fresh.st->prefixBitmap()->numSet(), 0u);
}

TEST(SubTrieTextTest, FieldsInOrder) {
  NarrowSubTrie t;
  t.st->addPrefix(pfx("10.0.0.0/24"));
  t.st->nhiBlkSizeIs(1);
  t.st->nhiBaseIdxIs(NhiTableIdx(U8(2), 17));
  EXPECT_EQ(t.st->str(), "5,24,8,modeSparse,1,1,1,8/0x0,0/2,17");
  auto bare = subTrieFactory(PrefixTableIdx(0), SubTrieBranch(), 40, 0, modeBitmap, t.table.ptr());
  EXPECT_EQ(bare->str(), "0,40,0,modeBitmap,0,0,0,0/0x0,0/255,65535");
}

TEST(SubTrieDeathTest, BrokenPreconditionsAreFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto table = tableOf(prefixTableNarrow128b);
  auto st = subTrieFactory(PrefixTableIdx(0), SubTrieBranch(), 24, 8, modeSparse, table.ptr());
  EXPECT_DEATH(st->fit(89, 8, 1, modeSparse),
               "Failed\\(table\\(\\)->tableConfig\\(\\)->entrySize\\(\\) >= branchLen\\)");
  EXPECT_DEATH(st->fit(24, 8, 1, static_cast<SubTrieMode>(3)), "Failed\\(false\\)");
  // Removing a prefix that was never added, from a sub-trie with no slot used.
  st->allocatePrefixBitmap();
  EXPECT_DEATH(st->removePrefix(pfx("10.0.0.0/24")), "Failed\\(slot < maxPrefixSlot\\(\\)\\)");
  EXPECT_DEATH(st->allocatePrefixBitmap(), "Failed\\(!prefixBitmap\\(\\)\\)");
  auto flat = subTrieFactory(PrefixTableIdx(0), SubTrieBranch(), 24, 0, modeSparse, table.ptr());
  EXPECT_DEATH(flat->allocatePrefixBitmap(), "Failed\\(stride\\(\\)\\)");
}

// An NHI block's user set keeps its first user inline and makes a map for a second: through
// every change it must hold and order its users exactly as the map alone would, since the NHI
// moves rewrite the users in that order.
TEST(SubTrieSetTest, HoldsAndOrdersUsersAsAPlainMapThroughInlineAndMapStates) {
  std::vector<Ptr<SubTrie>> pool;
  for (U32 i = 0; i < 5; ++i)
    pool.push_back(subTrieFactory(PrefixTableIdx(i), SubTrieBranch(), 24, 8, modeSparse, nullptr));
  std::mt19937 rng(20261125);
  SubTrieSet set;
  SubTrieSet::Map reference;
  for (int step = 0; step < 4000; ++step) {
    const Ptr<SubTrie>& st = pool[rng() % pool.size()];
    if (rng() % 3 == 0) {
      set.subTrieDel(st);
      reference.erase(st);
    } else {
      set.subTrieIs(st);
      reference.set(st, true);
    }
    std::vector<SubTrie*> got, want;
    for (const auto& [user, unused] : set) got.push_back(user.ptr());
    for (const auto& [user, unused] : reference) want.push_back(user.ptr());
    ASSERT_EQ(got, want) << "step " << step;
    ASSERT_EQ(set.subTries(), reference.size());
    for (const Ptr<SubTrie>& candidate : pool) ASSERT_EQ(set.subTrie(candidate), reference.contains(candidate));
  }
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
