// XpLpmAgent: what a forwarding agent writes around the library. It owns the
// configuration and status entities, derives the configuration from the chip's
// table contexts, runs one LpmSm per address family, and drains each machine's
// commands into the chip through a HwWriter after every request.
//
// Next hops: until groups get blocks of their own, next hop n belongs to group
// n % nextHopGroups, and group g resolves to the fixed block {g * width, width}.
#pragma once

#include <memory>
#include <string>

#include "XpLpm/XpLpmSm.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "agent/HwWriter.h"
#include "xdk/xpChip.h"
#include "xdk/xpChipProfiles.h"

namespace XpLib {
namespace Agent {

using XpLpmNextHop::NextHopBlock;

// One route as the control plane gives it.
struct Route {
  bool ipv6 = false;
  U32 vrf = 0;
  Prefix v4;
  Ip6Prefix v6;
  U64 nextHop = 0;

  std::string prefixStr() const { return ipv6 ? v6.str() : v4.str(); }
};

class XpLpmAgent {
 public:
  struct Family {
    Ptr<XpLpm::ConfigBase> config;
    Ptr<XpLpm::Status> status;
    Ptr<XpLpm::LpmSm> sm;
    std::unique_ptr<HwWriter> writer;
  };

  // A new chip of this profile, configured and started empty.
  explicit XpLpmAgent(const XpXdk::xpChipProfile& profile, U32 nextHopGroups = 256, U16 groupWidth = 8);
  ~XpLpmAgent();

  const XpXdk::xpChipProfile& profile() const { return profile_; }
  XpXdk::xpChip& chip() { return *chip_; }
  const XpXdk::xpChip& chip() const { return *chip_; }
  Family& family(bool ipv6) { return ipv6 ? v6_ : v4_; }
  const Family& family(bool ipv6) const { return ipv6 ? v6_ : v4_; }
  const Ptr<XpLpmNextHop::Config>& nextHopConfig() const { return nhConfig_; }

  NextHopBlock blockFor(U64 nextHop) const;
  // The configuration's one prefix object for a route's key, created on first use.
  Ptr<XpLpm::LpmPrefix> prefixOf(const Route& r);
  // The same without creating it: null for a key the agent never requested.
  Ptr<XpLpm::LpmPrefix> findPrefix(const Route& r) const;

  // Requests the route (or changes its next hop) and writes the chip.
  void routeIs(const Route& r);
  // Withdraws the route and writes the chip.
  void routeDel(const Route& r);
  // Whether the route is placed in the chip, and with which block.
  bool installed(const Route& r);
  NextHopBlock installedBlock(const Route& r);

  XpXdk::xpLpmLookupResult lookup(U32 vrf, U32 address) const;
  XpXdk::xpLpmLookupResult lookup(U32 vrf, const Ip6Prefix::Bytes& address) const;

 private:
  void startFamily(Family& f, const Ptr<XpLpm::ConfigBase>& config, const char* name, bool ipv6);

  XpXdk::xpChipProfile profile_;
  U32 nextHopGroups_;
  U16 groupWidth_;
  std::unique_ptr<XpXdk::xpChip> chip_;
  Ptr<XpSystem::SystemStatus> systemStatus_;
  Ptr<XpLpm::ConfigV4> configV4_;
  Ptr<XpLpm::ConfigV6> configV6_;
  Ptr<XpLpmNextHop::Config> nhConfig_;
  Family v4_, v6_;
};

}  // namespace Agent
}  // namespace XpLib
