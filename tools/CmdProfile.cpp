// `xplpm profile list|show`: the built-in chip profiles, or one read from JSON.
#include <cstdio>
#include <iostream>

#include "Commands.h"
#include "Errors.h"
#include "ProfileInput.h"

namespace xplpm {

int cmdProfileList() {
  std::printf("%-10s %-14s %-14s %s\n", "name", "IPv4 entries", "IPv6 entries", "description");
  for (const auto& p : XpXdk::builtinChipProfiles())
    std::printf("%-10s %-14llu %-14llu %s\n", p.name.c_str(), static_cast<unsigned long long>(p.prefixTableEntries(false)),
                static_cast<unsigned long long>(p.prefixTableEntries(true)), p.description.c_str());
  return exitOk;
}

int cmdProfileShow(const Options& c) {
  const XpXdk::xpChipProfile p = loadProfile(c.profileName, "profile show");
  if (c.json) {
    std::cout << profileJson(p) << "\n";
    return exitOk;
  }
  std::printf("profile %s: %s\n", escaped(p.name).c_str(), escaped(p.description).c_str());
  for (bool v6 : {false, true}) {
    const auto& ctx = v6 ? p.ipv6 : p.ipv4;
    const int tiles = static_cast<int>(ctx.nhiTiles());
    std::printf("%s: key %u bits, %llu entries, %.1f Mbit; NHI %d tiles x %u entries, %u pairs per entry, %u-bit base\n",
                v6 ? "IPv6" : "IPv4", ctx.keyLength, static_cast<unsigned long long>(p.prefixTableEntries(v6)),
                p.prefixTableBits(v6) / 1e6, tiles, ctx.nhiTableSize / std::max(1, tiles), ctx.nhiPairPerEntry,
                ctx.nhiBlockBaseWidth);
    std::printf("  %-4s %-6s %-8s %-6s %s\n", "id", "tread", "depth", "width", "hash");
    for (XpLib::U32 id = 0; id < XpXdk::xpLpmTableContext::kPrefixTables; ++id) {
      const auto& t = ctx.prefixTableContext[id];
      if (t.valid) std::printf("  %-4u %-6u %-8u %-6u %u\n", id, t.tread, t.depth, t.sramWidth, t.hashSelector);
    }
  }
  std::printf("next-hop table: %u entries\n", p.nextHop.rowBlkInc);
  return exitOk;
}

}  // namespace xplpm
