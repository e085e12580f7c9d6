// The pressure model at length: a million seeded random operations at high NHI fill on one tile
// and on four, the chip checked against the reference every 1,000 operations, every installed
// route checked by the library at the end, every NHI entry free again after all is withdrawn.
// A correctness run timed as a benchmark: the counters are the figures, and any mismatch,
// withdrawal held back or entry not given back is an error.
#include <benchmark/benchmark.h>

#include "agent/PressureModel.h"

namespace {

using XpLib::Agent::test::PressureFigures;
using XpLib::Agent::test::runPressure;

void BM_Pressure(benchmark::State& state) {
  const XpLib::U32 tiles = static_cast<XpLib::U32>(state.range(0));
  const bool ownTile = state.range(1) != 0;
  PressureFigures f;
  for (auto _ : state) {
    f = runPressure({.tiles = tiles, .tileEntries = tiles == 1 ? 48u : 24u, .ownTile = ownTile,
                     .ops = static_cast<XpLib::U64>(state.range(2)), .seed = 1});
  }
  state.counters["ops"] = static_cast<double>(f.ops);
  state.counters["ops_per_s"] = f.ops / f.seconds;
  state.counters["probes"] = static_cast<double>(f.probes);
  state.counters["mismatches"] = static_cast<double>(f.mismatches);
  state.counters["refused"] = static_cast<double>(f.refused);
  state.counters["held"] = static_cast<double>(f.withdrawalsHeld);
  state.counters["compactions"] = static_cast<double>(f.compactions);
  state.counters["group_moves"] = static_cast<double>(f.groupMoves);
  state.counters["nhi_not_back"] = static_cast<double>(f.nhiEntries - f.nhiFreeAtEnd);
  state.counters["writes"] = static_cast<double>(f.writes);
  state.counters["staging_writes"] = static_cast<double>(f.stagingWrites);
  state.counters["compaction_drains"] = static_cast<double>(f.compactionDrains);
  state.counters["unprotected"] = static_cast<double>(f.unprotected);
  if (f.mismatches || f.withdrawalsHeld || f.nhiFreeAtEnd != f.nhiEntries || f.unprotected)
    state.SkipWithError("the model run failed");
}

// Arguments: tiles, own-tile filing, operations.
BENCHMARK(BM_Pressure)
    ->Args({1, 1, 1000000})
    ->Args({1, 0, 1000000})
    ->Args({4, 1, 1000000})
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
