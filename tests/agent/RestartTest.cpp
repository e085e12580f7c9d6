// Warm restart: a new agent over a chip that kept its memory rebuilds the same
// model, writes nothing for unchanged intent, and forwards as a cold start
// would for changed intent.
#include <gtest/gtest.h>

#include <cstdio>

#include <random>
#include <set>

#include "ForwardingCheck.h"
#include "agent/ModelSnapshot.h"

namespace XpLib {
namespace Agent {
namespace {


// Distinct keys, few enough that the small profile places them all.
std::vector<Route> randomRoutes(std::mt19937& rng, int n, std::set<std::string>& keys) {
  std::vector<Route> routes;
  while (static_cast<int>(routes.size()) < n) {
    const int i = static_cast<int>(routes.size());
    Route r;
    r.ipv6 = i % 3 == 0;
    r.vrf = rng() % 2;
    r.nextHop = rng() % 40;
    if (r.ipv6) {
      Ip6Prefix::Bytes a{0x20, 0x01, static_cast<U8>(rng() % 4), static_cast<U8>(rng()), static_cast<U8>(rng()),
                         static_cast<U8>(rng()), static_cast<U8>(rng()), static_cast<U8>(rng())};
      const U8 len = static_cast<U8>(24 + rng() % 41);
      for (int b = 0; b < 16; ++b) a[b] &= static_cast<U8>(0xFF00 >> std::clamp(len - 8 * b, 0, 8));
      r.v6 = Ip6Prefix(a, len);
    } else {
      const U8 len = static_cast<U8>(8 + rng() % 25);
      r.v4 = Prefix(((8 + rng() % 4) << 24 | (rng() & 0xFFFFFF)) & Prefix::mask(len), len);
    }
    if (keys.insert(std::to_string(r.vrf) + r.prefixStr()).second) routes.push_back(r);
  }
  return routes;
}

U64 writes(const XpLpmAgent& a) {
  return a.family(false).writer->counters().writes() + a.family(true).writer->counters().writes() +
         a.counters().nextHopWrites;
}

TEST(RestartTest, UnchangedIntentRebuildsTheSameModelAndWritesNothing) {
  std::printf("seed 31337, probes 5\n");
  std::mt19937 rng(31337);
  const auto& profile = *XpXdk::findChipProfile("small");
  std::set<std::string> keys;
  const std::vector<Route> wanted = randomRoutes(rng, 200, keys);
  std::string before[2];
  std::shared_ptr<ChipPort> chip;
  {
    XpLpmAgent first(profile, {.nextHopGroups = 40});
    for (const Route& r : wanted) first.routeIs(r);
    // Churn, so that the layout is not a fresh one.
    for (int i = 0; i < 3000; ++i) {
      Route r = wanted[rng() % wanted.size()];
      if (rng() % 2) {
        first.routeDel(r);
        first.routeIs(r);
      } else {
        first.groupWidthIs(SwId(rng() % 40), Nway(static_cast<U16>(1 + rng() % 6)));
      }
    }
    for (const Route& r : wanted) ASSERT_TRUE(first.installed(r)) << r.prefixStr();
    for (bool v6 : {false, true}) before[v6] = modelSnapshot(*first.family(v6).sm);
    chip = first.sharedChip();
  }
  XpLpmAgent second(profile, chip, XpLpmAgent::Start::warm, {.nextHopGroups = 40});
  for (bool v6 : {false, true}) {
    const std::string after = modelSnapshot(*second.family(v6).sm);
    EXPECT_TRUE(after == before[v6]) << (v6 ? "ipv6" : "ipv4") << "\n" << snapshotDiff(before[v6], after);
  }
  EXPECT_EQ(second.restartReport().groupsMisplaced, 0u);
  const auto report = second.reconcile(wanted);
  EXPECT_EQ(report.changed + report.added + report.withdrawn, 0u);
  EXPECT_EQ(writes(second), 0u) << "the replay must find every entry already written";
  for (bool v6 : {false, true}) EXPECT_GT(second.family(v6).writer->counters().skipped(), 0u);
  std::mt19937_64 probeRng(5);
  EXPECT_EQ(test::probeInstalled(second, probeRng).mismatches, 0u);
}

TEST(RestartTest, ChangedIntentForwardsAsAColdStartWould) {
  std::printf("seed 4711, probes 6\n");
  std::mt19937 rng(4711);
  const auto& profile = *XpXdk::findChipProfile("small");
  std::set<std::string> keys;
  std::vector<Route> wanted = randomRoutes(rng, 200, keys);
  std::shared_ptr<ChipPort> chip;
  {
    XpLpmAgent first(profile, {.nextHopGroups = 40});
    for (const Route& r : wanted) first.routeIs(r);
    chip = first.sharedChip();
  }
  // Some withdrawn, some with new next hops, some new.
  std::vector<Route> next;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    if (i % 10 == 0) continue;
    Route r = wanted[i];
    if (i % 10 == 1) r.nextHop = (r.nextHop + 7) % 40;
    next.push_back(r);
  }
  for (const Route& r : randomRoutes(rng, 30, keys)) next.push_back(r);

  // Two groups were being resized when the agent went down: the control plane still wants the
  // new widths (groups 3 and 5 start at 8 and 2).
  const std::vector<std::pair<SwId, Nway>> widths{{SwId(3), Nway(2)}, {SwId(5), Nway(4)}};
  XpLpmAgent restarted(profile, chip, XpLpmAgent::Start::warm, {.nextHopGroups = 40});
  const auto report = restarted.reconcile(next, widths);
  EXPECT_GT(report.withdrawn, 0u);
  EXPECT_GT(report.changed, 0u);
  EXPECT_GT(report.added, 0u);
  EXPECT_EQ(report.groupsResized, 2u);
  XpLpmAgent cold(profile, {.nextHopGroups = 40});
  for (const auto& [group, width] : widths) cold.groupWidthIs(group, width);
  for (const Route& r : next) cold.routeIs(r);
  for (const auto& [group, width] : widths) EXPECT_EQ(restarted.groupBlock(group).size(), width) << group.str();

  // Both chips forward every wanted route, at its first and last address, to the same group.
  auto groupAt = [](XpLpmAgent& a, const Route& r, bool last) -> std::optional<U64> {
    XpXdk::xpLpmLookupResult hit;
    if (r.ipv6) {
      hit = a.lookup(r.vrf, last ? lastAddress(r.v6) : r.v6.address());
    } else {
      hit = a.lookup(r.vrf, last ? lastAddress(r.v4) : r.v4.address());
    }
    const std::optional<XpXdk::xpNhEntry> e = a.chip().resolve(hit, 0);
    if (!e) return std::nullopt;
    return XpLpmAgent::groupOfEntry(*e).value();
  };
  U64 compared = 0;
  for (const Route& r : next) {
    ASSERT_TRUE(cold.installed(r) && restarted.installed(r)) << r.prefixStr();
    ASSERT_EQ(restarted.installedBlock(r).size(), cold.installedBlock(r).size()) << r.prefixStr();
    for (bool last : {false, true}) {
      ASSERT_EQ(groupAt(restarted, r, last), groupAt(cold, r, last)) << r.prefixStr();
      ++compared;
    }
  }
  EXPECT_EQ(compared, 2 * next.size());
  std::mt19937_64 probeRng(6);
  EXPECT_EQ(test::probeInstalled(restarted, probeRng).mismatches, 0u);
}

// A warm restart on a profile of eight NHI tiles, then changes: routes nobody touched forward
// exactly, every one of them probed. With the library's own filing a block is filed under one tile
// while its entries come from another; recovery then claims it in the tile the chip names, and the
// first change writes a new block over a recovered one.
TEST(RestartTest, ChangesAfterAWarmRestartOnEightTilesForwardExactly) {
  const auto& profile = *XpXdk::findChipProfile("reference");
  struct Case {
    const char* name;
    bool ownTile;
    int routes;  // of each family; 0 for the nine /24s of the smallest reproduction
    int changes;
  };
  for (const Case& c : {Case{"nine /24s, own tile", true, 0, 1}, Case{"nine /24s, first tile", false, 0, 1},
                        Case{"3000 + 3000, own tile", true, 3000, 20}}) {
    for (unsigned seed : {1u, 2u, 3u}) {
      if (c.routes == 0 && seed > 1) continue;
      SCOPED_TRACE(std::string(c.name) + ", seed " + std::to_string(seed));
      XpLpm::LpmSm::lastNhiTileIs(255);
      std::mt19937 rng(seed);
      std::set<std::string> keys;
      std::vector<Route> wanted;
      if (c.routes == 0) {
        for (U32 i = 0; i < 9; ++i) {
          Route r;
          r.v4 = Prefix((10u + i) << 24, 24);  // each in a sub-trie, each with a block of its own
          r.nextHop = i;
          wanted.push_back(r);
        }
      } else {
        wanted = randomRoutes(rng, 2 * c.routes, keys);
      }
      const AgentOptions options{.nextHopGroups = 40, .nhiOwnTileFiling = c.ownTile};
      std::shared_ptr<ChipPort> chip;
      {
        XpLpmAgent first(profile, options);
        for (const Route& r : wanted) first.routeIs(r);
        chip = first.sharedChip();
      }
      // A new process: the tile rotation starts afresh.
      XpLpm::LpmSm::lastNhiTileIs(255);
      XpLpmAgent second(profile, chip, XpLpmAgent::Start::warm, options);
      second.reconcile(wanted);
      for (int i = 0; i < c.changes; ++i) {
        Route& r = c.routes == 0 ? wanted.front() : wanted[rng() % wanted.size()];
        r.nextHop = (r.nextHop + 1 + rng() % 39) % 40;
        second.routeIs(r);
      }
      std::mt19937_64 probeRng(seed);
      const U64 mismatches = test::probeInstalled(second, probeRng, !c.ownTile).mismatches;
      if (c.ownTile) {
        EXPECT_EQ(mismatches, 0u);
        for (const Route& r : wanted) EXPECT_TRUE(second.installed(r)) << r.prefixStr();
      } else {
        EXPECT_GT(mismatches, 0u) << "the hazard this filing is kept off for did not show";
      }
    }
  }
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
