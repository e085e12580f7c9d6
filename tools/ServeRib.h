// The routing stack's table as it arrives over FPM, and how the agent programs it.
//
// Next hops. A route names its next hops by a next-hop object (RTA_NH_ID, as zebra
// sends them by default) or carries them (RTA_GATEWAY/RTA_OIF, RTA_MULTIPATH);
// either way they resolve to a set of paths (gateway and interface; weights are not
// programmed). Every distinct set is one next-hop group of the agent, as wide as the
// set has paths, and identical sets share it, whoever names them. A blackhole,
// unreachable or prohibit route goes to a one-entry group of its kind, which a real
// agent points at a drop (or ICMP) action. A group is placed when its first route
// comes and released when its last route goes. A set wider than the next-hop
// manager's widest block keeps its first paths (by address) and is counted as
// trimmed: traffic keeps flowing on a subset rather than not at all.
//
// Group ids. A set's group id is a hash of the set, so that an agent restarted
// over a chip that kept its next-hop table finds each set's group where it left
// it, with no state beyond the chip's memory.
//
// VRFs. The main table (254) is VRF 0, table T is VRF T (1 to 65535); --vrf TABLE=VRF
// maps a table explicitly. A table whose VRF another mapping claims, table 0 and
// tables above 65535 are not programmed and are counted as unmapped.
//
// Replace semantics. Each connection of the peer is an epoch: zebra resends its
// whole table when it reconnects. Routes and next-hop objects not sent again in the
// current epoch are withdrawn at the next reconciliation, never before.
//
// Warm start. Over a chip that kept its tables, nothing is programmed until the
// first reconciliation: the table received by then is handed to the agent's reconcile
// as a whole, so that routes that came back unchanged write nothing.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

#include "Session.h"
#include "agent/XpLpmAgent.h"
#include "fpm/FpmWire.h"

namespace xplpm {

struct ServeRibOptions {
  std::map<U32, U32> vrfOfTable;  // --vrf TABLE=VRF
  bool warm = false;              // program nothing before the first reconciliation
};

class ServeRib {
 public:
  ServeRib(XpLib::Agent::XpLpmAgent& agent, ServeRibOptions options);

  void route(const fpm::RouteMessage& m);
  void nextHop(const fpm::NextHopMessage& m);
  // A new connection of the peer: what it does not send again is stale.
  void newEpoch() { ++epoch_; }
  // Withdraws stale routes and next hops, then hands every wanted route and group width to the
  // agent's reconcile, which also retries the routes that failed.
  XpLib::Agent::XpLpmAgent::ReconcileReport reconcile();
  bool awaitingReconcile() const { return awaiting_; }

  // Appends an FPM frame per route whose offload state changed since it was last told:
  // RTM_F_OFFLOAD once installed, RTM_F_OFFLOAD_FAILED when not. Returns how many of each.
  std::pair<U64, U64> feedback(std::string& frames);

  struct Counts {
    U64 received[2] = {0, 0}, withdrawn[2] = {0, 0};  // route messages by family
    U64 unmapped = 0;                                 // routes of a table no VRF takes
    U64 nextHopMessages = 0;
    U64 routesSwept = 0;  // stale routes withdrawn at reconciliation
    U64 programFailures = 0;  // route requests the agent did not place, as they happened
  };
  const Counts& counts() const { return counts_; }
  // The wanted routes whose next hops resolve, as the agent knows them.
  std::vector<XpLib::Agent::Route> resolvedRoutes() const;
  // Routes wanted but not programmed, by family: next hops unknown, or waiting for reconciliation.
  U64 unresolved(bool v6) const;
  U64 pending(bool v6) const;
  U64 routes() const { return routes_.size(); }
  // Live groups by width, and how many sets were trimmed to the widest group.
  std::map<U32, U64> groupWidths() const;
  U64 trimmedSets() const { return trimmed_; }
  // One line per route, ordered: "VRF PREFIX STATE NEXTHOPS", NEXTHOPS comma-separated
  // "GATEWAY@IFINDEX" (or "@IFINDEX", "blackhole", "unreachable", "prohibit").
  void writeFib(std::ostream& out);

 private:
  static constexpr U32 kNoSet = ~U32(0);

  struct Key {  // ordered by family, VRF, then prefix
    bool v6 = false;
    U32 vrf = 0;
    std::array<XpLib::U8, 16> address{};
    XpLib::U8 len = 0;
    bool operator==(const Key&) const = default;
    auto operator<=>(const Key&) const = default;
  };
  struct KeyHash {
    std::size_t operator()(const Key& k) const;
  };
  struct Entry {
    U32 nhId = 0;                // the next-hop object it names; 0: its own set
    U32 ownSet = kNoSet;         // its own paths, or its kind (blackhole...)
    U32 programmedSet = kNoSet;  // the set whose group the agent holds it in
    U32 table = 0, priority = 0, epoch = 0;
    XpLib::U8 protocol = 0, type = 0;
    bool hasPriority = false, dirty = false;
    XpLib::U8 told = 0;  // 0 nothing yet, 1 offloaded, 2 failed
  };
  struct Set {
    std::string key;
    std::vector<fpm::NextHopPath> paths;
    XpLib::U8 kind = 0;  // RTN_UNICAST, RTN_BLACKHOLE, RTN_UNREACHABLE, RTN_PROHIBIT
    XpLib::Agent::SwId group;
    XpLib::U16 width = 1;
    U32 holders = 0;  // routes and next-hop objects naming it
    U32 routes = 0;   // routes the agent holds in its group
    bool live = false;  // the agent has the group
  };
  struct NextHopObject {
    U32 set = kNoSet;
    bool blackhole = false;
    fpm::NextHopPath path;
    std::vector<fpm::NextHopMessage::Member> group;
    U32 epoch = 0;
  };

  std::optional<U32> vrfOf(U32 table) const;
  // The set of these paths (or of this kind), interned, with one more holder.
  U32 holdSet(XpLib::U8 kind, const std::vector<fpm::NextHopPath>& paths);
  void dropHolder(U32 set);
  void forgetIfUnused(U32 set);
  void releaseRoute(U32 set);
  // Moves the route's hold on a set (the routes counted in the agent's group) to `set`, or none.
  void holdIn(Entry& e, U32 set);
  U32 resolve(const NextHopObject& o);
  U32 effectiveSet(const Entry& e) const;
  XpLib::Agent::Route agentRoute(const Key& k, U32 set) const;
  // Programs the route as its next hops now resolve (live, after the first reconciliation).
  void program(const Key& k, Entry& e);
  void unprogram(const Key& k, Entry& e);
  void erase(const Key& k);
  // After object `id` changed from `oldSet`: re-resolves the groups that name it, and reprograms
  // the routes of every object whose set changed.
  void nextHopChanged(U32 id, U32 oldSet);
  void indexGroup(U32 id, const std::vector<fpm::NextHopMessage::Member>& members, bool add);
  void forgetNextHop(U32 id);
  void sweepStale();
  void markDirty(const Key& k, Entry& e);
  std::string setText(U32 set) const;

  XpLib::Agent::XpLpmAgent& agent_;
  ServeRibOptions options_;
  std::vector<U32> claimedVrfs_;
  bool awaiting_;
  U32 epoch_ = 0;
  U32 maxWidth_;
  std::unordered_map<Key, Entry, KeyHash> routes_;
  std::vector<Set> sets_;
  std::vector<U32> freeSets_;
  std::unordered_map<std::string, U32> setByKey_;
  std::vector<fpm::NextHopPath> scratchPaths_;  // holdSet's buffers
  std::string scratchKey_;
  std::unordered_map<XpLib::U64, U32> setByGroup_;
  std::unordered_map<U32, NextHopObject> nextHops_;
  std::unordered_map<U32, std::vector<U32>> groupsWith_;  // member id -> the group objects naming it
  std::vector<Key> dirty_;
  U64 unresolvedRoutes_ = 0;  // routes whose object is unknown, kept up to date only roughly: a hint to rescan
  U64 trimmed_ = 0;
  Counts counts_;
  std::string scratch_;
};

}  // namespace xplpm
