// Test support for the LPM state machine: hand-built configurations and a full
// check of the model's invariants.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "XpLpm/XpLpm.h"
#include "XpLpm/XpLpmSm.h"
#include "LpmGeometry.h"

namespace XpLib {
namespace XpLpm {
namespace test {

inline Ptr<LpmPrefix> v4(const Ptr<ConfigV4>& cfg, const std::string& text, U32 vrf = 0) {
  return cfg->newLpmPrefix(VrfAndPrefix{vrf, *Prefix::parse(text)});
}

inline Ptr<LpmPrefix> v6(const Ptr<ConfigV6>& cfg, const std::string& text, U32 vrf = 0) {
  return cfg->newLpmPrefix(VrfAndIp6Prefix{vrf, *Ip6Prefix::parse(text)});
}

inline NextHopBlock nh(U32 base, U16 size = 1) { return NextHopBlock(base, size); }

// Checks every invariant that links prefixes, sub-tries, shared records, blocks
// and allocators; reports through gtest so a failing step names itself.
// One IPv4 state machine over a hand-built geometry, with short ways to request
// routes and look at what they became.
struct Rig {
  Ptr<ConfigV4> cfg;
  Ptr<Status> status = statusFactory("status");
  Ptr<LpmSm> sm;

  explicit Rig(const Geometry& g, bool shuffling = true) : cfg(makeConfigV4(g)) {
    sm = LpmSmIs("sm", cfg, status, nullptr);
    sm->hashShufflingEnabledIs(shuffling);
  }
  Ptr<LpmPrefix> prefix(const std::string& text) const { return v4(cfg, text); }
  Ptr<LpmPrefix> route(const std::string& text, NextHopBlock block) {
    Ptr<LpmPrefix> p = prefix(text);
    cfg->requestIs(p, block);
    return p;
  }
  Ptr<PrefixTable> table(U8 id) const { return sm->prefixTable(PrefixTableId(id)); }
  Ptr<SubTrie> at(U8 id, const Ptr<LpmPrefix>& p) const { return table(id)->subTrie(table(id)->positionOf(p)); }
  bool installed(const Ptr<LpmPrefix>& p) const { return static_cast<bool>(sm->prefixToSubTrie(p)); }
  // Every queued command, oldest first; the queue is left empty.
  std::vector<Ptr<CommandBase>> take() {
    std::vector<Ptr<CommandBase>> out;
    for (const auto& entry : status->pendingCmdQueue()) out.push_back(entry.second);
    drain();
    return out;
  }
  void drain() {
    while (status->pendingCmds()) status->pendingCmdDeq();
  }
};

// Routes for which `stale` answers true (their last update found no NHI block)
// skip the per-route check of their next-hop block.
inline void checkModel(const LpmSm& sm, const std::function<bool(const Ptr<LpmPrefix>&)>& stale = {}) {
  const ConfigBase& cfg = *sm.config();
  U32 installedSeen = 0;
  for (const auto& [id, table] : sm.prefixTableMap()) {
    for (const auto& [idx, st] : table->subTrieMap()) {
      st->verify();
      ASSERT_EQ(st->table(), table.ptr()) << st->str();
      ASSERT_EQ(st->index(), idx) << st->str();
      ASSERT_GT(st->numPrefixes(), 0u) << "empty sub-trie left in table " << id.str() << ": " << st->str();
      ASSERT_GE(st->branchLen(), table->tableConfig()->tread()) << st->str();
      for (const auto& p : st->slots()) {
        if (!p) continue;
        ++installedSeen;
        ASSERT_EQ(sm.prefixToSubTrie(p), st) << p->stringValue();
        // Every prefix shares the sub-trie's branch and hashes to its position.
        SubTrieBranch pb = p->branch(st->branchLen());
        SubTrieBranch sb = st->branch();
        U8 common = 0;
        findCommonBranch(sb, pb, st->branchLen(), common);
        ASSERT_EQ(common, st->branchLen()) << p->stringValue() << " in " << st->str();
        ASSERT_LE(p->len(), st->branchLen() + st->stride() - 1) << p->stringValue() << " in " << st->str();
        ASSERT_EQ(table->positionOf(p), idx) << p->stringValue();
      }
      const Ptr<NhiInfo> info = sm.sharedNhi(st->nhiInfoKey());
      ASSERT_TRUE(info) << st->str();
      ASSERT_EQ(info->nhiBaseIdx(), st->nhiBaseIdx()) << st->str();
      const Ptr<SubTrieSet> set = sm.nhiBaseIdxToSubTrie(st->nhiBaseIdx());
      ASSERT_TRUE(set && set->subTrie(st)) << st->str();
    }
  }
  ASSERT_EQ(installedSeen, sm.prefixToSubTries());

  ASSERT_EQ(sm.nhiBaseIdxToBlkMap().size(), sm.nhiBaseIdxToSubTrieMap().size());
  ASSERT_EQ(sm.sharedNhiMap().size(), sm.nhiBaseIdxToBlkMap().size());
  U64 held = 0;
  for (const auto& [base, blk] : sm.nhiBaseIdxToBlkMap()) {
    held += blk->blkSz();
    const Ptr<SubTrieSet> set = sm.nhiBaseIdxToSubTrie(base);
    ASSERT_TRUE(set) << base.str();
    ASSERT_GT(set->subTries(), 0u);
    for (const auto& [st, unused] : *set) {
      ASSERT_EQ(st->nhiBaseIdx(), base);
      const Ptr<NhiInfo> info = sm.sharedNhi(st->nhiInfoKey());
      ASSERT_EQ(info->subTrieCount(), set->subTries()) << info->str();
      ASSERT_EQ(blk->blkSz(), sm.nhiBlockSize(st->maxPrefixSlot())) << st->str();
    }
  }
  for (const auto& [key, info] : sm.sharedNhiMap()) {
    ASSERT_NE(key, NhiInfoKey());
    ASSERT_TRUE(sm.nhiBaseIdxToBlk(info->nhiBaseIdx())) << info->str();
  }
  U64 freeEntries = 0;
  for (const auto& [tile, allocator] : sm.nhiAllocatorMap()) {
    allocator->verify();
    freeEntries += allocator->freeEntries();
  }
  ASSERT_EQ(freeEntries + held, U64(cfg.nhiEntriesPerTile()) * cfg.nhiAvailableTiles());
  for (const auto& [p, st] : sm.prefixToSubTrieMap())
    if (!stale || !stale(p)) sm.verifyLpmRoute(p);
}

}  // namespace test
}  // namespace XpLpm
}  // namespace XpLib
