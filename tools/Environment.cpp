// Checking the library's environment variables and matching the simulated chip to them.
#include "Environment.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "ProfileInput.h"

namespace xplpm {

using XpLib::U32;
using XpLib::U64;

namespace {

// Each NHI entry of the simulated chip is 80 bytes in memory, per family.
constexpr U64 kMaxNhiEntries = U64(1) << 20;

// A variable that environmentProblems has accepted as a decimal number.
std::optional<U64> number(const char* name) {
  const char* text = std::getenv(name);
  if (!text) return std::nullopt;
  U64 n = 0;
  const std::string_view v(text);
  std::from_chars(v.data(), v.data() + v.size(), n);
  return n;
}

}  // namespace

std::vector<InputError> environmentErrors(const XpXdk::xpChipProfile& profile) {
  std::vector<InputError> errors;
  for (std::string& problem : XpLib::Agent::environmentProblems(profile)) errors.push_back({"", std::move(problem)});
  if (!errors.empty()) return errors;
  const std::optional<U64> tiles = number("NUMBER_OF_NHI_TILES"), perTile = number("NHI_TABLE_SIZE");
  for (const auto* c : {&profile.ipv4, &profile.ipv6}) {
    const U64 entries = tiles.value_or(c->nhiTiles()) * perTile.value_or(kNhiEntriesPerTile);
    if ((tiles || perTile) && entries > kMaxNhiEntries) {
      errors.push_back({"", std::string("NUMBER_OF_NHI_TILES x NHI_TABLE_SIZE is ") + std::to_string(entries) +
                                std::string(" NHI entries, more than the ") + std::to_string(kMaxNhiEntries) +
                                " the simulated chip holds per family"});
      break;
    }
  }
  return errors;
}

void checkEnvironment(const XpXdk::xpChipProfile& profile) {
  std::vector<InputError> errors = environmentErrors(profile);
  if (!errors.empty()) throw BadInput(std::move(errors));
}

XpXdk::xpChipProfile withEnvironmentGeometry(XpXdk::xpChipProfile profile) {
  const std::optional<U64> depth = number("MAX_LPM_PREFIXTABLE_SRAM_ENTRIES");
  const std::optional<U64> tiles = number("NUMBER_OF_NHI_TILES"), perTile = number("NHI_TABLE_SIZE");
  for (auto* c : {&profile.ipv4, &profile.ipv6}) {
    if (depth)
      for (auto& t : c->prefixTableContext)
        if (t.valid) t.depth = static_cast<U32>(*depth);
    if (!tiles && !perTile) continue;
    const U32 n = static_cast<U32>(tiles.value_or(c->nhiTiles()));
    c->nhiTileBitmap.fill(0);
    c->nhiTileBitmapValidMask = 0;
    for (U32 t = 0; t < n; ++t) {
      c->nhiTileBitmap[t / 8] |= static_cast<XpLib::U8>(1u << (t % 8));
      c->nhiTileBitmapValidMask |= static_cast<XpLib::U8>(1u << (t / 8));
    }
    c->nhiTableSize = static_cast<U32>(n * perTile.value_or(kNhiEntriesPerTile));
  }
  return profile;
}

void checkGroupWidths(XpLib::Agent::XpLpmAgent& agent, U32 groups) {
  U32 widest = 0;
  for (U32 g = 0; g < std::min(groups, 4u); ++g) widest = std::max<U32>(widest, agent.defaultWidth(XpLib::Agent::SwId(g)).value());
  const U32 largest = agent.nextHopSm()->allocator()->maxBlkSz();
  if (largest >= widest) return;
  const std::string groupsTake = std::string("the next-hop groups take up to ") + std::to_string(widest) +
                                 " entries (widths 1, 2, 4 and 8 in turn), and a group wider than the largest block "
                                 "stops the library";
  if (std::getenv("NH_MAX_BLOCK_SIZE"))
    badInput("", std::string("NH_MAX_BLOCK_SIZE=") + std::to_string(largest) + " is too small: " + groupsTake);
  if (const auto size = number("NH_TABLE_SIZE"))
    badInput("", std::string("NH_TABLE_SIZE=") + std::to_string(*size) + " makes the largest next-hop block " +
                     std::to_string(largest) + " entries (half the table): " + groupsTake);
  badInput("", std::string("the largest next-hop block is ") + std::to_string(largest) + " entries: " + groupsTake);
}

}  // namespace xplpm
