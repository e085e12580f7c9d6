// Benchmarks of BestFitAllocator on an NHI-tile-sized range, with std::map as the yardstick.
//
// The range is one tile of 16,384 entries holding blocks of 1..27 entries (216 prefix slots at 8 per
// entry), 90% full after random churn, as a tile looks after a long run of route updates.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <new>
#include <random>
#include <vector>

#include "platform/BestFitAllocator.h"

namespace {

// Heap allocations, so that each benchmark can report how many its timed loop makes.
std::size_t gHeapAllocs = 0;

}  // namespace

// Out of line, so that GCC does not pair an inlined malloc() with operator delete and warn of a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  ++gHeapAllocs;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using XpLib::BestFitAllocator;
using XpLib::Blk;
using XpLib::Ptr;
using XpLib::U32;

constexpr U32 kTileEntries = 16384;
constexpr U32 kMaxBlkSz = 27;
constexpr unsigned kSeed = 7;

U32 randomSize(std::mt19937& rng) { return std::uniform_int_distribution<U32>(1, kMaxBlkSz)(rng); }

// Fills the allocator to `fillPercent`, then churns (release one, allocate one) to fragment it.
std::vector<Ptr<Blk>> fillTile(BestFitAllocator& alloc, std::mt19937& rng, U32 fillPercent) {
  std::vector<Ptr<Blk>> blks;
  const U32 target = kTileEntries * fillPercent / 100;
  auto topUp = [&] {
    while (kTileEntries - alloc.freeEntries() < target) {
      Ptr<Blk> blk = alloc.alloc(randomSize(rng));
      if (!blk) break;
      blks.push_back(std::move(blk));
    }
  };
  topUp();
  for (int churn = 0; churn < 20000; ++churn) {
    std::swap(blks[rng() % blks.size()], blks.back());
    blks.pop_back();
    topUp();
  }
  return blks;
}

void BM_AllocRelease(benchmark::State& state) {
  std::mt19937 rng(kSeed);
  auto alloc = XpLib::makePtr<BestFitAllocator>("nhiAllocator", kTileEntries, 0, kMaxBlkSz);
  std::vector<Ptr<Blk>> blks = fillTile(*alloc, rng, 90);
  std::vector<U32> sizes(4096);
  for (U32& size : sizes) size = randomSize(rng);
  size_t i = 0;
  int64_t failures = 0;
  const std::size_t heapBefore = gHeapAllocs;
  for (auto _ : state) {
    Ptr<Blk> blk = alloc->alloc(sizes[i++ % sizes.size()]);
    failures += !blk;
    benchmark::DoNotOptimize(blk.ptr());
  }
  state.counters["heapAllocsPerOp"] =
      benchmark::Counter(double(gHeapAllocs - heapBefore), benchmark::Counter::kAvgIterations);
  state.counters["failures"] = double(failures);
  state.counters["freeRuns"] = double(alloc->freeBlkStartIndexToSz().size());
  state.counters["blocks"] = double(blks.size());
}
BENCHMARK(BM_AllocRelease);

void BM_Defragment(benchmark::State& state) {
  // One fragmented layout, rebuilt at its exact places before every timed compaction.
  std::mt19937 rng(kSeed);
  std::vector<std::pair<U32, U32>> layout;
  {
    auto alloc = XpLib::makePtr<BestFitAllocator>("nhiAllocator", kTileEntries, 0, kMaxBlkSz);
    std::vector<Ptr<Blk>> blks = fillTile(*alloc, rng, 90);
    for (const Ptr<Blk>& blk : blks) {
      if (rng() % 5 != 0) layout.emplace_back(blk->base(), blk->blkSz());  // frees one block in five
    }
  }
  int64_t moves = 0;
  size_t freeRuns = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto alloc = XpLib::makePtr<BestFitAllocator>("nhiAllocator", kTileEntries, 0, kMaxBlkSz);
    std::vector<Ptr<Blk>> blks;
    blks.reserve(layout.size());
    for (auto [base, size] : layout) blks.push_back(alloc->realloc(base, size));
    freeRuns = alloc->freeBlkStartIndexToSz().size();
    state.ResumeTiming();
    Ptr<XpLib::PendingCmds> log = alloc->defragment();
    moves += log->size();
    benchmark::DoNotOptimize(log.ptr());
    state.PauseTiming();
    log = nullptr;
    blks.clear();
    alloc = nullptr;
    state.ResumeTiming();
  }
  state.counters["blocks"] = double(layout.size());
  state.counters["freeRunsBefore"] = double(freeRuns);
  state.counters["movesPerDefrag"] = benchmark::Counter(double(moves), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_Defragment)->Unit(benchmark::kMicrosecond);

// Yardstick: one insert and one erase in a std::map holding as many entries as the tile holds blocks.
void BM_StdMapInsertErase(benchmark::State& state) {
  std::mt19937 rng(kSeed);
  auto alloc = XpLib::makePtr<BestFitAllocator>("nhiAllocator", kTileEntries, 0, kMaxBlkSz);
  const size_t population = fillTile(*alloc, rng, 90).size();
  std::map<U32, U32> map;
  for (U32 i = 0; i < population; ++i) map.emplace(i * 2, i);
  std::vector<U32> keys(4096);
  for (U32& key : keys) key = (rng() % population) * 2 + 1;
  size_t i = 0;
  const std::size_t heapBefore = gHeapAllocs;
  for (auto _ : state) {
    auto it = map.emplace(keys[i++ % keys.size()], 0).first;
    map.erase(it);
  }
  state.counters["heapAllocsPerOp"] =
      benchmark::Counter(double(gHeapAllocs - heapBefore), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_StdMapInsertErase);

}  // namespace

BENCHMARK_MAIN();
