// Tests of LPM prefixes: the branch key against a byte-by-byte reference, text forms, prefix lists,
// the memory of an IPv4 prefix, and IPv4 fanout.
#include "XpLpm/LpmPrefix.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <random>
#include <set>
#include <vector>

#include "platform/Exception.h"

namespace XpLib {
namespace XpLpm {
namespace {

// The branch as the key is defined: VRF high and low byte, then the address octets in network order,
// the last byte cut to its top r bits; written one byte at a time.
template <class P>
SubTrieBranch referenceBranch(U32 vrf, const P& prefix, unsigned octets, unsigned n) {
  SubTrieBranch b;
  const U16 vrf16 = static_cast<U16>(vrf & 0xFFFF);
  if (n <= 16) {
    const U16 kept = n == 0 ? 0 : static_cast<U16>(vrf16 & (0xFFFFu << (16 - n)));
    b.u8Is(0, static_cast<U8>(kept >> 8));
    b.u8Is(1, static_cast<U8>(kept));
    return b;
  }
  b.u8Is(0, static_cast<U8>(vrf16 >> 8));
  b.u8Is(1, static_cast<U8>(vrf16));
  unsigned r = n - 16;
  for (unsigned i = 0; i < octets && r > 0; ++i) {
    if (r >= 8) {
      b.u8Is(2 + i, prefix.octet(i));
      r -= 8;
    } else {
      b.u8Is(2 + i, static_cast<U8>(prefix.octet(i) & (0xFF << (8 - r))));
      r = 0;
    }
  }
  return b;
}

Prefix randomPrefix(std::mt19937& rng) {
  U8 len = static_cast<U8>(std::uniform_int_distribution<int>(0, 32)(rng));
  return Prefix(std::uniform_int_distribution<U32>()(rng) & Prefix::mask(len), len);
}

Ip6Prefix randomIp6Prefix(std::mt19937& rng) {
  U8 len = static_cast<U8>(std::uniform_int_distribution<int>(0, 128)(rng));
  Ip6Prefix::Bytes a{};
  for (unsigned i = 0; i < 16; ++i) {
    int keep = std::clamp(int(len) - int(8 * i), 0, 8);
    a[i] = static_cast<U8>(std::uniform_int_distribution<int>(0, 255)(rng) & (0xFF00 >> keep));
  }
  return Ip6Prefix(a, len);
}

// A VRF wider than 16 bits now and then: only its low 16 bits belong to the key.
U32 randomVrf(std::mt19937& rng) {
  U32 v = std::uniform_int_distribution<U32>()(rng);
  return std::uniform_int_distribution<int>(0, 3)(rng) == 0 ? v : v & 0xFFFF;
}

TEST(LpmPrefixBranchTest, MatchesByteWiseKeyForEveryLength) {
  const unsigned seed = 1201;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  for (int round = 0; round < 300; ++round) {
    const VrfAndPrefix k4{randomVrf(rng), randomPrefix(rng)};
    const VrfAndIp6Prefix k6{randomVrf(rng), randomIp6Prefix(rng)};
    Ptr<LpmPrefix> v4 = lpmPrefixV4Factory(k4), v6 = lpmPrefixV6Factory(k6);
    for (unsigned n = 0; n <= 144; ++n) {
      if (n <= 48) {
        ASSERT_EQ(v4->branch(U8(n)), referenceBranch(k4.vrf, k4.prefix, 4, n)) << k4 << " cut " << n;
      }
      ASSERT_EQ(v6->branch(U8(n)), referenceBranch(k6.vrf, k6.prefix, 16, n)) << k6 << " cut " << n;
    }
  }
}

TEST(LpmPrefixBranchDeathTest, CutLongerThanTheKeyIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Ptr<LpmPrefixV4> v4 = lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")});
  Ptr<LpmPrefixV6> v6 = lpmPrefixV6Factory({1, *Ip6Prefix::parse("2001:db8::/32")});
  EXPECT_DEATH(v4->branch(49), "branchLen <= vrfBits \\+ 32");
  EXPECT_DEATH(v6->branch(145), "branchLen <= vrfBits \\+ 128");
}

TEST(LpmPrefixTest, LengthAndText) {
  Ptr<LpmPrefixV4> v4 = lpmPrefixV4Factory({3, *Prefix::parse("10.1.0.0/16")});
  EXPECT_EQ(v4->len(), 32);
  EXPECT_EQ(v4->stringValue(), "vrf 3 prefix 10.1.0.0/16");
  EXPECT_EQ(lpmPrefixV4Factory({0, Prefix()})->len(), 16);
  Ptr<LpmPrefixV6> v6 = lpmPrefixV6Factory({7, *Ip6Prefix::parse("2001:db8::/32")});
  EXPECT_EQ(v6->len(), 48);
  EXPECT_EQ(v6->stringValue(), "vrf 7 prefix 2001:db8::/32");
  EXPECT_EQ(lpmPrefixV6Factory({7, *Ip6Prefix::parse("::1/128")})->len(), 144);
}

struct BarePrefix : LpmPrefix {};

TEST(LpmPrefixTest, BarePrefixHasNoImplementation) {
  Ptr<LpmPrefix> p = makePtr<BarePrefix>();
  auto expectMessage = [](const std::function<void()>& f, const std::string& message) {
    try {
      f();
      ADD_FAILURE() << "no exception";
    } catch (const NoImplementationException& e) {
      EXPECT_EQ(std::string(e.what()), message);
    }
  };
  expectMessage([&] { p->len(); }, "method must be implemeted in the derived class");
  expectMessage([&] { p->branch(8); }, "method must be implemented in the derived class");
  expectMessage([&] { p->stringValue(); }, "method must be implemented in the derived class");
}

TEST(LpmPrefixListTest, EqualWhenSamePrefixesUnderSameIndexes) {
  auto listOf = [](std::vector<std::pair<U32, Ptr<LpmPrefix>>> entries) {
    LpmPrefixList list;
    for (const auto& [index, p] : entries) list.newPrefix(index, p);
    return list;
  };
  auto v4 = [](const char* text) -> Ptr<LpmPrefix> { return lpmPrefixV4Factory({1, *Prefix::parse(text)}); };
  // Fresh objects throughout: lists compare their prefixes by value.
  LpmPrefixList a = listOf({{0, v4("10.0.0.0/8")}, {3, v4("11.0.0.0/8")}});
  EXPECT_EQ(a, listOf({{0, v4("10.0.0.0/8")}, {3, v4("11.0.0.0/8")}}));
  EXPECT_NE(a, listOf({{0, v4("10.0.0.0/8")}, {4, v4("11.0.0.0/8")}}));
  EXPECT_NE(a, listOf({{0, v4("11.0.0.0/8")}, {3, v4("10.0.0.0/8")}}));
  EXPECT_NE(listOf({{0, v4("0.0.0.0/0")}}), listOf({{0, lpmPrefixV6Factory({1, *Ip6Prefix::parse("::/0")})}}));
  LpmPrefixList b = a;
  b.prefixDeq();
  EXPECT_NE(a, b);
  EXPECT_FALSE(b.prefix(0));
  EXPECT_EQ(b.prefix(3)->stringValue(), "vrf 1 prefix 11.0.0.0/8");
  // Holes are values: a free slot equals only a free slot, on either side of the comparison.
  LpmPrefixList holes = listOf({{0, nullptr}, {1, v4("10.0.0.0/8")}, {2, nullptr}});
  EXPECT_EQ(holes, listOf({{0, nullptr}, {1, v4("10.0.0.0/8")}, {2, nullptr}}));
  EXPECT_NE(holes, listOf({{0, v4("10.0.0.0/8")}, {1, v4("10.0.0.0/8")}, {2, nullptr}}));
  EXPECT_NE(listOf({{0, v4("10.0.0.0/8")}, {1, v4("10.0.0.0/8")}, {2, nullptr}}), holes);
}

TEST(LpmPrefixV4Test, FanoutBookkeepingCostsNothingUntilUsed) {
  Ptr<LpmPrefixV4> p = lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")});
  // The object carries the key and the route's record (request, installed block, sub-trie); a
  // route that never meets a fanout owns no heap beyond it.
  EXPECT_EQ(p->heapBytes(), 0u);
  EXPECT_LE(sizeof(LpmPrefixV4), 88u);
  p->createFanoutPrefixV4(32);
  EXPECT_GT(p->heapBytes(), 0u);
  p->prefixFanoutListDelAll();
  EXPECT_EQ(p->heapBytes(), 0u);
  const VrfAndPrefix other{2, *Prefix::parse("10.0.0.0/7")};
  p->newOtherOwnerList(other, true);
  EXPECT_TRUE(p->otherOwnerList(other));
  EXPECT_GT(p->heapBytes(), 0u);
  p->otherOwnerListDel(other);
  EXPECT_EQ(p->heapBytes(), 0u);
  p->nhBlockIs(NextHopBlock());
  EXPECT_EQ(p->heapBytes(), 0u);
  p->nhBlockIs(NextHopBlock(8, 4));
  EXPECT_GT(p->heapBytes(), 0u);
  p->nhBlockIs(NextHopBlock());
  EXPECT_EQ(p->heapBytes(), 0u);

  // A prefix whose bookkeeping holds the last reference to its owner, itself with bookkeeping:
  // dropping the prefix drops the owner from inside its own clean-up, and neither leaves anything
  // behind for the next objects made (in the same memory, from the pool).
  Ptr<LpmPrefixV4> owner = lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/7")});
  owner->nhBlockIs(NextHopBlock(4, 2));
  p->ownerLpmPrefixIs(owner);
  owner = nullptr;
  EXPECT_EQ(p->ownerLpmPrefix()->nhBlock(), NextHopBlock(4, 2));
  p = nullptr;
  const Ptr<LpmPrefixV4> next[] = {lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")}),
                                   lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/7")})};
  for (const auto& n : next) EXPECT_EQ(n->heapBytes(), 0u) << *n;
}

std::vector<VrfAndPrefix> fanoutKeys(const LpmPrefixV4& p) {
  std::vector<VrfAndPrefix> keys;
  for (const auto& [key, value] : p.prefixFanoutListMap()) {
    EXPECT_TRUE(value) << key;
    keys.push_back(key);
  }
  return keys;
}

TEST(LpmPrefixV4Test, FanoutExamples) {
  auto keysOf = [](U32 vrf, std::initializer_list<const char*> texts) {
    std::vector<VrfAndPrefix> keys;
    for (const char* t : texts) keys.push_back({vrf, *Prefix::parse(t)});
    return keys;
  };
  Ptr<LpmPrefixV4> p = lpmPrefixV4Factory({1, *Prefix::parse("8.0.0.0/6")});
  p->createFanoutPrefixV4(24);
  EXPECT_EQ(fanoutKeys(*p), keysOf(1, {"8.0.0.0/8", "9.0.0.0/8", "10.0.0.0/8", "11.0.0.0/8"}));
  p->createFanoutPrefixV4(24);
  EXPECT_EQ(p->prefixFanoutLists(), 4u) << "a second expansion adds nothing";

  Ptr<LpmPrefixV4> q = lpmPrefixV4Factory({4, *Prefix::parse("10.128.0.0/9")});
  q->createFanoutPrefixV4(q->len() + 1);
  EXPECT_EQ(fanoutKeys(*q), keysOf(4, {"10.128.0.0/10", "10.192.0.0/10"}));

  Ptr<LpmPrefixV4> dflt = lpmPrefixV4Factory({2, Prefix()});
  dflt->createFanoutPrefixV4(24);
  std::vector<VrfAndPrefix> all = fanoutKeys(*dflt);
  ASSERT_EQ(all.size(), 256u);
  for (U32 i = 0; i < 256; ++i) EXPECT_EQ(all[i], (VrfAndPrefix{2, Prefix(i << 24, 8)}));
}

TEST(LpmPrefixV4Test, FanoutCoversExactlyTheSubPrefixes) {
  const unsigned seed = 1203;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  for (int round = 0; round < 300; ++round) {
    const U8 len = static_cast<U8>(std::uniform_int_distribution<int>(0, 31)(rng));
    const Prefix source(std::uniform_int_distribution<U32>()(rng) & Prefix::mask(len), len);
    const U32 vrf = std::uniform_int_distribution<U32>(0, 0xFFFF)(rng);
    const int newLen = std::uniform_int_distribution<int>(len + 1, std::min(32, len + 10))(rng);
    Ptr<LpmPrefixV4> p = lpmPrefixV4Factory({vrf, source});
    p->createFanoutPrefixV4(newLen + 16);
    std::set<VrfAndPrefix> seen;
    for (const VrfAndPrefix& k : fanoutKeys(*p)) {
      ASSERT_EQ(k.vrf, vrf);
      ASSERT_EQ(k.prefix.len(), newLen);
      ASSERT_TRUE(source.contains(k.prefix.address())) << source << " does not cover " << k.prefix;
      seen.insert(k);
    }
    ASSERT_EQ(seen.size(), size_t(1) << (newLen - len)) << source << " to /" << newLen;
  }
}

TEST(LpmPrefixV4DeathTest, FanoutToOwnLengthIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Ptr<LpmPrefixV4> p = lpmPrefixV4Factory({1, *Prefix::parse("10.0.0.0/8")});
  EXPECT_DEATH(p->createFanoutPrefixV4(p->len()), "targetTread > len\\(\\)");
  EXPECT_DEATH(p->createFanoutPrefixV4(20), "targetTread > len\\(\\)");
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
