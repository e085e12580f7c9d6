// Cost of hashing one prefix-table key with crcHashFunction, against std::hash of a 64-bit value.
#include <benchmark/benchmark.h>

#include <array>
#include <functional>
#include <random>
#include <vector>

#include "xdk/XpBitVector.h"
#include "xdk/xpHashFunction.h"

namespace {

using XpXdk::U32;
using XpXdk::U8;
using XpLib::U64;

constexpr unsigned kSeed = 42;
constexpr size_t kKeys = 4096;  // power of two; cycled so that no single key stays in registers

// The CRC's cost does not depend on the key's value, so seeded random keys stand in for routes.
std::vector<std::array<U8, 18>> randomKeys() {
  std::mt19937 rng(kSeed);
  std::vector<std::array<U8, 18>> keys(kKeys);
  for (auto& k : keys) {
    for (auto& b : k) b = U8(rng());
  }
  return keys;
}

// What the prefix-table config does per lookup: wrap the 18 reversed key bytes and hash them.
void BM_CrcHash144(benchmark::State& state) {
  const auto keys = randomKeys();
  XpXdk::crcHashFunction hf(144, 15, 0x1B1DD, 1, U32(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    XpXdk::XpBitVector key(keys[i++ & (kKeys - 1)], 144);
    benchmark::DoNotOptimize(hf.hash(key));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CrcHash144)->ArgName("tread")->Arg(35)->Arg(64);

void BM_StdHash64(benchmark::State& state) {
  std::mt19937_64 rng(kSeed);
  std::vector<U64> values(kKeys);
  for (auto& v : values) v = rng();
  std::hash<U64> hasher;
  size_t i = 0;
  for (auto _ : state) benchmark::DoNotOptimize(hasher(values[i++ & (kKeys - 1)]));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdHash64);

}  // namespace

BENCHMARK_MAIN();
