// The next-hop block state machine: placement, resize, release, compaction.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "XpLpmNextHop/XpLpmNextHopSm.h"

namespace XpLib {
namespace XpLpmNextHop {
namespace {

struct Machine {
  Ptr<Config> config = configFactory("nh");
  Ptr<Status> status = statusFactory("nh");
  Ptr<LpmNextHopSm> sm;
  explicit Machine(U32 tableSize) {
    config->tableSizeIs(tableSize);
    sm = LpmNextHopSmIs("nh", config, status);
  }
  void want(U64 id, U16 n) { config->requestIs(SwId(id), Nway(n)); }
  NextHopBlock at(U64 id) const { return status->swIdToNextHopBlock(SwId(id)); }
};

TEST(LpmNextHopSmTest, TableAndBlockLimitsFromConfigAndEnvironment) {
  struct Case {
    const char* tableEnv;
    const char* blockEnv;
    U32 entries, maxBlock;
  } cases[] = {{nullptr, nullptr, 4096, 1024}, {"512", nullptr, 512, 256}, {"512", "64", 512, 64}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.tableEnv ? c.tableEnv : "-") + "/" + (c.blockEnv ? c.blockEnv : "-"));
    c.tableEnv ? setenv("NH_TABLE_SIZE", c.tableEnv, 1) : unsetenv("NH_TABLE_SIZE");
    c.blockEnv ? setenv("NH_MAX_BLOCK_SIZE", c.blockEnv, 1) : unsetenv("NH_MAX_BLOCK_SIZE");
    Machine m(4096);
    EXPECT_EQ(m.sm->allocator()->entriesCapacity(), c.entries);
    EXPECT_EQ(m.sm->allocator()->maxBlkSz(), c.maxBlock);
  }
  unsetenv("NH_TABLE_SIZE");
  unsetenv("NH_MAX_BLOCK_SIZE");
}

TEST(LpmNextHopSmTest, PlaceResizeReleaseAndCount) {
  Machine m(16);
  m.want(1, 4);
  EXPECT_EQ(m.at(1), NextHopBlock(0, 4));
  m.sm->handleRequest(SwId(1));  // the same size announced again: one update, nothing moves
  EXPECT_EQ(m.sm->numNhBlockUpdate(), 1u);
  m.want(1, 6);  // a resize takes a new block while holding the old one
  EXPECT_EQ(m.at(1), NextHopBlock(4, 6));
  EXPECT_EQ(m.sm->baseIdxToSwId(NextHopTableIdx(0)), SwId(1)) << "the old base stays, by design";
  EXPECT_EQ(m.sm->numNhBlockAlloc(), 2u);
  m.want(2, 11);  // 10 entries free in all: refused
  EXPECT_EQ(m.at(2), NextHopBlock());
  EXPECT_EQ(m.sm->numNhBlockOverflow(), 1u);
  EXPECT_EQ(m.sm->numNhBlockAlloc(), 3u);
  m.want(1, 0xFFFF);  // 65535 withdraws like a deletion
  EXPECT_EQ(m.at(1), NextHopBlock());
  EXPECT_FALSE(m.sm->swIdToBlock(SwId(1)));
  EXPECT_EQ(m.sm->numNhBlockFree(), 1u);
  EXPECT_EQ(m.sm->allocator()->freeEntries(), 16u);
  m.config->requestDel(SwId(2));  // never placed: nothing to release
  EXPECT_EQ(m.sm->numNhBlockFree(), 1u);
}

TEST(LpmNextHopSmTest, ScatteredRoomIsCompactedAndEveryMoveIsQueued) {
  Machine m(16);
  for (U64 id = 1; id <= 4; ++id) m.want(id, 4);  // [1][2][3][4]
  m.config->requestDel(SwId(1));
  m.config->requestDel(SwId(3));  // free: 0-3 and 8-11, two runs of 4
  m.status->shuffleCmdDelAll();
  m.want(5, 8);
  EXPECT_EQ(m.sm->numNhBlockDefrag(), 1u);
  ASSERT_NE(m.at(5), NextHopBlock());
  EXPECT_EQ(m.at(5).size(), Nway(8));
  // Every queued move carries its client's old and new place, with equal sizes,
  // and Status already shows the new one.
  ASSERT_GT(m.status->shuffleCmds(), 0u);
  for (const auto& [index, cmd] : m.status->shuffleCmdQueue()) {
    EXPECT_EQ(cmd->nextHopBlock().size(), cmd->prevNextHopBlock().size());
    EXPECT_NE(cmd->nextHopBlock().base(), cmd->prevNextHopBlock().base());
    EXPECT_EQ(m.status->swIdToNextHopBlock(cmd->swId()), cmd->nextHopBlock());
    EXPECT_EQ(m.sm->baseIdxToSwId(cmd->nextHopBlock().base()), cmd->swId());
  }
  // Placements stay disjoint.
  const NextHopBlock a = m.at(2), b = m.at(4), c = m.at(5);
  for (const auto& [x, y] : {std::pair{a, b}, std::pair{a, c}, std::pair{b, c}}) {
    const bool apart = x.base().value() + x.size().value() <= y.base().value() ||
                       y.base().value() + y.size().value() <= x.base().value();
    EXPECT_TRUE(apart);
  }
}

TEST(LpmNextHopSmTest, CompactTableCompactionCountsAndMovesNothing) {
  Machine m(16);
  m.want(1, 4);
  m.sm->doDefragment();
  EXPECT_EQ(m.sm->numNhBlockDefrag(), 1u);
  EXPECT_EQ(m.status->shuffleCmds(), 0u);
}

TEST(LpmNextHopSmTest, StartUpPlacesRequestsAlreadyThere) {
  Ptr<Config> config = configFactory("nh");
  Ptr<Status> status = statusFactory("nh");
  config->tableSizeIs(64);
  config->requestIs(SwId(7), Nway(8));
  status->swIdToNextHopBlockIs(SwId(99), NextHopBlock(0, 1));  // stale output is cleared
  Ptr<LpmNextHopSm> sm = LpmNextHopSmIs("nh", config, status);
  EXPECT_EQ(status->swIdToNextHopBlock(SwId(7)), NextHopBlock(0, 8));
  EXPECT_EQ(status->swIdToNextHopBlock(SwId(99)), NextHopBlock());
}

TEST(LpmNextHopSmTest, SummaryText) {
  Machine m(16);
  m.want(1, 4);
  m.sm->handleRequest(SwId(1));
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  m.sm->showSoftwareSummary(fds[1]);
  close(fds[1]);
  char buf[256] = {};
  const ssize_t n = read(fds[0], buf, sizeof buf - 1);
  close(fds[0]);
  ASSERT_GT(n, 0);
  EXPECT_STREQ(buf, "\nNexthop block summary\n allocs: 1, updates: 1 frees: 0\n overflows: 0, defrags: 0\n");
}

}  // namespace
}  // namespace XpLpmNextHop
}  // namespace XpLib
