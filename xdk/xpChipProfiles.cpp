// The built-in chip profiles.
#include "xdk/xpChipProfiles.h"

namespace XpXdk {

namespace {

struct TableSpec {
  U8 tread;
  U32 depth;
  int count;
};

// Lays out tables in the order given, ids from 0; the k-th table of one tread
// takes hash selector k % 4, so equal treads hash differently.
xpLpmTableContext lpmContext(U32 keyLength, std::initializer_list<TableSpec> tables, U8 pairs, U8 baseWidth,
                             U8 tiles, U32 entriesPerTile) {
  xpLpmTableContext c;
  c.vrfIdWidth = 16;
  c.keyLength = keyLength;
  U32 id = 0;
  for (const TableSpec& t : tables) {
    for (int k = 0; k < t.count; ++k, ++id) {
      xpPrefixTableContext& p = c.prefixTableContext[id];
      p.valid = true;
      p.depth = t.depth;
      p.sramWidth = 256;
      p.tread = t.tread;
      p.hashSelector = static_cast<U8>((k + id / 2) % 4);
    }
  }
  c.nhiTableSize = tiles * entriesPerTile;
  c.nhiPairPerEntry = pairs;
  c.nhiBlockBaseWidth = baseWidth;
  c.nhiTileBitmap[0] = static_cast<U8>((1u << tiles) - 1);
  c.nhiTileBitmapValidMask = 0x01;
  return c;
}

std::vector<xpChipProfile> makeProfiles() {
  std::vector<xpChipProfile> profiles;
  {
    xpChipProfile p;
    p.name = "small";
    p.description = "a few hundred entries per family: collisions, full tables and NHI compaction come quickly";
    p.ipv4 = lpmContext(48, {{32, 64, 2}, {24, 64, 2}, {16, 16, 1}}, 8, 12, 1, kNhiEntriesPerTile);
    p.ipv6 = lpmContext(144, {{60, 64, 2}, {48, 64, 2}, {16, 16, 1}}, 6, 12, 1, kNhiEntriesPerTile);
    p.nextHop.rowBlkInc = 4096;
    profiles.push_back(p);
  }
  {
    xpChipProfile p;
    p.name = "reference";
    p.description = "holds a whole default-free IPv4 and IPv6 table: four tables per tread, 8 NHI tiles";
    p.ipv4 = lpmContext(48, {{36, 32768, 4}, {32, 16384, 4}, {28, 4096, 4}, {24, 256, 4}, {20, 16, 2}, {16, 2, 1}},
                        8, 14, 8, kNhiEntriesPerTile);
    p.ipv6 = lpmContext(144,
                        {{136, 512, 1}, {128, 512, 1}, {120, 512, 1}, {112, 512, 1}, {104, 512, 1}, {96, 512, 1},
                         {88, 512, 1}, {80, 4096, 2}, {72, 8192, 3}, {64, 8192, 1}, {60, 16384, 4}, {56, 8192, 2}, {52, 8192, 2},
                         {48, 16384, 4}, {44, 8192, 1}, {40, 4096, 3}, {32, 256, 1}, {24, 16, 1}, {16, 2, 1}},
                        8, 14, 8, kNhiEntriesPerTile);
    p.nextHop.rowBlkInc = 16384;
    profiles.push_back(p);
  }
  return profiles;
}

}  // namespace

U64 xpChipProfile::prefixTableEntries(bool v6) const {
  U64 n = 0;
  for (const auto& t : (v6 ? ipv6 : ipv4).prefixTableContext)
    if (t.valid) n += t.depth;
  return n;
}

U64 xpChipProfile::prefixTableBits(bool v6) const {
  U64 n = 0;
  for (const auto& t : (v6 ? ipv6 : ipv4).prefixTableContext)
    if (t.valid) n += U64(t.depth) * t.sramWidth;
  return n;
}

const std::vector<xpChipProfile>& builtinChipProfiles() {
  static const std::vector<xpChipProfile> profiles = makeProfiles();
  return profiles;
}

const xpChipProfile* findChipProfile(const std::string& name) {
  for (const auto& p : builtinChipProfiles())
    if (p.name == name) return &p;
  return nullptr;
}

XpLib::Ptr<XpSystem::SystemStatus> systemStatusFor(const xpChipProfile& profile) {
  auto status = XpLib::makePtr<XpSystem::SystemStatus>();
  status->tableContextEntryIs(XpSystem::SystemStatus::kLpmV4ContextId, TableContextEntry(profile.ipv4));
  status->tableContextEntryIs(XpSystem::SystemStatus::kLpmV6ContextId, TableContextEntry(profile.ipv6));
  status->tableContextEntryIs(XpSystem::SystemStatus::kNextHopContextId, TableContextEntry(profile.nextHop));
  return status;
}

}  // namespace XpXdk
