// The agent: entities, configuration from the chip, state machines, next-hop
// groups and writers.
#include "agent/XpLpmAgent.h"

#include <chrono>
#include <map>

#include "XpLpmConfigurator/XpLpmConfigurator.h"
#include "agent/AgentRestartHelper.h"

namespace XpLib {
namespace Agent {

XpLpmAgent::XpLpmAgent(const XpXdk::xpChipProfile& profile, U32 nextHopGroups)
    : profile_(profile), nextHopGroups_(nextHopGroups ? nextHopGroups : 1) {
  chip_ = std::make_shared<XpXdk::xpChip>(profile.ipv4, profile.ipv6, profile.nextHop);
  configure();
  startFamily(v4_, configV4_, "ipv4", false, false);
  startFamily(v6_, configV6_, "ipv6", true, false);
}

XpLpmAgent::XpLpmAgent(const XpXdk::xpChipProfile& profile, std::shared_ptr<XpXdk::xpChip> chip, U32 nextHopGroups)
    : profile_(profile), nextHopGroups_(nextHopGroups ? nextHopGroups : 1), chip_(std::move(chip)) {
  configure();
  startFamily(v4_, configV4_, "ipv4", false, true);
  startFamily(v6_, configV6_, "ipv6", true, true);
  restoreGroups();
}

XpLpmAgent::~XpLpmAgent() = default;

void XpLpmAgent::configure() {
  systemStatus_ = XpXdk::systemStatusFor(profile_);
  configV4_ = XpLpm::configV4Factory("ipv4");
  configV6_ = XpLpm::configV6Factory("ipv6");
  nhConfig_ = XpLpmNextHop::configFactory("nexthop");
  xpLpmConfiguratorFactory(systemStatus_, configV4_, configV6_, nhConfig_, nullptr)->doConfig();
  nhStatus_ = XpLpmNextHop::statusFactory("nexthop");
  nhSm_ = XpLpmNextHop::LpmNextHopSmIs("nexthop", nhConfig_, nhStatus_);
}

void XpLpmAgent::startFamily(Family& f, const Ptr<XpLpm::ConfigBase>& config, const char* name, bool ipv6,
                             bool warm) {
  f.config = config;
  f.status = XpLpm::statusFactory(name);
  Ptr<AgentRestartHelper> helper;
  if (warm) {
    config->restartModeIs(XpLpm::modeRestartNormal);
    helper = makePtr<AgentRestartHelper>(config, f.status);
    helper->xdkLpmMgrIs(&chip_->lpmMgr(ipv6));
  }
  const auto t0 = std::chrono::steady_clock::now();
  f.sm = XpLpm::LpmSmIs(name, config, f.status, helper);
  f.writer = std::make_unique<HwWriter>(f.status, config, &chip_->lpmMgr(ipv6));
  f.writer->drain();
  if (!warm) return;
  // A route recovered from an earlier entry and then met again in an invalid one
  // lost its request but is still placed: let the machine take it out.
  std::vector<Ptr<XpLpm::LpmPrefix>> orphans;
  for (const auto& [prefix, subTrie] : f.sm->prefixToSubTrieMap())
    if (config->request(prefix) == NextHopBlock()) orphans.push_back(prefix);
  for (const auto& prefix : orphans) f.sm->handleRequest(prefix);
  f.writer->drain();
  restartReport_.seconds[ipv6] = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  restartReport_.routesRecovered[ipv6] = helper->counts().routes;
  restartReport_.entriesInvalid[ipv6] = helper->counts().entriesInvalid;
}

void XpLpmAgent::restoreGroups() {
  // The blocks the recovered routes point at, by base; each one's entries name
  // its group. Entries no route points at are leftovers of blocks given up.
  std::map<U32, std::pair<SwId, U16>> blocks;
  for (bool v6 : {false, true}) {
    for (const auto& [prefix, block] : family(v6).config->requestMap()) {
      XpXdk::xpNhEntry e;
      const U32 base = block.base().value();
      if (blocks.count(base) || chip_->readNextHop(base, &e) != XpXdk::XP_NO_ERR) continue;
      if (!(e.data & kGroupEntryValid) || memberOfEntry(e) != 0) continue;
      blocks[base] = {groupOfEntry(e), block.size().value()};
    }
  }
  // Fillers stand in the gaps so that each group lands at its old base.
  std::vector<SwId> fillers;
  const U32 maxBlock = nhSm_->allocator()->maxBlkSz();
  U64 nextFiller = U64(1) << 47;
  auto fill = [&](U32 from, U32 to) {
    while (from < to) {
      const U32 n = std::min(to - from, maxBlock);
      fillers.push_back(SwId(nextFiller++));
      nhConfig_->requestIs(fillers.back(), Nway(static_cast<U16>(n)));
      from += n;
    }
  };
  U32 cursor = 0;
  for (const auto& [base, group] : blocks) {
    if (groups_.contains(group.first)) continue;
    fill(cursor, base);
    groups_.set(group.first, Group{Nway(group.second), {}});
    nhConfig_->requestIs(group.first, Nway(group.second));
    ++restartReport_.groupsRestored;
    if (groupBlock(group.first).base().value() != base) ++restartReport_.groupsMisplaced;
    cursor = base + group.second;
  }
  for (SwId f : fillers) nhConfig_->requestDel(f);
  while (nhStatus_->shuffleCmds()) nhStatus_->shuffleCmdDeq();
}

XpLpmAgent::ReconcileReport XpLpmAgent::reconcile(const std::vector<Route>& wanted) {
  ReconcileReport report;
  for (const Route& r : wanted) {
    Ptr<XpLpm::LpmPrefix> prefix = prefixOf(r);
    const NextHopBlock before = family(r.ipv6).config->request(prefix);
    routeIs(r);
    const NextHopBlock after = family(r.ipv6).config->request(prefix);
    if (before == NextHopBlock()) {
      ++report.added;
    } else {
      before == after ? ++report.kept : ++report.changed;
    }
  }
  for (bool v6 : {false, true}) {
    Family& f = family(v6);
    std::vector<Ptr<XpLpm::LpmPrefix>> unwanted;
    for (const auto& [prefix, block] : f.config->requestMap())
      if (!routeGroup_.contains(prefix)) unwanted.push_back(prefix);
    for (const auto& prefix : unwanted) {
      f.config->requestDel(prefix);
      f.writer->drain();
      ++report.withdrawn;
    }
  }
  return report;
}

XpLpmAgent::Group& XpLpmAgent::groupIs(SwId group) {
  if (Group* g = groups_.find(group)) return *g;
  groups_.set(group, Group{defaultWidth(group), {}});
  const NextHopBlock before = groupBlock(group);
  nhConfig_->requestIs(group, defaultWidth(group));
  applyNextHopChanges(group, before);
  return *groups_.find(group);
}

void XpLpmAgent::groupWidthIs(SwId group, Nway width) {
  groupIs(group).width = width;
  const NextHopBlock before = groupBlock(group);
  nhConfig_->requestIs(group, width);
  applyNextHopChanges(group, before);
}

void XpLpmAgent::groupDel(SwId group) {
  Group* g = groups_.find(group);
  if (!g) return;
  for (const auto& [prefix, unused] : g->routes) {
    Family& f = family(prefix->addressFamily() == XpLpm::AddressFamily::ipv6);
    f.config->requestDel(prefix);
    f.writer->drain();
    routeGroup_.erase(prefix);
  }
  groups_.erase(group);
  nhConfig_->requestDel(group);
  applyNextHopChanges(group, NextHopBlock());
}

void XpLpmAgent::applyNextHopChanges(SwId requested, const NextHopBlock& before) {
  while (nhStatus_->shuffleCmds() > 0) {
    Ptr<XpLpmNextHop::ShuffleCmd> cmd = nhStatus_->shuffleCmdQueue().front().second;
    copyEntries(cmd->prevNextHopBlock(), cmd->nextHopBlock());
    ++counters_.shuffles;
    // The move's own block, not the group's latest: a group that is also being
    // resized gets its final block only below, once that block is written.
    repointRoutes(cmd->swId(), cmd->nextHopBlock());
    nhStatus_->shuffleCmdDeq();
  }
  const NextHopBlock after = groupBlock(requested);
  if (after == before || after == NextHopBlock()) return;
  writeGroupEntries(requested, after);
  repointRoutes(requested, after);
}

// A block may move up over its own old entries, so the copy runs like memmove.
void XpLpmAgent::copyEntries(const NextHopBlock& from, const NextHopBlock& to) {
  const U32 src = from.base().value(), dst = to.base().value(), n = to.size().value();
  for (U32 k = 0; k < n; ++k) {
    const U32 i = dst > src ? n - 1 - k : k;
    XpXdk::xpNhEntry e;
    chip_->readNextHop(src + i, &e);
    chip_->writeNextHop(dst + i, e);
    ++counters_.nextHopCopies;
  }
}

void XpLpmAgent::writeGroupEntries(SwId group, const NextHopBlock& block) {
  for (U32 m = 0; m < block.size().value(); ++m) {
    XpXdk::xpNhEntry held;
    const XpXdk::xpNhEntry want = groupEntry(group, m);
    if (chip_->readNextHop(block.base().value() + m, &held) == XpXdk::XP_NO_ERR && held == want) continue;
    chip_->writeNextHop(block.base().value() + m, want);
    ++counters_.nextHopWrites;
  }
}

void XpLpmAgent::repointRoutes(SwId group, const NextHopBlock& block) {
  const Group* g = groups_.find(group);
  if (!g) return;
  // Re-requesting may withdraw a route but never changes the group's membership.
  for (const auto& [prefix, unused] : g->routes) {
    requestRoute(prefix, block);
    ++counters_.routesRepointed;
  }
}

void XpLpmAgent::requestRoute(const Ptr<XpLpm::LpmPrefix>& prefix, const NextHopBlock& block) {
  Family& f = family(prefix->addressFamily() == XpLpm::AddressFamily::ipv6);
  if (block == NextHopBlock()) {
    f.config->requestDel(prefix);
    f.writer->drain();
    return;
  }
  const bool wasInstalled = static_cast<bool>(f.sm->prefixToSubTrie(prefix));
  f.config->requestIs(prefix, block);
  f.writer->drain();
  // An installed route whose update found no NHI room still points at the old
  // block, which another group may soon be given: take it out instead.
  if (wasInstalled && f.status->prefixToNextHopBlock(prefix) != block) {
    f.config->requestDel(prefix);
    f.writer->drain();
    ++counters_.routesWithdrawnOnMove;
  }
}

void XpLpmAgent::leaveGroup(const Ptr<XpLpm::LpmPrefix>& prefix) {
  const SwId* group = routeGroup_.find(prefix);
  if (!group) return;
  if (Group* g = groups_.find(*group)) g->routes.erase(prefix);
}

Ptr<XpLpm::LpmPrefix> XpLpmAgent::prefixOf(const Route& r) {
  if (r.ipv6) return configV6_->newLpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  return configV4_->newLpmPrefix(VrfAndPrefix{r.vrf, r.v4});
}

Ptr<XpLpm::LpmPrefix> XpLpmAgent::findPrefix(const Route& r) const {
  if (r.ipv6) return configV6_->lpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  return configV4_->lpmPrefix(VrfAndPrefix{r.vrf, r.v4});
}

void XpLpmAgent::routeIs(const Route& r) {
  Ptr<XpLpm::LpmPrefix> prefix = prefixOf(r);
  const SwId group = groupOf(r.nextHop);
  if (const SwId* held = routeGroup_.find(prefix); held && *held != group) leaveGroup(prefix);
  groupIs(group).routes.set(prefix, true);
  routeGroup_.set(prefix, group);
  requestRoute(prefix, groupBlock(group));
}

void XpLpmAgent::routeDel(const Route& r) {
  Ptr<XpLpm::LpmPrefix> prefix = findPrefix(r);
  if (!prefix) return;
  leaveGroup(prefix);
  routeGroup_.erase(prefix);
  Family& f = family(r.ipv6);
  f.config->requestDel(prefix);
  f.writer->drain();
  // A withdrawn route's key object is no longer needed by anyone.
  if (r.ipv6) {
    configV6_->lpmPrefixDel(VrfAndIp6Prefix{r.vrf, r.v6});
  } else {
    configV4_->lpmPrefixDel(VrfAndPrefix{r.vrf, r.v4});
  }
}

bool XpLpmAgent::installed(const Route& r) {
  Ptr<XpLpm::LpmPrefix> p = findPrefix(r);
  return p && family(r.ipv6).sm->prefixToSubTrie(p);
}

NextHopBlock XpLpmAgent::installedBlock(const Route& r) {
  Ptr<XpLpm::LpmPrefix> p = findPrefix(r);
  return p ? family(r.ipv6).status->prefixToNextHopBlock(p) : NextHopBlock();
}

U64 XpLpmAgent::routesWithoutGroupBlock() const {
  U64 n = 0;
  for (const auto& [prefix, group] : routeGroup_) n += groupBlock(group) == NextHopBlock();
  return n;
}

XpXdk::xpLpmLookupResult XpLpmAgent::lookup(U32 vrf, U32 address) const {
  return chip_->lpm(false).lookup(XpXdk::xpLpmKey::ipv4(vrf, address));
}

XpXdk::xpLpmLookupResult XpLpmAgent::lookup(U32 vrf, const Ip6Prefix::Bytes& address) const {
  return chip_->lpm(true).lookup(XpXdk::xpLpmKey::ipv6(vrf, address));
}

}  // namespace Agent
}  // namespace XpLib
