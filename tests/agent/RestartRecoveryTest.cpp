// Restart recovery over a chip whose prefix tables hold a corrupted entry: each
// check rejects it for its own reason, only its routes are lost, the rest come
// back as they were, and the agent clears the entry from the chip.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ForwardingCheck.h"
#include "support/TestSupport.h"
#include "XpLpmConfigurator/XpLpmConfigurator.h"
#include "agent/AgentRestartHelper.h"
#include "agent/ChipReport.h"
#include "agent/SimulatedChip.h"
#include "agent/XpLpmAgent.h"
#include "platform/Trace.h"

namespace XpLib {
namespace Agent {
namespace {

// The reasons of the entries found invalid, in order.
std::vector<std::string> reasons(const xplpm_test::TraceCapture& trace) {
  std::vector<std::string> out;
  for (const auto& l : trace.lines) {
    const auto at = l.find(" reason ");
    if (l.find("parsePrefixTableEntry") != std::string::npos && at != std::string::npos && at + 8 < l.size())
      out.push_back(l.substr(at + 8));
  }
  return out;
}

using XpXdk::xpLpmPrefixEntry;

const XpXdk::xpChipProfile& small() { return *XpXdk::findChipProfile("small"); }

Route route(const char* text, U64 nextHop, U32 vrf = 0) {
  Route r;
  r.vrf = vrf;
  r.v4 = *Prefix::parse(text);
  r.nextHop = nextHop;
  return r;
}

// Several /24s under 10.1/16 share one entry of a tread-32 table.
const std::vector<Route> kRoutes = {
    route("10.1.1.0/24", 1),  route("10.1.2.0/24", 2),  route("10.1.3.128/25", 3), route("10.2.0.0/16", 4),
    route("11.0.0.0/8", 5),   route("172.16.5.0/24", 6), route("192.168.1.77/32", 7), route("8.8.8.0/24", 8, 1),
    route("9.9.0.0/16", 9),   route("10.9.9.9/32", 10)};

// The routes programmed into a chip, with where each one went; the entry corrupted
// (the victim) holds several routes and has free positions on both sides in its table.
struct FirstRun {
  std::shared_ptr<SimulatedChip> chip;
  std::vector<NextHopBlock> block;
  std::vector<bool> inVictim, inVictimSlot0;
  U32 table = 0, index = 0, below = 0, above = 0;

  FirstRun() {
    XpLpmAgent agent(small(), {.nextHopGroups = 40});
    for (const Route& r : kRoutes) agent.routeIs(r);
    const auto& sm = *agent.family(false).sm;
    bool found = false;
    for (const auto& [id, t] : sm.prefixTableMap()) {
      const auto& held = test::simOf(agent)->sim().lpm(false).entries(id.value());
      for (const auto& [idx, st] : t->subTrieMap()) {
        if (found || st->numPrefixes() < 2) continue;
        U32 lo = idx.value(), hi = idx.value();
        while (lo > 0 && held.count(lo)) --lo;
        while (hi + 1 < t->tableConfig()->depth() && held.count(hi)) ++hi;
        if (held.count(lo) || held.count(hi)) continue;
        found = true;
        table = id.value(), index = idx.value(), below = lo, above = hi;
      }
    }
    EXPECT_TRUE(found) << "no entry of several routes with free positions on both sides";
    for (const Route& r : kRoutes) {
      const auto st = sm.prefixToSubTrie(agent.findPrefix(r));
      EXPECT_TRUE(st) << r.prefixStr();
      block.push_back(agent.installedBlock(r));
      const bool here = st && st->table()->tableId().value() == table && st->index().value() == index;
      inVictim.push_back(here);
      inVictimSlot0.push_back(here && st->prefixToSlot(agent.findPrefix(r)) == 0);
    }
    chip = test::simOf(agent);
  }
  xpLpmPrefixEntry read(U32 offset) const {
    xpLpmPrefixEntry e;
    EXPECT_EQ(chip->lpmMgr(false).readPrefixEntry(0, table, offset, &e, 0), XpXdk::XP_NO_ERR);
    return e;
  }
  void write(U32 offset, const xpLpmPrefixEntry& e) {
    ASSERT_EQ(chip->lpmMgr(false).writePrefixEntry(0, table, offset, &e), XpXdk::XP_NO_ERR);
  }
};

enum class At { victim, above, below };
enum class Lost { all, slot0, none };

struct Case {
  const char* name;
  At at;
  std::function<void(xpLpmPrefixEntry&)> corrupt;
  std::string reason;  // empty: the entry parses
  Lost lost;
  std::string trace = {};  // a line fragment that must appear once
};

void flipKeyBit(xpLpmPrefixEntry& e, U32 bit) {
  const U32 fromRight = e.branchLen - 1u - bit;  // the branch is right-aligned, least significant byte first
  e.branch[fromRight / 8] ^= static_cast<U8>(1u << (fromRight % 8));
}

TEST(RestartRecoveryTest, EachInvalidEntryLosesOnlyItsRoutesAndIsCleared) {
  const std::vector<Case> cases = {
      {"keySize", At::victim, [](auto& e) { e.keySize = xpLpmPrefixEntry::kKeySizeLong; }, "wrong keySize", Lost::all},
      {"mode", At::victim, [](auto& e) { e.mode = 0; }, "wrong mode", Lost::all},
      {"tooWide", At::victim, [](auto& e) { e.stride = static_cast<U8>(216 - e.branchLen + 1); },
       "branch length + stride too large", Lost::all},
      {"strideZero", At::victim, [](auto& e) { e.stride = 0; }, "stride is zero", Lost::all},
      {"vrfBitFlipped", At::victim, [](auto& e) { flipKeyBit(e, 15); }, "prefix hash does not match with offset",
       Lost::all},
      {"tile", At::victim, [](auto& e) { e.nhiTile = 1; }, "NHI tile doesn't exist", Lost::all},
      {"offsetPastTile", At::victim, [](auto& e) { e.nhiOffset = 16384; }, "NHI block out of bound", Lost::all,
       " nhiBlkSize 1 nhiOffset 16384 nhiEntriesPerTile 16384"},
      {"blockRunsPastTile", At::victim, [](auto& e) {
         e.nhiOffset = 16383;
         e.numSlots = 9;
       },
       "NHI block out of bound", Lost::all, " nhiBlkSize 2 nhiOffset 16383 nhiEntriesPerTile 16384"},
      {"sameLeafTwice", At::victim, [](auto& e) { e.slots[1] = e.slots[0]; }, "duplicate prefixes", Lost::all},
      // A copy read after its original yields routes already recovered; one read first hashes elsewhere.
      {"copyAbove", At::above, [](auto&) {}, "duplicate prefixes", Lost::slot0},
      {"copyBelow", At::below, [](auto&) {}, "prefix hash does not match with offset", Lost::none},
      {"allSlotsEmpty", At::victim, [](auto& e) { e.slots = {}; }, "", Lost::all, " no prefix is allocated"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FirstRun first;
    xpLpmPrefixEntry e = first.read(first.index);
    ASSERT_LE(e.numSlots, 8u);
    ASSERT_GE((216u - e.branchLen) / e.stride, 9u);
    c.corrupt(e);
    const U32 at = c.at == At::victim ? first.index : c.at == At::above ? first.above : first.below;
    first.write(at, e);

    xplpm_test::TraceCapture trace(5);
    XpLpmAgent second(small(), first.chip, XpLpmAgent::Start::warm, {.nextHopGroups = 40});
    EXPECT_EQ(reasons(trace), c.reason.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.reason});
    if (!c.trace.empty()) {
      EXPECT_EQ(trace.count(c.trace), 1);
    }
    EXPECT_EQ(second.restartReport().entriesInvalid[0], c.reason.empty() ? 0u : 1u);
    EXPECT_EQ(second.restartReport().entriesInvalid[1], 0u);
    // The agent clears what recovery could not parse, so that it stops matching lookups.
    EXPECT_EQ(second.restartReport().entriesCleared[0], c.reason.empty() ? 0u : 1u);
    if (!c.reason.empty()) {
      EXPECT_TRUE(first.read(at).empty());
    }

    U64 lost = 0;
    for (std::size_t i = 0; i < kRoutes.size(); ++i) {
      const Route& r = kRoutes[i];
      const bool gone = c.lost == Lost::all ? first.inVictim[i] : c.lost == Lost::slot0 && first.inVictimSlot0[i];
      const Ptr<XpLpm::LpmPrefix> p = second.findPrefix(r);
      const NextHopBlock requested = p ? second.family(false).config->request(p) : NextHopBlock();
      EXPECT_EQ(second.installed(r), !gone) << r.prefixStr();
      EXPECT_EQ(requested, gone ? NextHopBlock() : first.block[i]) << r.prefixStr();
      if (!gone) {
        EXPECT_EQ(second.installedBlock(r), first.block[i]) << r.prefixStr();
      }
      lost += gone;
    }
    EXPECT_EQ(lost > 0, c.lost != Lost::none);
    if (c.lost != Lost::slot0) {
      EXPECT_EQ(second.restartReport().routesRecovered[0], kRoutes.size() - lost);
    }
  }
}

// One field of one chip entry spoiled: a prefix entry of a sub-trie with several routes, or the
// NHI entries behind it.
struct Corruption {
  const char* name;
  bool ipv6;
  std::function<void(xpLpmPrefixEntry&, const xpLpmPrefixEntry& other)> prefix;  // may be empty
  std::function<void(XpXdk::xpLpmNhiEntry&)> nhi;                                 // may be empty
  bool allNhi = false;  // spoil every NHI entry some prefix entry points at, not only the victim's
};

// Whatever a single field holds, the agent starts (no stop), rebuilds a model whose every route
// passes its own check, and once the wanted routes are reconciled every one of them forwards
// exactly, with no NHI block overlapping another in the chip.
TEST(RestartRecoveryTest, CorruptFieldsNeverStopTheAgent) {
  std::vector<Route> routes = kRoutes;
  for (const char* text : {"2001:db8:1::/48", "2001:db8:1:1::/64", "2001:db8:1:2::/64", "2001:db8:2::/48",
                           "2001:db8:1:3::/64", "2400:cb00::/32"}) {
    Route r;
    r.ipv6 = true;
    r.v6 = *Ip6Prefix::parse(text);
    r.nextHop = routes.size();
    routes.push_back(r);
  }
  auto zero = [](XpXdk::xpLpmNhiEntry& n) { n = XpXdk::xpLpmNhiEntry{}; for (auto& p : n.pair) p = {0, 0}; };
  const std::vector<Corruption> cases = {
      {"branchLenBit0", false, [](auto& e, auto&) { e.branchLen ^= 1; }, {}},
      {"branchLenBit3", false, [](auto& e, auto&) { e.branchLen ^= 8; }, {}},
      {"branchLenBit5", false, [](auto& e, auto&) { e.branchLen ^= 32; }, {}},
      {"branchLenBit7", false, [](auto& e, auto&) { e.branchLen ^= 128; }, {}},
      {"branchBeyondTheKey", true, [](auto& e, auto&) { e.branchLen = 150, e.stride = 8; }, {}},
      {"branchLenBit6v6", true, [](auto& e, auto&) { e.branchLen ^= 64; }, {}},
      {"slotCount", false, [](auto& e, auto&) { e.numSlots = 27; }, {}},
      {"slotCountv6", true, [](auto& e, auto&) { e.numSlots = 200; }, {}},
      {"nhiOffsetPlusOne", false, [](auto& e, auto&) { ++e.nhiOffset; }, {}},
      {"nhiOffsetOfAnother", false, [](auto& e, auto& other) { e.nhiOffset = other.nhiOffset; }, {}},
      {"nhiOffsetOfAnotherv6", true, [](auto& e, auto& other) { e.nhiOffset = other.nhiOffset; }, {}},
      {"strideBit", false, [](auto& e, auto&) { e.stride ^= 2; }, {}},
      {"oneZeroedNhiEntry", false, {}, zero},
      {"everyNhiEntryZeroed", false, {}, zero, true},
      {"everyNhiEntryZeroedv6", true, {}, zero, true},
      {"nhiPairsNeverWritten", false, {}, [](auto& n) { n = XpXdk::xpLpmNhiEntry{}; }},
  };
  for (const Corruption& c : cases) {
    SCOPED_TRACE(c.name);
    std::shared_ptr<SimulatedChip> chip;
    {
      XpLpmAgent agent(small(), {.nextHopGroups = 40});
      for (const Route& r : routes) ASSERT_TRUE(agent.routeIs(r).installed()) << r.prefixStr();
      chip = test::simOf(agent);
    }
    const XpXdk::xpLpmMemory& lpm = chip->sim().lpm(c.ipv6);
    XpXdk::xpIpRouteLpmMgr& mgr = chip->lpmMgr(c.ipv6);
    // The victim: the entry with the most routes; `other` any other entry.
    U32 table = 0, index = 0, most = 0;
    xpLpmPrefixEntry other;
    std::vector<std::pair<U32, U32>> blocks;  // every entry's NHI (tile, offset)
    for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t) {
      for (const auto& [pos, e] : lpm.entries(t)) {
        U32 used = 0;
        for (const auto& leaf : e.slots) used += !leaf.empty();
        blocks.push_back({e.nhiTile, e.nhiOffset});
        if (used > most) {
          if (most) other = lpm.entries(table).at(index);
          table = t, index = pos, most = used;
        } else {
          other = e;
        }
      }
    }
    ASSERT_GE(most, 2u);
    xpLpmPrefixEntry victim;
    ASSERT_EQ(mgr.readPrefixEntry(0, table, index, &victim, 0), XpXdk::XP_NO_ERR);
    if (c.prefix) {
      c.prefix(victim, other);
      ASSERT_EQ(mgr.writePrefixEntry(0, table, index, &victim), XpXdk::XP_NO_ERR);
    }
    if (c.nhi) {
      if (!c.allNhi) blocks = {{victim.nhiTile, victim.nhiOffset}};
      for (const auto& [tile, offset] : blocks) {
        XpXdk::xpLpmNhiEntry n;
        c.nhi(n);
        ASSERT_EQ(mgr.writeNhiEntry(0, tile, offset, &n), XpXdk::XP_NO_ERR);
      }
    }

    XpLpmAgent second(small(), chip, XpLpmAgent::Start::warm, {.nextHopGroups = 40});
    for (bool v6 : {false, true}) second.family(v6).sm->verify();
    second.nextHopSm()->verify();
    second.reconcile(routes);
    for (const Route& r : routes) EXPECT_TRUE(second.installed(r)) << r.prefixStr();
    std::mt19937_64 probeRng(7);
    EXPECT_EQ(test::probeInstalled(second, probeRng).mismatches, 0u);
    for (bool v6 : {false, true})
      EXPECT_EQ(ChipSurvey(*chip, v6, v6 ? small().ipv6 : small().ipv4).nhiOverlaps().overlappingPairs, 0u);
  }
}

// A state machine over the small profile's IPv4 configuration and a restart helper
// reading `chip`; with `attach` the machine runs the recovery itself, as a warm start does.
struct Recovery {
  Ptr<XpLpm::ConfigV4> config = XpLpm::configV4Factory("ipv4");
  Ptr<XpLpm::Status> status = XpLpm::statusFactory("ipv4");
  Ptr<AgentRestartHelper> helper;
  Ptr<XpLpm::LpmSm> sm;

  Recovery(XpXdk::xpChip& chip, bool attach, XpLpm::RestartMode mode = XpLpm::modeRestartNormal) {
    xpLpmConfiguratorFactory(XpXdk::systemStatusFor(small()), config, XpLpm::configV6Factory("ipv6"),
                             XpLpmNextHop::configFactory("nexthop"), nullptr)
        ->doConfig();
    config->restartModeIs(mode);
    helper = makePtr<AgentRestartHelper>(config, status);
    helper->xdkLpmMgrIs(&chip.lpmMgr(false));
    Ptr<XpLpm::RestartHelperBase> own;
    if (attach) own = helper;
    sm = XpLpm::LpmSmIs("ipv4", config, status, own);
  }
};

TEST(RestartRecoveryTest, RemoveStaleClearsTheInvalidEntryOnly) {
  FirstRun first;
  xpLpmPrefixEntry e = first.read(first.index);
  e.mode = 2;
  first.write(first.index, e);
  const U32 occupied = first.chip->sim().lpm(false).occupied(first.table);

  Recovery r(first.chip->sim(), false);
  xplpm_test::TraceCapture trace(5);
  r.sm->initializedIs(false);  // as inside the machine's start: recovered requests are not handled yet
  EXPECT_EQ(r.helper->doRestart(true, r.sm.ptr()), 0);
  r.sm->initializedIs(true);
  EXPECT_EQ(trace.count(" clear prefix entry"), 1);
  EXPECT_EQ(r.helper->counts().entriesInvalid, 1u);
  EXPECT_EQ(r.helper->counts().entriesCleared, 1u);
  EXPECT_TRUE(first.read(first.index).empty());
  EXPECT_EQ(first.chip->sim().lpm(false).occupied(first.table), occupied - 1);
  U64 victims = 0;
  for (bool v : first.inVictim) victims += v;
  EXPECT_EQ(r.sm->prefixToSubTries(), kRoutes.size() - victims);
  EXPECT_EQ(r.config->requests(), kRoutes.size() - victims);
}

TEST(RestartRecoveryTest, ReadOutOfRangeSkipsTheEntrySilently) {
  FirstRun first;
  U32 occupied = 0;
  for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t)
    if (small().ipv4.prefixTableContext[t].valid) occupied += first.chip->sim().lpm(false).occupied(t);
  first.chip->sim().lpmMgr(false).failPrefixEntryReadIs(first.table, first.index, XpXdk::XP_ERR_OUT_OF_RANGE);
  xplpm_test::TraceCapture trace(5);
  Recovery r(first.chip->sim(), true);
  const U64 entries = small().prefixTableEntries(false);
  EXPECT_EQ(r.helper->counts().entriesRead, entries - 1);
  EXPECT_EQ(trace.count(" empty prefix entry"), static_cast<int>(entries - occupied));
  EXPECT_EQ(trace.count(" reason "), static_cast<int>(occupied - 1)) << "all but the skipped entry are judged";
  EXPECT_TRUE(reasons(trace).empty());
  U64 victims = 0;
  for (bool v : first.inVictim) victims += v;
  EXPECT_EQ(r.sm->prefixToSubTries(), kRoutes.size() - victims);
}

TEST(RestartRecoveryTest, AllZeroChipRecoversNothing) {
  std::shared_ptr<ChipPort> chip = XpLpmAgent(small()).sharedChip();
  xplpm_test::TraceCapture trace(5);
  XpLpmAgent second(small(), chip, XpLpmAgent::Start::warm);
  EXPECT_EQ(trace.count(" empty prefix entry"),
            static_cast<int>(small().prefixTableEntries(false) + small().prefixTableEntries(true)));
  EXPECT_EQ(trace.count(" reason "), 0);
  for (int f : {0, 1}) {
    EXPECT_EQ(second.restartReport().routesRecovered[f], 0u);
    EXPECT_EQ(second.restartReport().entriesInvalid[f], 0u);
    EXPECT_EQ(second.family(f).sm->prefixToSubTries(), 0u);
  }
}

// The whole text of a regular expression that matches `text` literally.
std::string literally(const std::string& text) {
  std::string out;
  for (char ch : text) {
    if (std::string("\\^$.|?*+()[]{}").find(ch) != std::string::npos) out += '\\';
    out += ch;
  }
  return out;
}

TEST(RestartRecoveryDeathTest, FailuresThatStopTheRecovery) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  {
    FirstRun first;
    first.chip->sim().lpmMgr(false).failPrefixEntryReadIs(first.table, first.index, XpXdk::XP_ERR_INVALID_DATA);
    EXPECT_DEATH({ Recovery r(first.chip->sim(), true); }, literally("ret == XP_NO_ERR"));
  }
  {
    FirstRun first;
    const xpLpmPrefixEntry e = first.read(first.index);
    first.chip->sim().lpmMgr(false).failNhiEntryReadIs(e.nhiTile, e.nhiOffset, XpXdk::XP_ERR_OUT_OF_RANGE);
    const std::string call = "((xdkLpmMgr()->readNhiEntry( 0, nhiBaseIdx.tile().value(), nhiBaseIdx.offset() + i, "
                             "&xpNhiEntry, 0 ))) API ERROR 11";
    EXPECT_DEATH({ Recovery r(first.chip->sim(), true); },
                 "RestartHelperBase\\.cpp:[0-9]+: " + literally(call) + "(.|\n)*" + literally("!(true)"));
  }
  {
    FirstRun first;
    // The test mode recovers a sound chip, and stops at the first entry it cannot.
    EXPECT_EQ(Recovery(first.chip->sim(), true, XpLpm::modeRestartTest).sm->prefixToSubTries(), kRoutes.size());
    xpLpmPrefixEntry e = first.read(first.index);
    e.stride = 0;
    first.write(first.index, e);
    EXPECT_DEATH({ Recovery r(first.chip->sim(), true, XpLpm::modeRestartTest); },
                 literally("0 && \"Recovering prefix entry failed\""));
  }
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
