// The chip's LPM entry records, as the SDK reads and writes them.
//
// Prefix-table entry (one hash position, one sub-trie):
//   keySize    0 = 48-bit key (IPv4), 2 = 144-bit key (IPv6)
//   mode       1 = sparse: a list of prefixes, one per slot
//   branchLen  key bits every prefix of the entry shares; stride: bits below them the entry spans
//   branch     those branchLen bits right-aligned, least significant byte first: byte 0 holds the
//              last 8 branch bits, and the first branch bit is the top used bit of byte (branchLen-1)/8
//   nhiTile, nhiOffset   the first NHI entry of the entry's next-hop block
//   slots      per slot two leaf words (leafValHigh above leafVal, 128 bits): the prefix bits below the
//              branch behind a single marker 1 bit; the marker's position p is the number of those
//              bits, so a slot holding a prefix of branchLen + p bits reads (1 << p) | bits. Both words
//              0 is an empty slot.
//   numSlots   how many slots the entry was written with. Recovery after a restart reads at most that
//              many (within its own limits), so that a rebuilt sub-trie gets back the slot count, and
//              with it the NHI block size, it had.
// Slot s's next hops are pair s % pairsPerEntry of NHI entry nhiOffset + s / pairsPerEntry.
//
// NHI entry: up to 10 pairs, each the base and size of one next-hop block.
#pragma once

#include <array>
#include <vector>

#include "xdk/XpBitVector.h"
#include "xdk/xpTableContext.h"

namespace XpXdk {

// The chip's LPM key: 16 VRF bits, then up to 128 address bits.
inline constexpr U32 kLpmKeyBits = 144;
inline constexpr U32 kLpmKeyBytes = kLpmKeyBits / 8;
static_assert(kLpmKeyBytes * 8 == kLpmKeyBits);
// Bits of prefix data in a wide (256-bit) and in a narrow (128-bit) prefix-table entry.
inline constexpr U32 kWideEntryBits = 216;
inline constexpr U32 kNarrowEntryBits = 88;
// The smallest stride the chip offers: no slot is narrower.
inline constexpr U32 kMinStride = 8;
static_assert(XpBitVector::maxBits >= kLpmKeyBits, "a hash key is the whole LPM key");

struct xpLpmLeaf {
  U64 leafVal = 0;
  U64 leafValHigh = 0;
  bool empty() const { return leafVal == 0 && leafValHigh == 0; }
  bool operator==(const xpLpmLeaf&) const = default;
};

struct xpLpmPrefixEntry {
  static constexpr U8 kKeySizeShort = 0;
  static constexpr U8 kKeySizeLong = 2;
  static constexpr U8 kModeSparse = 1;
  // The most slots an entry holds: the widest at the smallest stride.
  static constexpr U32 kMaxSlots = kWideEntryBits / kMinStride;
  static_assert(kMaxSlots == 27);

  U8 keySize = 0;
  U8 mode = 0;
  U8 branchLen = 0;
  U8 stride = 0;
  std::array<U8, kLpmKeyBytes> branch{};
  U8 nhiTile = 0;
  U16 nhiOffset = 0;
  U8 numSlots = 0;
  std::array<xpLpmLeaf, kMaxSlots> slots{};

  bool operator==(const xpLpmPrefixEntry&) const = default;
  // An all-zero record: what a cleared position holds.
  bool empty() const { return *this == xpLpmPrefixEntry(); }
};

struct xpLpmNhiPair {
  U32 base = 0xFFFFFFFF;
  U16 size = 0xFFFF;
  bool operator==(const xpLpmNhiPair&) const = default;
};

struct xpLpmNhiEntry {
  static constexpr U32 kMaxPairs = 10;
  std::array<xpLpmNhiPair, kMaxPairs> pair{};
  bool operator==(const xpLpmNhiEntry&) const = default;
};

// One entry of the next-hop table: whatever the agent wrote for the group that owns it.
struct xpNhEntry {
  U64 data = 0;
  bool operator==(const xpNhEntry&) const = default;
};

}  // namespace XpXdk
