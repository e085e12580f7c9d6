// Table contexts of the simulated chip.
#include "xdk/xpTableContext.h"

namespace XpXdk {

XP_STATUS TableContextEntry::xpTblContext(xpLpmTableContext& out) const {
  const auto* c = std::get_if<xpLpmTableContext>(&context_);
  if (!c) return XP_ERR_INVALID_ARG;
  out = *c;
  return XP_NO_ERR;
}

XP_STATUS TableContextEntry::xpTblContext(xpNhTableContext& out) const {
  const auto* c = std::get_if<xpNhTableContext>(&context_);
  if (!c) return XP_ERR_INVALID_ARG;
  out = *c;
  return XP_NO_ERR;
}

}  // namespace XpXdk
