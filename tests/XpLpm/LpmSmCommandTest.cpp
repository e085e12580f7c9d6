// Command streams of the LPM state machine, checked entry by entry against hand-worked expectations:
// insertion, widening, compacting and final deletion, hash shuffling, the NHI layout of slots, and
// the decoding of a hardware leaf back into a branch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "LpmTestSupport.h"

namespace XpLib {
namespace XpLpm {
namespace {

using namespace test;

Geometry tablesOf(std::vector<TableSpec> tables, U8 pairs = 8) {
  Geometry g;
  g.tables = std::move(tables);
  g.pairsPerEntry = pairs;
  return g;
}

const NextHopBlock kEmpty;

void expectNhi(const Ptr<CommandBase>& cmd, const NhiTableIdx& index, const std::vector<NextHopBlock>& blocks) {
  ASSERT_TRUE(cmd);
  ASSERT_EQ(cmd->cmdType(), commandTypeNhi);
  const auto* nhi = static_cast<const NhiCommand*>(cmd.ptr());
  EXPECT_EQ(nhi->index(), index);
  std::vector<NextHopBlock> got;
  U32 position = 0;
  for (const auto& [i, block] : nhi->nextHopBlockList()) {
    EXPECT_EQ(i, position++) << "list position is the pair within the entry";
    got.push_back(block);
  }
  EXPECT_EQ(got, blocks) << "NHI entry " << index.str();
}

struct Shape {
  U8 tableId;
  U32 index;
  SubTrieBranch branch;
  U8 branchLen, stride;
};

void expectPrefix(const Ptr<CommandBase>& cmd, const Shape& shape, const std::vector<Ptr<LpmPrefix>>& slots,
                  const NhiTableIdx& nhiBaseIdx) {
  ASSERT_TRUE(cmd);
  ASSERT_EQ(cmd->cmdType(), commandTypePrefix);
  const auto* pc = static_cast<const PrefixCommand*>(cmd.ptr());
  EXPECT_EQ(pc->tableId(), PrefixTableId(shape.tableId));
  EXPECT_EQ(pc->index().value(), shape.index);
  EXPECT_EQ(pc->branch(), shape.branch);
  EXPECT_EQ(pc->branchLen(), shape.branchLen);
  EXPECT_EQ(pc->stride(), shape.stride);
  EXPECT_EQ(pc->mode(), modeSparse);
  EXPECT_EQ(pc->nhiBaseIdx(), nhiBaseIdx);
  ASSERT_EQ(pc->prefixList().prefixs(), slots.size());
  U32 slot = 0;
  for (const auto& [i, p] : pc->prefixList()) {
    EXPECT_EQ(i, slot) << "list position is the slot";
    if (slots[slot]) {
      EXPECT_TRUE(p && LpmPrefixEq()(p, slots[slot])) << "slot " << slot;
    } else {
      EXPECT_FALSE(p) << "slot " << slot;
    }
    ++slot;
  }
}

std::vector<Ptr<LpmPrefix>> prefixesOf(const Ptr<CommandBase>& cmd) {
  std::vector<Ptr<LpmPrefix>> out;
  for (const auto& [i, p] : static_cast<const PrefixCommand*>(cmd.ptr())->prefixList()) out.push_back(p);
  return out;
}

// One narrow tread-24 table, one tile of 64 entries.
TEST(LpmSmCommandTest, FirstPrefixIntoAnEmptyPosition) {
  Rig r(tablesOf({{0, 24, 16}}));
  Ptr<LpmPrefix> p = r.route("10.0.0.0/24", nh(100, 2));
  // The first block of an empty tile starts at 0; the new sub-trie's branch is the whole prefix
  // (16 + 24 = 40 bits) and its stride the smallest available one not below 1.
  auto cmds = r.take();
  ASSERT_EQ(cmds.size(), 2u);
  expectNhi(cmds[0], NhiTableIdx(U8(0), 0), {nh(100, 2)});
  expectPrefix(cmds[1], {0, r.table(0)->positionOf(p).value(), p->branch(40), 40, 8}, {p}, NhiTableIdx(U8(0), 0));
  EXPECT_EQ(r.status->prefixToNextHopBlock(p), nh(100, 2));
  r.sm->verify();
}

TEST(LpmSmCommandTest, WideningTakesANewBlockWrittenBeforeTheEntry) {
  struct Case {
    const char* name;
    U8 tread;
    const char *first, *second;
    U8 branchLen, stride;
  } cases[] = {
      // Tread 40: the /32 lies 8 bits below the /24's 40-bit branch, past stride 8: stride 9.
      {"longerPrefixUnderTheBranch", 40, "10.1.2.0/24", "10.1.2.128/32", 40, 9},
      // Tread 32: 10.1.3 and 10.1.2 share 39 bits; from there the /24s are one level down: stride
      // max(40 + 8 - 39, 40 - 39 + 1) = 9.
      {"siblingNarrowsTheBranch", 32, "10.1.3.0/24", "10.1.2.0/24", 39, 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Rig r(tablesOf({{0, c.tread, 16}}));
    Ptr<LpmPrefix> first = r.route(c.first, nh(100));
    r.take();
    Ptr<LpmPrefix> second = r.route(c.second, nh(104, 4));
    // The block at 0 is still held while the new one is taken: it starts at 1.
    auto cmds = r.take();
    ASSERT_EQ(cmds.size(), 2u);
    expectNhi(cmds[0], NhiTableIdx(U8(0), 1), {nh(100), nh(104, 4)});
    expectPrefix(cmds[1], {0, r.table(0)->positionOf(first).value(), first->branch(c.branchLen), c.branchLen, c.stride},
                 {first, second}, NhiTableIdx(U8(0), 1));
    EXPECT_FALSE(r.sm->nhiBaseIdxToBlk(NhiTableIdx(U8(0), 0))) << "the old block is released";
    EXPECT_EQ(r.sm->nhiAllocator(NhiTileIdx(0))->freeEntries(), 63u);
    r.sm->verify();
  }
}

TEST(LpmSmCommandTest, DeletionCompactsThenTheLastOneClearsTheEntry) {
  // Two pairs per entry. 10.0.0-3.0/24 end in one sub-trie of branch 38 (10.0.0.0/22), stride 10;
  // blocks: 0 (one prefix), 1 (two), 2-3 (three), then the two-entry run at 0-1 (four).
  Rig r(tablesOf({{0, 24, 16}}, 2));
  std::vector<Ptr<LpmPrefix>> p;
  for (int i = 0; i < 4; ++i) p.push_back(r.route("10.0." + std::to_string(i) + ".0/24", nh(100 + 4 * i)));
  Ptr<SubTrie> st = r.sm->prefixToSubTrie(p[0]);
  ASSERT_EQ(st->nhiBaseIdx(), NhiTableIdx(U8(0), 0));
  r.take();
  const Shape shape{0, r.table(0)->positionOf(p[0]).value(), p[0]->branch(38), 38, 10};

  // Three prefixes renumbered 0..2 need two entries, taken at 2 while 0-1 are still held.
  r.cfg->requestDel(p[1]);
  auto cmds = r.take();
  ASSERT_EQ(cmds.size(), 3u);
  ASSERT_EQ(cmds[2]->cmdType(), commandTypePrefix);
  const auto slots = prefixesOf(cmds[2]);
  ASSERT_EQ(slots.size(), 3u);
  for (const auto& q : {p[0], p[2], p[3]})
    EXPECT_EQ(std::count_if(slots.begin(), slots.end(), [&](const auto& s) { return s && LpmPrefixEq()(s, q); }), 1);
  auto block = [&](const Ptr<LpmPrefix>& q) { return r.cfg->request(q); };
  expectNhi(cmds[0], NhiTableIdx(U8(0), 2), {block(slots[0]), block(slots[1])});
  expectNhi(cmds[1], NhiTableIdx(U8(0), 3), {block(slots[2])});
  expectPrefix(cmds[2], shape, slots, NhiTableIdx(U8(0), 2));
  EXPECT_EQ(r.sm->nhiAllocator(NhiTileIdx(0))->freeEntries(), 62u);
  r.sm->verify();

  r.cfg->requestDel(p[0]);
  r.cfg->requestDel(p[2]);
  r.sm->verify();
  r.take();
  const NhiTableIdx lastBase = st->nhiBaseIdx();
  r.cfg->requestDel(p[3]);
  // One slot was in use: one empty slot, at the block the sub-trie last had, and no NHI write.
  cmds = r.take();
  ASSERT_EQ(cmds.size(), 1u);
  expectPrefix(cmds[0], shape, {nullptr}, lastBase);
  EXPECT_EQ(r.table(0)->subTries(), 0u);
  EXPECT_EQ(r.sm->nhiBaseIdxToBlkMap().size(), 0u);
  EXPECT_EQ(r.sm->sharedNhiMap().size(), 0u);
  EXPECT_EQ(r.sm->nhiAllocator(NhiTileIdx(0))->freeEntries(), 64u);
  EXPECT_EQ(r.status->prefixToNextHopBlocks(), 0u);
  r.sm->verify();
}

TEST(LpmSmCommandTest, ShuffleWritesTheMovedEntryBeforeClearingTheOldOne) {
  // Two tread-24 tables with different hash polynomials (ids 0 and 2 take rows 0 and 1).
  Rig r(tablesOf({{0, 24, 16}, {2, 24, 16}}));
  const Ptr<PrefixTable> a = r.cfg->prefixTableSortedByTread(0), b = r.cfg->prefixTableSortedByTread(1);
  auto pos = [&](const Ptr<PrefixTable>& t, int octet) {
    return t->positionOf(r.prefix(std::to_string(octet) + ".0.0.0/24")).value();
  };
  int x = 0, y = 0;
  for (int i = 1; i < 224 && !x; ++i)
    for (int j = i + 1; j < 224 && !x; ++j)
      if (pos(a, i) == pos(a, j) && pos(b, i) != pos(b, j)) x = i, y = j;
  ASSERT_NE(x, 0) << "no pair colliding in one table only";
  std::printf("colliding first octets %d and %d\n", x, y);

  Ptr<LpmPrefix> px = r.route(std::to_string(x) + ".0.0.0/24", nh(100));
  ASSERT_EQ(r.sm->prefixToSubTrie(px)->table(), a.ptr());
  r.take();
  Ptr<LpmPrefix> py = r.route(std::to_string(y) + ".0.0.0/24", nh(104));
  ASSERT_TRUE(r.sm->prefixToSubTrie(py));

  // The occupant keeps its block at 0 and moves to the second table; the new prefix takes its
  // old position in the first table, with a block at 1.
  const NhiTableIdx xBase(U8(0), 0), yBase(U8(0), 1);
  auto cmds = r.take();
  ASSERT_EQ(cmds.size(), 4u);
  expectPrefix(cmds[0], {b->tableId().value(), pos(b, x), px->branch(40), 40, 8}, {px}, xBase);
  expectPrefix(cmds[1], {a->tableId().value(), pos(a, x), px->branch(40), 40, 8}, {nullptr}, xBase);
  expectNhi(cmds[2], yBase, {nh(104)});
  expectPrefix(cmds[3], {a->tableId().value(), pos(a, y), py->branch(40), 40, 8}, {py}, yBase);
  EXPECT_EQ(r.sm->prefixToSubTrie(px)->table(), b.ptr());
  EXPECT_EQ(r.sm->numHashShufflingAttempt(), 1u);
  EXPECT_EQ(r.sm->numHashShufflingSuccess(), 1u);
  r.sm->verify();
}

TEST(LpmSmCommandTest, SlotsMapToPairsOfConsecutiveNhiEntries) {
  // Five slots with holes at 1 and 3, two pairs per entry: entries of [s0, s1], [s2, s3], [s4].
  Rig r(tablesOf({{0, 24, 16}}, 2));
  r.sm->hasNotificationActiveIs(false);  // requests only give the next hops; nothing is placed
  std::vector<Ptr<LpmPrefix>> p;
  for (int i = 0; i < 5; ++i) p.push_back(r.route("10.0." + std::to_string(i) + ".0/24", nh(100 + 4 * i)));
  Ptr<SubTrie> st = subTrieFactory(PrefixTableIdx(9), p[0]->branch(38), 38, 10, modeSparse, r.table(0).ptr());
  st->allocatePrefixBitmap();
  for (const auto& q : p) st->addPrefix(q);
  st->removePrefix(p[1]);
  st->removePrefix(p[3]);
  ASSERT_EQ(st->maxPrefixSlot(), 5);
  st->nhiBaseIdxIs(NhiTableIdx(U8(0), 7));
  r.sm->generateSubTrieWriteCmds(st, true, true);
  auto cmds = r.take();
  ASSERT_EQ(cmds.size(), 4u);
  expectNhi(cmds[0], NhiTableIdx(U8(0), 7), {nh(100), kEmpty});
  expectNhi(cmds[1], NhiTableIdx(U8(0), 8), {nh(108), kEmpty});
  expectNhi(cmds[2], NhiTableIdx(U8(0), 9), {nh(116)});
  const Shape shape{0, 9, p[0]->branch(38), 38, 10};
  expectPrefix(cmds[3], shape, {p[0], nullptr, p[2], nullptr, p[4]}, NhiTableIdx(U8(0), 7));

  // Each flag alone.
  r.sm->generateSubTrieWriteCmds(st, false, true);
  EXPECT_EQ(r.take().size(), 3u);
  r.sm->generateSubTrieWriteCmds(st, true, false);
  cmds = r.take();
  ASSERT_EQ(cmds.size(), 1u);
  EXPECT_EQ(cmds[0]->cmdType(), commandTypePrefix);

  // Vacating an entry writes its shape with every slot empty.
  st->maxPrefixSlotIs(3);
  r.sm->generatePrefixTableIdxDeleteWriteCmd(r.table(0), PrefixTableIdx(4), st);
  cmds = r.take();
  ASSERT_EQ(cmds.size(), 1u);
  expectPrefix(cmds[0], {0, 4, p[0]->branch(38), 38, 10}, {nullptr, nullptr, nullptr}, NhiTableIdx(U8(0), 7));
}

TEST(LpmSmCommandDeathTest, NeitherKindOfCommandIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Rig r(tablesOf({{0, 24, 16}}));
  Ptr<LpmPrefix> p = r.route("10.0.0.0/24", nh(100));
  EXPECT_DEATH(r.sm->generateSubTrieWriteCmds(r.sm->prefixToSubTrie(p), false, false),
               "Failed\\(generateNhiCmds \\|\\| generatePrefixCmds\\)");
  U64 lo = 0, hi = 0;
  SubTrieBranch branch;
  EXPECT_DEATH(combineBranchAndLeaf(branch, 24, lo, hi), "Failed\\(leafVal \\|\\| leafValHigh\\)");
}

// ---------------------------------------------------------------------------------------------
// combineBranchAndLeaf

bool keyBit(const SubTrieBranch& b, unsigned i) { return (b.u64(i / 64) >> (63 - i % 64)) & 1; }

// The prefix bits from..len-1 behind a marker bit, as the hardware leaf holds them; decodes to len.
void expectRoundTrip(const Ptr<LpmPrefix>& p, unsigned from) {
  const unsigned len = p->len();
  const SubTrieBranch full = p->branch(static_cast<U8>(len));
  unsigned __int128 leaf = 1;
  for (unsigned i = from; i < len; ++i) leaf = (leaf << 1) | keyBit(full, i);
  U64 lo = static_cast<U64>(leaf), hi = static_cast<U64>(leaf >> 64);
  SubTrieBranch branch = p->branch(static_cast<U8>(from));
  EXPECT_EQ(combineBranchAndLeaf(branch, static_cast<U8>(from), lo, hi), len) << p->stringValue() << " from " << from;
  EXPECT_EQ(branch, full) << p->stringValue() << " from " << from;
}

Ptr<LpmPrefix> randomV6(std::mt19937& rng, U8 len) {
  Ip6Prefix::Bytes a{};
  for (int i = 0; i < 16; ++i) {
    const int keep = len - 8 * i;
    a[i] = static_cast<U8>(rng()) & (keep >= 8 ? 0xFF : keep <= 0 ? 0 : static_cast<U8>(0xFF << (8 - keep)));
  }
  return lpmPrefixV6Factory(VrfAndIp6Prefix{static_cast<U32>(rng() & 0xFFFF), Ip6Prefix(a, len)});
}

Ptr<LpmPrefix> randomV4(std::mt19937& rng, U8 len) {
  const U32 vrf = static_cast<U32>(rng() & 0xFFFF);
  return lpmPrefixV4Factory(VrfAndPrefix{vrf, Prefix(static_cast<U32>(rng()) & Prefix::mask(len), len)});
}

TEST(CombineBranchAndLeafTest, MarkerAloneAndTwoBits) {
  Ptr<LpmPrefix> p = lpmPrefixV4Factory(VrfAndPrefix{5, *Prefix::parse("10.1.0.0/16")});
  SubTrieBranch branch = p->branch(24);
  U64 lo = 1, hi = 0;
  EXPECT_EQ(combineBranchAndLeaf(branch, 24, lo, hi), 24);
  EXPECT_EQ(branch, p->branch(24));
  lo = 0b101;
  EXPECT_EQ(combineBranchAndLeaf(branch, 24, lo, hi), 26);
  EXPECT_FALSE(keyBit(branch, 24));
  EXPECT_TRUE(keyBit(branch, 25));
  EXPECT_EQ(branch.u8(3), 0x40) << "bits 24, 25 are the top of key byte 3";
  EXPECT_EQ(branch.u64(0) & ~(U64(0x40) << 32), p->branch(24).u64(0));
}

TEST(CombineBranchAndLeafTest, RebuildsPrefixesAcrossChunkBoundaries) {
  const unsigned seed = 7301;
  std::printf("seed %u\n", seed);
  std::mt19937 rng(seed);
  // Leaves that start before and end after key bits 64 and 128, and the longest leaf there is.
  const std::pair<unsigned, U8> spans[] = {{60, 70 - 16}, {64, 80 - 16}, {50, 64 - 16}, {100, 140 - 16},
                                           {126, 130 - 16}, {128, 144 - 16}, {17, 144 - 16}, {16, 143 - 16}};
  for (auto [from, v6len] : spans)
    for (int k = 0; k < 20; ++k) expectRoundTrip(randomV6(rng, v6len), from);
  for (int k = 0; k < 2000; ++k) {
    const bool six = rng() % 2;
    Ptr<LpmPrefix> p = six ? randomV6(rng, static_cast<U8>(rng() % 129)) : randomV4(rng, static_cast<U8>(rng() % 33));
    const unsigned len = p->len(), lowest = len > 127 ? len - 127 : 0;
    expectRoundTrip(p, lowest + rng() % (len - lowest + 1));
  }
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
