// The agent's one way to the chip: its LPM tables through the SDK's accessor (which the library's
// restart recovery also reads), the next-hop table, and the chip's own forwarding answer. The
// simulated chip is one implementation (SimulatedChip); a real SDK replaces it with another class
// and one line where the agent is built, as DPDK's rte_fib picks its lookup and modify functions
// once behind one interface.
#pragma once

#include <optional>

#include "platform/Types.h"
#include "xdk/xpIpRouteLpmMgr.h"
#include "xdk/xpLpmEntry.h"
#include "xdk/xpLpmLookup.h"
#include "xdk/xpTableContext.h"

namespace XpLib {
namespace Agent {

class ChipPort {
 public:
  virtual ~ChipPort() = default;

  // The accessor of one family's prefix tables and NHI entries.
  virtual XpXdk::xpIpRouteLpmMgr& lpmMgr(bool ipv6) = 0;

  // The next-hop table: one entry per member of a group's block.
  virtual U32 nextHopEntries() const = 0;
  virtual XpXdk::XP_STATUS readNextHop(U32 index, XpXdk::xpNhEntry* entry) const = 0;
  virtual XpXdk::XP_STATUS writeNextHop(U32 index, const XpXdk::xpNhEntry& entry) = 0;

  // Where the chip forwards a key: the matched prefix-table slot and the next-hop block its NHI pair
  // holds. A real chip answers with its diagnostic lookup.
  virtual XpXdk::xpLpmLookupResult lookup(const XpXdk::xpLpmKey& key) const = 0;

  // The next-hop entry a looked-up packet reaches: member `selector % size` of the matched block
  // (its flow hash picks the member). None on a miss or a block outside the table.
  std::optional<XpXdk::xpNhEntry> resolve(const XpXdk::xpLpmLookupResult& hit, U64 selector) const;

  // Heap the chip's own storage holds, so that a tool can tell it from the agent's; 0 for a chip
  // whose memory is not in this process.
  virtual std::size_t storedBytes() const { return 0; }
};

}  // namespace Agent
}  // namespace XpLib
