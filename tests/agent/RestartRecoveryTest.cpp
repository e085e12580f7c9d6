// Restart recovery over a chip whose prefix tables hold a corrupted entry: each
// check rejects it for its own reason, only its routes are lost, the rest come
// back as they were, and the hardware keeps the entry unless asked to clear it.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "XpLpmConfigurator/XpLpmConfigurator.h"
#include "agent/AgentRestartHelper.h"
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
  std::shared_ptr<XpXdk::xpChip> chip;
  std::vector<NextHopBlock> block;
  std::vector<bool> inVictim, inVictimSlot0;
  U32 table = 0, index = 0, below = 0, above = 0;

  FirstRun() {
    XpLpmAgent agent(small(), {.nextHopGroups = 40});
    for (const Route& r : kRoutes) agent.routeIs(r);
    const auto& sm = *agent.family(false).sm;
    bool found = false;
    for (const auto& [id, t] : sm.prefixTableMap()) {
      const auto& held = agent.chip().lpm(false).entries(id.value());
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
    chip = agent.sharedChip();
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

TEST(RestartRecoveryTest, EachInvalidEntryLosesOnlyItsRoutesAndStaysInTheChip) {
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
    XpLpmAgent second(small(), first.chip, {.nextHopGroups = 40});
    EXPECT_EQ(reasons(trace), c.reason.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.reason});
    if (!c.trace.empty()) {
      EXPECT_EQ(trace.count(c.trace), 1);
    }
    EXPECT_EQ(second.restartReport().entriesInvalid[0], c.reason.empty() ? 0u : 1u);
    EXPECT_EQ(second.restartReport().entriesInvalid[1], 0u);
    EXPECT_EQ(first.read(at), e) << "the recovery writes nothing";

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
  const U32 occupied = first.chip->lpm(false).occupied(first.table);

  Recovery r(*first.chip, false);
  xplpm_test::TraceCapture trace(5);
  r.sm->initializedIs(false);  // as inside the machine's start: recovered requests are not handled yet
  EXPECT_EQ(r.helper->doRestart(true, r.sm.ptr()), 0);
  r.sm->initializedIs(true);
  EXPECT_EQ(trace.count(" clear prefix entry"), 1);
  EXPECT_EQ(r.helper->counts().entriesInvalid, 1u);
  EXPECT_EQ(r.helper->counts().entriesCleared, 1u);
  EXPECT_TRUE(first.read(first.index).empty());
  EXPECT_EQ(first.chip->lpm(false).occupied(first.table), occupied - 1);
  U64 victims = 0;
  for (bool v : first.inVictim) victims += v;
  EXPECT_EQ(r.sm->prefixToSubTries(), kRoutes.size() - victims);
  EXPECT_EQ(r.config->requests(), kRoutes.size() - victims);
}

TEST(RestartRecoveryTest, ReadOutOfRangeSkipsTheEntrySilently) {
  FirstRun first;
  U32 occupied = 0;
  for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t)
    if (small().ipv4.prefixTableContext[t].valid) occupied += first.chip->lpm(false).occupied(t);
  first.chip->lpmMgr(false).failPrefixEntryReadIs(first.table, first.index, XpXdk::XP_ERR_OUT_OF_RANGE);
  xplpm_test::TraceCapture trace(5);
  Recovery r(*first.chip, true);
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
  std::shared_ptr<XpXdk::xpChip> chip = XpLpmAgent(small()).sharedChip();
  xplpm_test::TraceCapture trace(5);
  XpLpmAgent second(small(), chip);
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
    first.chip->lpmMgr(false).failPrefixEntryReadIs(first.table, first.index, XpXdk::XP_ERR_INVALID_DATA);
    EXPECT_DEATH({ Recovery r(*first.chip, true); }, literally("ret == XP_NO_ERR"));
  }
  {
    FirstRun first;
    const xpLpmPrefixEntry e = first.read(first.index);
    first.chip->lpmMgr(false).failNhiEntryReadIs(e.nhiTile, e.nhiOffset, XpXdk::XP_ERR_OUT_OF_RANGE);
    const std::string call = "((xdkLpmMgr()->readNhiEntry( 0, nhiBaseIdx.tile().value(), nhiBaseIdx.offset() + i, "
                             "&xpNhiEntry, 0 ))) API ERROR 11";
    EXPECT_DEATH({ Recovery r(*first.chip, true); },
                 "RestartHelperBase\\.cpp:[0-9]+: " + literally(call) + "(.|\n)*" + literally("!(true)"));
  }
  {
    FirstRun first;
    // The test mode recovers a sound chip, and stops at the first entry it cannot.
    EXPECT_EQ(Recovery(*first.chip, true, XpLpm::modeRestartTest).sm->prefixToSubTries(), kRoutes.size());
    xpLpmPrefixEntry e = first.read(first.index);
    e.stride = 0;
    first.write(first.index, e);
    EXPECT_DEATH({ Recovery r(*first.chip, true, XpLpm::modeRestartTest); },
                 literally("0 && \"Recovering prefix entry failed\""));
  }
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
