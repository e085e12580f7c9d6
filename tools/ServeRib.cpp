// Routes and next hops from FPM, resolved into next-hop sets and programmed through the agent.
#include "ServeRib.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "platform/Hash.h"

namespace xplpm {

using XpLib::U16;
using XpLib::U8;
using XpLib::Agent::Nway;
using XpLib::Agent::Route;
using XpLib::Agent::SwId;
using fpm::NextHopPath;

namespace {

const char* kindName(U8 kind) {
  switch (kind) {
    case RTN_BLACKHOLE: return "blackhole";
    case RTN_UNREACHABLE: return "unreachable";
    case RTN_PROHIBIT: return "prohibit";
    default: return "unicast";
  }
}

bool pathLess(const NextHopPath& a, const NextHopPath& b) {
  return std::tie(a.family, a.gateway, a.ifindex) < std::tie(b.family, b.gateway, b.ifindex);
}

// The set's identity: its kind, then each path's family, gateway and interface.
void setKey(U8 kind, const std::vector<NextHopPath>& paths, std::string& key) {
  key.assign(1, static_cast<char>(kind));
  for (const NextHopPath& p : paths) {
    key.push_back(static_cast<char>(p.family));
    key.append(reinterpret_cast<const char*>(p.gateway.data()), p.gateway.size());
    key.append(reinterpret_cast<const char*>(&p.ifindex), sizeof p.ifindex);
  }
}

// Group ids of sets lie in [2^40, 2^41): clear of the agent's default groups (below 2^16), its
// fillers (2^47 and up) and its scratch group, and within the 47 bits a next-hop entry keeps.
U64 groupIdOf(const std::string& key) { return (U64(1) << 40) | (XpLib::fnv1a(key) & ((U64(1) << 40) - 1)); }

}  // namespace

std::size_t ServeRib::KeyHash::operator()(const Key& k) const {
  U64 a = 0, b = 0;
  std::memcpy(&a, k.address.data(), 8);
  std::memcpy(&b, k.address.data() + 8, 8);
  U64 h = a * 0x9E3779B97F4A7C15ull ^ b * 0xC2B2AE3D27D4EB4Full;
  h ^= ((U64(k.vrf) << 9) | (U64(k.len) << 1) | k.v6) * 0x165667B19E3779F9ull;
  return static_cast<std::size_t>(h ^ (h >> 31));
}

ServeRib::ServeRib(XpLib::Agent::XpLpmAgent& agent, ServeRibOptions options)
    : agent_(agent), options_(std::move(options)), awaiting_(options_.warm), maxWidth_(agent.maxGroupWidth()) {
  for (const auto& [table, vrf] : options_.vrfOfTable) claimedVrfs_.push_back(vrf);
}

std::optional<U32> ServeRib::vrfOf(U32 table) const {
  if (auto it = options_.vrfOfTable.find(table); it != options_.vrfOfTable.end()) return it->second;
  if (table == 0 || table > 0xFFFF) return std::nullopt;
  const U32 vrf = table == RT_TABLE_MAIN ? 0 : table;
  if (std::find(claimedVrfs_.begin(), claimedVrfs_.end(), vrf) != claimedVrfs_.end()) return std::nullopt;
  return vrf;
}

// A route or object naming a set that exists (the common case) allocates nothing: the paths are
// put in order and the key built in buffers kept for the purpose.
U32 ServeRib::holdSet(U8 kind, const std::vector<NextHopPath>& given) {
  std::vector<NextHopPath>& paths = scratchPaths_;
  paths.clear();
  if (kind == RTN_UNICAST) {
    paths.assign(given.begin(), given.end());
    std::sort(paths.begin(), paths.end(), pathLess);
    paths.erase(std::unique(paths.begin(), paths.end(), [](const auto& a, const auto& b) { return a.sameWay(b); }),
                paths.end());
  }
  setKey(kind, paths, scratchKey_);
  if (const auto held = setByKey_.find(scratchKey_); held != setByKey_.end()) {
    ++sets_[held->second].holders;
    return held->second;
  }
  const auto it = setByKey_.emplace(scratchKey_, 0).first;
  U32 index = static_cast<U32>(sets_.size());
  if (!freeSets_.empty()) {
    index = freeSets_.back();
    freeSets_.pop_back();
  } else {
    sets_.emplace_back();
  }
  Set& s = sets_[index];
  s = Set{};
  s.key = it->first;
  s.kind = kind;
  if (paths.size() > maxWidth_) {
    ++trimmed_;
    paths.resize(maxWidth_);
  }
  s.width = static_cast<U16>(std::max<std::size_t>(paths.size(), 1));
  s.paths = paths;
  U64 id = groupIdOf(s.key);
  while (setByGroup_.contains(id)) ++id;
  s.group = SwId(id);
  setByGroup_[id] = index;
  s.holders = 1;
  it->second = index;
  return index;
}

void ServeRib::dropHolder(U32 set) {
  if (set == kNoSet) return;
  --sets_[set].holders;
  forgetIfUnused(set);
}

void ServeRib::forgetIfUnused(U32 set) {
  Set& s = sets_[set];
  if (s.holders > 0 || s.routes > 0 || s.live) return;
  setByKey_.erase(s.key);
  setByGroup_.erase(s.group.value());
  s = Set{};
  freeSets_.push_back(set);
}

void ServeRib::releaseRoute(U32 set) {
  Set& s = sets_[set];
  --s.routes;
  if (s.routes > 0) return;
  if (s.live) {
    agent_.groupDel(s.group);
    s.live = false;
  }
  forgetIfUnused(set);
}

U32 ServeRib::resolve(const NextHopObject& o) {
  if (o.blackhole) return holdSet(RTN_BLACKHOLE, {});
  if (o.group.empty()) return o.path.family || o.path.ifindex ? holdSet(RTN_UNICAST, {o.path}) : kNoSet;
  std::vector<NextHopPath> paths;
  bool blackhole = false;
  for (const auto& member : o.group) {
    const auto it = nextHops_.find(member.id);
    if (it == nextHops_.end() || !it->second.group.empty() || it->second.set == kNoSet) return kNoSet;
    if (it->second.blackhole) {
      blackhole = true;
      continue;
    }
    paths.push_back(it->second.path);
    paths.back().weight = member.weight;
  }
  if (paths.empty()) return blackhole ? holdSet(RTN_BLACKHOLE, {}) : kNoSet;
  return holdSet(RTN_UNICAST, paths);
}

U32 ServeRib::effectiveSet(const Entry& e) const {
  if (e.nhId == 0) return e.ownSet;
  const auto it = nextHops_.find(e.nhId);
  return it == nextHops_.end() ? kNoSet : it->second.set;
}

Route ServeRib::agentRoute(const Key& k, U32 set) const {
  Route r;
  r.ipv6 = k.v6;
  r.vrf = k.vrf;
  if (k.v6) {
    r.v6 = XpLib::Ip6Prefix(k.address, k.len);
  } else {
    r.v4 = XpLib::Prefix((U32(k.address[0]) << 24) | (U32(k.address[1]) << 16) | (U32(k.address[2]) << 8) | k.address[3],
                         k.len);
  }
  if (set != kNoSet) r.group = sets_[set].group;
  return r;
}

void ServeRib::program(const Key& k, Entry& e) {
  const U32 set = effectiveSet(e);
  if (set == kNoSet) {
    unprogram(k, e);
    return;
  }
  if (!sets_[set].live) {
    agent_.groupWidthIs(sets_[set].group, Nway(sets_[set].width));
    sets_[set].live = true;
  }
  if (!agent_.routeIs(agentRoute(k, set)).installed()) ++counts_.programFailures;
  holdIn(e, set);
}

void ServeRib::unprogram(const Key& k, Entry& e) {
  if (e.programmedSet == kNoSet) return;
  agent_.routeDel(agentRoute(k, e.programmedSet));
  holdIn(e, kNoSet);
}

void ServeRib::holdIn(Entry& e, U32 set) {
  if (e.programmedSet == set) return;
  if (set != kNoSet) ++sets_[set].routes;
  const U32 old = std::exchange(e.programmedSet, set);
  if (old != kNoSet) releaseRoute(old);
}

void ServeRib::erase(const Key& k) {
  const auto it = routes_.find(k);
  if (it == routes_.end()) return;
  unprogram(k, it->second);
  dropHolder(it->second.ownSet);
  routes_.erase(it);
}

void ServeRib::markDirty(const Key& k, Entry& e) {
  if (e.dirty) return;
  e.dirty = true;
  dirty_.push_back(k);
}

void ServeRib::route(const fpm::RouteMessage& m) {
  ++(m.add ? counts_.received : counts_.withdrawn)[m.ipv6];
  const std::optional<U32> vrf = vrfOf(m.table);
  if (!vrf) {
    ++counts_.unmapped;
    return;
  }
  const Key k{m.ipv6, *vrf, m.dst, m.len};
  if (!m.add) {
    erase(k);
    return;
  }
  Entry& e = routes_[k];
  const U32 oldOwn = e.ownSet;
  e.nhId = 0;
  e.ownSet = kNoSet;
  if (m.type != RTN_UNICAST) {
    e.ownSet = holdSet(m.type, {});
  } else if (m.nhId) {
    e.nhId = *m.nhId;
    if (!nextHops_.contains(e.nhId)) ++unresolvedRoutes_;
  } else if (!m.paths.empty()) {
    e.ownSet = holdSet(RTN_UNICAST, m.paths);
  }
  dropHolder(oldOwn);
  e.table = m.table;
  e.protocol = m.protocol;
  e.type = m.type;
  e.hasPriority = m.priority.has_value();
  e.priority = m.priority.value_or(0);
  e.epoch = epoch_;
  e.told = 0;  // every announcement is answered, changed or not
  if (!awaiting_) program(k, e);
  markDirty(k, e);
}

void ServeRib::nextHop(const fpm::NextHopMessage& m) {
  ++counts_.nextHopMessages;
  auto it = nextHops_.find(m.id);
  if (!m.add) {
    if (it == nextHops_.end()) return;
    const U32 old = it->second.set;
    forgetNextHop(m.id);
    nextHopChanged(m.id, old);
    dropHolder(old);
    return;
  }
  const bool fresh = it == nextHops_.end();
  if (fresh) it = nextHops_.emplace(m.id, NextHopObject{}).first;
  NextHopObject& o = it->second;
  o.epoch = epoch_;
  if (!fresh && o.blackhole == m.blackhole && o.path == m.path && o.group == m.group) return;
  indexGroup(m.id, o.group, false);
  o.blackhole = m.blackhole;
  o.path = m.path;
  o.group = m.group;
  indexGroup(m.id, o.group, true);
  const U32 old = o.set;
  o.set = resolve(o);
  if (o.set != old) nextHopChanged(m.id, old);
  dropHolder(old);
}

void ServeRib::indexGroup(U32 id, const std::vector<fpm::NextHopMessage::Member>& members, bool add) {
  for (const auto& member : members) {
    std::vector<U32>& groups = groupsWith_[member.id];
    if (add) {
      groups.push_back(id);
    } else if (const auto at = std::find(groups.begin(), groups.end(), id); at != groups.end()) {
      groups.erase(at);
    }
    if (groups.empty()) groupsWith_.erase(member.id);
  }
}

void ServeRib::forgetNextHop(U32 id) {
  const auto it = nextHops_.find(id);
  indexGroup(id, it->second.group, false);
  nextHops_.erase(it);
}

void ServeRib::nextHopChanged(U32 id, U32 oldSet) {
  // Groups resolve anew when an object they name changes (zebra may send a group before its
  // members), and so on up; routes naming any of them are programmed again.
  std::vector<U32> changed{id};
  bool wasResolved = oldSet != kNoSet;
  for (std::size_t i = 0; i < changed.size(); ++i) {
    const auto groups = groupsWith_.find(changed[i]);
    if (groups == groupsWith_.end()) continue;
    for (U32 groupId : groups->second) {
      NextHopObject& g = nextHops_.at(groupId);
      const U32 before = g.set;
      g.set = resolve(g);
      if (g.set != before) {
        changed.push_back(groupId);
        wasResolved = wasResolved || before != kNoSet;
      }
      dropHolder(before);
    }
  }
  // A route names an object only once it is known, unless routes came before their objects.
  if (awaiting_ || (!wasResolved && unresolvedRoutes_ == 0)) return;
  const std::unordered_set<U32> ids(changed.begin(), changed.end());
  unresolvedRoutes_ = 0;
  for (auto& [k, e] : routes_) {
    if (e.nhId == 0) continue;
    if (ids.contains(e.nhId)) {
      program(k, e);
      markDirty(k, e);
    }
    unresolvedRoutes_ += effectiveSet(e) == kNoSet;
  }
}

void ServeRib::sweepStale() {
  std::vector<Key> stale;
  for (const auto& [k, e] : routes_)
    if (e.epoch < epoch_) stale.push_back(k);
  for (const Key& k : stale) erase(k);
  counts_.routesSwept += stale.size();
  // Stale objects that nothing names any more: groups first, then what they named.
  std::unordered_set<U32> named;
  for (const auto& [k, e] : routes_)
    if (e.nhId) named.insert(e.nhId);
  for (bool groups : {true, false}) {
    std::vector<U32> gone;
    for (const auto& [id, o] : nextHops_)
      if (o.epoch < epoch_ && o.group.empty() != groups && !named.contains(id)) gone.push_back(id);
    for (U32 id : gone) {
      const U32 set = nextHops_[id].set;
      forgetNextHop(id);
      dropHolder(set);
    }
    for (const auto& [id, o] : nextHops_)
      for (const auto& g : o.group) named.insert(g.id);
  }
}

XpLib::Agent::XpLpmAgent::ReconcileReport ServeRib::reconcile() {
  const U64 sweptBefore = counts_.routesSwept;
  sweepStale();
  std::vector<Route> wanted;
  wanted.reserve(routes_.size());
  std::vector<std::pair<SwId, Nway>> widths;
  std::vector<bool> named(sets_.size(), false);
  for (auto& [k, e] : routes_) {
    markDirty(k, e);
    const U32 set = effectiveSet(e);
    if (set == kNoSet) {
      unprogram(k, e);
      continue;
    }
    if (!named[set]) {
      named[set] = true;
      sets_[set].live = true;
      widths.emplace_back(sets_[set].group, Nway(sets_[set].width));
    }
    holdIn(e, set);
    wanted.push_back(agentRoute(k, set));
  }
  auto report = agent_.reconcile(wanted, widths);
  report.withdrawn += counts_.routesSwept - sweptBefore;
  awaiting_ = false;
  return report;
}

std::pair<U64, U64> ServeRib::feedback(std::string& frames) {
  if (awaiting_) return {0, 0};  // told at reconciliation
  U64 offloaded = 0, failed = 0;
  fpm::RouteMessage m;
  for (const Key& k : dirty_) {
    const auto it = routes_.find(k);
    if (it == routes_.end()) continue;
    Entry& e = it->second;
    e.dirty = false;
    const bool installed = e.programmedSet != kNoSet && agent_.installed(agentRoute(k, e.programmedSet));
    const U8 state = installed ? 1 : 2;
    if (state == e.told) continue;
    e.told = state;
    m.ipv6 = k.v6;
    m.dst = k.address;
    m.len = k.len;
    m.table = e.table;
    m.protocol = e.protocol;
    m.type = e.type;
    m.flags = installed ? RTM_F_OFFLOAD : RTM_F_OFFLOAD_FAILED;
    m.priority = e.hasPriority ? std::optional<U32>(e.priority) : std::nullopt;
    m.nhId = e.nhId ? std::optional<U32>(e.nhId) : std::nullopt;
    scratch_.clear();
    fpm::appendRoute(scratch_, m);
    fpm::appendFrame(frames, scratch_);
    ++(installed ? offloaded : failed);
  }
  dirty_.clear();
  return {offloaded, failed};
}

std::vector<Route> ServeRib::resolvedRoutes() const {
  std::vector<Route> out;
  out.reserve(routes_.size());
  for (const auto& [k, e] : routes_)
    if (e.programmedSet != kNoSet) out.push_back(agentRoute(k, e.programmedSet));
  return out;
}

U64 ServeRib::unresolved(bool v6) const {
  if (awaiting_) return 0;
  U64 n = 0;
  for (const auto& [k, e] : routes_) n += k.v6 == v6 && e.programmedSet == kNoSet;
  return n;
}

U64 ServeRib::pending(bool v6) const {
  if (!awaiting_) return 0;
  U64 n = 0;
  for (const auto& [k, e] : routes_) n += k.v6 == v6;
  return n;
}

std::map<U32, U64> ServeRib::groupWidths() const {
  std::map<U32, U64> widths;
  for (const Set& s : sets_)
    if (s.live) ++widths[s.width];
  return widths;
}

std::string ServeRib::setText(U32 set) const {
  const Set& s = sets_[set];
  if (s.kind != RTN_UNICAST) return kindName(s.kind);
  std::string text;
  for (const NextHopPath& p : s.paths) {
    if (!text.empty()) text += ',';
    text += fpm::gatewayStr(p) + "@" + std::to_string(p.ifindex);
  }
  return text;
}

void ServeRib::writeFib(std::ostream& out) {
  std::vector<Key> keys;
  keys.reserve(routes_.size());
  for (const auto& [k, e] : routes_) keys.push_back(k);
  std::sort(keys.begin(), keys.end());
  for (const Key& k : keys) {
    const Entry& e = routes_.at(k);
    const U32 set = effectiveSet(e);
    const Route r = agentRoute(k, set);
    std::string state = "pending";
    if (!awaiting_) {
      state = e.programmedSet == kNoSet ? "unresolvedNextHop"
              : agent_.installed(r)     ? "installed"
                                        : agent_.routeState(r).code();
    }
    const std::string hops = set != kNoSet ? setText(set) : "nh#" + std::to_string(e.nhId);
    out << k.vrf << ' ' << r.prefixStr() << ' ' << state << ' ' << hops << '\n';
  }
}

}  // namespace xplpm
