// Next-hop groups: LpmNextHopSm rates on a 16,384-entry table kept 90% full
// (so compaction happens), and the agent re-pointing routes after their group's
// block changed: 10,000 routes of one group, and the whole IPv4 table.
#include <benchmark/benchmark.h>

#include <random>

#include "XpLpmNextHop/XpLpmNextHopSm.h"
#include "agent/XpLpmAgent.h"
#include "support/RouteTables.h"

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

// The whole IPv4 table through the agent, over 256 groups as the tool spreads it; each iteration
// gives a group drawn at random a width of 1 to 8, which re-points every route of the group. These
// resizes are a quarter of `xplpm churn`'s default mix and nearly all of its time, so resizes per
// second times four is about the churn rate the table allows.
void BM_Ipv4FullTableResize(benchmark::State& state) {
  Agent::XpLpmAgent agent(*XpXdk::findChipProfile("reference"), {.nextHopGroups = 256});
  for (const Agent::Route& r : xplpm_test::realRoutes(false)) agent.routeIs(r);
  std::mt19937_64 rng(1);
  const U64 before = agent.counters().routesRepointed;
  for (auto _ : state) agent.groupWidthIs(SwId(rng() % 256), Nway(static_cast<U16>(1 + rng() % 8)));
  state.SetItemsProcessed(state.iterations());
  state.counters["routes_per_resize"] =
      static_cast<double>(agent.counters().routesRepointed - before) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_Ipv4FullTableResize)->Unit(benchmark::kMillisecond)->Iterations(400);

}  // namespace

BENCHMARK_MAIN();
