// The SDK's accessor of one LPM instance's tables: prefix-table entries and NHI entries, read and
// written by position. This and the entry records are all of the SDK the library sees; a chip's
// SDK implements it over the device, the simulated chip over its memory (xpChip.h).
#pragma once

#include "xdk/xpLpmEntry.h"
#include "xdk/xpTableContext.h"

namespace XpXdk {

class xpIpRouteLpmMgr {
 public:
  virtual ~xpIpRouteLpmMgr() = default;

  // Device ids and flags are the SDK's; with one chip, device 0 and flags 0.
  virtual XP_STATUS readPrefixEntry(U32 devId, U32 tableId, U32 offset, xpLpmPrefixEntry* entry, U32 flags) = 0;
  virtual XP_STATUS writePrefixEntry(U32 devId, U32 tableId, U32 offset, const xpLpmPrefixEntry* entry) = 0;
  virtual XP_STATUS readNhiEntry(U32 devId, U32 tile, U32 offset, xpLpmNhiEntry* entry, U32 flags) = 0;
  virtual XP_STATUS writeNhiEntry(U32 devId, U32 tile, U32 offset, const xpLpmNhiEntry* entry) = 0;
};

}  // namespace XpXdk
