// Built-in chip profiles: the table contexts a simulated chip reports.
//
// The profiles and their geometry are documented in README.md ("Chip profiles").
//
// Tables of one tread take different hash polynomials (row table id / 2, column hash selector), so
// that a sub-trie colliding in one can move to another.
#pragma once

#include <string>
#include <vector>

#include "platform/Ptr.h"
#include "xdk/xpTableContext.h"

namespace XpXdk {

struct xpChipProfile {
  std::string name;
  std::string description;
  xpLpmTableContext ipv4;
  xpLpmTableContext ipv6;
  xpNhTableContext nextHop;

  // Prefix-table entries and bits of one family, for reports.
  U64 prefixTableEntries(bool ipv6) const;
  U64 prefixTableBits(bool ipv6) const;
};

const std::vector<xpChipProfile>& builtinChipProfiles();
// The built-in profile of that name, or null.
const xpChipProfile* findChipProfile(const std::string& name);

// A system status holding the profile's three table contexts (ids 51, 52, 53).
XpLib::Ptr<XpSystem::SystemStatus> systemStatusFor(const xpChipProfile& profile);

}  // namespace XpXdk
