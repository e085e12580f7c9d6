// A program outside the project built against the installed library and the simulated SDK (a
// library of its own, as a vendor's is): it configures a built-in chip profile, starts the IPv4
// state machine and places one route.
#include <cstdio>

#include "XpLpm/XpLpmSm.h"
#include "XpLpmConfigurator/XpLpmConfigurator.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "xdk/xpChipProfiles.h"

int main() {
  using namespace XpLib;
  auto v4 = XpLpm::configV4Factory("ipv4");
  auto v6 = XpLpm::configV6Factory("ipv6");
  auto nextHops = XpLpmNextHop::configFactory("nexthop");
  const auto* profile = XpXdk::findChipProfile("small");
  xpLpmConfiguratorFactory(XpXdk::systemStatusFor(*profile), v4, v6, nextHops, nullptr)->doConfig();
  auto status = XpLpm::statusFactory("ipv4");
  auto sm = XpLpm::LpmSmIs("ipv4", v4, status, nullptr);
  auto prefix = v4->newLpmPrefix(VrfAndPrefix{0, *Prefix::parse("10.0.0.0/8")});
  v4->requestIs(prefix, XpLpmNextHop::NextHopBlock(U32(0), U16(1)));
  const bool placed = static_cast<bool>(sm->prefixToSubTrie(prefix));
  std::printf("consumer: 10.0.0.0/8 %s, %u commands queued\n", placed ? "placed" : "NOT placed", status->pendingCmds());
  return placed ? 0 : 1;
}
