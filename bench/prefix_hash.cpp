// Hashing one real prefix for one prefix table, as every insertion does per table tried.
#include <benchmark/benchmark.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "XpLpm/XpLpm.h"
#include "support/RouteTables.h"

namespace {

using namespace XpLib;
using namespace XpLib::XpLpm;

const std::vector<Ptr<LpmPrefix>>& routes() {
  static const std::vector<Ptr<LpmPrefix>> r = [] {
    std::vector<Ptr<LpmPrefix>> out;
    for (const auto& route : xplpm_test::realRoutes(false)) out.push_back(lpmPrefixV4Factory(VrfAndPrefix{route.vrf, route.v4}));
    return out;
  }();
  return r;
}

void BM_PrefixHashForTable(benchmark::State& state) {
  const U8 tread = static_cast<U8>(state.range(0));
  auto cfg = xpPrefixTableConfigFactory(PrefixTableId(0), prefixTableWide256b, 1u << 15, tread);
  cfg->xdkHashFunctionIs(new XpXdk::crcHashFunction(144, 15, 0x1B1DD, 1, tread));
  const auto& r = routes();
  if (r.empty()) {
    state.SkipWithError("no route table");
    return;
  }
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(cfg->hashFunc(r[i]));
    if (++i == r.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PrefixHashForTable)->Arg(24)->Arg(35);

// Yardstick: a std::hash of the same key value.
void BM_StdHashOfKey(benchmark::State& state) {
  const auto& r = routes();
  std::vector<U64> keys;
  for (const auto& p : r) keys.push_back(p->branch(35).u64(0));
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::hash<U64>()(keys[i]));
    if (++i == keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdHashOfKey);

}  // namespace

BENCHMARK_MAIN();
