// The forwarding check against a brute-force longest match.
#include "agent/Forwarding.h"

#include <algorithm>

namespace XpLib {
namespace Agent {

U32 lastAddress(const Prefix& p) { return p.address() | ~Prefix::mask(p.len()); }

Ip6Prefix::Bytes lastAddress(const Ip6Prefix& p) {
  Ip6Prefix::Bytes a = p.address();
  for (int i = 0; i < 16; ++i) a[i] |= static_cast<U8>(0xFF >> std::clamp(static_cast<int>(p.len()) - 8 * i, 0, 8));
  return a;
}

U32 randomAddressIn(const Prefix& p, std::mt19937_64& rng) {
  return p.address() | (static_cast<U32>(rng()) & ~Prefix::mask(p.len()));
}

Ip6Prefix::Bytes randomAddressIn(const Ip6Prefix& p, std::mt19937_64& rng) {
  Ip6Prefix::Bytes a = p.address();
  for (int i = 0; i < 16; ++i) {
    const int keep = std::clamp(static_cast<int>(p.len()) - 8 * i, 0, 8);
    a[i] |= static_cast<U8>(rng()) & static_cast<U8>(0xFF >> keep);
  }
  return a;
}

Forwarding::Forwarding(const XpLpmAgent& agent) : agent_(agent) {
  for (bool v6 : {false, true}) {
    for (const auto& [prefix, block] : agent.family(v6).status->prefixToNextHopBlockMap()) {
      if (v6) {
        const auto& k = static_cast<const XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix();
        ref_.routeIs(k.vrf, k.prefix, block);
      } else {
        const auto& k = static_cast<const XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix();
        ref_.routeIs(k.vrf, k.prefix, block);
      }
    }
  }
}

bool Forwarding::agrees(const XpXdk::xpLpmLookupResult& chip, const std::optional<ReferenceMatch>& want,
                        U64 selector) const {
  if (!want) return !chip.hit;
  if (!chip.hit || chip.matchLength != want->len + 16u || chip.nextHopBlock.base != want->block.base().value() ||
      chip.nextHopBlock.size != want->block.size().value())
    return false;
  const std::optional<XpXdk::xpNhEntry> entry = agent_.chip().resolve(chip, selector);
  const SwId owner = agent_.nextHopSm()->baseIdxToSwId(XpLpmNextHop::NextHopTableIdx(chip.nextHopBlock.base));
  return entry && owner != SwId() && agent_.groupBlock(owner) == want->block &&
         XpLpmAgent::groupOfEntry(*entry) == owner &&
         XpLpmAgent::memberOfEntry(*entry) == selector % chip.nextHopBlock.size;
}

bool Forwarding::correct(U32 vrf, U32 address) const {
  return agrees(agent_.lookup(vrf, address), ref_.lookup(vrf, address), address);
}

bool Forwarding::correct(U32 vrf, const Ip6Prefix::Bytes& address) const {
  return agrees(agent_.lookup(vrf, address), ref_.lookup(vrf, address), address[15]);
}

std::string Forwarding::describe(const XpXdk::xpLpmLookupResult& chip, const std::optional<ReferenceMatch>& want) const {
  return std::string("chip ") +
         (chip.hit ? "/" + std::to_string(chip.matchLength - 16) + " base " + std::to_string(chip.nextHopBlock.base)
                   : "miss") +
         ", reference " + (want ? "/" + std::to_string(want->len) + " base " + want->block.base().str() : "miss");
}

std::string Forwarding::describe(U32 vrf, U32 address) const {
  return "vrf " + std::to_string(vrf) + " " + Prefix(address, 32).str() + ": " +
         describe(agent_.lookup(vrf, address), ref_.lookup(vrf, address));
}

std::string Forwarding::describe(U32 vrf, const Ip6Prefix::Bytes& address) const {
  return "vrf " + std::to_string(vrf) + " " + Ip6Prefix::addressStr(address) + ": " +
         describe(agent_.lookup(vrf, address), ref_.lookup(vrf, address));
}

}  // namespace Agent
}  // namespace XpLib
