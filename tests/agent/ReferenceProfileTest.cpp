// The whole real IPv4 and IPv6 tables through agent, writer and chip on the
// reference profile: zero failed routes and zero forwarding mismatches.
#include <gtest/gtest.h>

#include <cstdio>

#include <chrono>
#include <random>

#include "ForwardingCheck.h"
#include "agent/ModelSnapshot.h"
#include "agent/ChipReport.h"
#include "support/RouteTables.h"

namespace XpLib {
namespace Agent {
namespace {

using test::probe;

// Under the sanitizers every lookup costs ten times as much: the random probes are thinned there.
#if defined(__SANITIZE_ADDRESS__)
constexpr int kRandomProbes = 100000;
#else
constexpr int kRandomProbes = 1000000;
#endif

TEST(ReferenceProfileTest, WholeRealTablesForwardCorrectly) {
  const auto t0 = std::chrono::steady_clock::now();
  auto first = std::make_unique<XpLpmAgent>(*XpXdk::findChipProfile("reference"));
  XpLpmAgent& agent = *first;
  U64 failed = 0;
  for (bool v6 : {false, true}) {
    for (const Route& r : xplpm_test::realRoutes(v6)) {
      agent.routeIs(r);
      if (!agent.installed(r) && ++failed <= 5) ADD_FAILURE() << "not placed: " << r.prefixStr();
    }
  }
  const double programmed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  EXPECT_EQ(failed, 0u);

  const Forwarding check(agent);
  test::ProbeCounts c;
  std::printf("seed 77\n");
  std::mt19937_64 rng(77);
  for (const Route& r : xplpm_test::realRoutes(false)) {
    test::probe(check, r.vrf, r.v4.address(), c);
    test::probe(check, r.vrf, lastAddress(r.v4), c);
  }
  for (const Route& r : xplpm_test::realRoutes(true)) {
    test::probe(check, r.vrf, r.v6.address(), c);
    test::probe(check, r.vrf, lastAddress(r.v6), c);
  }
  // A million random addresses (half IPv4, half IPv6): half anywhere, half inside a random route.
  const auto& v4 = xplpm_test::realRoutes(false);
  const auto& v6 = xplpm_test::realRoutes(true);
  for (int i = 0; i < kRandomProbes / 2; ++i) {
    test::probe(check, 0, static_cast<U32>(rng()), c);
    test::probe(check, 0, randomAddressIn(v4[rng() % v4.size()].v4, rng), c);
  }
  for (int i = 0; i < kRandomProbes / 4; ++i) {
    Ip6Prefix::Bytes a;
    for (auto& b : a) b = static_cast<U8>(rng());
    a[0] = static_cast<U8>(0x20 | (a[0] & 0x1F));  // within 2000::/3, where the routes are
    test::probe(check, 0, a, c);
    test::probe(check, 0, randomAddressIn(v6[rng() % v6.size()].v6, rng), c);
  }
  EXPECT_EQ(c.mismatches, 0u);
  const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

  for (bool f : {false, true}) {
    const auto& w = agent.family(f).writer->counters();
    const ChipSurvey survey(agent.chip(), f, f ? agent.profile().ipv6 : agent.profile().ipv4);
    const NhiOverlapAudit audit = survey.nhiOverlaps();
    EXPECT_EQ(w.errors, 0u);
    std::printf("[ %s ] routes %zu installed %u writes %llu skipped %llu nhi blocks %llu shared %llu overlaps %llu\n",
                f ? "ipv6" : "ipv4", xplpm_test::realRoutes(f).size(), agent.family(f).sm->prefixToSubTries(),
                (unsigned long long)w.writes(), (unsigned long long)w.skipped(), (unsigned long long)audit.blocks,
                (unsigned long long)audit.sharedBlocks, (unsigned long long)audit.overlappingPairs);
    for (const TableFill& t : survey.tableFill())
      std::printf("  table %2u tread %3u depth %6u occupied %6u (%5.1f%%) prefixes %7llu\n", t.tableId, t.tread,
                  t.depth, t.occupied, 100.0 * t.occupied / t.depth, (unsigned long long)t.prefixes);
    for (const NhiFill& n : survey.nhiFill())
      std::printf("  nhi tile %u used %u of %u (%5.1f%%)\n", n.tile, n.used, n.entries, 100.0 * n.used / n.entries);
  }
  std::printf("[ time ] programmed in %.2f s, %llu probes, %.2f s in all\n", programmed,
              (unsigned long long)c.probes, total);

  // A warm restart over the same chip rebuilds the same model and, with the
  // same routes wanted, writes nothing; forwarding is unchanged.
  std::string before[2];
  U64 misfiled[2];
  for (bool f : {false, true}) {
    before[f] = modelSnapshot(*agent.family(f).sm);
    misfiled[f] = misfiledNhiBlocks(*agent.family(f).sm);
  }
  std::shared_ptr<ChipPort> chip = agent.sharedChip();
  first.reset();
  XpLpmAgent second(*XpXdk::findChipProfile("reference"), chip, XpLpmAgent::Start::warm);
  std::vector<Route> wanted = xplpm_test::realRoutes(false);
  wanted.insert(wanted.end(), xplpm_test::realRoutes(true).begin(), xplpm_test::realRoutes(true).end());
  const auto t1 = std::chrono::steady_clock::now();
  const auto reconciled = second.reconcile(wanted);
  const double reconcileSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t1).count();
  EXPECT_EQ(reconciled.changed + reconciled.added + reconciled.withdrawn, 0u);
  EXPECT_EQ(second.restartReport().groupsMisplaced, 0u);
  for (bool f : {false, true}) {
    const std::string after = modelSnapshot(*second.family(f).sm);
    EXPECT_TRUE(after == before[f]) << snapshotDiff(before[f], after);
    EXPECT_EQ(second.family(f).writer->counters().writes(), 0u);
    const auto& r = second.restartReport();
    std::printf("[ restart %s ] recovered %llu routes in %.2f s (%.0f routes/s), invalid entries %llu, "
                "blocks filed under another tile's allocator before the restart %llu\n",
                f ? "ipv6" : "ipv4", (unsigned long long)r.routesRecovered[f], r.seconds[f],
                r.routesRecovered[f] / r.seconds[f], (unsigned long long)r.entriesInvalid[f],
                (unsigned long long)misfiled[f]);
  }
  EXPECT_EQ(second.counters().nextHopWrites, 0u);
  std::printf("[ restart ] groups restored %llu, reconcile of %zu routes %.2f s\n",
              (unsigned long long)second.restartReport().groupsRestored, wanted.size(), reconcileSeconds);
  const Forwarding checkAfter(second);
  test::ProbeCounts after;
  for (const Route& r : xplpm_test::realRoutes(false)) test::probe(checkAfter, r.vrf, r.v4.address(), after);
  for (const Route& r : xplpm_test::realRoutes(true)) test::probe(checkAfter, r.vrf, r.v6.address(), after);
  EXPECT_EQ(after.mismatches, 0u);
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
