// A seeded random model run at high NHI fill: routes announced, re-pointed and withdrawn and
// groups resized over small NHI tiles, the chip checked against the reference every 1,000
// operations, every installed route checked by the library at the end, and every NHI entry free
// again once everything is withdrawn. Shared by the test (a short run) and the benchmark.
#pragma once

#include <chrono>
#include <random>
#include <string>

#include "ForwardingCheck.h"
#include "support/TestSupport.h"

namespace XpLib {
namespace Agent {
namespace test {

struct PressureRun {
  U32 tiles = 1;
  U32 tileEntries = 48;
  bool ownTile = true;
  U64 ops = 20000;
  unsigned seed = 1;
  U32 nextHops = 64;   // entries of the next-hop table
  U32 keys = 800;      // routes the operations draw from
  U32 groups = 16;
};

struct PressureFigures {
  U64 ops = 0, checks = 0, probes = 0, mismatches = 0;
  U64 refused = 0, withdrawalsHeld = 0, compactions = 0, groupMoves = 0, installedPeak = 0;
  U64 nhiFreeAtEnd = 0, nhiEntries = 0;
  // The writer's side of hitless compaction: all chip writes, the writes that moved readers of
  // overlapped NHI entries aside, and NHI writes over live entries that could not be (must be 0).
  U64 writes = 0, stagingWrites = 0, unprotected = 0, compactionDrains = 0;
  double seconds = 0;
};

inline PressureFigures runPressure(const PressureRun& run) {
  xplpm_test::ScopedEnv tileSize("NHI_TABLE_SIZE", std::to_string(run.tileEntries));
  XpXdk::xpChipProfile profile = *XpXdk::findChipProfile("reference");
  for (auto* c : {&profile.ipv4, &profile.ipv6}) {
    c->nhiTableSize = run.tiles * run.tileEntries;
    c->nhiTileBitmap[0] = static_cast<U8>((1u << run.tiles) - 1);
  }
  profile.nextHop.rowBlkInc = run.nextHops;
  const U32 kGroups = run.groups;
  XpLpmAgent agent(profile, {.nextHopGroups = kGroups, .nhiOwnTileFiling = run.ownTile});
  std::mt19937 rng(run.seed);
  std::mt19937_64 probeRng(run.seed);
  // A bounded pool of keys in a few blocks of address space, so that sub-tries fill up and the
  // tiles run near their reserve.
  auto randomRoute = [&] {
    Route r;
    r.ipv6 = rng() % 2;
    r.vrf = rng() % 2;
    r.nextHop = rng() % kGroups;
    if (r.ipv6) {
      Ip6Prefix::Bytes a{0x20, 0x01, 0x0d, 0xb8, static_cast<U8>(rng() % 8), static_cast<U8>(rng() % 2),
                         static_cast<U8>(rng()), static_cast<U8>(rng())};
      const U8 len = static_cast<U8>(36 + rng() % 29);
      for (int b = 0; b < 16; ++b) a[b] &= static_cast<U8>(0xFF00 >> std::clamp(len - 8 * b, 0, 8));
      r.v6 = Ip6Prefix(a, len);
    } else {
      const U8 len = static_cast<U8>(16 + rng() % 13);
      r.v4 = Prefix(((10u << 24) | (rng() & 0x3FFFF)) & Prefix::mask(len), len);
    }
    return r;
  };
  std::vector<Route> pool;
  for (U32 i = 0; i < run.keys; ++i) pool.push_back(randomRoute());
  std::vector<bool> wanted(pool.size(), false);
  PressureFigures f;
  const auto t0 = std::chrono::steady_clock::now();
  for (U64 op = 0; op < run.ops; ++op) {
    const std::size_t i = rng() % pool.size();
    switch (rng() % 8) {
      case 0:
      case 1:
        if (wanted[i]) {
          agent.routeDel(pool[i]);
          wanted[i] = false;
          break;
        }
        [[fallthrough]];
      case 2:
      case 3:
      case 4:
        agent.routeIs(pool[i]);
        wanted[i] = true;
        break;
      case 5:
      case 6:
        pool[i].nextHop = rng() % kGroups;
        if (wanted[i]) agent.routeIs(pool[i]);
        break;
      default:
        agent.groupWidthIs(SwId(rng() % kGroups), Nway(static_cast<U16>(1 + rng() % 8)));
    }
    ++f.ops;
    U64 installed = 0;
    for (bool v6 : {false, true}) installed += agent.family(v6).sm->prefixToSubTries();
    f.installedPeak = std::max(f.installedPeak, installed);
    if ((op + 1) % 1000 == 0) {
      const ProbeCounts c = probeInstalled(agent, probeRng, true);
      ++f.checks;
      f.probes += c.probes;
      f.mismatches += c.mismatches;
    }
  }
  agent.nextHopSm()->verify();
  for (bool v6 : {false, true}) {
    const XpLpm::LpmSm& sm = *agent.family(v6).sm;
    sm.verify();
    f.refused += agent.nhiReserve(v6).refused;
    f.compactions += sm.numNhiBlockDefrag();
    const HwWriterCounters& w = agent.family(v6).writer->counters();
    f.writes += w.writes();
    f.stagingWrites += w.stagingWrites;
    f.unprotected += w.unprotected;
    f.compactionDrains += w.compactionDrains;
  }
  f.groupMoves = agent.counters().shuffles;
  f.withdrawalsHeld = agent.counters().withdrawalsHeld;
  for (std::size_t i = 0; i < pool.size(); ++i)
    if (wanted[i]) agent.routeDel(pool[i]);
  for (bool v6 : {false, true}) {
    for (const auto& [tile, allocator] : agent.family(v6).sm->nhiAllocatorMap()) {
      f.nhiFreeAtEnd += allocator->freeEntries();
      f.nhiEntries += allocator->entriesCapacity();
    }
  }
  f.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return f;
}

}  // namespace test
}  // namespace Agent
}  // namespace XpLib
