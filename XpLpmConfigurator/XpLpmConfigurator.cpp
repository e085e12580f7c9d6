// The configurator: turns the chip's table contexts into the LPM and next-hop configurations.
#include "XpLpmConfigurator/XpLpmConfigurator.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "XpLpm/PrefixTable.h"
#include "platform/Assert.h"
#include "platform/Trace.h"
#include "xdk/xpHashFunction.h"
#include "xdk/xpHashPolynomials.h"

namespace XpLib {

namespace {

using XpLpm::ConfigBase;
using XpLpm::KeyType;

// The key the chip hashes is always the long one: a short key is its first 48 bits.
constexpr U32 kHashKeyWidth = 144;
// Start the CRC register at all ones, so that leading zero key bits still move it.
constexpr U32 kHashPreset = 1;
// The configurator takes the chip's tile size as the tile size (without NHI_TABLE_SIZE).
static_assert(XpXdk::kNhiEntriesPerTile == 16384 && XpXdk::kNhiEntriesPerTile <= 0xFFFF);
// Strides the chip's sub-trie entries can take, in the order they are announced.
constexpr std::array<U8, 15> kAvailableStrides{8, 9, 10, 11, 12, 14, 16, 20, 24, 28, 32, 48, 64, 96, 128};
static_assert(kAvailableStrides.front() == XpXdk::kMinStride, "the chip's slot count assumes its smallest stride");

// A numeric override from the environment, read when the step runs so that it can differ between calls.
std::optional<long> envOverride(const char* name) {
  const char* text = std::getenv(name);
  if (!text) return std::nullopt;
  return std::strtol(text, nullptr, 10);
}

XpLpm::PrefixTableType prefixTableType(const XpXdk::xpPrefixTableContext& prefixTableContext) {
  if (prefixTableContext.sramWidth == 128) return XpLpm::prefixTableNarrow128b;
  // 128 is accepted above; the report names only the wide width.
  XP_ASSERT_V(prefixTableContext.sramWidth == 256, " sramWidth " << prefixTableContext.sramWidth);
  return XpLpm::prefixTableWide256b;
}

// The index bits a table of `depth` entries can use: a depth that is not a power of two leaves its top part
// unused. A zero depth gives 0 bits, which the SDK's hash function rejects.
U32 hashBitsForDepth(U32 depth) { return depth ? static_cast<U32>(std::log2(static_cast<double>(depth))) : 0; }

}  // namespace

XpLpmConfigurator::XpLpmConfigurator(const Ptr<const XpSystem::SystemStatus>& systemStatus,
                                     const Ptr<XpLpm::ConfigV4>& lpmConfigV4, const Ptr<XpLpm::ConfigV6>& lpmConfigV6,
                                     const Ptr<XpLpmNextHop::Config>& lpmNhConfig,
                                     const Ptr<const Config::LpmTreadCfg>& lpmTreadCfg)
    : systemStatus_(systemStatus),
      lpmConfigV4_(lpmConfigV4),
      lpmConfigV6_(lpmConfigV6),
      lpmNhConfig_(lpmNhConfig),
      lpmTreadCfg_(lpmTreadCfg) {}

void XpLpmConfigurator::doConfig() {
  XP_TRACE(1, "XpLpmConfigurator::doConfig");
  configLpmWithTableContext(kLpmV4TableContextId, lpmConfigV4_);
  configLpmWithTableContext(kLpmV6TableContextId, lpmConfigV6_);
  configNhWithTableContext();
}

void XpLpmConfigurator::configLpmWithTableContext(U32 tableId, const Ptr<ConfigBase>& config) {
  XP_TRACE(1, "XpLpmConfigurator::configLpmWithTableContext tableId " << tableId);
  const XpXdk::TableContextEntry* contextEntry = systemStatus_->tableContextEntry(tableId);
  XP_ASSERT_V(contextEntry, " tableId " << tableId);
  XpXdk::xpLpmTableContext lpmContext;
  // An entry of another kind leaves the context zeroed, and its VRF width of 0 is rejected next.
  (void)contextEntry->xpTblContext(lpmContext);
  XP_ASSERT_V(lpmContext.vrfIdWidth == XpLpm::ConfigBase::vrfBits(),
              " tableId " << tableId << " vrfIdWidth " << lpmContext.vrfIdWidth);

  switch (lpmContext.keyLength) {
    case 48: config->keyTypeIs(XpLpm::keyShort48b); break;
    case 144: config->keyTypeIs(XpLpm::keyLong144b); break;
    default:
      XP_ASSERT_TEXT_V(false, "false && \"Unsupported LPM key length\"",
                       " tableId " << tableId << " keyLength " << lpmContext.keyLength);
  }

  configPrefixTables(lpmContext, *config);
  config->populateLeastTreadForPrefixLenSettings(treadUserCfgd(config->keyType()));
  configNhi(lpmContext, *config);
  for (U8 stride : kAvailableStrides) config->availableStrideIs(stride, true);

  XP_TRACE(1, "XpLpmConfigurator::configLpmWithTableContext Setting NHI table size: "
                  << config->nhiTableSize() << " pairPerEntry: " << +config->nhiPairPerEntry()
                  << " blockBaseWidth: " << +config->nhiBlockBaseWidth()
                  << " entriesPerTile: " << config->nhiEntriesPerTile()
                  << " availableTiles: " << +config->nhiAvailableTiles());
}

// One prefix-table configuration per valid context; a table's id is its position among all 32 contexts,
// because the chip numbers its tables that way whether or not the ones before are in use.
void XpLpmConfigurator::configPrefixTables(const XpXdk::xpLpmTableContext& lpmContext, ConfigBase& config) const {
  for (U32 p = 0; p < lpmContext.prefixTableContext.size(); ++p) {
    const XpXdk::xpPrefixTableContext& prefixTableContext = lpmContext.prefixTableContext[p];
    if (!prefixTableContext.valid) continue;

    const XpLpm::PrefixTableType tableType = prefixTableType(prefixTableContext);
    // Shrinking every table lets a test run fill the tables and reach collisions quickly.
    const std::optional<long> maxEntries = envOverride("MAX_LPM_PREFIXTABLE_SRAM_ENTRIES");
    const U32 depth = maxEntries ? static_cast<U32>(*maxEntries) : prefixTableContext.depth;
    const U8 tread = prefixTableContext.tread;
    XP_TRACE(1, "XpLpmConfigurator::configLpmWithTableContext Creating PrefixTableConfig, tableId: "
                    << p << " tableType: " << tableType << " depth: " << depth << " tread: " << +tread);
    Ptr<XpLpm::XpPrefixTableConfig> tableConfig =
        XpLpm::xpPrefixTableConfigFactory(XpLpm::PrefixTableId(static_cast<U8>(p)), tableType, depth, tread);

    const U32 hashBits = hashBitsForDepth(depth);
    const U32 hashPoly = XpXdk::lpmHashPolynomial(p, prefixTableContext.hashSelector);
    XP_TRACE(1, "XpLpmConfigurator::configLpmWithTableContext Setting prefixTable to use hash function, tread: "
                    << +tread << " hashBits: " << hashBits << " hashPoly: " << hashPoly);
    tableConfig->xdkHashFunctionIs(new XpXdk::crcHashFunction(kHashKeyWidth, hashBits, hashPoly, kHashPreset, tread));
    config.prefixTableConfigIs(tableConfig);
  }
}

void XpLpmConfigurator::configNhi(const XpXdk::xpLpmTableContext& lpmContext, ConfigBase& config) const {
  const std::optional<long> nhiTableSize = envOverride("NHI_TABLE_SIZE");
  config.nhiTableSizeIs(nhiTableSize ? static_cast<U32>(*nhiTableSize) : lpmContext.nhiTableSize);
  config.nhiPairPerEntryIs(lpmContext.nhiPairPerEntry);
  config.nhiBlockBaseWidthIs(lpmContext.nhiBlockBaseWidth);
  // An overridden table is a test table: making it one tile keeps tile boundaries out of the way.
  config.nhiEntriesPerTileIs(static_cast<U16>(nhiTableSize ? *nhiTableSize : XpXdk::kNhiEntriesPerTile));
  const std::optional<long> tiles = envOverride("NUMBER_OF_NHI_TILES");
  config.nhiAvailableTilesIs(static_cast<U8>(tiles ? *tiles : lpmContext.nhiTiles()));
}

// Without any tread input the families deliberately differ: IPv4 is treated as user-configured (no minimum
// tread), IPv6 keeps the tuned minimums.
bool XpLpmConfigurator::treadUserCfgd(KeyType keyType) const {
  if (keyType == XpLpm::keyShort48b) return !lpmTreadCfg_ || lpmTreadCfg_->ipv4TreadUserCfgd();
  return lpmTreadCfg_ && lpmTreadCfg_->ipv6TreadUserCfgd();
}

void XpLpmConfigurator::configNhWithTableContext() {
  XP_TRACE(1, "XpLpmConfigurator::configNhWithTableContext");
  const XpXdk::TableContextEntry* nhContextEntry = systemStatus_->tableContextEntry(kNextHopTableContextId);
  XP_ASSERT(nhContextEntry);
  XpXdk::xpNhTableContext nhContext;
  (void)nhContextEntry->xpTblContext(nhContext);

  if (lpmNhConfig()->tableSize() == 0) {
    lpmNhConfig()->tableSizeIs(nhContext.rowBlkInc);
    XP_TRACE(1, "XpLpmConfigurator::configNhWithTableContext Set the NextHop table size to " << nhContext.rowBlkInc);
    return;
  }
  // A size set earlier (by a previous run or by the owner) must describe the same table.
  XP_ASSERT_V(lpmNhConfig()->tableSize() == nhContext.rowBlkInc,
              " tableSize " << lpmNhConfig()->tableSize() << " rowBlkInc " << nhContext.rowBlkInc);
}

Ptr<XpLpmConfigurator> xpLpmConfiguratorFactory(const Ptr<const XpSystem::SystemStatus>& systemStatus,
                                                const Ptr<XpLpm::ConfigV4>& lpmConfigV4,
                                                const Ptr<XpLpm::ConfigV6>& lpmConfigV6,
                                                const Ptr<XpLpmNextHop::Config>& lpmNhConfig,
                                                const Ptr<const Config::LpmTreadCfg>& lpmTreadCfg) {
  return makePtr<XpLpmConfigurator>(systemStatus, lpmConfigV4, lpmConfigV6, lpmNhConfig, lpmTreadCfg);
}

}  // namespace XpLib
