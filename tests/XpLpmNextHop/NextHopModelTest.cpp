// Tests of the next-hop model: identifiers and blocks (defaults, parse, hash, text), block lists,
// and the Config and Status entities (lookups, notifications, the shuffle queue's index rule).
#include "support/TestSupport.h"
#include "XpLpmNextHop/XpLpmNextHop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <iostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace XpLib {
namespace XpLpmNextHop {
namespace {

U32 referenceBlockHash(U32 base, U16 size) {
  return xplpm_test::oneAtATimeReference({U8(base), U8(base >> 8), U8(base >> 16), U8(base >> 24), U8(size), U8(size >> 8)});
}

TEST(NextHopValueTest, DefaultsMeanNone) {
  EXPECT_EQ(SwId().value(), 0xFFFFFFFFFFFFFFFFull);
  EXPECT_EQ(Nway().value(), 65535);
  EXPECT_EQ(NextHopTableIdx().value(), 0xFFFFFFFFu);
  EXPECT_EQ(NextHopBlock(), NextHopBlock(0xFFFFFFFFu, U16(0xFFFF)));
  EXPECT_EQ(NextHopBlock().str(),
            "Value('XpLib::XpLpmNextHop::NextHopBlock', ** {'base': 4294967295, 'size': 65535})");
  EXPECT_EQ(NextHopBlock(10, 4).str(), "Value('XpLib::XpLpmNextHop::NextHopBlock', ** {'base': 10, 'size': 4})");
  EXPECT_EQ(SwId(42).str(), "42");
}

TEST(NextHopValueTest, ParseChecksTheWidth) {
  // Accepted as SwId, Nway, NextHopTableIdx.
  const std::tuple<const char*, bool, bool, bool> cases[] = {
      {"65535", true, true, true},           {"65536", true, false, true},
      {"4294967295", true, false, true},     {"4294967296", true, false, false},
      {"18446744073709551615", true, false, false}, {"18446744073709551616", false, false, false},
      {"", false, false, false},             {"-1", false, false, false},
      {"12a", false, false, false},
  };
  for (const auto& [text, swId, nway, tableIdx] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(SwId::parse(text).has_value(), swId);
    EXPECT_EQ(Nway::parse(text).has_value(), nway);
    EXPECT_EQ(NextHopTableIdx::parse(text).has_value(), tableIdx);
  }
  EXPECT_EQ(Nway::parse("65535")->str(), "65535");
}

TEST(NextHopValueTest, BlockHashIsOneAtATimeOverBaseThenSize) {
  const unsigned seed = 1501;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  for (int round = 0; round < 2000; ++round) {
    const U32 base = static_cast<U32>(rng());
    const U16 size = static_cast<U16>(rng());
    ASSERT_EQ(NextHopBlock(base, size).hash(), referenceBlockHash(base, size)) << base << " " << size;
  }
  EXPECT_EQ(NextHopBlock().hash(), referenceBlockHash(0xFFFFFFFF, 0xFFFF));
  EXPECT_NE(NextHopBlock(5, 1), NextHopBlock(5, 2));
  EXPECT_NE(NextHopBlock(5, 1).hash(), NextHopBlock(5, 2).hash());
}

struct ConfigRecorder : Config::Notifiee {
  std::vector<U64> requests;
  int tableSizes = 0;
  void onRequest(SwId swId) override { requests.push_back(swId.value()); }
  void onTableSize() override { ++tableSizes; }
};

TEST(NextHopConfigTest, RequestsAndTheirAnnouncements) {
  Ptr<Config> cfg = configFactory("nh");
  ConfigRecorder rec, quiet;
  rec.notifierIs(cfg);
  quiet.notifierIs(cfg);
  quiet.isNotificationActiveIs(false);
  EXPECT_EQ(cfg->request(SwId(9)), Nway());
  EXPECT_EQ(cfg->request(SwId(9)).value(), 65535);
  cfg->tableSizeIs(0);
  cfg->tableSizeIs(4096);
  cfg->tableSizeIs(4096);
  cfg->requestIs(SwId(9), Nway(4));
  cfg->newRequest(SwId(9), Nway(4));
  cfg->requestIs(SwId(9), Nway(8));
  cfg->requestIs(SwId(10), Nway(2));
  cfg->requestDel(SwId(9));
  cfg->requestDel(SwId(9));
  EXPECT_EQ(rec.tableSizes, 1);
  EXPECT_EQ(rec.requests, (std::vector<U64>{9, 9, 10, 9}));
  cfg->requestDelAll();
  EXPECT_EQ(rec.requests.back(), 10u);
  EXPECT_EQ(cfg->requests(), 0u);
  EXPECT_TRUE(quiet.requests.empty());
  EXPECT_EQ(quiet.tableSizes, 0);
}

struct StatusRecorder : Status::Notifiee {
  std::vector<U64> blocks;
  std::vector<U32> shuffles;
  bool leaveOnShuffle = false;
  void onSwIdToNextHopBlock(SwId swId) override { blocks.push_back(swId.value()); }
  void onShuffleCmd(U32 index) override {
    shuffles.push_back(index);
    if (leaveOnShuffle) notifierIs(nullptr);
  }
};

Ptr<ShuffleCmd> shuffleOf(U64 swId) { return shuffleCmdFactory(SwId(swId), NextHopBlock(0, 2), NextHopBlock(16, 2)); }

TEST(NextHopStatusTest, ShuffleQueueReusesTheLastIndexOnceDrained) {
  Ptr<Status> s = statusFactory("nh");
  StatusRecorder rec, leaving;
  rec.notifierIs(s);
  leaving.notifierIs(s);
  leaving.leaveOnShuffle = true;
  // Eight commands take indexes 0..7; draining them leaves the stored last index at 7.
  for (U32 i = 0; i < 8; ++i) EXPECT_EQ(s->shuffleCmdEnq(shuffleOf(i)), i);
  while (s->shuffleCmds() > 0) s->shuffleCmdDeq();
  EXPECT_EQ(s->shuffleCmdEnq(shuffleOf(100)), 7u);
  EXPECT_EQ(s->shuffleCmdEnq(shuffleOf(101)), 8u);
  EXPECT_EQ(s->shuffleCmd(7)->swId(), SwId(100));
  EXPECT_EQ(rec.shuffles, (std::vector<U32>{0, 1, 2, 3, 4, 5, 6, 7, 7, 8}));
  EXPECT_EQ(leaving.shuffles, std::vector<U32>{0});
}

}  // namespace
}  // namespace XpLpmNextHop
}  // namespace XpLib
