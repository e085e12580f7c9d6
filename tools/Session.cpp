// Programming, measuring and verifying one chip.
#include "Session.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <cstdio>
#include <random>

#include "Errors.h"
#include "Yardstick.h"
#include "agent/Forwarding.h"
#include "agent/HeapInUse.h"
#include "platform/Hash.h"

namespace xplpm {

using XpLib::Agent::heapInUse;
using XpLib::Agent::Route;
using XpLib::Agent::XpLpmAgent;

namespace {

double since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

double writerSeconds(const XpLpmAgent& agent) {
  return agent.family(false).writer->seconds() + agent.family(true).writer->seconds();
}

}  // namespace

Progress::~Progress() {
  if (on_) std::fprintf(stderr, "\r%-60s\r", "");
}

void Progress::show(std::size_t i) {
  const int pct = static_cast<int>(100 * i / total_);
  std::fprintf(stderr, "\r%s [%-40.*s] %3d%%", what_, pct * 40 / 100, "########################################", pct);
  std::fflush(stderr);
  next_ = i + std::max<std::size_t>(1, total_ / 100);
}

Tally tally(XpLpmAgent& agent, const std::vector<Route>& routes) {
  Tally t;
  for (const Route& r : routes) {
    const bool v6 = r.ipv6;
    Tally::Length& length = t.byLength[{v6, v6 ? r.v6.len() : r.v4.len()}];
    ++t.requested[v6];
    ++length.requested;
    const XpLib::Agent::RouteResult result = agent.routeState(r);
    const bool placed = agent.installed(r);
    if (placed && result.installed()) {
      ++t.installed[v6];
      continue;
    }
    const std::string code = placed != result.installed() ? "inconsistent" : result.code();
    ++length.failed;
    ++t.failuresByCode[code];
    if (t.samples.size() < 10) t.samples.push_back(r.prefixStr() + ": " + code);
  }
  return t;
}

std::shared_ptr<XpLib::Agent::SimulatedChip> newChip(const XpXdk::xpChipProfile& profile) {
  try {
    return std::make_shared<XpLib::Agent::SimulatedChip>(profile);
  } catch (const std::invalid_argument& e) {
    badInput("profile " + profile.name, std::string("the simulated chip cannot be built: ") + e.what());
  }
}

std::unique_ptr<XpLpmAgent> startAgent(const XpXdk::xpChipProfile& profile, const XpLib::Agent::AgentOptions& options,
                                       std::shared_ptr<XpLib::Agent::ChipPort> chip, XpLpmAgent::Start start) {
  if (!chip) {
    chip = newChip(profile);
    start = XpLpmAgent::Start::cold;
  }
  try {
    return std::make_unique<XpLpmAgent>(profile, std::move(chip), start, options);
  } catch (const XpLib::Agent::AgentError& e) {
    badInput("profile " + profile.name, std::string("the agent cannot run this chip: ") + e.what());
  }
}

Session::Session(const XpXdk::xpChipProfile& profile, const RunOptions& options)
    : profile_(profile), options_(options) {}

namespace {
// Every write the chip refused: prefix and NHI entries, and next-hop table entries.
U64 refusedWrites(const XpLpmAgent& agent) {
  U64 errors = agent.counters().nextHopErrors;
  for (bool v6 : {false, true}) errors += agent.family(v6).writer->counters().errors;
  return errors;
}
}  // namespace

void Session::agentIs(std::unique_ptr<XpLpmAgent> a) {
  if (agent_) earlierErrors_ += refusedWrites(*agent_);
  agent_ = std::move(a);
}

U64 Session::hardwareErrors() const { return earlierErrors_ + (agent_ ? refusedWrites(*agent_) : 0); }

void Session::program(const std::vector<Route>& routes) {
  request(routes.size(), [&](std::size_t i) { return std::pair(false, &routes[i]); }, routes);
}

void Session::replay(const std::vector<RouteOp>& ops, const std::vector<Route>& wanted) {
  request(ops.size(), [&](std::size_t i) { return std::pair(ops[i].withdraw, &ops[i].route); }, wanted);
}

void Session::request(std::size_t n, const RequestAt& at, const std::vector<Route>& wanted) {
  if (!agent_) agent_ = startAgent(profile_, options_.agent);
  const std::size_t chipBefore = agent_->chip().storedBytes();
  const std::size_t heapStart = heapInUse();
  Progress bar(options_.progress, "programming", n);
  const double library0 = agent_->librarySeconds(), writer0 = writerSeconds(*agent_), cpu0 = cpuSeconds();
  const auto t0 = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < n; ++i) {
    // Each route's key is a cache miss in a full table: asked for well before it is needed.
    if (i + 8 < n) agent_->prefetchRoute(*at(i + 8).second, 0);
    if (i + 4 < n) agent_->prefetchRoute(*at(i + 4).second, 1);
    const auto [withdraw, route] = at(i);
    if (withdraw) {
      agent_->routeDel(*route);
    } else {
      agent_->routeIs(*route);
    }
    bar.at(i);
  }
  figures_.programSeconds = since(t0);
  figures_.programCpuSeconds = cpuSeconds() - cpu0;
  figures_.librarySeconds = agent_->librarySeconds() - library0;
  figures_.writerSeconds = writerSeconds(*agent_) - writer0;
  const std::size_t chipAfter = agent_->chip().storedBytes();
  const std::size_t heapEnd = heapInUse();
  // The library's model: what programming added to the heap, less what the simulated chip stored.
  figures_.memoryBytes = heapEnd > heapStart + (chipAfter - chipBefore) ? heapEnd - heapStart - (chipAfter - chipBefore) : 0;
  // Counted once every route is in: a later group move may have withdrawn an earlier route.
  figures_.programmed = tally(*agent_, wanted);
  // The yardstick: the same requests into a map that only stores them, set up before it is timed.
  std::size_t keys[2] = {0, 0};
  for (std::size_t i = 0; i < n; ++i) ++keys[at(i).second->ipv6];
  Yardstick<XpLib::VrfAndPrefix> yard4(keys[0]);
  Yardstick<XpLib::VrfAndIp6Prefix> yard6(keys[1]);
  const auto t1 = std::chrono::steady_clock::now();
  for (std::size_t i = 0; i < n; ++i) {
    const auto [withdraw, route] = at(i);
    const Route& r = *route;
    const XpLib::Agent::NextHopBlock block(static_cast<XpLib::U32>(r.nextHop % options_.agent.nextHopGroups) * 8, 8);
    if (r.ipv6 && withdraw) {
      yard6.erase(XpLib::VrfAndIp6Prefix{r.vrf, r.v6});
    } else if (r.ipv6) {
      yard6.set(XpLib::VrfAndIp6Prefix{r.vrf, r.v6}, block);
    } else if (withdraw) {
      yard4.erase(XpLib::VrfAndPrefix{r.vrf, r.v4});
    } else {
      yard4.set(XpLib::VrfAndPrefix{r.vrf, r.v4}, block);
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

namespace {

// Looks addresses up and counts the ones the chip forwards otherwise than the reference does.
class Prober {
 public:
  explicit Prober(const XpLpmAgent& agent) : check_(agent) {}

  // The first and last address of the route.
  void ends(const Route& r) {
    if (r.ipv6) {
      probe(r.vrf, r.v6.address());
      probe(r.vrf, XpLib::Agent::lastAddress(r.v6));
    } else {
      probe(r.vrf, r.v4.address());
      probe(r.vrf, XpLib::Agent::lastAddress(r.v4));
    }
  }
  // A random address inside the route, or anywhere in its family.
  void random(const Route& r, bool inside, std::mt19937_64& rng) {
    if (!r.ipv6) {
      probe(r.vrf, inside ? XpLib::Agent::randomAddressIn(r.v4, rng) : static_cast<XpLib::U32>(rng()));
      return;
    }
    const XpLib::Ip6Prefix anywhere;  // ::/0
    probe(r.vrf, XpLib::Agent::randomAddressIn(inside ? r.v6 : anywhere, rng));
  }

  U64 probes = 0, mismatches = 0;

 private:
  template <class Address>
  void probe(XpLib::U32 vrf, const Address& a) {
    ++probes;
    mismatches += !check_.correct(vrf, a);
  }

  XpLib::Agent::Forwarding check_;
};

}  // namespace

void Session::verify(const std::vector<Route>& routes) {
  Prober prober(*agent_);
  Progress bar(options_.progress, "verifying", routes.size() + options_.probes);
  std::size_t n = 0;
  for (const Route& r : routes) {
    bar.at(n++);
    prober.ends(r);
  }
  // Random addresses: half inside a random route, half anywhere in its family.
  std::mt19937_64 rng(options_.seed);
  for (U64 i = 0; i < options_.probes && !routes.empty(); ++i) {
    bar.at(n++);
    prober.random(routes[rng() % routes.size()], i % 2 == 0, rng);
  }
  figures_.verifyProbes = prober.probes;
  figures_.verifyMismatches = prober.mismatches;
}

U64 Session::digest() const {
  U64 d = XpLib::kFnv1aOffset;
  for (bool v6 : {false, true}) {
    d ^= agent_->family(v6).writer->counters().digest;
    d *= XpLib::kFnv1aPrime;
  }
  return d;
}

}  // namespace xplpm
