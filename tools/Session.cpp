// Programming, measuring and verifying one chip.
#include "Session.h"

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <unordered_map>

#include "agent/ReferenceLpm.h"

namespace xplpm {

using XpLib::Agent::Route;
using XpLib::Agent::XpLpmAgent;

namespace {

std::size_t heapInUse() {
  const auto mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

double since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

class Progress {
 public:
  Progress(bool on, const char* what, std::size_t total) : on_(on), what_(what), total_(total ? total : 1) {}
  ~Progress() {
    if (on_) std::fprintf(stderr, "\r%-60s\r", "");
  }
  void at(std::size_t i) {
    if (!on_ || (i & 0x3FFF) != 0) return;
    const int pct = static_cast<int>(100 * i / total_);
    std::fprintf(stderr, "\r%s [%-40.*s] %3d%%", what_, pct * 40 / 100, "########################################", pct);
    std::fflush(stderr);
  }

 private:
  bool on_;
  const char* what_;
  std::size_t total_;
};

struct KeyHash {
  template <class K>
  std::size_t operator()(const K& k) const {
    return k.hash();
  }
};

}  // namespace

Session::Session(const XpXdk::xpChipProfile& profile, const RunOptions& options)
    : profile_(profile), options_(options) {}

void Session::program(const std::vector<Route>& routes) {
  agent_ = std::make_unique<XpLpmAgent>(profile_, XpLib::Agent::AgentOptions{.nextHopGroups = options_.nextHopGroups});
  const std::size_t chipBefore = agent_->chip().storedBytes();
  const std::size_t heapStart = heapInUse();
  Progress bar(options_.progress, "programming", routes.size());
  const auto t0 = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < routes.size(); ++i) {
    agent_->routeIs(routes[i]);
    bar.at(i);
  }
  figures_.programSeconds = since(t0);
  const std::size_t chipAfter = agent_->chip().storedBytes();
  const std::size_t heapEnd = heapInUse();
  // The library's model: what programming added to the heap, less what the simulated chip stored.
  figures_.memoryBytes = heapEnd > heapStart + (chipAfter - chipBefore) ? heapEnd - heapStart - (chipAfter - chipBefore) : 0;

  for (const Route& r : routes) {
    FamilyFigures& f = figures_.family[r.ipv6];
    ++f.requested;
    if (agent_->installed(r)) {
      ++f.installed;
      continue;
    }
    ++f.failed;
    const bool noGroupBlock = agent_->groupBlock(agent_->groupOf(r.nextHop)) == XpLib::Agent::NextHopBlock();
    const std::string code =
        noGroupBlock ? "nextHopTableFull" : XpLib::XpLpm::stringValue(agent_->family(r.ipv6).sm->lastInsertReturnCode());
    ++f.failuresByCode[code];
    if (figures_.failureSamples.size() < 10) figures_.failureSamples.push_back(r.prefixStr() + ": " + code);
  }
  // The yardstick: the same keys into a plain hash map, in this process.
  std::unordered_map<XpLib::VrfAndPrefix, XpLib::Agent::NextHopBlock, KeyHash> yard4;
  std::unordered_map<XpLib::VrfAndIp6Prefix, XpLib::Agent::NextHopBlock, KeyHash> yard6;
  const auto t1 = std::chrono::steady_clock::now();
  for (const Route& r : routes) {
    const XpLib::Agent::NextHopBlock block(static_cast<XpLib::U32>(r.nextHop % options_.nextHopGroups) * 8, 8);
    if (r.ipv6) {
      yard6[XpLib::VrfAndIp6Prefix{r.vrf, r.v6}] = block;
    } else {
      yard4[XpLib::VrfAndPrefix{r.vrf, r.v4}] = block;
    }
  }
  figures_.yardstickSeconds = since(t1);
}

void Session::survey() {
  for (bool v6 : {false, true}) {
    FamilyFigures& f = figures_.family[v6];
    const XpLib::Agent::ChipSurvey survey(agent_->chip(), v6, v6 ? profile_.ipv6 : profile_.ipv4);
    f.tables = survey.tableFill();
    f.nhi = survey.nhiFill();
    f.overlaps = survey.nhiOverlaps();
  }
}

void Session::verify(const std::vector<Route>& routes) {
  XpLib::Agent::ReferenceLpm ref;
  for (bool v6 : {false, true}) {
    for (const auto& [prefix, block] : agent_->family(v6).status->prefixToNextHopBlockMap()) {
      if (v6) {
        const auto& k = static_cast<const XpLib::XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix();
        ref.routeIs(k.vrf, k.prefix, block);
      } else {
        const auto& k = static_cast<const XpLib::XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix();
        ref.routeIs(k.vrf, k.prefix, block);
      }
    }
  }
  U64 probes = 0, mismatches = 0;
  auto check = [&](const XpXdk::xpLpmLookupResult& hit, const std::optional<XpLib::Agent::ReferenceMatch>& want,
                   U64 selector) {
    ++probes;
    bool ok;
    if (!want) {
      ok = !hit.hit;
    } else {
      const std::optional<XpXdk::xpNhEntry> e = agent_->chip().resolve(hit, selector);
      ok = hit.hit && hit.matchLength == want->len + 16u && hit.nextHopBlock.base == want->block.base().value() &&
           e && XpLpmAgent::groupOfEntry(*e) ==
                    agent_->nextHopSm()->baseIdxToSwId(XpLib::XpLpmNextHop::NextHopTableIdx(hit.nextHopBlock.base));
    }
    mismatches += !ok;
  };
  auto probe4 = [&](XpLib::U32 vrf, XpLib::U32 a) { check(agent_->lookup(vrf, a), ref.lookup(vrf, a), a); };
  auto probe6 = [&](XpLib::U32 vrf, const XpLib::Ip6Prefix::Bytes& a) {
    check(agent_->lookup(vrf, a), ref.lookup(vrf, a), a[15]);
  };
  Progress bar(options_.progress, "verifying", routes.size() + options_.probes);
  std::size_t n = 0;
  for (const Route& r : routes) {
    bar.at(n++);
    if (r.ipv6) {
      XpLib::Ip6Prefix::Bytes last = r.v6.address();
      for (int i = 0; i < 16; ++i) last[i] |= static_cast<XpLib::U8>(0xFF >> std::clamp(r.v6.len() - 8 * i, 0, 8));
      probe6(r.vrf, r.v6.address());
      probe6(r.vrf, last);
    } else {
      probe4(r.vrf, r.v4.address());
      probe4(r.vrf, r.v4.address() | ~XpLib::Prefix::mask(r.v4.len()));
    }
  }
  // Random addresses: half inside a random route, half anywhere in its family.
  std::mt19937_64 rng(options_.seed);
  for (U64 i = 0; i < options_.probes && !routes.empty(); ++i) {
    bar.at(n++);
    const Route& r = routes[rng() % routes.size()];
    const bool inside = i % 2 == 0;
    if (r.ipv6) {
      XpLib::Ip6Prefix::Bytes a;
      for (auto& b : a) b = static_cast<XpLib::U8>(rng());
      if (inside) {
        for (int k = 0; k < 16; ++k) {
          const XpLib::U8 keep = static_cast<XpLib::U8>(0xFF00 >> std::clamp(r.v6.len() - 8 * k, 0, 8));
          a[k] = static_cast<XpLib::U8>((r.v6.address()[k] & keep) | (a[k] & ~keep));
        }
      }
      probe6(r.vrf, a);
    } else {
      const XpLib::U32 random = static_cast<XpLib::U32>(rng());
      probe4(r.vrf, inside ? r.v4.address() | (random & ~XpLib::Prefix::mask(r.v4.len())) : random);
    }
  }
  figures_.verifyProbes = probes;
  figures_.verifyMismatches = mismatches;
}

U64 Session::digest() const {
  U64 d = 0xcbf29ce484222325ull;
  for (bool v6 : {false, true}) {
    d ^= agent_->family(v6).writer->counters().digest;
    d *= 0x100000001b3ull;
  }
  return d;
}

}  // namespace xplpm
