// The agent: entities, configuration from the chip, state machines and writers.
#include "agent/XpLpmAgent.h"

#include "XpLpmConfigurator/XpLpmConfigurator.h"

namespace XpLib {
namespace Agent {

XpLpmAgent::XpLpmAgent(const XpXdk::xpChipProfile& profile, U32 nextHopGroups, U16 groupWidth)
    : profile_(profile), nextHopGroups_(nextHopGroups ? nextHopGroups : 1), groupWidth_(groupWidth) {
  chip_ = std::make_unique<XpXdk::xpChip>(profile.ipv4, profile.ipv6, profile.nextHop);
  systemStatus_ = XpXdk::systemStatusFor(profile);
  configV4_ = XpLpm::configV4Factory("ipv4");
  configV6_ = XpLpm::configV6Factory("ipv6");
  nhConfig_ = XpLpmNextHop::configFactory("nexthop");
  xpLpmConfiguratorFactory(systemStatus_, configV4_, configV6_, nhConfig_, nullptr)->doConfig();
  startFamily(v4_, configV4_, "ipv4", false);
  startFamily(v6_, configV6_, "ipv6", true);
}

XpLpmAgent::~XpLpmAgent() = default;

void XpLpmAgent::startFamily(Family& f, const Ptr<XpLpm::ConfigBase>& config, const char* name, bool ipv6) {
  f.config = config;
  f.status = XpLpm::statusFactory(name);
  f.sm = XpLpm::LpmSmIs(name, config, f.status, nullptr);
  f.writer = std::make_unique<HwWriter>(f.status, config, &chip_->lpmMgr(ipv6));
  f.writer->drain();
}

NextHopBlock XpLpmAgent::blockFor(U64 nextHop) const {
  const U32 group = static_cast<U32>(nextHop % nextHopGroups_);
  return NextHopBlock(group * groupWidth_, groupWidth_);
}

Ptr<XpLpm::LpmPrefix> XpLpmAgent::prefixOf(const Route& r) {
  if (r.ipv6) return configV6_->newLpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  return configV4_->newLpmPrefix(VrfAndPrefix{r.vrf, r.v4});
}

void XpLpmAgent::routeIs(const Route& r) {
  Family& f = family(r.ipv6);
  f.config->requestIs(prefixOf(r), blockFor(r.nextHop));
  f.writer->drain();
}

void XpLpmAgent::routeDel(const Route& r) {
  Family& f = family(r.ipv6);
  f.config->requestDel(prefixOf(r));
  f.writer->drain();
  // A withdrawn route's key object is no longer needed by anyone.
  if (r.ipv6) {
    configV6_->lpmPrefixDel(VrfAndIp6Prefix{r.vrf, r.v6});
  } else {
    configV4_->lpmPrefixDel(VrfAndPrefix{r.vrf, r.v4});
  }
}

Ptr<XpLpm::LpmPrefix> XpLpmAgent::findPrefix(const Route& r) const {
  if (r.ipv6) return configV6_->lpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  return configV4_->lpmPrefix(VrfAndPrefix{r.vrf, r.v4});
}

bool XpLpmAgent::installed(const Route& r) {
  Ptr<XpLpm::LpmPrefix> p = findPrefix(r);
  return p && family(r.ipv6).sm->prefixToSubTrie(p);
}

NextHopBlock XpLpmAgent::installedBlock(const Route& r) {
  Ptr<XpLpm::LpmPrefix> p = findPrefix(r);
  return p ? family(r.ipv6).status->prefixToNextHopBlock(p) : NextHopBlock();
}

XpXdk::xpLpmLookupResult XpLpmAgent::lookup(U32 vrf, U32 address) const {
  return chip_->lpm(false).lookup(XpXdk::xpLpmKey::ipv4(vrf, address));
}

XpXdk::xpLpmLookupResult XpLpmAgent::lookup(U32 vrf, const Ip6Prefix::Bytes& address) const {
  return chip_->lpm(true).lookup(XpXdk::xpLpmKey::ipv6(vrf, address));
}

}  // namespace Agent
}  // namespace XpLib
