// Tests of the LPM configuration: one prefix object per key, prefix-keyed collections, notifications,
// exceptions, derived geometry, least treads, fanout lengths, and prefix-table hashing and text forms.
#include "support/TestSupport.h"
#include "XpLpm/Config.h"

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "XpLpm/Status.h"
#include "platform/Exception.h"
#include "platform/Trace.h"
#include "xdk/XpBitVector.h"
#include "xdk/xpHashFunction.h"

namespace XpLib {
namespace XpLpm {
namespace {

VrfAndPrefix v4Key(U32 vrf, const char* text) { return {vrf, *Prefix::parse(text)}; }

struct ConfigRecorder : ConfigBase::Notifiee {
  std::vector<std::string> heard;
  std::function<void()> then;  // runs after each announcement is noted
  void note(std::string s) {
    heard.push_back(std::move(s));
    if (then) then();
  }
  void onAddressFamily() override { note("addressFamily"); }
  void onKeyType() override { note("keyType"); }
  void onPrefixTableConfig(PrefixTableId id) override { note("prefixTableConfig " + id.str()); }
  void onNhiPairPerEntry() override { note("nhiPairPerEntry"); }
  void onNhiBlockBaseWidth() override { note("nhiBlockBaseWidth"); }
  void onNhiTableSize() override { note("nhiTableSize"); }
  void onNhiEntriesPerTile() override { note("nhiEntriesPerTile"); }
  void onNhiAvailableTiles() override { note("nhiAvailableTiles"); }
  void onSupportMultiNhiEntriesPerSubTrie() override { note("supportMulti"); }
  void onLeastTreadForPrefixLen(U8 len) override { note("leastTread " + std::to_string(len)); }
  void onPrefixTableSortedByTread(U8 pos) override { note("sortedByTread " + std::to_string(pos)); }
  void onAvailableStride(U8 stride) override { note("stride " + std::to_string(stride)); }
  void onRestartMode() override { note("restartMode"); }
  void onRequest(const Ptr<LpmPrefix>& p) override { note("request " + p->stringValue()); }
};

Ptr<PrefixTable> tableWithTread(U8 id, U8 tread) {
  return prefixTableFactory(PrefixTableId(id),
                            makePtr<PrefixTableConfig>(PrefixTableId(id), prefixTableNarrow128b, 1024, tread));
}

TEST(ConfigTest, OnePrefixObjectPerKey) {
  Ptr<ConfigV4> cfg = configV4Factory("v4");
  Ptr<LpmPrefixV4> a = cfg->newLpmPrefix(v4Key(1, "10.0.0.0/8"));
  EXPECT_EQ(cfg->newLpmPrefix(v4Key(1, "10.0.0.0/8")), a);
  EXPECT_EQ(cfg->lpmPrefix(v4Key(1, "10.0.0.0/8")), a);
  EXPECT_NE(cfg->newLpmPrefix(v4Key(2, "10.0.0.0/8")), a);
  EXPECT_EQ(cfg->lpmPrefixs(), 2u);
  Ptr<ConfigV6> cfg6 = configV6Factory("v6");
  const VrfAndIp6Prefix k6{1, *Ip6Prefix::parse("2001:db8::/32")};
  EXPECT_EQ(cfg6->newLpmPrefix(k6), cfg6->newLpmPrefix(k6));
  EXPECT_EQ(cfg6->lpmPrefixs(), 1u);
}

// Random adds and removals over a few thousand keys, against a plain map: every key finds its own
// object through growth and removals from the middle of probe runs, and an object that a
// collection still keeps comes back for its key after it was let go.
TEST(ConfigTest, ObjectsSurviveChurnAndComeBackWhileKept) {
  Ptr<ConfigV4> cfg = configV4Factory("v4");
  std::map<U32, Ptr<LpmPrefixV4>> ref;
  std::mt19937 rng(7);
  const auto keyOf = [](U32 i) { return VrfAndPrefix{i % 3, Prefix(i << 8, 24)}; };
  for (int step = 0; step < 40000; ++step) {
    const U32 i = rng() % 3000;
    if (rng() % 3) {
      Ptr<LpmPrefixV4> p = cfg->newLpmPrefix(keyOf(i));
      if (ref.count(i)) {
        ASSERT_EQ(p, ref[i]) << step;
      }
      ref[i] = p;
    } else {
      cfg->lpmPrefixDel(keyOf(i));
      ref.erase(i);
    }
    ASSERT_EQ(cfg->lpmPrefixs(), ref.size()) << step;
  }
  for (const auto& [i, p] : ref) ASSERT_EQ(cfg->lpmPrefix(keyOf(i)), p);

  Ptr<LpmPrefixV4> kept = cfg->newLpmPrefix(keyOf(5000));
  cfg->requestIs(kept, NextHopBlock(3, 1));
  cfg->lpmPrefixDel(keyOf(5000));
  EXPECT_FALSE(cfg->lpmPrefix(keyOf(5000)));
  EXPECT_EQ(cfg->newLpmPrefix(keyOf(5000)), kept);
  cfg->lpmPrefixDelAll();
  EXPECT_EQ(cfg->lpmPrefixs(), 0u);
  EXPECT_EQ(cfg->newLpmPrefix(keyOf(5000)), kept);
}

TEST(ConfigTest, BadMutationsThrow) {
  Ptr<ConfigV4> v4 = configV4Factory("v4");
  Ptr<ConfigV6> v6 = configV6Factory("v6");
  xplpm_test::expectThrowMessage<ImmutableAttrMutationException>([&] { v4->addressFamilyIs(AddressFamily::ipv6); },
                                                     "XpLib::XpLpm::ConfigV4::addressFamily");
  xplpm_test::expectThrowMessage<ImmutableAttrMutationException>([&] { v6->addressFamilyIs(AddressFamily::ipv4); },
                                                     "XpLib::XpLpm::ConfigV6::addressFamily");
  EXPECT_EQ(v4->addressFamily(), AddressFamily::ipv4);
  EXPECT_EQ(v6->addressFamily(), AddressFamily::ipv6);
  xplpm_test::expectThrowMessage<RangeException>(
      [&] { v4->prefixTableConfigIs(nullptr); },
      "null _prefixTableConfig parameter to mutator for XpLib::XpLpm::ConfigBase::prefixTableConfig not allowed\"");
  EXPECT_EQ(v4->prefixTableConfigs(), 0u);
  PrefixTableConfig bare(PrefixTableId(1), prefixTableNarrow128b, 16, 8);
  xplpm_test::expectThrowMessage<NoImplementationException>([&] { bare.hashFunc(v4->newLpmPrefix(v4Key(0, "1.0.0.0/8"))); },
                                                "hashFunc must be implemented in the derived class");
}

TEST(ConfigTest, DerivedGeometry) {
  Ptr<ConfigV4> cfg = configV4Factory("v4");
  EXPECT_EQ(cfg->vrfBits(), 16);
  EXPECT_EQ(cfg->keyLength(), 48);
  cfg->keyTypeIs(keyLong144b);
  EXPECT_EQ(cfg->keyLength(), 144);
  struct Case {
    U8 pairs, baseWidth, ecmpWidth, maxBlock;
  };
  for (const Case& c : {Case{6, 12, 9, 36}, Case{7, 12, 6, 31}, Case{8, 12, 4, 27}, Case{10, 12, 0, 22},
                        Case{6, 0, 21, 36}, Case{8, 16, 0, 27}}) {
    SCOPED_TRACE(testing::Message() << +c.pairs << " pairs, base " << +c.baseWidth);
    cfg->nhiPairPerEntryIs(c.pairs);
    cfg->nhiBlockBaseWidthIs(c.baseWidth);
    EXPECT_EQ(cfg->nhiBlockEcmpWidth(), c.ecmpWidth);
    EXPECT_EQ(cfg->nhiMaxBlockSize(), c.maxBlock);
  }
  EXPECT_EQ(PrefixTableConfig(PrefixTableId(0), prefixTableNarrow128b, 1, 8).entrySize(), 88u);
  EXPECT_EQ(PrefixTableConfig(PrefixTableId(0), prefixTableWide256b, 1, 8).entrySize(), 216u);
}

TEST(ConfigDeathTest, UnknownGeometryIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Ptr<ConfigV4> cfg = configV4Factory("v4");
  for (U8 pairs : {0, 9, 12}) {
    cfg->nhiPairPerEntryIs(pairs);
    EXPECT_DEATH(cfg->nhiBlockEcmpWidth(), "false && \"Unknown NHI pair per entry\"");
  }
  cfg->nhiPairPerEntryIs(10);
  cfg->nhiBlockBaseWidthIs(13);
  EXPECT_DEATH(cfg->nhiBlockEcmpWidth(), "nhiPairSize >= nhiBlockBaseWidth\\(\\)");
  cfg->keyTypeIs(static_cast<KeyType>(2));
  EXPECT_DEATH(cfg->keyLength(), "keyType\\(\\) == keyLong144b_");
  PrefixTableConfig odd(PrefixTableId(0), static_cast<PrefixTableType>(2), 1, 8);
  EXPECT_DEATH(odd.entrySize(), "tableType\\(\\) == prefixTableWide256b_");
}

TEST(ConfigTest, LeastTreads) {
  Ptr<ConfigV4> v4 = configV4Factory("v4");
  Ptr<ConfigV6> v6 = configV6Factory("v6");
  v6->keyTypeIs(keyLong144b);
  v4->leastTreadForPrefixLenIs(200, 9);  // stale: populating starts afresh
  for (bool userCfgd : {false, true}) {
    SCOPED_TRACE(userCfgd);
    v4->populateLeastTreadForPrefixLenSettings(userCfgd);
    v6->populateLeastTreadForPrefixLenSettings(userCfgd);
    EXPECT_EQ(v4->leastTreadForPrefixLens(), 49u);
    EXPECT_EQ(v6->leastTreadForPrefixLens(), 145u);
    for (U32 len = 0; len <= 144; ++len) {
      EXPECT_EQ(v6->leastTreadForPrefixLen(len), userCfgd || len <= 59 ? 0 : 60) << len;
      if (len <= 48) {
        EXPECT_EQ(v4->leastTreadForPrefixLen(len), userCfgd || len <= 35 ? 0 : len <= 37 ? 30 : 35) << len;
      }
    }
  }
}

// Tables of treads 40, 32, 24, in that order.
Ptr<ConfigV4> configWithTreads40_32_24() {
  Ptr<ConfigV4> cfg = configV4Factory("v4");
  const U8 treads[] = {40, 32, 24};
  for (U8 i = 0; i < 3; ++i) cfg->prefixTableSortedByTreadIs(i, tableWithTread(i, treads[i]));
  return cfg;
}

TEST(ConfigTest, FanoutPrefixLen) {
  Ptr<ConfigV4> cfg = configWithTreads40_32_24();
  std::vector<std::string> lines;
  Trace::sinkIs([&](int level, std::string_view line) {
    if (level == 1) lines.emplace_back(line);
  });
  Trace::levelIs(1);
  struct Case {
    int prefixLen;
    U8 least, expected;
  };
  for (const Case& c : {Case{36, 0, 40}, Case{44, 0, 44}, Case{40, 0, 40}, Case{48, 35, 48}, Case{32, 0, 40},
                        Case{24, 0, 32}, Case{38, 30, 40}}) {
    SCOPED_TRACE(c.prefixLen);
    cfg->leastTreadForPrefixLenIs(static_cast<U8>(c.prefixLen), c.least);
    EXPECT_EQ(cfg->fanoutPrefixLen(c.prefixLen), c.expected);
  }
  Trace::levelIs(-1);
  Trace::sinkIs(nullptr);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.front(), "Lpm::fanoutPrefixLen prefixLen 36 fanoutLen 40");
}

TEST(ConfigDeathTest, FanoutPrefixLenWithoutATableIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Ptr<ConfigV4> cfg = configWithTreads40_32_24();
  EXPECT_DEATH(cfg->fanoutPrefixLen(20), "Assertion `prefixTableFound' failed");
  cfg->leastTreadForPrefixLenIs(36, 35);
  EXPECT_DEATH(cfg->fanoutPrefixLen(36), "Assertion `prefixTableFound' failed");
  EXPECT_DEATH(configV4Factory("empty")->fanoutPrefixLen(36), "Assertion `prefixTableFound' failed");
  Ptr<ConfigV4> holed = configV4Factory("holed");
  holed->prefixTableSortedByTreadIs(0, tableWithTread(0, 40));
  holed->prefixTableSortedByTreadIs(2, tableWithTread(2, 24));
  EXPECT_DEATH(holed->fanoutPrefixLen(36), "Assertion `prefixTable' failed");
}

TEST(PrefixTableTest, TextForms) {
  Ptr<XpPrefixTableConfig> tcfg = xpPrefixTableConfigFactory(PrefixTableId(2), prefixTableWide256b, 4096, 24);
  EXPECT_EQ(tcfg->str(), "2,1,4096,24");
  EXPECT_EQ(prefixTableFactory(PrefixTableId(2), tcfg)->str(), "2, tcfg 2,1,4096,24");
}

// The SDK gets the key cut to the tread, least significant key byte first.
U32 sdkHash(const XpPrefixTableConfig& tcfg, const LpmPrefix& p) {
  const SubTrieBranch key = p.branch(tcfg.tread());
  std::array<U8, 18> bytes;
  for (U32 j = 0; j < 18; ++j) bytes[j] = key.u8(17 - j);
  return tcfg.xdkHashFunction()->hash(XpXdk::XpBitVector(bytes, 144));
}

TEST(XpPrefixTableConfigTest, HashesTheFirstTreadKeyBits) {
  const unsigned seed = 1302;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  // An SDK function over all 144 bits shows that the table itself cuts the key to its tread.
  struct Case {
    bool v6;
    U8 tread, sdkTread;
  };
  for (const Case& c : {Case{false, 24, 24}, Case{false, 24, 144}, Case{false, 48, 48}, Case{false, 12, 144},
                        Case{true, 60, 60}, Case{true, 60, 144}, Case{true, 144, 144}}) {
    SCOPED_TRACE(testing::Message() << (c.v6 ? "v6" : "v4") << " tread " << +c.tread << " sdk " << +c.sdkTread);
    Ptr<XpPrefixTableConfig> tcfg = xpPrefixTableConfigFactory(PrefixTableId(1), prefixTableWide256b, 4096, c.tread);
    tcfg->xdkHashFunctionIs(new XpXdk::crcHashFunction(144, 32, 0x11021, 1, c.sdkTread));
    // Full-length random keys: `twin` keeps the first tread key bits and redraws the rest, `other` flips one
    // of the first tread bits.
    const unsigned keyBits = c.v6 ? 144 : 48;
    auto make = [&](const std::array<U8, 18>& key) -> Ptr<LpmPrefix> {
      const U32 vrf = (U32(key[0]) << 8) | key[1];
      const U32 address = (U32(key[2]) << 24) | (key[3] << 16) | (key[4] << 8) | key[5];
      if (!c.v6) return lpmPrefixV4Factory({vrf, Prefix(address, 32)});
      Ip6Prefix::Bytes a;
      std::copy(key.begin() + 2, key.end(), a.begin());
      return lpmPrefixV6Factory({vrf, Ip6Prefix(a, 128)});
    };
    auto flipBit = [](std::array<U8, 18>& key, unsigned bit) { key[bit / 8] ^= static_cast<U8>(0x80 >> (bit % 8)); };
    int changed = 0;
    const int rounds = 300;
    for (int round = 0; round < rounds; ++round) {
      std::array<U8, 18> key{};
      for (unsigned i = 0; i < keyBits / 8; ++i) key[i] = static_cast<U8>(rng());
      std::array<U8, 18> twin = key, other = key;
      for (unsigned bit = c.tread; bit < keyBits; ++bit)
        if (rng() & 1) flipBit(twin, bit);
      flipBit(other, std::uniform_int_distribution<unsigned>(0, c.tread - 1)(rng));
      Ptr<LpmPrefix> p = make(key);
      const U32 h = tcfg->hashFunc(p);
      ASSERT_EQ(h, sdkHash(*tcfg, *p));
      ASSERT_EQ(tcfg->hashFunc(make(twin)), h) << p->stringValue() << " vs " << make(twin)->stringValue();
      changed += tcfg->hashFunc(make(other)) != h;
    }
    EXPECT_GE(changed, rounds * 98 / 100);
    tcfg->doCleanup();
    EXPECT_EQ(tcfg->xdkHashFunction(), nullptr);
  }
}

TEST(XpPrefixTableConfigDeathTest, HashWithoutSdkFunctionIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Ptr<XpPrefixTableConfig> tcfg = xpPrefixTableConfigFactory(PrefixTableId(1), prefixTableWide256b, 4096, 24);
  Ptr<LpmPrefix> p = lpmPrefixV4Factory(v4Key(1, "10.0.0.0/8"));
  EXPECT_DEATH(tcfg->hashFunc(p), "xdkHashFunction\\(\\)");
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
