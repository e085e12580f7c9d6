// The chip port over the simulated chip: the SDK accessor, next-hop table and lookup of xpChip.
#pragma once

#include <memory>

#include "agent/ChipPort.h"
#include "xdk/xpChip.h"
#include "xdk/xpChipProfiles.h"

namespace XpLib {
namespace Agent {

class SimulatedChip final : public ChipPort {
 public:
  // A new chip of this profile, every table empty.
  explicit SimulatedChip(const XpXdk::xpChipProfile& profile)
      : sim_(std::make_unique<XpXdk::xpChip>(profile.ipv4, profile.ipv6, profile.nextHop)) {}

  XpXdk::xpIpRouteLpmMgr& lpmMgr(bool ipv6) override { return sim_->lpmMgr(ipv6); }
  U32 nextHopEntries() const override { return sim_->nextHopEntries(); }
  XpXdk::XP_STATUS readNextHop(U32 index, XpXdk::xpNhEntry* entry) const override {
    return sim_->readNextHop(index, entry);
  }
  XpXdk::XP_STATUS writeNextHop(U32 index, const XpXdk::xpNhEntry& entry) override {
    return sim_->writeNextHop(index, entry);
  }
  XpXdk::xpLpmLookupResult lookup(const XpXdk::xpLpmKey& key) const override {
    return sim_->lpm(key.keyLength == XpXdk::kLpmKeyBits).lookup(key);
  }
  std::size_t storedBytes() const override {
    return sim_->lpm(false).prefixEntryBytes() + sim_->lpm(true).prefixEntryBytes();
  }

  // The simulation itself, for what only a simulation offers: its memory, failure injection and
  // a hook after every write.
  XpXdk::xpChip& sim() { return *sim_; }
  const XpXdk::xpChip& sim() const { return *sim_; }

 private:
  std::unique_ptr<XpXdk::xpChip> sim_;
};

}  // namespace Agent
}  // namespace XpLib
