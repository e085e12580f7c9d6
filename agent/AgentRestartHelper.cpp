// Route keys rebuilt from the chip's entries.
#include "agent/AgentRestartHelper.h"

namespace XpLib {
namespace Agent {

Ptr<XpLpm::LpmPrefix> AgentRestartHelper::createPrefix(const XpLpm::SubTrieBranch& branch, U8 branchLen,
                                                       const U64& leafVal, const U64& leafValHigh, U8) {
  XpLpm::SubTrieBranch key = branch;
  U64 lo = leafVal, hi = leafValHigh;
  const U8 len = XpLpm::combineBranchAndLeaf(key, branchLen, lo, hi);
  const U32 vrf = (U32(key.byteAt(0)) << 8) | key.byteAt(1);
  const U8 prefixLen = static_cast<U8>(len - XpLpm::kVrfBits);
  if (config()->addressFamily() == XpLpm::AddressFamily::ipv6) {
    Ip6Prefix::Bytes a;
    for (U32 i = 0; i < 16; ++i) a[i] = key.byteAt(2 + i);
    auto& cfg = static_cast<XpLpm::ConfigV6&>(*config());
    return cfg.newLpmPrefix(VrfAndIp6Prefix{vrf, Ip6Prefix(a, prefixLen)});
  }
  U32 address = 0;
  for (U32 i = 0; i < 4; ++i) address = (address << 8) | key.byteAt(2 + i);
  auto& cfg = static_cast<XpLpm::ConfigV4&>(*config());
  return cfg.newLpmPrefix(VrfAndPrefix{vrf, Prefix(address, prefixLen)});
}

void AgentRestartHelper::deletePrefix(const Ptr<XpLpm::LpmPrefix>& prefix) {
  config()->requestDel(prefix);
  lpmStatus()->prefixToNextHopBlockDel(prefix);
  ++dropped_;
}

}  // namespace Agent
}  // namespace XpLib
