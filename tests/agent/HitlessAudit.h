// A command-by-command audit of an agent's chip: after every single write, addresses of the
// routes in the entries the write touched and of a sample of installed routes are looked up, and
// once the operation is done each answer must be the one the routes gave before it or after it.
// A route the operation changes may show either; a route nobody touched must show its one answer
// at every moment.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ForwardingCheck.h"
#include "agent/EntryCodec.h"

namespace XpLib {
namespace Agent {
namespace test {

class HitlessAudit {
 public:
  struct Counts {
    U64 writes = 0, probes = 0, mismatches = 0;
  };

  HitlessAudit(XpLpmAgent& agent, unsigned seed, U32 sampled = 64) : rng_(seed), sampled_(sampled) { agentIs(agent); }
  ~HitlessAudit() { chip_->sim().afterWriteIs(nullptr); }
  HitlessAudit(const HitlessAudit&) = delete;
  HitlessAudit& operator=(const HitlessAudit&) = delete;

  // Audits another agent over the same chip, after a warm restart; the one before may be gone.
  void agentIs(XpLpmAgent& agent) {
    agent_ = &agent;
    chip_ = simOf(agent);
    entryRoutes_.clear();
    nhiReaders_.clear();
    entryReads_.clear();
    for (bool v6 : {false, true}) {
      const XpXdk::xpLpmMemory& lpm = chip_->sim().lpm(v6);
      for (U32 t = 0; t < XpXdk::xpLpmTableContext::kPrefixTables; ++t)
        for (const auto& [pos, e] : lpm.entries(t)) entryIs(v6, t, pos, e);
    }
    chip_->sim().afterWriteIs([this](const XpXdk::xpChipWrite& w) { onWrite(w); });
  }

  // Runs one operation under audit; `kind` labels its writes in the counts.
  void operation(const std::string& kind, const std::function<void()>& op) {
    before_ = snapshot();
    kind_ = kind;
    probes_.clear();
    op();
    const Snapshot after = snapshot();
    for (const Probe& p : probes_) {
      Counts& c = counts_[p.label];
      ++c.probes;
      const Answer want0 = expected(before_, p), want1 = expected(after, p);
      if (p.got == want0 || p.got == want1) continue;
      if (++c.mismatches <= 2)
        ADD_FAILURE() << p.label << ": " << describe(p) << " chip " << p.got.str() << " (" << p.where << ") before "
                      << want0.str() << " after " << want1.str();
    }
  }

  const std::map<std::string, Counts>& counts() const { return counts_; }
  U64 mismatches() const {
    U64 n = 0;
    for (const auto& [k, c] : counts_) n += c.mismatches;
    return n;
  }

 private:
  // What a packet to an address meets: the matched length, the group of the next-hop entry it
  // reaches, and whether that entry is the member its flow selects.
  struct Answer {
    bool hit = false;
    U32 len = 0;
    U64 group = 0;
    bool member = false;
    bool operator==(const Answer&) const = default;
    std::string str() const {
      if (!hit) return "miss";
      std::ostringstream os;
      os << "/" << len << " group " << group << (member ? "" : " wrong member");
      return os.str();
    }
  };
  struct Probe {
    std::string label;
    bool v6;
    U32 vrf;
    U32 a4;
    Ip6Prefix::Bytes a6;
    Answer got;
    std::string where;  // the chip's table, position, slot and next-hop block, for a failure report
  };
  // The installed routes and the group each reaches, by family; the group rides in the base of
  // the reference's block.
  struct Snapshot {
    ReferenceLpm ref;
    std::vector<Route> routes;
  };
  using EntryKey = std::tuple<bool, U32, U32>;  // family, table or tile, offset

  Snapshot snapshot() const {
    Snapshot s;
    std::map<U32, U64> owner;  // block base -> group
    for (const auto& [group, block] : agent_->nextHopStatus()->swIdToNextHopBlockMap())
      owner[block.base().value()] = group.value();
    for (bool v6 : {false, true}) {
      for (const auto& [prefix, block] : agent_->family(v6).status->prefixToNextHopBlockMap()) {
        const auto it = owner.find(block.base().value());
        const NextHopBlock group(static_cast<U32>(it == owner.end() ? ~0u : it->second), 1);
        Route r;
        r.ipv6 = v6;
        if (v6) {
          const auto& k = static_cast<const XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix();
          r.vrf = k.vrf, r.v6 = k.prefix;
          s.ref.routeIs(k.vrf, k.prefix, group);
        } else {
          const auto& k = static_cast<const XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix();
          r.vrf = k.vrf, r.v4 = k.prefix;
          s.ref.routeIs(k.vrf, k.prefix, group);
        }
        s.routes.push_back(r);
      }
    }
    return s;
  }

  static Answer expected(const Snapshot& s, const Probe& p) {
    const auto m = p.v6 ? s.ref.lookup(p.vrf, p.a6) : s.ref.lookup(p.vrf, p.a4);
    if (!m) return {};
    return Answer{true, m->len + 16u, m->block.base().value(), true};
  }

  Answer chipAnswer(bool v6, U32 vrf, U32 a4, const Ip6Prefix::Bytes& a6) const {
    const XpXdk::xpLpmLookupResult hit = v6 ? agent_->lookup(vrf, a6) : agent_->lookup(vrf, a4);
    if (!hit.hit) return {};
    const U64 selector = v6 ? a6[15] : a4;
    const std::optional<XpXdk::xpNhEntry> e = agent_->chip().resolve(hit, selector);
    if (!e || !(e->data & XpLpmAgent::kGroupEntryValid)) return Answer{true, hit.matchLength, ~U64(0), false};
    return Answer{true, hit.matchLength, XpLpmAgent::groupOfEntry(*e).value(),
                  XpLpmAgent::memberOfEntry(*e) == selector % hit.nextHopBlock.size};
  }

  static std::string describe(const Probe& p) {
    return "vrf " + std::to_string(p.vrf) + " " + (p.v6 ? Ip6Prefix::addressStr(p.a6) : Prefix(p.a4, 32).str());
  }

  void probe(const std::string& label, const Route& r) {
    Probe p{label, r.ipv6, r.vrf, 0, {}, {}, {}};
    if (r.ipv6) {
      p.a6 = randomAddressIn(r.v6, rng_);
    } else {
      p.a4 = randomAddressIn(r.v4, rng_);
    }
    p.got = chipAnswer(p.v6, p.vrf, p.a4, p.a6);
    if (!(p.got == Answer{}) || true) {
      const XpXdk::xpLpmLookupResult hit = p.v6 ? agent_->lookup(p.vrf, p.a6) : agent_->lookup(p.vrf, p.a4);
      p.where = "table " + std::to_string(hit.tableId) + " position " + std::to_string(hit.position) + " slot " +
                std::to_string(hit.slot) + " block " + std::to_string(hit.nextHopBlock.base) + "/" +
                std::to_string(hit.nextHopBlock.size) + " write " + std::to_string(writes_);
      if (hit.hit) {
        XpXdk::xpLpmPrefixEntry e;
        agent_->chip().lpmMgr(p.v6).readPrefixEntry(0, hit.tableId, hit.position, &e, 0);
        p.where += " entry slots " + std::to_string(e.numSlots) + " nhi " + std::to_string(e.nhiTile) + "," +
                   std::to_string(e.nhiOffset);
      }
    }
    probes_.push_back(p);
  }

  void onWrite(const XpXdk::xpChipWrite& w) {
    static const char* const kKinds[] = {"prefix", "nhi", "nexthop"};
    const std::string label = kind_ + "/" + kKinds[w.kind];
    ++counts_[label].writes;
    ++writes_;
    std::vector<Route> touched;
    if (w.kind == XpXdk::xpChipWrite::prefix) {
      const EntryKey key{w.ipv6, w.where, w.offset};
      touched = entryRoutes_[key];
      XpXdk::xpLpmPrefixEntry e;
      agent_->chip().lpmMgr(w.ipv6).readPrefixEntry(0, w.where, w.offset, &e, 0);
      entryIs(w.ipv6, w.where, w.offset, e);
      for (const Route& r : entryRoutes_[key]) touched.push_back(r);
    } else if (w.kind == XpXdk::xpChipWrite::nhi) {
      for (const EntryKey& reader : nhiReaders_[EntryKey{w.ipv6, w.where, w.offset}])
        for (const Route& r : entryRoutes_[reader]) touched.push_back(r);
    }
    for (const Route& r : touched) probe(label, r);
    for (U32 i = 0; i < sampled_ && !before_.routes.empty(); ++i)
      probe(label, before_.routes[rng_() % before_.routes.size()]);
  }

  // Records the routes a prefix entry holds and the NHI entries it reads.
  void entryIs(bool v6, U32 table, U32 pos, const XpXdk::xpLpmPrefixEntry& e) {
    const EntryKey key{v6, table, pos};
    const U32 pairs = agent_->family(v6).config->nhiPairPerEntry();
    for (const EntryKey& nhi : entryReads_[key]) nhiReaders_[nhi].erase(key);
    entryReads_[key].clear();
    std::vector<Route>& routes = entryRoutes_[key];
    routes.clear();
    const XpLpm::SubTrieBranch branch = XpLpm::entryBranch(e);
    for (U32 s = 0; s < std::min<U32>(e.numSlots, XpXdk::xpLpmPrefixEntry::kMaxSlots); ++s) {
      if (e.slots[s].empty()) continue;
      const EntryKey nhi{v6, e.nhiTile, e.nhiOffset + s / pairs};
      nhiReaders_[nhi].insert(key);
      entryReads_[key].push_back(nhi);
      XpLpm::SubTrieBranch k = branch;
      U64 lo = e.slots[s].leafVal, hi = e.slots[s].leafValHigh;
      const U8 len = XpLpm::combineBranchAndLeaf(k, e.branchLen, lo, hi);
      Route r;
      r.ipv6 = v6;
      r.vrf = (U32(k.byteAt(0)) << 8) | k.byteAt(1);
      if (v6) {
        Ip6Prefix::Bytes a;
        for (U32 i = 0; i < 16; ++i) a[i] = k.byteAt(2 + i);
        r.v6 = Ip6Prefix(a, static_cast<U8>(len - 16));
      } else {
        U32 a = 0;
        for (U32 i = 0; i < 4; ++i) a = (a << 8) | k.byteAt(2 + i);
        r.v4 = Prefix(a, static_cast<U8>(len - 16));
      }
      routes.push_back(r);
    }
  }

  XpLpmAgent* agent_ = nullptr;
  std::shared_ptr<SimulatedChip> chip_;
  std::mt19937_64 rng_;
  U32 sampled_;
  std::string kind_;
  U64 writes_ = 0;
  Snapshot before_;
  std::vector<Probe> probes_;
  std::map<std::string, Counts> counts_;
  std::map<EntryKey, std::vector<Route>> entryRoutes_;
  std::map<EntryKey, std::set<EntryKey>> nhiReaders_;  // NHI entry -> prefix entries that read it
  std::map<EntryKey, std::vector<EntryKey>> entryReads_;  // prefix entry -> NHI entries it reads
};

}  // namespace test
}  // namespace Agent
}  // namespace XpLib
