// Routes through the agent, the writer and the simulated chip, checked by
// forwarding: the chip's lookups against a brute-force longest match.
#include <gtest/gtest.h>

#include <random>

#include "ForwardingCheck.h"
#include "agent/CountingPort.h"

namespace XpLib {
namespace Agent {
namespace {

using test::probeInstalled;

std::vector<Route> clusteredRoutes(std::mt19937& rng, int n4, int n6) {
  std::vector<Route> routes;
  for (int i = 0; i < n4; ++i) {
    Route r;
    const U8 len = static_cast<U8>(8 + rng() % 25);
    const U32 addr = ((8 + rng() % 8) << 24) | ((rng() % 16) << 16) | ((rng() % 4) << 8) | (rng() % 256);
    r.vrf = rng() % 2;
    r.v4 = Prefix(addr & Prefix::mask(len), len);
    routes.push_back(r);
  }
  for (int i = 0; i < n6; ++i) {
    Route r;
    r.ipv6 = true;
    Ip6Prefix::Bytes a{0x20, 0x01, static_cast<U8>(rng() % 8), static_cast<U8>(rng() % 16), static_cast<U8>(rng() % 4),
                       static_cast<U8>(rng()), static_cast<U8>(rng()), static_cast<U8>(rng())};
    const U8 len = static_cast<U8>(20 + rng() % 45);
    for (int b = 0; b < 16; ++b) a[b] &= static_cast<U8>(0xFF00 >> std::clamp(len - 8 * b, 0, 8));
    r.vrf = rng() % 2;
    r.v6 = Ip6Prefix(a, len);
    routes.push_back(r);
  }
  return routes;
}

// The profiles are ours: each must pass the configurator's checks and give the
// state machines every table it describes.
TEST(AgentEndToEndTest, EveryBuiltInProfileConfigures) {
  for (const auto& profile : XpXdk::builtinChipProfiles()) {
    SCOPED_TRACE(profile.name);
    XpLpmAgent agent(profile);
    for (bool v6 : {false, true}) {
      U32 valid = 0;
      for (const auto& t : (v6 ? profile.ipv6 : profile.ipv4).prefixTableContext) valid += t.valid;
      EXPECT_EQ(agent.family(v6).config->prefixTableConfigs(), valid);
      EXPECT_EQ(agent.family(v6).sm->prefixTableMap().size(), valid);
      EXPECT_EQ(agent.family(v6).config->leastTreadForPrefixLens(), v6 ? 145u : 49u);
    }
    EXPECT_EQ(agent.nextHopConfig()->tableSize(), profile.nextHop.rowBlkInc);
  }
}

class AgentEndToEndOverPortsTest : public ::testing::TestWithParam<bool> {};

TEST_P(AgentEndToEndOverPortsTest, RandomChurnForwardsExactlyAsTheInstalledRoutes) {
  const unsigned seed = 20261122;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::mt19937_64 probeRng(seed);
  // A next-hop table that 16 groups of up to 12 entries fill: resizes compact it.
  XpXdk::xpChipProfile profile = *XpXdk::findChipProfile("small");
  profile.nextHop.rowBlkInc = 128;
  std::shared_ptr<ChipPort> chip = std::make_shared<SimulatedChip>(profile);
  if (GetParam()) chip = std::make_shared<CountingPort>(chip);
  XpLpmAgent agent(profile, chip, XpLpmAgent::Start::cold, {.nextHopGroups = 16});
  std::vector<Route> pool = clusteredRoutes(rng, 300, 300);

  U64 probes = 0, mismatches = 0, installs = 0;
  for (int op = 1; op <= 100000; ++op) {
    Route r = pool[rng() % pool.size()];
    if (rng() % 20 == 0) {
      agent.groupWidthIs(SwId(rng() % 16), Nway(static_cast<U16>(1 + rng() % 12)));
    } else if (rng() % 3 == 0) {
      agent.routeDel(r);
      ASSERT_FALSE(agent.installed(r));
    } else {
      r.nextHop = rng() % 64;
      agent.routeIs(r);
      installs += agent.installed(r);
    }
    if (op % 1000 == 0) {
      auto c = probeInstalled(agent, probeRng);
      probes += c.probes;
      mismatches += c.mismatches;
      ASSERT_EQ(c.mismatches, 0u) << "after op " << op;
      for (bool v6 : {false, true}) agent.family(v6).sm->verify();
      agent.nextHopSm()->verify();
    }
  }
  for (bool v6 : {false, true}) EXPECT_EQ(agent.family(v6).writer->counters().errors, 0u);
  std::printf("[ e2e ] probes %llu mismatches %llu installs %llu repointed %llu defrags %llu writes %llu skipped %llu\n",
              (unsigned long long)probes, (unsigned long long)mismatches, (unsigned long long)installs,
              (unsigned long long)agent.counters().routesRepointed,
              (unsigned long long)agent.nextHopSm()->numNhBlockDefrag(),
              (unsigned long long)(agent.family(false).writer->counters().writes() +
                                   agent.family(true).writer->counters().writes()),
              (unsigned long long)(agent.family(false).writer->counters().skipped() +
                                   agent.family(true).writer->counters().skipped()));
  EXPECT_GT(probes, 100000u);
  EXPECT_GT(installs, 10000u);
  EXPECT_GT(agent.nextHopSm()->numNhBlockDefrag(), 0u);
  EXPECT_GT(agent.counters().routesRepointed, 1000u);
  if (auto* counting = dynamic_cast<CountingPort*>(chip.get())) {
    EXPECT_EQ(counting->writes().all(), agent.family(false).writer->counters().writes() +
                                    agent.family(true).writer->counters().writes() +
                                    agent.counters().nextHopWrites + agent.counters().nextHopCopies);
  }
}

INSTANTIATE_TEST_SUITE_P(Ports, AgentEndToEndOverPortsTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "counting" : "simulated"; });

}  // namespace
}  // namespace Agent
}  // namespace XpLib
