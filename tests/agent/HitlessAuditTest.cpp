// Every chip write audited: routes nobody touched forward exactly at every moment, through
// sub-trie widening, hash shuffles, NHI compaction at high fill, group moves and resizes, and a
// warm restart followed by changes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "HitlessAudit.h"
#include "support/TestSupport.h"

namespace XpLib {
namespace Agent {
namespace {

using xplpm_test::ScopedEnv;

// Four small NHI tiles: compaction comes often, and another tile has room for the copies that
// keep prefix entries reading while a block moves over its own old entries.
constexpr U32 kTileEntries = 16;
constexpr U32 kTiles = 4;
constexpr U64 kGroups = 12;

// The small profile's few prefix tables over small NHI tiles and a small next-hop table.
XpXdk::xpChipProfile pressed() {
  XpXdk::xpChipProfile p = *XpXdk::findChipProfile("small");
  for (auto* c : {&p.ipv4, &p.ipv6}) {
    c->nhiTableSize = kTiles * kTileEntries;
    c->nhiTileBitmap[0] = static_cast<U8>((1u << kTiles) - 1);
  }
  p.nextHop.rowBlkInc = 64;
  return p;
}

// Routes crowded into a few address blocks, so that sub-tries hold several prefixes each.
Route crowded(std::mt19937& rng) {
  Route r;
  r.ipv6 = rng() % 2 == 0;
  r.vrf = rng() % 2;
  r.nextHop = rng() % kGroups;
  if (r.ipv6) {
    Ip6Prefix::Bytes a{0x20, 0x01, 0x0d, 0xb8, static_cast<U8>(rng() % 4), static_cast<U8>(rng()),
                       static_cast<U8>(rng()), static_cast<U8>(rng())};
    const U8 len = static_cast<U8>(36 + rng() % 29);
    for (int b = 0; b < 16; ++b) a[b] &= static_cast<U8>(0xFF00 >> std::clamp(len - 8 * b, 0, 8));
    r.v6 = Ip6Prefix(a, len);
  } else {
    const U8 len = static_cast<U8>(16 + rng() % 13);
    r.v4 = Prefix(((10u << 24) | (rng() & 0x3FFFFF)) & Prefix::mask(len), len);
  }
  return r;
}

// One random operation of a control plane: a route announced, re-pointed or withdrawn, or a
// group resized.
void churn(XpLpmAgent& agent, test::HitlessAudit& audit, std::vector<Route>& pool, std::mt19937& rng,
           const std::string& phase) {
  const U32 dice = rng() % 10;
  if (dice < 4 || pool.empty()) {
    // A key the pool already holds is that route's next-hop change: one entry per route, so that
    // a later reconcile asks for each route once.
    const Route r = crowded(rng);
    auto same = std::find_if(pool.begin(), pool.end(), [&](const Route& q) {
      return q.ipv6 == r.ipv6 && q.vrf == r.vrf && q.prefixStr() == r.prefixStr();
    });
    if (same == pool.end()) same = pool.insert(pool.end(), r);
    same->nextHop = r.nextHop;
    audit.operation(phase + " announce", [&] { agent.routeIs(*same); });
  } else if (dice < 6) {
    Route& r = pool[rng() % pool.size()];
    r.nextHop = rng() % kGroups;
    audit.operation(phase + " next hop", [&] { agent.routeIs(r); });
  } else if (dice < 9) {
    const std::size_t i = rng() % pool.size();
    audit.operation(phase + " withdraw", [&] { agent.routeDel(pool[i]); });
    pool.erase(pool.begin() + static_cast<long>(i));
  } else {
    const SwId group(rng() % kGroups);
    const Nway width(static_cast<U16>(1 + rng() % 8));
    audit.operation(phase + " resize", [&] { agent.groupWidthIs(group, width); });
  }
}

TEST(HitlessAuditTest, NoUntouchedRouteEverForwardsElsewhere) {
  const unsigned seed = 20261123;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  ScopedEnv tiles("NHI_TABLE_SIZE", std::to_string(kTileEntries));
  const XpXdk::xpChipProfile profile = pressed();
  auto agent = std::make_unique<XpLpmAgent>(profile, AgentOptions{.nextHopGroups = kGroups});
  test::HitlessAudit audit(*agent, seed);
  std::vector<Route> pool;
  for (int op = 0; op < 2500; ++op) churn(*agent, audit, pool, rng, "cold");

  U64 shuffles = 0, compactions = 0, staged = 0, unprotected = 0, guarded = 0;
  auto tally = [&](const XpLpmAgent& a) {
    for (bool v6 : {false, true}) {
      shuffles += a.family(v6).sm->numHashShufflingSuccess();
      compactions += a.family(v6).sm->numNhiBlockDefrag();
      staged += a.family(v6).writer->counters().stagingWrites;
      unprotected += a.family(v6).writer->counters().unprotected;
      guarded += a.family(v6).writer->counters().guarded;
    }
  };
  tally(*agent);
  const U64 groupMoves = agent->counters().shuffles;

  // The agent goes away; a new one starts over the chip it leaves, then the churn goes on.
  const std::shared_ptr<ChipPort> chip = agent->sharedChip();
  std::vector<std::pair<SwId, Nway>> widths;
  for (const auto& [group, block] : agent->nextHopStatus()->swIdToNextHopBlockMap()) widths.push_back({group, block.size()});
  agent.reset();
  auto restarted = std::make_unique<XpLpmAgent>(profile, chip, XpLpmAgent::Start::warm, AgentOptions{.nextHopGroups = kGroups});
  audit.agentIs(*restarted);
  audit.operation("restart reconcile", [&] { restarted->reconcile(pool, widths); });
  for (int op = 0; op < 1000; ++op) churn(*restarted, audit, pool, rng, "warm");
  tally(*restarted);

  for (const auto& [kind, c] : audit.counts())
    std::printf("audit %-28s writes %7llu probes %9llu mismatches %llu\n", kind.c_str(),
                static_cast<unsigned long long>(c.writes), static_cast<unsigned long long>(c.probes),
                static_cast<unsigned long long>(c.mismatches));
  std::printf("audit hash shuffles %llu, NHI compactions %llu, guarded %llu, staging writes %llu, unprotected %llu, "
              "group moves %llu\n",
              static_cast<unsigned long long>(shuffles), static_cast<unsigned long long>(compactions),
              static_cast<unsigned long long>(guarded), static_cast<unsigned long long>(staged),
              static_cast<unsigned long long>(unprotected), static_cast<unsigned long long>(groupMoves));
  EXPECT_EQ(audit.mismatches(), 0u);
  // The scenario must reach every kind of write it is meant to audit.
  EXPECT_GT(shuffles, 0u);
  EXPECT_GT(compactions, 0u);
  EXPECT_GT(groupMoves, 0u);
  EXPECT_GT(audit.counts().at("warm next hop/prefix").writes, 0u);
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
