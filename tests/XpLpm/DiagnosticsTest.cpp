// The operator's show commands and the trace dumps, character for character: the
// caller evaluates the dictionary outputs, so every comma and quote is interface.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "LpmTestSupport.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {
namespace {

using namespace test;

// What a print writes to its descriptor.
std::string printed(const std::function<void(int)>& print) {
  FILE* f = std::tmpfile();
  const int fd = fileno(f);
  print(fd);
  lseek(fd, 0, SEEK_SET);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<std::size_t>(n));
  std::fclose(f);
  return out;
}

// A tread-24 table that gets every route and a tread-16 table that stays empty; two NHI tiles.
// Three routes share one sub-trie; two lone routes with equal next hops share one NHI block.
struct DiagnosticsTest : ::testing::Test {
  Ptr<ConfigV4> cfg;
  Ptr<Status> status = statusFactory("status");
  Ptr<LpmSm> sm;
  Ptr<LpmPrefix> a, b, c, d, e;

  void SetUp() override {
    Geometry g;
    g.tables = {{0, 24, 64}, {1, 16, 16}};
    g.tiles = 2;
    cfg = makeConfigV4(g);
    sm = LpmSmIs("sm", cfg, status, nullptr);
    a = route("10.1.1.0/24", nh(100), 0);
    b = route("10.1.2.0/24", nh(101, 2), 0);
    c = route("10.1.3.0/24", nh(102), 0);
    d = route("20.0.0.0/24", nh(100), 3);
    e = route("30.0.0.0/24", nh(100), 0);
    ASSERT_EQ(sm->prefixToSubTrie(a), sm->prefixToSubTrie(c));
    ASSERT_EQ(table(0)->subTries(), 3u) << "the test needs three positions";
    ASSERT_EQ(sm->prefixToSubTrie(d)->nhiBaseIdx(), sm->prefixToSubTrie(e)->nhiBaseIdx());
  }
  Ptr<LpmPrefix> route(const std::string& text, NextHopBlock block, U32 vrf) {
    Ptr<LpmPrefix> p = v4(cfg, text, vrf);
    cfg->requestIs(p, block);
    EXPECT_TRUE(sm->prefixToSubTrie(p)) << text;
    return p;
  }
  Ptr<PrefixTable> table(U8 id) const { return sm->prefixTable(PrefixTableId(id)); }
};

TEST_F(DiagnosticsTest, SoftwareSummaryShowsTheAttemptsLineOnlyWithShuffling) {
  sm->numHashShufflingAttemptIs((U64(1) << 32) + 5);
  sm->numHashShufflingSuccessIs(2);
  sm->numNhiOverflowIs(5000000000ull);
  sm->numNhiBlockDefragIs(3);
  const std::string counters = " Nexthop index block overflows: 5000000000, defrags: 3, shared: 1\n";
  sm->hashShufflingEnabledIs(true);
  EXPECT_EQ(printed([&](int fd) { sm->showSoftwareSummary(fd); }),
            "\nIPv4 Lpm Summary\n Hash shuffling enabled: True\n  attempts: 4294967301, success: 2\n" + counters);
  sm->hashShufflingEnabledIs(false);
  EXPECT_EQ(printed([&](int fd) { sm->showSoftwareSummary(fd); }),
            "\nIPv4 Lpm Summary\n Hash shuffling enabled: False\n" + counters);

  // A block counts once however many sub-tries use it; a block left with one user no longer counts.
  Ptr<LpmPrefix> f = route("40.0.0.0/24", nh(100), 0);
  ASSERT_EQ(sm->prefixToSubTrie(f)->nhiBaseIdx(), sm->prefixToSubTrie(d)->nhiBaseIdx());
  ASSERT_NE(sm->prefixToSubTrie(f), sm->prefixToSubTrie(e));
  EXPECT_EQ(sm->numSharedNhiBlocks(), 1u);
  route("30.0.0.0/24", nh(200), 0);
  EXPECT_EQ(sm->numSharedNhiBlocks(), 1u);
  Ptr<LpmPrefix> g = route("50.0.0.0/24", nh(200), 0);
  ASSERT_EQ(sm->prefixToSubTrie(g)->nhiBaseIdx(), sm->prefixToSubTrie(e)->nhiBaseIdx());
  EXPECT_NE(printed([&](int fd) { sm->showSoftwareSummary(fd); }).find(", shared: 2\n"), std::string::npos);

  Geometry g6;
  g6.tables = {{0, 64, 64}};
  Ptr<LpmSm> v6sm = LpmSmIs("v6", makeConfigV6(g6), statusFactory("v6"), nullptr);
  EXPECT_EQ(printed([&](int fd) { v6sm->showSoftwareSummary(fd); }),
            "\nIPv6 Lpm Summary\n Hash shuffling enabled: True\n  attempts: 0, success: 0\n"
            " Nexthop index block overflows: 0, defrags: 0, shared: 0\n");
}

TEST_F(DiagnosticsTest, PrefixTablesAndNhiTiles) {
  EXPECT_EQ(printed([&](int fd) { sm->printPrefixTables(fd); }),
            "{'prefixTblId':0,'prefixTblTread':24,'subTries':3,'totalPrefixes':5,'subTriesCapacity':64,},"
            "{'prefixTblId':1,'prefixTblTread':16,'subTries':0,'totalPrefixes':0,'subTriesCapacity':16,},");

  // Two one-entry blocks in all (the shared one counted once), on whichever tiles they were given.
  U32 used[2] = {0, 0};
  for (const auto& [base, blk] : sm->nhiBaseIdxToBlkMap()) used[base.tile().value()] += blk->blkSz();
  ASSERT_EQ(used[0] + used[1], 2u);
  EXPECT_EQ(printed([&](int fd) { sm->printNhiTiles(fd); }),
            "{'tileId':0,'freeEntries':" + std::to_string(64 - used[0]) + ",'entriesCapacity':64,}," +
                "{'tileId':1,'freeEntries':" + std::to_string(64 - used[1]) + ",'entriesCapacity':64,},");
}

struct Slot {
  U32 slot;
  U32 vrf;
  const char* prefix;
  NextHopBlock block;
};

std::string subTrieInfo(const SubTrie& st, const std::vector<Slot>& slots) {
  std::string s = "{'index':" + std::to_string(st.index().value()) + ",'branchLen':" + std::to_string(st.branchLen()) +
                  ",'stride':" + std::to_string(st.stride()) + ",'mode':'sparse','maxPrefixSlot':" +
                  std::to_string(st.maxPrefixSlot()) + ",'nhiTile':" + std::to_string(st.nhiBaseIdx().tile().value()) +
                  ",'nhiOffset':" + std::to_string(st.nhiBaseIdx().offset()) +
                  ",'nhiBlkSize':" + std::to_string(st.nhiBlkSize()) + ",'prefixes':[";
  for (const Slot& p : slots) {
    s += "{'slot':" + std::to_string(p.slot) + ",'lpmPrefix': {'vrf':" + std::to_string(p.vrf) + ",'prefix':'" +
         p.prefix + "',},'nhBlock':'" + p.block.str() + "',},";
  }
  return s + "],},";
}

TEST_F(DiagnosticsTest, SubTrieInfoListsOnlyOccupiedSlotsAndDumpShowsTheHoles) {
  Ptr<SubTrie> abc = sm->prefixToSubTrie(a);
  ASSERT_EQ(abc->prefixToSlot(b), 1);
  abc->prefixDel(1);  // a hole, as a recovered entry may have; the key still names the slot
  ASSERT_EQ(abc->maxPrefixSlot(), 3u);
  const std::string expected =
      "{'prefixTblId':0,'prefixTblTread':24,'subTries':[" +
      subTrieInfo(*abc, {{0, 0, "10.1.1.0/24", nh(100)}, {2, 0, "10.1.3.0/24", nh(102)}}) +
      subTrieInfo(*sm->prefixToSubTrie(d), {{0, 3, "20.0.0.0/24", nh(100)}}) +
      subTrieInfo(*sm->prefixToSubTrie(e), {{0, 0, "30.0.0.0/24", nh(100)}}) +
      "],},{'prefixTblId':1,'prefixTblTread':16,'subTries':[],},";
  EXPECT_EQ(printed([&](int fd) { sm->printSubTrieInfo(fd); }), expected);

  Ptr<SubTrie> lone = sm->prefixToSubTrie(d);
  for (auto [mode, text] : {std::pair{modeBitmap, "'mode':'bitmap',"}, std::pair{modeCpe, "'mode':'cpe',"}}) {
    lone->modeIs(mode);
    EXPECT_NE(printed([&](int fd) { sm->printSubTrieInfo(fd); }).find(text), std::string::npos) << text;
  }
  lone->modeIs(modeSparse);

  {
    xplpm_test::TraceCapture quiet(8);
    sm->dumpPrefixTables();
    EXPECT_TRUE(quiet.lines.empty()) << "dumps are full-table traces, off below level 9";
  }
  xplpm_test::TraceCapture trace(9);
  sm->dumpPrefixTable(table(0));
  const std::string key = abc->nhiInfoKey().str();
  const std::vector<std::string> want = {
      "Dump prefix table 0 tread 24",
      "-- SubTrie " + std::to_string(abc->index().value()),
      "  -- branchLen " + std::to_string(abc->branchLen()),
      "  -- stride " + std::to_string(abc->stride()),
      "  -- numPrefixes 2",
      "  -- maxPrefixSlot 3",
      "  -- nhiBaseIdx " + std::to_string(abc->nhiBaseIdx().tile().value()) + "," +
          std::to_string(abc->nhiBaseIdx().offset()),
      "  -- nhiBlkSize " + std::to_string(abc->nhiBlkSize()),
      "  -- nhiInfoKey " + key,
      "  -- prefixSlots: ",
      "    -- prefix slot 0 vrf 0 prefix 10.1.1.0/24",
      "    -- prefix slot 1 EMPTY",
      "    -- prefix slot 2 vrf 0 prefix 10.1.3.0/24",
      "    -- nhBlk slot 0 " + nh(100).str(),
      "    -- nhBlk slot 1 " + nh(101, 2).str(),
      "    -- nhBlk slot 2 " + nh(102).str(),
      "-- SubTrie " + std::to_string(lone->index().value()),
  };
  ASSERT_GE(trace.lines.size(), want.size());
  for (std::size_t i = 0; i < want.size(); ++i) EXPECT_EQ(trace.lines[i], want[i]) << "line " << i;
  int headers = 0;
  for (const auto& l : trace.lines) headers += l.rfind("-- SubTrie ", 0) == 0;
  EXPECT_EQ(headers, 3);
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
