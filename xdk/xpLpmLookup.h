// A forwarding lookup as the chip answers it: the key looked up and the slot and next-hop block
// it reaches. The simulated chip computes it; a real SDK answers it with its diagnostic lookup.
#pragma once

#include <array>

#include "xdk/xpLpmEntry.h"

namespace XpXdk {

// The key bytes of a lookup: VRF high, VRF low, then the address in network order.
struct xpLpmKey {
  std::array<U8, kLpmKeyBytes> bytes{};
  U32 keyLength = 48;  // 48 or kLpmKeyBits

  static xpLpmKey ipv4(U32 vrf, U32 address);
  static xpLpmKey ipv6(U32 vrf, const std::array<U8, 16>& address);
  // Key bit i, 0 being the most significant bit of the VRF.
  bool bit(U32 i) const { return (bytes[i / 8] >> (7 - i % 8)) & 1; }
};

// What the chip forwards a key to.
struct xpLpmLookupResult {
  bool hit = false;
  U32 tableId = 0;
  U32 position = 0;
  U32 slot = 0;
  U32 matchLength = 0;  // key bits of the matching prefix, VRF included
  xpLpmNhiPair nextHopBlock;  // base and size of the next-hop block
};

}  // namespace XpXdk
