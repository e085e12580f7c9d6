// RestartHelperBase: rebuilds a state machine's model from what the chip holds
// after an agent restart. The chip-specific derived class knows how a route key
// is rebuilt from hardware bits and how a stale route is dropped.
#pragma once

#include "XpLpm/LpmPrefix.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

class LpmSm;

class RestartHelperBase : public PtrInterface {
 public:
  // Reads every prefix-table entry and the NHI entries behind it and rebuilds
  // the machine's sub-tries, NHI blocks, sharing records and installed routes;
  // clears entries that do not parse when removeStale is set. 0 when done.
  virtual int doRestart(bool removeStale, LpmSm* lpmSm) = 0;
};

}  // namespace XpLpm
}  // namespace XpLib
