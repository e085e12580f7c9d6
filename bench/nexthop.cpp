// Next-hop groups: LpmNextHopSm rates on a 16,384-entry table kept 90% full
// (so compaction happens), and the agent re-pointing 10,000 routes after their
// group's block changed.
#include <benchmark/benchmark.h>

#include <random>

#include "XpLpmNextHop/XpLpmNextHopSm.h"
#include "agent/XpLpmAgent.h"

namespace {

using namespace XpLib;
using namespace XpLib::XpLpmNextHop;

constexpr U32 kTable = 16384;

// A machine whose table was filled with groups of 1..8 entries, then thinned at
// random to 90%: the free entries are scattered in short runs.
struct Filled {
  Ptr<Config> config = configFactory("nh");
  Ptr<Status> status = statusFactory("nh");
  Ptr<LpmNextHopSm> sm;
  std::vector<U64> groups;
  std::mt19937 rng{1234};
  U64 nextId = 0;

  Filled() {
    config->tableSizeIs(kTable);
    sm = LpmNextHopSmIs("nh", config, status);
    while (sm->allocator()->freeEntries() >= 8) {
      config->requestIs(SwId(nextId), Nway(static_cast<U16>(1 + rng() % 8)));
      groups.push_back(nextId++);
    }
    while (sm->allocator()->freeEntries() < kTable / 10) {
      const std::size_t i = rng() % groups.size();
      config->requestDel(SwId(groups[i]));
      groups[i] = groups.back();
      groups.pop_back();
    }
    drain();
  }
  void drain() {
    while (status->shuffleCmds()) status->shuffleCmdDeq();
  }
};

void BM_NhDeleteThenInsert(benchmark::State& state) {
  Filled f;
  for (auto _ : state) {
    const std::size_t i = f.rng() % f.groups.size();
    f.config->requestDel(SwId(f.groups[i]));
    f.groups[i] = f.nextId++;
    // Up to 16 entries is wider than most free runs: the table compacts whenever no run fits.
    f.config->requestIs(SwId(f.groups[i]), Nway(static_cast<U16>(1 + f.rng() % state.range(0))));
    f.drain();
  }
  state.SetItemsProcessed(state.iterations() * 2);
  state.counters["defrags"] = static_cast<double>(f.sm->numNhBlockDefrag());
}
BENCHMARK(BM_NhDeleteThenInsert)->Arg(8)->Arg(16);

void BM_NhResize(benchmark::State& state) {
  Filled f;
  for (auto _ : state) {
    const SwId g(f.groups[f.rng() % f.groups.size()]);
    f.config->requestIs(g, Nway(static_cast<U16>(1 + f.rng() % state.range(0))));
    f.drain();
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["defrags"] = static_cast<double>(f.sm->numNhBlockDefrag());
  state.counters["overflows"] = static_cast<double>(f.sm->numNhBlockOverflow());
}
BENCHMARK(BM_NhResize)->Arg(8)->Arg(16);

// 10,000 routes of one group; each iteration changes the group's width, which
// gives it a new block and re-points every route to it through the LPM machine.
void BM_AgentRepoint10kRoutes(benchmark::State& state) {
  Agent::XpLpmAgent agent(*XpXdk::findChipProfile("reference"), {.nextHopGroups = 4});
  for (U32 i = 0; i < 10000; ++i) {
    Agent::Route r;
    r.v4 = Prefix((10u << 24) | (i << 8), 24);
    r.nextHop = 0;
    agent.routeIs(r);
  }
  U16 width = 2;
  for (auto _ : state) {
    width = width == 2 ? 3 : 2;
    agent.groupWidthIs(SwId(0), Nway(width));
  }
  state.SetItemsProcessed(state.iterations() * 10000);
  state.counters["repointed"] = static_cast<double>(agent.counters().routesRepointed);
}
BENCHMARK(BM_AgentRepoint10kRoutes)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
