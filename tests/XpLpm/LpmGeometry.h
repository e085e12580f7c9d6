// Hand-built LPM configurations of a given geometry, as the configurator would
// derive them from a chip: prefix tables with the chip's CRC hash, NHI geometry,
// least treads and strides. Shared by tests and benchmarks.
#pragma once

#include <cmath>
#include <vector>

#include "XpLpm/XpLpm.h"
#include "xdk/xpHashPolynomials.h"
#include "xdk/xpHashFunction.h"

namespace XpLib {
namespace XpLpm {
namespace test {

struct TableSpec {
  U8 id;
  U8 tread;
  U32 depth;
  PrefixTableType type = prefixTableNarrow128b;
  U32 polyColumn = 0;
};

struct Geometry {
  std::vector<TableSpec> tables;
  U8 pairsPerEntry = 8;
  U8 baseWidth = 10;
  U16 entriesPerTile = 64;
  U8 tiles = 1;
  bool multiNhiEntries = true;
  bool userTreads = true;  // every least tread 0
};

// Fills a configuration as the configurator would from a chip of this geometry.
inline void configure(const Ptr<ConfigBase>& cfg, const Geometry& g) {
  for (const TableSpec& t : g.tables) {
    auto tc = xpPrefixTableConfigFactory(PrefixTableId(t.id), t.type, t.depth, t.tread);
    const U32 hashBits = static_cast<U32>(std::log2(static_cast<double>(t.depth)));
    tc->xdkHashFunctionIs(new XpXdk::crcHashFunction(144, hashBits, XpXdk::lpmHashPolynomial(t.id % 32, t.polyColumn % 4), 1, t.tread));
    cfg->prefixTableConfigIs(tc);
  }
  cfg->populateLeastTreadForPrefixLenSettings(g.userTreads);
  cfg->nhiTableSizeIs(U32(g.entriesPerTile) * g.tiles);
  cfg->nhiPairPerEntryIs(g.pairsPerEntry);
  cfg->nhiBlockBaseWidthIs(g.baseWidth);
  cfg->nhiEntriesPerTileIs(g.entriesPerTile);
  cfg->nhiAvailableTilesIs(g.tiles);
  cfg->supportMultiNhiEntriesPerSubTrieIs(g.multiNhiEntries);
  for (U8 s : {8, 9, 10, 11, 12, 14, 16, 20, 24, 28, 32, 48, 64, 96, 128}) cfg->availableStrideIs(s, true);
}

inline Ptr<ConfigV4> makeConfigV4(const Geometry& g) {
  auto cfg = configV4Factory("v4");
  cfg->keyTypeIs(keyShort48b);
  configure(cfg, g);
  return cfg;
}

inline Ptr<ConfigV6> makeConfigV6(const Geometry& g) {
  auto cfg = configV6Factory("v6");
  cfg->keyTypeIs(keyLong144b);
  configure(cfg, g);
  return cfg;
}

}  // namespace test
}  // namespace XpLpm
}  // namespace XpLib
