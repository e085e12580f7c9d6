// Test support for the LPM state machine: hand-built configurations and a rig
// to request routes and look at what they became.
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

}  // namespace test
}  // namespace XpLpm
}  // namespace XpLib
