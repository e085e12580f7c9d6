// A chip port that counts every write on its way to another port: how a tool or a test tells
// how much an operation wrote into the chip (a warm restart over an unchanged table should
// write nothing), whatever the agent's own counters say.
#pragma once

#include <memory>

#include "agent/ChipPort.h"

namespace XpLib {
namespace Agent {

struct PortWrites {
  U64 prefix = 0, nhi = 0, nextHop = 0;
  U64 all() const { return prefix + nhi + nextHop; }
};

class CountingPort final : public ChipPort {
 public:
  explicit CountingPort(std::shared_ptr<ChipPort> inner) : inner_(std::move(inner)), v4_(*this, false), v6_(*this, true) {}

  XpXdk::xpIpRouteLpmMgr& lpmMgr(bool ipv6) override { return ipv6 ? static_cast<Mgr&>(v6_) : v4_; }
  U32 nextHopEntries() const override { return inner_->nextHopEntries(); }
  XpXdk::XP_STATUS readNextHop(U32 index, XpXdk::xpNhEntry* entry) const override {
    return inner_->readNextHop(index, entry);
  }
  XpXdk::XP_STATUS writeNextHop(U32 index, const XpXdk::xpNhEntry& entry) override {
    ++writes_.nextHop;
    return inner_->writeNextHop(index, entry);
  }
  XpXdk::xpLpmLookupResult lookup(const XpXdk::xpLpmKey& key) const override { return inner_->lookup(key); }
  std::size_t storedBytes() const override { return inner_->storedBytes(); }

  const PortWrites& writes() const { return writes_; }
  ChipPort& inner() { return *inner_; }

 private:
  class Mgr final : public XpXdk::xpIpRouteLpmMgr {
   public:
    Mgr(CountingPort& port, bool ipv6) : port_(port), ipv6_(ipv6) {}
    XpXdk::XP_STATUS readPrefixEntry(U32 d, U32 t, U32 o, XpXdk::xpLpmPrefixEntry* e, U32 f) override {
      return inner().readPrefixEntry(d, t, o, e, f);
    }
    XpXdk::XP_STATUS writePrefixEntry(U32 d, U32 t, U32 o, const XpXdk::xpLpmPrefixEntry* e) override {
      ++port_.writes_.prefix;
      return inner().writePrefixEntry(d, t, o, e);
    }
    XpXdk::XP_STATUS readNhiEntry(U32 d, U32 t, U32 o, XpXdk::xpLpmNhiEntry* e, U32 f) override {
      return inner().readNhiEntry(d, t, o, e, f);
    }
    XpXdk::XP_STATUS writeNhiEntry(U32 d, U32 t, U32 o, const XpXdk::xpLpmNhiEntry* e) override {
      ++port_.writes_.nhi;
      return inner().writeNhiEntry(d, t, o, e);
    }

   private:
    XpXdk::xpIpRouteLpmMgr& inner() { return port_.inner_->lpmMgr(ipv6_); }
    CountingPort& port_;
    bool ipv6_;
  };

  std::shared_ptr<ChipPort> inner_;
  Mgr v4_, v6_;
  PortWrites writes_;
};

}  // namespace Agent
}  // namespace XpLib
