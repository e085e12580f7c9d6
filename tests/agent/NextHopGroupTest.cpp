// Next-hop groups through the agent: blocks stay disjoint and owned through
// compaction, the chip's next-hop table holds each group's own entries, and
// routes follow their group's moves without ever forwarding elsewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "ForwardingCheck.h"

namespace XpLib {
namespace Agent {
namespace {

// The small profile with a next-hop table small enough that groups compact it often.
XpXdk::xpChipProfile tightNextHops(U32 entries) {
  XpXdk::xpChipProfile p = *XpXdk::findChipProfile("small");
  p.nextHop.rowBlkInc = entries;
  return p;
}

void checkGroups(XpLpmAgent& agent, const std::map<U64, U16>& wanted) {
  const auto& sm = *agent.nextHopSm();
  const U32 tableSize = agent.nextHopConfig()->tableSize();
  std::vector<std::pair<U32, U32>> extents;
  for (const auto& [swId, block] : agent.nextHopStatus()->swIdToNextHopBlockMap()) {
    if (swId == XpLpmAgent::kScratchGroup) continue;
    const Ptr<Blk> blk = sm.swIdToBlock(swId);
    ASSERT_TRUE(blk) << swId.str();
    ASSERT_EQ(blk->base(), block.base().value()) << swId.str();
    ASSERT_EQ(block.size().value(), wanted.at(swId.value())) << swId.str();
    ASSERT_LE(U64(block.base().value()) + block.size().value(), tableSize);
    extents.emplace_back(block.base().value(), block.base().value() + block.size().value());
    for (U32 m = 0; m < block.size().value(); ++m) {
      XpXdk::xpNhEntry e;
      ASSERT_EQ(agent.chip().readNextHop(block.base().value() + m, &e), XpXdk::XP_NO_ERR);
      ASSERT_EQ(e, XpLpmAgent::groupEntry(swId, m)) << "group " << swId.str() << " member " << m;
    }
  }
  std::sort(extents.begin(), extents.end());
  for (std::size_t i = 1; i < extents.size(); ++i) ASSERT_LE(extents[i - 1].second, extents[i].first);
}

TEST(NextHopGroupTest, RandomGroupChurnKeepsBlocksDisjointAndContentsOwned) {
  const unsigned seed = 5151;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  XpLpmAgent agent(tightNextHops(256), {.nextHopGroups = 64});
  std::map<U64, U16> wanted;  // groups placed and their widths
  for (int op = 0; op < 100000; ++op) {
    const SwId group(rng() % 64);
    const U16 width = static_cast<U16>(1 + rng() % 16);
    if (rng() % 4 == 0) {
      agent.groupDel(group);
      wanted.erase(group.value());
    } else {
      agent.groupWidthIs(group, Nway(width));
      if (agent.groupBlock(group) != NextHopBlock()) wanted[group.value()] = agent.groupBlock(group).size().value();
    }
    ASSERT_NO_FATAL_FAILURE(checkGroups(agent, wanted)) << "op " << op;
    agent.nextHopSm()->verify();
  }
  EXPECT_GT(agent.nextHopSm()->numNhBlockDefrag(), 100u);
  EXPECT_GT(agent.nextHopSm()->numNhBlockOverflow(), 0u);
  EXPECT_GT(agent.counters().nextHopCopies, 0u);
}

// A width the next-hop table cannot give is an answer, not a stop: nothing changes.
TEST(NextHopGroupTest, WidthsOutsideTheTableAreRefusedAndChangeNothing) {
  XpLpmAgent agent(tightNextHops(256), {.nextHopGroups = 64});
  const SwId group(3);
  ASSERT_EQ(agent.groupWidthIs(group, Nway(4)), GroupResult::placed);
  const NextHopBlock placed = agent.groupBlock(group);
  const U32 widest = agent.maxGroupWidth();
  ASSERT_GT(widest, 4u);
  for (U32 width : {0u, widest + 1, 0xFFFFu}) {
    SCOPED_TRACE("width " + std::to_string(width));
    EXPECT_EQ(agent.groupWidthIs(group, Nway(static_cast<U16>(width))), GroupResult::badWidth);
    EXPECT_EQ(agent.groupWidthIs(SwId(9), Nway(static_cast<U16>(width))), GroupResult::badWidth);
    EXPECT_EQ(agent.groupBlock(group), placed);
    EXPECT_EQ(agent.groupBlock(SwId(9)), NextHopBlock());
  }
  EXPECT_NE(agent.groupWidthIs(group, Nway(static_cast<U16>(widest))), GroupResult::badWidth);
  agent.nextHopSm()->verify();
}

// A resize re-requests every route of the group, but the routes that share a sub-trie take the new
// block in one write of it: an NHI block and a prefix entry in between for each would be writes
// the chip does not need.
TEST(NextHopGroupTest, RoutesOfAGroupInOneSubTrieMoveWithOneWriteOfIt) {
  XpLpmAgent agent(*XpXdk::findChipProfile("small"), {.nextHopGroups = 4});
  std::vector<Route> routes;
  for (U32 i = 0; i < 16; ++i) {
    Route r;
    r.v4 = Prefix(0x0A010000u | i << 8, 24);
    r.nextHop = i % 5 == 4 ? 2 : 1;  // a few routes of another group among them
    routes.push_back(r);
    ASSERT_TRUE(agent.routeIs(r).installed()) << r.prefixStr();
  }
  const auto& sm = *agent.family(false).sm;
  std::set<const XpLpm::SubTrie*> holding;  // the sub-tries with routes of group 1
  U32 moving = 0;
  for (const Route& r : routes) {
    if (r.nextHop != 1) continue;
    ++moving;
    holding.insert(sm.prefixToSubTrie(agent.findPrefix(r)).ptr());
  }
  ASSERT_LT(holding.size(), moving) << "no sub-trie holds two routes of the group";
  const HwWriterCounters before = agent.family(false).writer->counters();
  ASSERT_EQ(agent.groupWidthIs(SwId(1), Nway(8)), GroupResult::placed);
  const HwWriterCounters after = agent.family(false).writer->counters();
  EXPECT_EQ(after.prefixWrites - before.prefixWrites, holding.size());
  for (const Route& r : routes)
    EXPECT_EQ(agent.installedBlock(r), agent.groupBlock(agent.groupOf(r))) << r.prefixStr();
  EXPECT_EQ(agent.groupBlock(SwId(1)).size().value(), 8u);
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
