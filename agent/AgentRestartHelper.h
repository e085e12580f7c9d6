// The chip's restart helper: how a route key is rebuilt from an entry's branch
// and a slot's leaf words, and how a route found in an invalid entry is dropped.
#pragma once

#include <functional>

#include "XpLpm/RestartHelperBase.h"
#include "XpLpm/XpLpmSm.h"

namespace XpLib {
namespace Agent {

class AgentRestartHelper : public XpLpm::RestartHelperBase {
 public:
  using RestartHelperBase::RestartHelperBase;

  // The key is the branch with the leaf's bits appended; the configuration's one
  // object for that key is returned.
  Ptr<XpLpm::LpmPrefix> createPrefix(const XpLpm::SubTrieBranch& branch, U8 branchLen, const U64& leafVal,
                                     const U64& leafValHigh, U8 stride) override;
  // Neither requested nor installed afterwards: the request and the Status entry
  // go now; a route already placed from an earlier entry is taken out by the
  // machine once it runs (the agent re-announces it, see XpLpmAgent).
  void deletePrefix(const Ptr<XpLpm::LpmPrefix>& prefix) override;

  U64 prefixesDropped() const { return dropped_; }

  // Called with the machine as its start-up begins, before recovery reads the chip and before
  // the machine queues its first command.
  void onMachineIs(std::function<void(XpLpm::LpmSm*)> f) { onMachine_ = std::move(f); }
  void lpmSmIs(XpLpm::LpmSm* sm) override {
    RestartHelperBase::lpmSmIs(sm);
    if (onMachine_ && sm) onMachine_(sm);
  }

 private:
  U64 dropped_ = 0;
  std::function<void(XpLpm::LpmSm*)> onMachine_;
};

}  // namespace Agent
}  // namespace XpLib
