// The agent under the pressure a switch meets: a nearly full NHI table, tiles that need
// compaction, churn over several tiles. Nothing stops the process, and routes nobody touched
// keep forwarding exactly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

#include "ForwardingCheck.h"
#include "PressureModel.h"
#include "support/TestSupport.h"

namespace XpLib {
namespace Agent {
namespace {

using xplpm_test::ScopedEnv;

// The reference profile's prefix tables over one NHI tile of `entries` entries in each family:
// the tile, not the tables, is what runs out. The library is told the tile size through
// NHI_TABLE_SIZE, which the caller sets.
XpXdk::xpChipProfile oneSmallTile(U32 entries) {
  XpXdk::xpChipProfile p = *XpXdk::findChipProfile("reference");
  for (auto* c : {&p.ipv4, &p.ipv6}) {
    c->nhiTableSize = entries;
    c->nhiTileBitmap[0] = 1;
  }
  return p;
}

// Routes crowded into 10.1.0.0/16 over a few groups: sub-tries hold several prefixes each.
Route crowdedV4(std::mt19937& rng) {
  Route r;
  const U8 len = static_cast<U8>(20 + rng() % 9);
  r.v4 = Prefix(((10u << 24) | (1u << 16) | (rng() & 0xFFFF)) & Prefix::mask(len), len);
  r.nextHop = rng() % 6;
  return r;
}

U32 freeNhi(const XpLpmAgent& agent, bool v6) {
  U32 n = 0;
  for (const auto& [tile, a] : agent.family(v6).sm->nhiAllocatorMap()) n += a->freeEntries();
  return n;
}

struct FullTileRun {
  U64 refused = 0, held = 0, freeAtStart = 0, freeAtEnd = 0, deferredAtEnd = 0, installedAtEnd = 0, mismatches = 0;
};

// A tile filled as far as the agent admits, next hops changed all over it, then every route
// withdrawn.
FullTileRun fullTile(unsigned seed, bool reserve) {
  std::mt19937 rng(seed);
  ScopedEnv size("NHI_TABLE_SIZE", "48");
  XpLpmAgent agent(oneSmallTile(48), {.nextHopGroups = 6, .nhiReserve = reserve});
  FullTileRun run;
  run.freeAtStart = freeNhi(agent, false);
  std::vector<Route> routes;
  for (int i = 0; i < 400; ++i) {
    routes.push_back(crowdedV4(rng));
    run.refused += agent.routeIs(routes.back()).state == RouteState::nhiReserve;
  }
  for (int i = 0; i < 2000; ++i) {
    Route& r = routes[rng() % routes.size()];
    r.nextHop = rng() % 6;
    agent.routeIs(r);
  }
  std::mt19937_64 probeRng(seed);
  run.mismatches = test::probeInstalled(agent, probeRng).mismatches;
  std::shuffle(routes.begin(), routes.end(), rng);
  for (const Route& r : routes) agent.routeDel(r);
  run.freeAtEnd = freeNhi(agent, false);
  run.held = agent.counters().withdrawalsHeld;
  run.deferredAtEnd = agent.withdrawalsDeferred();
  run.installedAtEnd = agent.family(false).sm->prefixToSubTries();
  return run;
}

// With the reserve no withdrawal ever finds the tile without room for the block it needs;
// without it, next-hop changes leave routes whose withdrawal the library would stop on, and the
// agent must hold them back. Either way the tile comes back empty.
TEST(PressureTest, FullTileNextHopChangesAndWithdrawalsNeverStop) {
  for (unsigned seed : {11u, 12u, 13u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const FullTileRun kept = fullTile(seed, true);
    EXPECT_GT(kept.refused, 0u) << "the tile never filled";
    EXPECT_EQ(kept.held, 0u);
    const FullTileRun bare = fullTile(seed, false);
    EXPECT_GT(bare.held, 0u) << "the load never pressed a withdrawal";
    for (const FullTileRun& run : {kept, bare}) {
      SCOPED_TRACE(&run == &kept ? "reserve" : "no reserve");
      EXPECT_EQ(run.mismatches, 0u);
      EXPECT_EQ(run.installedAtEnd, 0u);
      EXPECT_EQ(run.deferredAtEnd, 0u);
      EXPECT_EQ(run.freeAtEnd, run.freeAtStart);
    }
  }
}

// A sub-trie that grows in a fragmented tile makes the library compact the tile while it still
// holds its old block, and rewrite itself at that moved block with its new, larger slot count:
// past the block's end, over the next block, or over the contents another sub-trie shares. Such
// writes must never reach the chip, and the chip must end up holding exactly what the model holds.
TEST(PressureTest, GrowthInAFragmentedTileNeverOverwritesAnotherBlock) {
  ScopedEnv size("NHI_TABLE_SIZE", "10");
  XpXdk::xpChipProfile p = *XpXdk::findChipProfile("small");
  p.ipv6.nhiTableSize = 10;
  p.ipv4.nhiTableSize = 10;
  U64 compacted = 0, kept = 0;
  for (unsigned seed = 0; seed < 600; ++seed) {
    std::mt19937 rng(seed);
    XpLpmAgent agent(p, {.nextHopGroups = 6, .nhiReserve = false});
    std::vector<Route> routes;
    for (int i = 0; i < 60; ++i) {
      if (!routes.empty() && rng() % 10 == 0) {
        Route& r = routes[rng() % routes.size()];
        r.nextHop = rng() % 6;
        agent.routeIs(r);
        continue;
      }
      // A few /44s, so that several sub-tries share the tile, each growing as prefixes join it.
      Route r;
      r.ipv6 = true;
      Ip6Prefix::Bytes a{0x20, 0x01, 0x0d, 0xb8, static_cast<U8>(rng() % 4), 0, static_cast<U8>(rng()),
                         static_cast<U8>(rng())};
      const U8 len = static_cast<U8>(44 + rng() % 21);
      for (int b = 0; b < 16; ++b) a[b] &= static_cast<U8>(0xFF00 >> std::clamp(len - 8 * b, 0, 8));
      r.v6 = Ip6Prefix(a, len);
      r.nextHop = rng() % 6;
      routes.push_back(r);
      agent.routeIs(r);
    }
    compacted += agent.family(true).sm->numNhiBlockDefrag() > 0;
    kept += agent.family(true).writer->counters().guardedLive > 0;
    std::mt19937_64 probeRng(seed);
    EXPECT_EQ(test::probeInstalled(agent, probeRng, true).mismatches, 0u) << "seed " << seed;
  }
  std::printf("growth: %llu of 600 sequences compacted the tile, %llu queued a write over another block\n",
              static_cast<unsigned long long>(compacted), static_cast<unsigned long long>(kept));
  EXPECT_GT(kept, 0u) << "no sequence reached the case";
}

// The pressure model, shortened: on one tile and on four, near their reserve, with both filings
// where they apply (the library's own filing cannot compact a tile of several, so it runs on one).
TEST(PressureTest, RandomOperationsAtHighFillForwardExactlyAndGiveEverythingBack) {
  struct Case {
    U32 tiles, tileEntries;
    bool ownTile;
  };
  for (const Case& c : {Case{1, 48, true}, Case{1, 48, false}, Case{4, 24, true}}) {
    for (unsigned seed : {1u, 2u}) {
      SCOPED_TRACE("tiles " + std::to_string(c.tiles) + (c.ownTile ? " own" : " first") + " seed " +
                   std::to_string(seed));
      const test::PressureFigures f = test::runPressure(
          {.tiles = c.tiles, .tileEntries = c.tileEntries, .ownTile = c.ownTile, .ops = 10000, .seed = seed});
      EXPECT_EQ(f.mismatches, 0u);
      EXPECT_GT(f.refused, 0u) << "the tiles never reached their reserve";
      EXPECT_EQ(f.withdrawalsHeld, 0u);
      EXPECT_EQ(f.nhiFreeAtEnd, f.nhiEntries);
      EXPECT_EQ(f.unprotected, 0u) << "an NHI write landed on entries still read";
      if (c.tiles > 1) {
        EXPECT_GT(f.compactions, 0u);
        EXPECT_GT(f.stagingWrites, 0u) << "no compaction moved a block over entries still read";
      }
      std::printf("tiles %u %s seed %u: %llu compactions, %llu writes, %llu of them staging\n", c.tiles,
                  c.ownTile ? "own" : "first", seed, (unsigned long long)f.compactions,
                  (unsigned long long)f.writes, (unsigned long long)f.stagingWrites);
    }
  }
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
