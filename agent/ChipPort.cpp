// The member a looked-up packet reaches, the same over every chip port.
#include "agent/ChipPort.h"

namespace XpLib {
namespace Agent {

std::optional<XpXdk::xpNhEntry> ChipPort::resolve(const XpXdk::xpLpmLookupResult& hit, U64 selector) const {
  if (!hit.hit || hit.nextHopBlock.size == 0 || hit.nextHopBlock.size == 0xFFFF) return std::nullopt;
  XpXdk::xpNhEntry entry;
  const U64 index = U64(hit.nextHopBlock.base) + selector % hit.nextHopBlock.size;
  if (index >= nextHopEntries() || readNextHop(static_cast<U32>(index), &entry) != XpXdk::XP_NO_ERR) return std::nullopt;
  return entry;
}

}  // namespace Agent
}  // namespace XpLib
