// Seeded random requests against the state machine, checking the whole model
// after every step: routes, sub-tries, shared NHI records, blocks and allocators.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "LpmTestSupport.h"

namespace XpLib {
namespace XpLpm {
namespace {

using namespace test;

struct Counts {
  U64 inserted = 0, insertFailed = 0, updated = 0, updateFailed = 0, deleted = 0, deletesHeldBack = 0;
};

// Drives one state machine with random requests over a fixed pool of prefixes.
class RandomDriver {
 public:
  RandomDriver(Ptr<ConfigBase> cfg, std::vector<Ptr<LpmPrefix>> pool, unsigned seed)
      : cfg_(std::move(cfg)), pool_(std::move(pool)), rng_(seed) {
    status_ = statusFactory("status");
    sm_ = LpmSmIs("sm", cfg_, status_, nullptr);
  }

  LpmSm& sm() { return *sm_; }
  const Counts& counts() const { return counts_; }

  void step() {
    const Ptr<LpmPrefix>& p = pool_[rng_() % pool_.size()];
    const bool wasInstalled = static_cast<bool>(sm_->prefixToSubTrie(p));
    const NextHopBlock block = nh(100 + 4 * (rng_() % 6), static_cast<U16>(1 + rng_() % 2));
    const unsigned op = rng_() % 10;
    if (op >= 5 && deleteWouldStop(p)) {
      ++counts_.deletesHeldBack;
      return;
    }
    switch (op) {
      case 0: case 1: case 2: case 3:
        cfg_->requestIs(p, block);  // insert, or update to another block
        break;
      case 4:
        if (cfg_->request(p) != NextHopBlock()) cfg_->requestIs(p, cfg_->request(p));
        sm_->handleRequest(p);  // a re-announcement with an unchanged block
        break;
      case 5:
        cfg_->requestIs(p, NextHopBlock());  // the default block counts as a withdrawal
        break;
      default:
        cfg_->requestDel(p);
    }
    account(p, wasInstalled);
  }

  // Withdrawing a route from a sub-trie that keeps other routes re-places its NHI
  // block, and the new block is taken while the old one is still held; with no
  // tile able to hold it the machine stops by design (see the death test). The
  // driver holds such withdrawals back until churn has freed room.
  bool deleteWouldStop(const Ptr<LpmPrefix>& p) const {
    const U8 size = sm_->nhiBlockSizeToDelete(p);
    if (size == 0) return false;
    for (const auto& [tile, a] : sm_->nhiAllocatorMap())
      if (a->freeEntries() >= size) return false;
    return true;
  }

  // The routes whose installed next hops lag their request because an update found no block.
  bool stale(const Ptr<LpmPrefix>& p) const { return stale_.count(p.ptr()) > 0; }

  void check() {
    std::size_t staleInstalled = 0;
    for (const LpmPrefix* p : stale_) staleInstalled += sm_->prefixToSubTrieMap().contains(Ptr<LpmPrefix>(const_cast<LpmPrefix*>(p)));
    EXPECT_EQ(sm_->verify().routesStale, staleInstalled);
    // Installed exactly when requested and placed; Status mirrors the installed set.
    ASSERT_EQ(status_->prefixToNextHopBlocks(), sm_->prefixToSubTries());
    for (const auto& [p, st] : sm_->prefixToSubTrieMap()) {
      ASSERT_NE(cfg_->request(p), NextHopBlock()) << "installed but not requested: " << p->stringValue();
      if (!stale(p)) {
        ASSERT_EQ(status_->prefixToNextHopBlock(p), cfg_->request(p)) << p->stringValue();
      }
    }
    for (const auto& [p, block] : cfg_->requestMap()) {
      if (block == NextHopBlock()) continue;
      ASSERT_TRUE(sm_->prefixToSubTrie(p) || failed_.count(p.ptr())) << "requested, never failed, not installed: "
                                                                    << p->stringValue();
    }
  }

  void drainCommands() {
    while (status_->pendingCmds()) status_->pendingCmdDeq();
  }

 private:
  // Whether the NHI contents and Status both hold the route's requested block.
  bool current(const Ptr<LpmPrefix>& p) const {
    Ptr<SubTrie> st = sm_->prefixToSubTrie(p);
    const NextHopBlock want = cfg_->request(p);
    return st && st->nhiInfoKey().slotToNextHopBlock(*st->prefixToSlot(p)) == want &&
           status_->prefixToNextHopBlock(p) == want;
  }

  void account(const Ptr<LpmPrefix>& p, bool wasInstalled) {
    const bool requested = cfg_->request(p) != NextHopBlock();
    const bool installed = static_cast<bool>(sm_->prefixToSubTrie(p));
    failed_.erase(p.ptr());
    stale_.erase(p.ptr());
    if (!requested) {
      EXPECT_FALSE(installed) << p->stringValue();
      counts_.deleted += wasInstalled;
    } else if (!wasInstalled) {
      installed ? ++counts_.inserted : ++counts_.insertFailed;
      if (!installed) failed_.insert(p.ptr());
    } else {
      EXPECT_TRUE(installed) << "an update never uninstalls: " << p->stringValue();
      // Only a route's own update may leave it behind its request: when no NHI
      // block can be had, the sub-trie and Status keep the old block.
      if (current(p)) {
        ++counts_.updated;
      } else {
        ++counts_.updateFailed;
        stale_.insert(p.ptr());
      }
    }
    // Another route's change re-writes the whole sub-trie from the requests, which
    // can bring a lagging route's next hops up to date (Status keeps the old block).
    for (auto it = stale_.begin(); it != stale_.end();) {
      Ptr<LpmPrefix> q(const_cast<LpmPrefix*>(*it));
      it = current(q) ? stale_.erase(it) : std::next(it);
    }
  }

  Ptr<ConfigBase> cfg_;
  std::vector<Ptr<LpmPrefix>> pool_;
  std::mt19937 rng_;
  Ptr<Status> status_;
  Ptr<LpmSm> sm_;
  std::set<const LpmPrefix*> failed_, stale_;
  Counts counts_;
};

std::vector<Ptr<LpmPrefix>> v4Pool(const Ptr<ConfigV4>& cfg, std::mt19937& rng, int n) {
  std::vector<Ptr<LpmPrefix>> pool;
  while (static_cast<int>(pool.size()) < n) {
    // Clustered addresses so that sub-tries fill, widen and collide.
    U32 addr = ((8 + rng() % 8) << 24) | ((rng() % 16) << 16) | ((rng() % 4) << 8) | (rng() % 256);
    U8 len = static_cast<U8>(8 + rng() % 25);
    addr &= Prefix::mask(len);
    auto p = cfg->newLpmPrefix(VrfAndPrefix{static_cast<U32>(rng() % 2), Prefix(addr, len)});
    if (std::find(pool.begin(), pool.end(), Ptr<LpmPrefix>(p)) == pool.end()) pool.push_back(p);
  }
  return pool;
}

std::vector<Ptr<LpmPrefix>> v6Pool(const Ptr<ConfigV6>& cfg, std::mt19937& rng, int n) {
  std::vector<Ptr<LpmPrefix>> pool;
  while (static_cast<int>(pool.size()) < n) {
    Ip6Prefix::Bytes a{0x20, 0x01, 0x0d, 0xb8};
    a[2] = static_cast<U8>(rng() % 8);
    a[3] = static_cast<U8>(rng() % 16);
    a[4] = static_cast<U8>(rng() % 4);
    a[6] = static_cast<U8>(rng());
    a[7] = static_cast<U8>(rng());
    U8 len = static_cast<U8>(32 + rng() % 33);
    for (int i = 0; i < 16; ++i) {
      int keep = len - 8 * i;
      a[i] &= keep >= 8 ? 0xFF : keep <= 0 ? 0 : static_cast<U8>(0xFF << (8 - keep));
    }
    auto p = cfg->newLpmPrefix(VrfAndIp6Prefix{static_cast<U32>(rng() % 2), Ip6Prefix(a, len)});
    if (std::find(pool.begin(), pool.end(), Ptr<LpmPrefix>(p)) == pool.end()) pool.push_back(p);
  }
  return pool;
}

struct Scenario {
  const char* name;
  bool v6;
  Geometry geometry;
  int poolSize;
  int steps;
  unsigned seed;
};

void PrintTo(const Scenario& sc, std::ostream* os) { *os << sc.name << " seed " << sc.seed; }

class LpmSmRandomTest : public ::testing::TestWithParam<Scenario> {};

TEST_P(LpmSmRandomTest, ModelHoldsAfterEveryRequestAndEmptiesCompletely) {
  const Scenario& sc = GetParam();
  SCOPED_TRACE(std::string(sc.name) + " seed " + std::to_string(sc.seed));
  LpmSm::lastNhiTileIs(255);
  std::mt19937 poolRng(sc.seed);
  Ptr<ConfigBase> cfg;
  std::vector<Ptr<LpmPrefix>> pool;
  if (sc.v6) {
    auto c = makeConfigV6(sc.geometry);
    pool = v6Pool(c, poolRng, sc.poolSize);
    cfg = c;
  } else {
    auto c = makeConfigV4(sc.geometry);
    pool = v4Pool(c, poolRng, sc.poolSize);
    cfg = c;
  }
  RandomDriver d(cfg, pool, sc.seed);
  std::vector<U32> freeAtStart;
  for (const auto& [tile, a] : d.sm().nhiAllocatorMap()) freeAtStart.push_back(a->freeEntries());

  for (int i = 0; i < sc.steps; ++i) {
    d.step();
    if (i % 64 == 0) d.drainCommands();
    ASSERT_NO_FATAL_FAILURE(d.check()) << "step " << i;
  }
  const Counts& c = d.counts();
  // The scenario must actually reach the hard paths it exists for.
  EXPECT_GT(c.inserted, 1000u);
  EXPECT_GT(c.insertFailed, 0u);
  EXPECT_GT(d.sm().numHashShufflingSuccess(), 0u);
  EXPECT_GT(d.sm().numNhiBlockDefrag(), 0u);
  EXPECT_GT(d.sm().numNhiOverflow(), 0u);
  RecordProperty("inserted", static_cast<int>(c.inserted));
  std::printf("[ %s ] inserted %llu failed %llu updated %llu updateFailed %llu deleted %llu heldBack %llu "
              "shuffles %llu/%llu defrags %llu overflows %llu\n",
              sc.name, (unsigned long long)c.inserted, (unsigned long long)c.insertFailed,
              (unsigned long long)c.updated, (unsigned long long)c.updateFailed, (unsigned long long)c.deleted,
              (unsigned long long)c.deletesHeldBack,
              (unsigned long long)d.sm().numHashShufflingSuccess(), (unsigned long long)d.sm().numHashShufflingAttempt(),
              (unsigned long long)d.sm().numNhiBlockDefrag(), (unsigned long long)d.sm().numNhiOverflow());

  // Withdrawing everything gives every entry back. Routes go in an order that
  // never needs a second block: the smallest sub-tries first, freeing room.
  for (int round = 0; round < 64 && d.sm().prefixToSubTries() > 0; ++round)
    for (const auto& p : pool)
      if (!d.deleteWouldStop(p)) cfg->requestDel(p);
  for (const auto& p : pool) cfg->requestDel(p);
  ASSERT_NO_FATAL_FAILURE(d.check());
  EXPECT_EQ(d.sm().prefixToSubTries(), 0u);
  EXPECT_EQ(d.sm().sharedNhiMap().size(), 0u);
  EXPECT_EQ(d.sm().nhiBaseIdxToBlkMap().size(), 0u);
  EXPECT_EQ(d.sm().nhiBaseIdxToSubTrieMap().size(), 0u);
  for (const auto& [id, table] : d.sm().prefixTableMap()) EXPECT_EQ(table->subTries(), 0u) << id.str();
  std::vector<U32> freeAtEnd;
  for (const auto& [tile, a] : d.sm().nhiAllocatorMap()) freeAtEnd.push_back(a->freeEntries());
  EXPECT_EQ(freeAtEnd, freeAtStart);
}

Geometry smallV4(U16 nhiEntries) {
  Geometry g;
  // Two tables per tread so that collisions can shuffle; a tread-16 table takes any prefix.
  g.tables = {{0, 32, 16}, {1, 32, 16}, {2, 24, 16}, {3, 24, 16}, {4, 16, 8}};
  g.pairsPerEntry = 2;
  g.entriesPerTile = nhiEntries;
  g.tiles = 1;
  return g;
}

Geometry smallV6(U16 nhiEntries) {
  Geometry g;
  g.tables = {{0, 64, 16, prefixTableWide256b}, {1, 64, 16, prefixTableWide256b},
              {2, 48, 16, prefixTableWide256b}, {3, 48, 16, prefixTableWide256b}, {4, 16, 8, prefixTableWide256b}};
  g.pairsPerEntry = 6;
  g.entriesPerTile = nhiEntries;
  g.tiles = 1;
  return g;
}

INSTANTIATE_TEST_SUITE_P(Geometries, LpmSmRandomTest,
                         ::testing::Values(Scenario{"ipv4", false, smallV4(64), 400, 60000, 11},
                                           Scenario{"ipv4b", false, smallV4(40), 250, 50000, 12},
                                           Scenario{"ipv6", true, smallV6(24), 400, 50000, 13},
                                           Scenario{"ipv6b", true, smallV6(20), 250, 50000, 14}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
