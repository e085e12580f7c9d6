// Tests of the configurator: chip table contexts in, LPM and next-hop configurations out, the environment
// overrides, and the fatal checks on what the chip reports.
#include "XpLpmConfigurator/XpLpmConfigurator.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "XpLpm/PrefixTable.h"
#include "platform/Trace.h"
#include "xdk/xpHashFunction.h"

namespace XpLib {
namespace {

using namespace XpLpm;
using XpXdk::TableContextEntry;
using XpXdk::xpLpmTableContext;
using XpXdk::xpPrefixTableContext;

const char* const kEnvVars[] = {"MAX_LPM_PREFIXTABLE_SRAM_ENTRIES", "NHI_TABLE_SIZE", "NUMBER_OF_NHI_TILES"};

xpPrefixTableContext prefixTable(U32 depth, U32 sramWidth, U8 tread, U8 hashSelector) {
  return {true, depth, sramWidth, tread, hashSelector};
}

// What a prefix table must look like after configuration; the polynomial is copied from the chip's table.
struct ExpectedTable {
  U8 id;
  PrefixTableType type;
  U32 depth;
  U8 tread;
  U32 hashBits;
  U32 poly;
};

class XpLpmConfiguratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : kEnvVars) {
      const char* value = std::getenv(name);
      savedEnv_.push_back(value ? std::optional<std::string>(value) : std::nullopt);
      unsetenv(name);
    }
    v4Context.vrfIdWidth = 16;
    v4Context.keyLength = 48;
    v4Context.prefixTableContext[0] = prefixTable(4096, 256, 24, 1);
    v4Context.prefixTableContext[5] = prefixTable(3000, 128, 16, 3);
    v4Context.nhiTableSize = 65536;
    v4Context.nhiPairPerEntry = 8;
    v4Context.nhiBlockBaseWidth = 12;
    v4Context.nhiTileBitmap = {0x0F, 0x03, 0xFF};
    v4Context.nhiTileBitmapValidMask = 0x3;
    v6Context.vrfIdWidth = 16;
    v6Context.keyLength = 144;
    v6Context.prefixTableContext[2] = prefixTable(4096, 256, 60, 0);
    v6Context.prefixTableContext[3] = prefixTable(4096, 256, 60, 2);
    v6Context.prefixTableContext[31] = prefixTable(1u << 20, 128, 144, 2);
    v6Context.nhiTableSize = 32768;
    v6Context.nhiPairPerEntry = 7;
    v6Context.nhiBlockBaseWidth = 10;
    v6Context.nhiTileBitmap = {0x01, 0x80};
    v6Context.nhiTileBitmapValidMask = 0x2;
    nhContext.rowBlkInc = 4096;
  }
  void TearDown() override {
    for (size_t i = 0; i < savedEnv_.size(); ++i) {
      if (savedEnv_[i]) {
        setenv(kEnvVars[i], savedEnv_[i]->c_str(), 1);
      } else {
        unsetenv(kEnvVars[i]);
      }
    }
  }

  Ptr<XpLpmConfigurator> configurator(const Ptr<const Config::LpmTreadCfg>& treadCfg = nullptr) {
    status->tableContextEntryIs(51, TableContextEntry(v4Context));
    status->tableContextEntryIs(52, TableContextEntry(v6Context));
    status->tableContextEntryIs(53, TableContextEntry(nhContext));
    return xpLpmConfiguratorFactory(status, v4, v6, nh, treadCfg);
  }

  xpLpmTableContext v4Context, v6Context;
  XpXdk::xpNhTableContext nhContext;
  Ptr<XpSystem::SystemStatus> status = makePtr<XpSystem::SystemStatus>();
  Ptr<ConfigV4> v4 = configV4Factory("v4");
  Ptr<ConfigV6> v6 = configV6Factory("v6");
  Ptr<XpLpmNextHop::Config> nh = XpLpmNextHop::configFactory("nh");

 private:
  std::vector<std::optional<std::string>> savedEnv_;
};

Ptr<LpmPrefix> randomPrefix(bool v6, std::mt19937& rng) {
  const U32 vrf = rng() & 0xFFFF;
  if (!v6) return lpmPrefixV4Factory({vrf, Prefix(static_cast<U32>(rng()), 32)});
  Ip6Prefix::Bytes address;
  for (U8& b : address) b = static_cast<U8>(rng());
  return lpmPrefixV6Factory({vrf, Ip6Prefix(address, 128)});
}

// Every configured table matches `expected` exactly, and hashes as an SDK function built here from the
// expected polynomial and width does.
void expectTables(const ConfigBase& config, const std::vector<ExpectedTable>& expected) {
  const unsigned seed = 5117;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  ASSERT_EQ(config.prefixTableConfigs(), expected.size());
  for (const ExpectedTable& e : expected) {
    SCOPED_TRACE(testing::Message() << "table " << +e.id);
    Ptr<PrefixTableConfig> actual = config.prefixTableConfig(PrefixTableId(e.id));
    ASSERT_TRUE(actual);
    EXPECT_EQ(actual->tableId(), PrefixTableId(e.id));
    EXPECT_EQ(actual->tableType(), e.type);
    EXPECT_EQ(actual->depth(), e.depth);
    EXPECT_EQ(actual->tread(), e.tread);
    ASSERT_TRUE(dynamic_ptr_cast<XpPrefixTableConfig>(actual));
    Ptr<XpPrefixTableConfig> reference = xpPrefixTableConfigFactory(PrefixTableId(e.id), e.type, e.depth, e.tread);
    reference->xdkHashFunctionIs(new XpXdk::crcHashFunction(144, e.hashBits, e.poly, 1, e.tread));
    for (int i = 0; i < 64; ++i) {
      Ptr<LpmPrefix> p = randomPrefix(config.keyType() == keyLong144b, rng);
      ASSERT_EQ(actual->hashFunc(p), reference->hashFunc(p)) << p->stringValue();
    }
  }
}

// The IPv4 tables of the fixture's chip: 4096 entries give 12 hash bits, 3000 round down to 11.
const std::vector<ExpectedTable> kV4Tables{{0, prefixTableWide256b, 4096, 24, 12, 0x1901B},
                                           {5, prefixTableNarrow128b, 3000, 16, 11, 0x10219}};

struct StrideRecorder : ConfigBase::Notifiee {
  std::vector<int> strides;
  void onAvailableStride(U8 stride) override { strides.push_back(stride); }
};

TEST_F(XpLpmConfiguratorTest, ChipContextsBecomeTheConfigurations) {
  StrideRecorder v4Strides, v6Strides;
  v4Strides.notifierIs(v4);
  v6Strides.notifierIs(v6);
  configurator()->doConfig();

  EXPECT_EQ(v4->keyType(), keyShort48b);
  EXPECT_EQ(v6->keyType(), keyLong144b);
  // A table's id is its context position; its polynomial row is id / 2, its column the hash selector.
  expectTables(*v4, kV4Tables);
  expectTables(*v6, {{2, prefixTableWide256b, 4096, 60, 12, 0x17329},
                     {3, prefixTableWide256b, 4096, 60, 12, 0x1C867},
                     {31, prefixTableNarrow128b, 1u << 20, 144, 20, 0x140CD}});

  EXPECT_EQ(v4->nhiTableSize(), 65536u);
  EXPECT_EQ(v4->nhiPairPerEntry(), 8);
  EXPECT_EQ(v4->nhiBlockBaseWidth(), 12);
  EXPECT_EQ(v4->nhiEntriesPerTile(), 16384);
  EXPECT_EQ(v4->nhiAvailableTiles(), 6);  // 4 + 2; byte 2 is outside the mask
  EXPECT_EQ(v6->nhiTableSize(), 32768u);
  EXPECT_EQ(v6->nhiPairPerEntry(), 7);
  EXPECT_EQ(v6->nhiBlockBaseWidth(), 10);
  EXPECT_EQ(v6->nhiEntriesPerTile(), 16384);
  EXPECT_EQ(v6->nhiAvailableTiles(), 1);  // only byte 1 counts

  const std::vector<int> strides{8, 9, 10, 11, 12, 14, 16, 20, 24, 28, 32, 48, 64, 96, 128};
  EXPECT_EQ(v4Strides.strides, strides);
  EXPECT_EQ(v6Strides.strides, strides);
  EXPECT_EQ(v6->availableStrideMap().size(), strides.size());
  for (int s : strides) EXPECT_TRUE(v4->availableStride(static_cast<U8>(s)) && v6->availableStride(static_cast<U8>(s)));

  EXPECT_EQ(v4->leastTreadForPrefixLens(), 49u);
  EXPECT_EQ(v6->leastTreadForPrefixLens(), 145u);
  EXPECT_EQ(nh->tableSize(), 4096u);
}

// Without tread input IPv4 is told its treads are user-configured and IPv6 that they are not.
TEST_F(XpLpmConfiguratorTest, TreadInputSelectsLeastTreads) {
  struct Case {
    const char* name;
    Ptr<const Config::LpmTreadCfg> cfg;
    bool v4User, v6User;
  };
  const Case cases[] = {{"none", nullptr, true, false},
                        {"neither", Config::lpmTreadCfgFactory(false, false), false, false},
                        {"v4 only", Config::lpmTreadCfgFactory(true, false), true, false},
                        {"v6 only", Config::lpmTreadCfgFactory(false, true), false, true},
                        {"both", Config::lpmTreadCfgFactory(true, true), true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    v4 = configV4Factory("v4");
    v6 = configV6Factory("v6");
    configurator(c.cfg)->doConfig();
    EXPECT_EQ(v4->leastTreadForPrefixLens(), 49u);
    EXPECT_EQ(v4->leastTreadForPrefixLen(36), c.v4User ? 0 : 30);
    EXPECT_EQ(v4->leastTreadForPrefixLen(48), c.v4User ? 0 : 35);
    EXPECT_EQ(v6->leastTreadForPrefixLens(), 145u);
    EXPECT_EQ(v6->leastTreadForPrefixLen(60), c.v6User ? 0 : 60);
    EXPECT_EQ(v6->leastTreadForPrefixLen(144), c.v6User ? 0 : 60);
  }
}

TEST_F(XpLpmConfiguratorTest, TilesCountOnlyValidBitmapBytes) {
  struct Case {
    std::array<U8, 8> bitmap;
    U8 mask;
    U8 tiles;
  };
  const Case cases[] = {{{0xFF, 0x0F}, 0x1, 8},
                        {{0xFF, 0x0F}, 0x3, 12},
                        {{0xFF, 0x0F}, 0x0, 0},
                        {{0, 0, 0, 0, 0, 0, 0, 0x81}, 0x80, 2},
                        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 0xFE, 56}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "mask " << +c.mask);
    v4Context.nhiTileBitmap = c.bitmap;
    v4Context.nhiTileBitmapValidMask = c.mask;
    configurator()->doConfig();
    EXPECT_EQ(v4->nhiAvailableTiles(), c.tiles);
  }
}

// The overrides are read on every run: a later run without them goes back to the chip's values.
TEST_F(XpLpmConfiguratorTest, EnvironmentOverridesChipValues) {
  Ptr<XpLpmConfigurator> cfgr = configurator();
  setenv("MAX_LPM_PREFIXTABLE_SRAM_ENTRIES", "1000", 1);
  setenv("NHI_TABLE_SIZE", "8192", 1);
  setenv("NUMBER_OF_NHI_TILES", "3", 1);
  cfgr->doConfig();
  expectTables(*v4, {{0, prefixTableWide256b, 1000, 24, 9, 0x1901B}, {5, prefixTableNarrow128b, 1000, 16, 9, 0x10219}});
  for (const ConfigBase* c : {static_cast<ConfigBase*>(v4.ptr()), static_cast<ConfigBase*>(v6.ptr())}) {
    EXPECT_EQ(c->nhiTableSize(), 8192u);
    EXPECT_EQ(c->nhiEntriesPerTile(), 8192);
    EXPECT_EQ(c->nhiAvailableTiles(), 3);
  }

  // Values beyond the attribute widths keep their low bits; the table size is not cut.
  setenv("NHI_TABLE_SIZE", "70000", 1);
  setenv("NUMBER_OF_NHI_TILES", "260", 1);
  cfgr->doConfig();
  EXPECT_EQ(v4->nhiTableSize(), 70000u);
  EXPECT_EQ(v4->nhiEntriesPerTile(), 70000 - 65536);
  EXPECT_EQ(v4->nhiAvailableTiles(), 4);

  for (const char* name : kEnvVars) unsetenv(name);
  cfgr->doConfig();
  expectTables(*v4, kV4Tables);
  EXPECT_EQ(v4->nhiTableSize(), 65536u);
  EXPECT_EQ(v4->nhiEntriesPerTile(), 16384);
  EXPECT_EQ(v4->nhiAvailableTiles(), 6);
}

TEST_F(XpLpmConfiguratorTest, NextHopSizeSetOnceThenChecked) {
  Ptr<XpLpmConfigurator> cfgr = configurator();
  cfgr->doConfig();
  EXPECT_EQ(nh->tableSize(), 4096u);
  cfgr->doConfig();  // the size now agrees with the chip
  EXPECT_EQ(nh->tableSize(), 4096u);
  Ptr<XpLpmNextHop::Config> preset = XpLpmNextHop::configFactory("preset");
  preset->tableSizeIs(4096);
  xpLpmConfiguratorFactory(status, v4, v6, preset, nullptr)->configNhWithTableContext();
  EXPECT_EQ(preset->tableSize(), 4096u);
}

// "Failed(text) ..." on standard error, then the C library's report of the same text.
std::string fatal(const std::string& text) {
  std::string escaped;
  for (char ch : text) {
    if (std::string("()[]{}.*+?|^$\\").find(ch) != std::string::npos) escaped += '\\';
    escaped += ch;
  }
  return "Failed\\(" + escaped + "\\).*Assertion `" + escaped + "' failed";
}

using XpLpmConfiguratorDeathTest = XpLpmConfiguratorTest;

TEST_F(XpLpmConfiguratorDeathTest, MissingContexts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (U32 id : {51u, 52u}) {
    SCOPED_TRACE(id);
    Ptr<XpLpmConfigurator> cfgr = configurator();
    status->tableContextEntryDel(id);
    EXPECT_DEATH(cfgr->doConfig(), fatal("contextEntry"));
  }
  Ptr<XpLpmConfigurator> cfgr = configurator();
  status->tableContextEntryDel(53);
  EXPECT_DEATH(cfgr->doConfig(), fatal("nhContextEntry"));
}

TEST_F(XpLpmConfiguratorDeathTest, UnsupportedChipReports) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const xpLpmTableContext good = v6Context;
  v6Context.vrfIdWidth = 12;
  EXPECT_DEATH(configurator()->doConfig(), fatal("lpmContext.vrfIdWidth == XpLpm::ConfigBase::vrfBits()"));
  v6Context = good;
  v6Context.keyLength = 64;
  EXPECT_DEATH(configurator()->doConfig(), fatal("false && \"Unsupported LPM key length\""));
  for (U32 width : {0u, 192u, 512u}) {
    SCOPED_TRACE(width);
    v6Context = good;
    v6Context.prefixTableContext[31].sramWidth = width;
    EXPECT_DEATH(configurator()->doConfig(), fatal("prefixTableContext.sramWidth == 256"));
  }
  // A context of the wrong kind reads as an all-zero LPM context.
  v6Context = good;
  Ptr<XpLpmConfigurator> cfgr = configurator();
  status->tableContextEntryIs(52, TableContextEntry(nhContext));
  EXPECT_DEATH(cfgr->doConfig(), fatal("lpmContext.vrfIdWidth == XpLpm::ConfigBase::vrfBits()"));
}

TEST_F(XpLpmConfiguratorDeathTest, NextHopSizeDisagreesWithChip) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  nh->tableSizeIs(2048);
  EXPECT_DEATH(configurator()->doConfig(), fatal("lpmNhConfig()->tableSize() == nhContext.rowBlkInc"));
  Ptr<XpLpmConfigurator> cfgr = configurator();
  nh->tableSizeIs(0);
  cfgr->doConfig();
  nhContext.rowBlkInc = 8192;  // the chip now reports another size than the one already set
  status->tableContextEntryIs(53, TableContextEntry(nhContext));
  EXPECT_DEATH(cfgr->doConfig(), fatal("lpmNhConfig()->tableSize() == nhContext.rowBlkInc"));
}

}  // namespace
}  // namespace XpLib
