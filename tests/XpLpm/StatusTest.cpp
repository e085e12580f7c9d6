// Tests of the LPM Status entity and its records: the pending-command index rule, notifications,
// command copies, and the NHI sharing key's hash, order and text forms.
#include "XpLpm/Status.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "XpLpm/NhiInfo.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "support/TestSupport.h"

namespace XpLib {
namespace XpLpm {
namespace {

struct StatusRecorder : Status::Notifiee {
  std::vector<U32> cmds;
  int metadata = 0;
  std::vector<std::string> prefixes;
  bool leaveOnNextCmd = false;
  void onPendingCmd(U32 index) override {
    cmds.push_back(index);
    if (leaveOnNextCmd) notifierIs(nullptr);
  }
  void onPendingCmdMetadata() override { ++metadata; }
  void onPrefixToNextHopBlock(const Ptr<LpmPrefix>& p) override { prefixes.push_back(p->stringValue()); }
};

Ptr<CommandBase> someCommand(U32 n) { return nhiCommandFactory(NhiTableIdx(U8(0), static_cast<U16>(n)), {}); }

// Observed: a drained queue does not give its last index again; the next command gets a new one.
TEST(StatusPendingCmdTest, IndexesOnlyGrow) {
  Ptr<Status> s = statusFactory("lpm");
  StatusRecorder rec;
  rec.notifierIs(s);
  s->pendingCmdMetadataIs(QueueMetadata{7, 7});  // an empty queue whose counter stands at 7
  s->pendingCmdMetadataIs(QueueMetadata{7, 7});
  EXPECT_EQ(rec.metadata, 1);
  EXPECT_EQ(s->pendingCmdEnq(someCommand(0)), 7u);
  EXPECT_EQ(s->pendingCmdEnq(someCommand(1)), 8u);
  while (s->pendingCmds() > 0) s->pendingCmdDeq();
  EXPECT_EQ(s->pendingCmdEnq(someCommand(2)), 9u);
  s->pendingCmdDelAll();
  EXPECT_EQ(s->pendingCmdEnq(someCommand(3)), 10u);
  QueueMetadata low = s->pendingCmdMetadata();
  low.tail = 2;  // a counter below the newest queued index does not pull indexes back
  s->pendingCmdMetadataIs(low);
  EXPECT_EQ(s->pendingCmdEnq(someCommand(4)), 11u);
  EXPECT_EQ(s->pendingCmd(11)->cmdType(), commandTypeNhi);
  // Appends and removals are both announced, by index.
  EXPECT_EQ(rec.cmds, (std::vector<U32>{7, 8, 7, 8, 9, 9, 10, 11}));
}

// Every queue of the model: dequeuing an empty one changes nothing, and the queue still works after.
TEST(QueueTest, DequeueOnEmptyIsANoOp) {
  struct Case {
    const char* name;
    std::function<void()> deqTwice;  // on an empty queue, then again after one append and one dequeue
  };
  Ptr<Status> s = statusFactory("lpm");
  Ptr<XpLpmNextHop::Status> nh = XpLpmNextHop::statusFactory("nh");
  LpmPrefixList prefixes;
  NextHopBlockList blocks;
  const Case cases[] = {
      {"pendingCmd",
       [&] {
         s->pendingCmdDeq();
         s->pendingCmdEnq(someCommand(0));
         s->pendingCmdDeq();
         s->pendingCmdDeq();
         EXPECT_EQ(s->pendingCmds(), 0u);
         EXPECT_EQ(s->pendingCmdEnq(someCommand(1)), 1u);
       }},
      {"shuffleCmd",
       [&] {
         nh->shuffleCmdDeq();
         const NextHopBlock b(0, 1);
         nh->shuffleCmdEnq(XpLpmNextHop::shuffleCmdFactory(XpLpmNextHop::SwId(1), b, b));
         nh->shuffleCmdDeq();
         nh->shuffleCmdDeq();
         EXPECT_EQ(nh->shuffleCmds(), 0u);
       }},
      {"prefix",
       [&] {
         prefixes.prefixDeq();
         prefixes.newPrefix(0, lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")}));
         prefixes.prefixDeq();
         prefixes.prefixDeq();
         EXPECT_EQ(prefixes.prefixs(), 0u);
       }},
      {"nextHopBlock",
       [&] {
         blocks.nextHopBlockDeq();
         blocks.nextHopBlockEnq(NextHopBlock(4, 2));
         blocks.nextHopBlockDeq();
         blocks.nextHopBlockDeq();
         EXPECT_EQ(blocks.nextHopBlocks(), 0u);
         blocks.nextHopBlockEnq(NextHopBlock(8, 2));
         EXPECT_EQ(blocks.nextHopBlock(1), NextHopBlock(8, 2));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.deqTwice();
  }
}

TEST(StatusNotificationTest, InactiveOrLeavingNotifiees) {
  Ptr<Status> s = statusFactory("lpm");
  StatusRecorder quiet, leaving, staying;
  quiet.notifierIs(s);
  leaving.notifierIs(s);
  staying.notifierIs(s);
  quiet.isNotificationActiveIs(false);
  leaving.leaveOnNextCmd = true;
  s->pendingCmdEnq(someCommand(0));
  s->pendingCmdEnq(someCommand(1));
  Ptr<LpmPrefix> p = lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")});
  EXPECT_TRUE(quiet.cmds.empty());
  EXPECT_EQ(leaving.cmds, std::vector<U32>{0});
  EXPECT_EQ(staying.cmds, (std::vector<U32>{0, 1}));

  // Installed-prefix blocks: announced on each real change, found by value.
  Ptr<LpmPrefix> sameKey = lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")});
  s->prefixToNextHopBlockIs(p, NextHopBlock(5, 2));
  s->prefixToNextHopBlockIs(sameKey, NextHopBlock(5, 2));
  EXPECT_EQ(s->prefixToNextHopBlock(sameKey), NextHopBlock(5, 2));
  s->prefixToNextHopBlockIs(sameKey, NextHopBlock(6, 2));
  s->prefixToNextHopBlockDel(sameKey);
  s->prefixToNextHopBlockDel(p);
  EXPECT_EQ(staying.prefixes, std::vector<std::string>(3, "vrf 1 prefix 10.0.0.0/8"));
  EXPECT_EQ(s->prefixToNextHopBlock(p), NextHopBlock());
  EXPECT_TRUE(quiet.prefixes.empty());
}

TEST(CommandTest, CommandsHoldEqualCopies) {
  LpmPrefixList list;
  list.newPrefix(0, lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")}));
  list.newPrefix(2, lpmPrefixV4Factory({1, *Prefix::parse("10.1.0.0/16")}));
  const SubTrieBranch branch(0x0001'0A00, 0, 0, 0, 0);
  Ptr<PrefixCommand> pc = prefixCommandFactory(PrefixTableId(3), PrefixTableIdx(77), branch, 24, 4, modeBitmap, list,
                                               NhiTableIdx(U8(1), 9));
  EXPECT_EQ(pc->cmdType(), commandTypePrefix);
  EXPECT_EQ(pc->prefixList(), list);
  EXPECT_EQ(pc->prefixList().prefix(2)->stringValue(), "vrf 1 prefix 10.1.0.0/16");
  EXPECT_EQ(pc->branch(), branch);
  EXPECT_EQ(pc->index(), PrefixTableIdx(77));
  list.prefixDel(2);
  EXPECT_NE(pc->prefixList(), list) << "the command keeps its own copy";

  // A source list with a consumed head and gaps between its indexes.
  NextHopBlockList blocks;
  blocks.newNextHopBlock(3, NextHopBlock(100, 4));
  blocks.newNextHopBlock(5, NextHopBlock(200, 1));
  blocks.newNextHopBlock(9, NextHopBlock(300, 8));
  blocks.nextHopBlockDeq();
  Ptr<NhiCommand> nc = nhiCommandFactory(NhiTableIdx(U8(2), 40), blocks);
  EXPECT_EQ(nc->cmdType(), commandTypeNhi);
  EXPECT_EQ(nc->nextHopBlockList(), blocks);
  EXPECT_EQ(nc->nextHopBlockList().nextHopBlock(9), NextHopBlock(300, 8));
  EXPECT_EQ(nc->index(), NhiTableIdx(U8(2), 40));
}

void pushLittleEndian(std::vector<U8>& bytes, U32 v, int n) {
  for (int i = 0; i < n; ++i) bytes.push_back(static_cast<U8>(v >> (8 * i)));
}

// Slot byte, then the block's own hash (base 4 bytes, size 2 bytes) least significant byte first.
U32 referenceKeyHash(const std::vector<std::pair<U8, NextHopBlock>>& sortedEntries) {
  std::vector<U8> bytes;
  for (const auto& [slot, block] : sortedEntries) {
    std::vector<U8> blockBytes;
    pushLittleEndian(blockBytes, block.base().value(), 4);
    pushLittleEndian(blockBytes, block.size().value(), 2);
    bytes.push_back(slot);
    pushLittleEndian(bytes, xplpm_test::oneAtATimeReference(blockBytes), 4);
  }
  return xplpm_test::oneAtATimeReference(bytes);
}

TEST(NhiInfoKeyTest, HashAndTextMatchTheByteStream) {
  NhiInfoKey empty;
  EXPECT_EQ(empty.hash(), 0u);
  EXPECT_EQ(empty.str(), "0x0,0");
  const unsigned seed = 1401;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  for (int round = 0; round < 300; ++round) {
    std::vector<std::pair<U8, NextHopBlock>> entries;
    for (int n = std::uniform_int_distribution<int>(1, 40)(rng); n > 0; --n) {
      U8 slot = static_cast<U8>(rng());
      if (std::any_of(entries.begin(), entries.end(), [&](const auto& e) { return e.first == slot; })) continue;
      entries.emplace_back(slot, NextHopBlock(static_cast<U32>(rng()), static_cast<U16>(rng())));
    }
    NhiInfoKey key;
    for (const auto& [slot, block] : entries) key.newSlotToNextHopBlock(slot, block);  // any order
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    const U32 expected = referenceKeyHash(entries);
    ASSERT_EQ(key.hash(), expected);
    char text[32];
    std::snprintf(text, sizeof text, "0x%x,%zu", expected, entries.size());
    ASSERT_EQ(key.str(), text);

    // The same slots with one block changed: unequal, and the hash moves.
    NhiInfoKey changed = key;
    const auto& [slot, block] = entries[std::uniform_int_distribution<size_t>(0, entries.size() - 1)(rng)];
    changed.slotToNextHopBlockIs(slot, NextHopBlock(block.base().value() + 1, block.size().value()));
    ASSERT_NE(changed, key);
    ASSERT_NE(changed.hash(), key.hash());

    // A copy without one slot equals the key built without it, and the original is untouched.
    NhiInfoKey smaller = key, rebuilt;
    smaller.slotToNextHopBlockDel(slot);
    for (const auto& [s, b] : entries)
      if (s != slot) rebuilt.newSlotToNextHopBlock(s, b);
    ASSERT_EQ(smaller, rebuilt);
    ASSERT_EQ(smaller.slotToNextHopBlocks(), entries.size() - 1);
    ASSERT_EQ(smaller.slotToNextHopBlock(slot), NextHopBlock());
    ASSERT_EQ(key.hash(), expected);
    ASSERT_EQ(key.slotToNextHopBlock(slot), block);
  }
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
