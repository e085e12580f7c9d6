// The chip's entry format against the decoding that restart recovery applies.
#include <gtest/gtest.h>

#include <random>

#include "XpLpm/XpLpmSm.h"
#include "agent/EntryCodec.h"

namespace XpLib {
namespace Agent {
namespace {

using namespace XpLpm;

Ptr<LpmPrefix> randomUnder(std::mt19937& rng, bool v6, U32 vrf, const Ptr<LpmPrefix>& base, U8 len) {
  // A prefix of key length `len` that starts with the base's key bits.
  if (!v6) {
    const auto& b = static_cast<const LpmPrefixV4&>(*base).vrfAndPrefix().prefix;
    const U8 plen = static_cast<U8>(len - 16);
    U32 addr = (b.address() | (static_cast<U32>(rng()) & ~Prefix::mask(b.len()))) & Prefix::mask(plen);
    return lpmPrefixV4Factory(VrfAndPrefix{vrf, Prefix(addr, plen)});
  }
  const auto& b = static_cast<const LpmPrefixV6&>(*base).vrfAndIp6Prefix().prefix;
  const U8 plen = static_cast<U8>(len - 16);
  Ip6Prefix::Bytes a = b.address();
  for (int i = 0; i < 16; ++i) {
    const int fixed = std::clamp(static_cast<int>(b.len()) - 8 * i, 0, 8);
    const int keep = std::clamp(static_cast<int>(plen) - 8 * i, 0, 8);
    const U8 fixedMask = static_cast<U8>(0xFF00 >> fixed);
    const U8 keepMask = static_cast<U8>(0xFF00 >> keep);
    a[i] = static_cast<U8>(((a[i] & fixedMask) | (static_cast<U8>(rng()) & ~fixedMask)) & keepMask);
  }
  return lpmPrefixV6Factory(VrfAndIp6Prefix{vrf, Ip6Prefix(a, plen)});
}

TEST(EntryCodecTest, PrefixEntriesDecodeBackToTheirPrefixes) {
  const unsigned seed = 4242;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  for (bool v6 : {false, true}) {
    const U8 keyLen = v6 ? 144 : 48;
    for (U8 stride : {8, 9, 10, 11, 12, 14, 16, 20, 24, 28, 32, 48, 64, 96, 128}) {
      for (int trial = 0; trial < 20; ++trial) {
        const U8 maxBranch = static_cast<U8>(keyLen - 1);
        const U8 branchLen = static_cast<U8>(16 + rng() % (maxBranch - 16 + 1));
        const U32 vrf = rng() & 0xFFFF;
        // The branch itself, as a prefix of exactly branchLen key bits.
        Ptr<LpmPrefix> root = v6 ? Ptr<LpmPrefix>(lpmPrefixV6Factory(VrfAndIp6Prefix{vrf, Ip6Prefix()}))
                                 : Ptr<LpmPrefix>(lpmPrefixV4Factory(VrfAndPrefix{vrf, Prefix()}));
        root = randomUnder(rng, v6, vrf, root, branchLen);
        const U32 slots = 1 + rng() % 27;
        LpmPrefixList list;
        std::vector<Ptr<LpmPrefix>> expect;
        for (U32 s = 0; s < slots; ++s) {
          const bool hole = trial % 2 == 1 && rng() % 3 == 0;  // odd trials leave holes
          const U8 maxLen = static_cast<U8>(std::min<U32>(keyLen, branchLen + stride - 1));
          const U8 len = static_cast<U8>(branchLen + rng() % (maxLen - branchLen + 1));
          Ptr<LpmPrefix> p = hole ? Ptr<LpmPrefix>() : randomUnder(rng, v6, vrf, root, len);
          list.newPrefix(s, p);
          expect.push_back(p);
        }
        // The model may carry bits past branchLen in its branch; they are not part of the image.
        SubTrieBranch branch = root->branch(branchLen);
        if (branchLen <= 136) branch.u8Is(SubTrieBranch::kBytes - 1, 0xA5);
        PrefixCommand cmd(PrefixTableId(3), PrefixTableIdx(77), branch, branchLen, stride, modeSparse, list,
                          NhiTableIdx(U8(2), 500));
        const XpXdk::xpLpmPrefixEntry e = encodePrefixEntry(cmd, v6 ? keyLong144b : keyShort48b);
        ASSERT_EQ(e.keySize, v6 ? 2 : 0);
        ASSERT_EQ(e.mode, 1);
        ASSERT_EQ(e.numSlots, slots);
        ASSERT_EQ(e.nhiTile, 2);
        ASSERT_EQ(e.nhiOffset, 500);
        ASSERT_EQ(XpLpm::entryBranch(e), root->branch(branchLen)) << "branchLen " << +branchLen;
        for (U32 s = 0; s < XpXdk::xpLpmPrefixEntry::kMaxSlots; ++s) {
          SCOPED_TRACE("slot " + std::to_string(s) + " stride " + std::to_string(stride));
          if (s >= slots || !expect[s]) {
            ASSERT_TRUE(e.slots[s].empty());
            continue;
          }
          SubTrieBranch rebuilt = XpLpm::entryBranch(e);
          U64 lo = e.slots[s].leafVal, hi = e.slots[s].leafValHigh;
          ASSERT_EQ(combineBranchAndLeaf(rebuilt, branchLen, lo, hi), expect[s]->len());
          ASSERT_EQ(rebuilt, expect[s]->branch(expect[s]->len())) << expect[s]->stringValue();
        }
      }
    }
  }
}

TEST(EntryCodecTest, NhiEntryHoldsTheBlocksInListOrder) {
  NextHopBlockList list;
  list.nextHopBlockEnq(NextHopBlock(40, 8));
  list.nextHopBlockEnq(NextHopBlock());
  list.nextHopBlockEnq(NextHopBlock(8, 2));
  const XpXdk::xpLpmNhiEntry e = encodeNhiEntry(NhiCommand(NhiTableIdx(U8(0), 3), list));
  EXPECT_EQ(e.pair[0], (XpXdk::xpLpmNhiPair{40, 8}));
  EXPECT_EQ(e.pair[1], XpXdk::xpLpmNhiPair());
  EXPECT_EQ(e.pair[2], (XpXdk::xpLpmNhiPair{8, 2}));
  EXPECT_EQ(e.pair[3], XpXdk::xpLpmNhiPair());
}

}  // namespace
}  // namespace Agent
}  // namespace XpLib
