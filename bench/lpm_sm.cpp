// Whole-table programming rates of LpmSm on the real route tables: insert,
// update and delete with commands generated and drained, heap bytes per
// installed route, and a plain std::unordered_map insert of the same keys as the
// yardstick in the same run.
#include <benchmark/benchmark.h>

#include <chrono>
#include <unordered_map>

#include "XpLpm/LpmGeometry.h"
#include "support/RouteTables.h"
#include "XpLpm/XpLpmSm.h"
#include "agent/HeapInUse.h"

namespace {

using namespace XpLib;
using namespace XpLib::XpLpm;
using Agent::heapInUse;
using Agent::Route;

const std::vector<Route>& routesV4() { return xplpm_test::realRoutes(false); }
const std::vector<Route>& routesV6() { return xplpm_test::realRoutes(true); }

struct TreadGroup {
  U8 tread;
  U32 depth;
  int count;
};

// Several wide tables per tread so that a full or colliding position has
// somewhere else to go; enough NHI for a default-free table.
test::Geometry geometry(std::initializer_list<TreadGroup> groups, U8 tiles) {
  test::Geometry g;
  U8 id = 0;
  for (const TreadGroup& t : groups)
    for (int i = 0; i < t.count; ++i, ++id) g.tables.push_back({id, t.tread, t.depth, prefixTableWide256b, id % 4u});
  g.pairsPerEntry = 6;
  g.baseWidth = 16;
  g.entriesPerTile = 65535;
  g.tiles = tiles;
  return g;
}

test::Geometry geometryV4() {
  return geometry({{36, 32768, 4}, {32, 16384, 4}, {28, 4096, 4}, {24, 256, 4}, {20, 16, 2}, {16, 2, 1}}, 4);
}

test::Geometry geometryV6() {
  return geometry({{60, 16384, 4}, {48, 8192, 4}, {40, 2048, 4}, {32, 256, 2}, {24, 16, 2}, {16, 2, 1}}, 2);
}

NextHopBlock blockFor(U64 origin) { return NextHopBlock(static_cast<U32>(8 * (origin % 256)), 8); }

// The agent's drain: every command is taken off the queue and dropped.
void drain(Status& status) {
  while (status.pendingCmds()) status.pendingCmdDeq();
}

struct Programmed {
  Ptr<ConfigBase> cfg;
  Ptr<Status> status;
  Ptr<LpmSm> sm;
  std::vector<Ptr<LpmPrefix>> prefixes;
  std::vector<NextHopBlock> blocks;
};

template <class Routes, class MakePrefix>
Programmed setUp(Ptr<ConfigBase> cfg, const Routes& routes, MakePrefix makePrefix) {
  Programmed p;
  p.cfg = cfg;
  p.status = statusFactory("status");
  p.sm = LpmSmIs("bench", cfg, p.status, nullptr);
  p.prefixes.reserve(routes.size());
  for (const auto& r : routes) {
    p.prefixes.push_back(makePrefix(r));
    p.blocks.push_back(blockFor(r.nextHop));
  }
  return p;
}

void insertAll(Programmed& p) {
  for (std::size_t i = 0; i < p.prefixes.size(); ++i) {
    p.cfg->requestIs(p.prefixes[i], p.blocks[i]);
    if ((i & 255) == 0) drain(*p.status);
  }
  drain(*p.status);
}

template <class Make>
void runPhases(benchmark::State& state, Make make, const char* phase) {
  for (auto _ : state) {
    state.PauseTiming();
    LpmSm::lastNhiTileIs(255);
    routesV4();  // the route files are the benchmark's, read before the heap is measured
    routesV6();
    const std::size_t heapBefore = heapInUse();
    Programmed p = make();
    state.ResumeTiming();
    const auto t0 = std::chrono::steady_clock::now();
    if (std::string(phase) == "insert") {
      insertAll(p);
    } else {
      state.PauseTiming();
      insertAll(p);
      state.ResumeTiming();
    }
    if (std::string(phase) == "update") {
      for (std::size_t i = 0; i < p.prefixes.size(); ++i) {
        NextHopBlock b = p.blocks[i];
        p.cfg->requestIs(p.prefixes[i], NextHopBlock(b.base().value() + 8 * 7 % 2048, b.size().value()));
        if ((i & 255) == 0) drain(*p.status);
      }
      drain(*p.status);
    } else if (std::string(phase) == "delete") {
      for (std::size_t i = 0; i < p.prefixes.size(); ++i) {
        p.cfg->requestDel(p.prefixes[i]);
        if ((i & 255) == 0) drain(*p.status);
      }
      drain(*p.status);
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    state.PauseTiming();
    const std::size_t installed = p.sm->prefixToSubTries();
    if (std::string(phase) == "insert") {
      state.counters["installed"] = static_cast<double>(installed);
      state.counters["failed"] = static_cast<double>(p.prefixes.size() - installed);
      // The benchmark's own arrays of prefixes and blocks are not the library's.
      const std::size_t benchBytes = p.prefixes.capacity() * sizeof(p.prefixes[0]) + p.blocks.capacity() * sizeof(p.blocks[0]);
      state.counters["bytes_per_route"] =
          static_cast<double>(heapInUse() - heapBefore - benchBytes) / static_cast<double>(installed ? installed : 1);
      state.counters["shuffles"] = static_cast<double>(p.sm->numHashShufflingSuccess());
      state.counters["nhi_overflows"] = static_cast<double>(p.sm->numNhiOverflow());
      std::size_t subTries = 0;
      for (const auto& [id, table] : p.sm->prefixTableMap()) subTries += table->subTries();
      state.counters["subtries"] = static_cast<double>(subTries);
      state.counters["nhi_blocks"] = static_cast<double>(p.sm->nhiBaseIdxToBlkMap().size());
      const double n = static_cast<double>(installed ? installed : 1);
      state.counters["B_request"] = p.cfg->requestMap().heapBytes() / n;
      state.counters["B_status"] = p.status->prefixToNextHopBlockMap().heapBytes() / n;
      state.counters["B_prefixToSubTrie"] = p.sm->prefixToSubTrieMap().heapBytes() / n;
    }
    state.counters["routes_per_s"] = static_cast<double>(p.prefixes.size()) / seconds;
    p = Programmed();
    state.ResumeTiming();
  }
}

Programmed makeV4() {
  auto cfg = test::makeConfigV4(geometryV4());
  return setUp(cfg, routesV4(), [&](const Route& r) -> Ptr<LpmPrefix> {
    return cfg->newLpmPrefix(VrfAndPrefix{r.vrf, r.v4});
  });
}

Programmed makeV6() {
  auto cfg = test::makeConfigV6(geometryV6());
  return setUp(cfg, routesV6(), [&](const Route& r) -> Ptr<LpmPrefix> {
    return cfg->newLpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  });
}

void BM_Ipv4Insert(benchmark::State& s) { runPhases(s, makeV4, "insert"); }
void BM_Ipv4Update(benchmark::State& s) { runPhases(s, makeV4, "update"); }
void BM_Ipv4Delete(benchmark::State& s) { runPhases(s, makeV4, "delete"); }
void BM_Ipv6Insert(benchmark::State& s) { runPhases(s, makeV6, "insert"); }
void BM_Ipv6Update(benchmark::State& s) { runPhases(s, makeV6, "update"); }
void BM_Ipv6Delete(benchmark::State& s) { runPhases(s, makeV6, "delete"); }
BENCHMARK(BM_Ipv4Insert)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Ipv4Update)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Ipv4Delete)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Ipv6Insert)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Ipv6Update)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Ipv6Delete)->Unit(benchmark::kMillisecond)->Iterations(1);

// Yardstick: the same keys and blocks into a plain hash map.
struct KeyHash {
  std::size_t operator()(const VrfAndPrefix& k) const { return k.hash(); }
};

void BM_Ipv4UnorderedMapInsert(benchmark::State& state) {
  const auto& routes = routesV4();
  for (auto _ : state) {
    std::unordered_map<VrfAndPrefix, NextHopBlock, KeyHash> m;
    const std::size_t heapBefore = heapInUse();
    for (const auto& r : routes) m[VrfAndPrefix{r.vrf, r.v4}] = blockFor(r.nextHop);
    benchmark::DoNotOptimize(m.size());
    state.counters["bytes_per_route"] = static_cast<double>(heapInUse() - heapBefore) / routes.size();
    state.counters["routes_per_s"] = benchmark::Counter(static_cast<double>(routes.size()), benchmark::Counter::kIsRate);
  }
}
BENCHMARK(BM_Ipv4UnorderedMapInsert)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
