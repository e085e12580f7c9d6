// XpLpmAgent: what a forwarding agent writes around the library. It owns the
// configuration and status entities, derives the configuration from the chip's
// table contexts, runs one LpmSm per address family and the LpmNextHopSm, and
// writes every change into the chip.
//
// Next-hop groups. Next hop n of a route belongs to group n % nextHopGroups
// (SwId = the group number), whose width is 1, 2, 4 or 8 in turn over the
// groups unless set. A group gets its block of the next-hop table from
// LpmNextHopSm, and a route's NextHopBlock is its group's block. A route whose
// group has no block (table full) stays unprogrammed and is reported.
//
// Order of the two state machines' writes, per next-hop request:
//   1. the request runs; LpmNextHopSm may compact the table and queue moves;
//   2. each move, in queue order: the group's entries are copied from the old
//      block to the new one in the chip, then every route of the group is
//      re-requested with the new block and its LPM writes drained, before the
//      next move is touched (a later move may land on this group's old place);
//   3. the requesting group's new block, if any, is written, then its routes
//      are re-pointed the same way.
// The allocator gives a resized group's old block back at once, but nothing
// else is placed until the next request, and by then no route points there.
// A route whose re-pointing fails (no NHI room) is withdrawn rather than left
// on a block that may soon belong to another group.
//
// Warm restart. A new agent can be started over a chip that kept its memory.
// Each LpmSm then rebuilds its model from the chip (AgentRestartHelper) and
// replays it; the groups get back the blocks they had. LpmNextHopSm cannot be
// told where to place a block, but on an empty table its best fit takes the
// lowest free entries, so the agent requests the recovered groups in ascending
// base order, with filler groups standing in the gaps, then drops the fillers:
// the manager's own allocation reproduces the recovered layout exactly. The
// groups are the blocks the recovered routes point at, named by the entries of
// the next-hop table (each holds its group and member). reconcile() then
// brings the recovered routes in line with the routes wanted: unchanged ones
// write nothing.
#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "XpLpm/XpLpmSm.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "XpLpmNextHop/XpLpmNextHopSm.h"
#include "agent/HwWriter.h"
#include "agent/ChipPort.h"
#include "xdk/xpChipProfiles.h"

namespace XpLib {
namespace Agent {

using XpLpmNextHop::NextHopBlock;
using XpLpmNextHop::Nway;
using XpLpmNextHop::SwId;

// One route as the control plane gives it.
struct Route {
  bool ipv6 = false;
  U32 vrf = 0;
  Prefix v4;
  Ip6Prefix v6;
  U64 nextHop = 0;
  // The next-hop group, when the control plane names one (an ECMP set, say); otherwise the route
  // goes to group nextHop % nextHopGroups.
  SwId group;

  std::string prefixStr() const { return ipv6 ? v6.str() : v4.str(); }
};

// How an agent runs its library. The defaults are what a switch should run with; the
// alternatives reproduce the library's plain behaviour for comparisons.
struct AgentOptions {
  // Next hop n of a route belongs to group n % nextHopGroups.
  U32 nextHopGroups = 256;
  // Files every NHI block under the tile whose allocator holds it. With several tiles the
  // library's own rule files a block under the first tile it visited, while its entries come
  // from another tile: after a warm restart the recovered blocks are claimed in the tile the
  // chip names, and new blocks are then written over them (see LpmSm::nhiOwnTileFilingEnabled).
  bool nhiOwnTileFiling = true;
  // Refuses a route insert or next-hop change that could leave a later withdrawal without a tile
  // with room for the block it needs: the library stops the process on such a withdrawal.
  bool nhiReserve = true;
};

// What became of a route: placed in the chip, or why not.
enum class RouteState : U8 {
  installed,
  lpmRefused,        // the state machine could not place it; lpmCode says why
  nextHopTableFull,  // its group has no block in the next-hop table
  nhiReserve,        // refused to keep room for later withdrawals
  nhiTableFull,      // a next-hop change or re-pointing found no NHI room, so it was withdrawn
};

struct RouteResult {
  RouteState state = RouteState::installed;
  XpLpm::RouteReturnCode lpmCode = XpLpm::pass;  // when state is lpmRefused

  bool installed() const { return state == RouteState::installed; }
  // "installed", or the failure code: the state machine's return code, nextHopTableFull,
  // nhiReserve or nhiTableFull.
  std::string code() const;
  bool operator==(const RouteResult&) const = default;
};

// The outcome of a group width request.
enum class GroupResult { placed, noRoom, badWidth };

// A configuration the agent cannot run with: a chip whose geometry differs from what the
// configurator derived, or an environment variable the library would misread.
class AgentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Problems with the environment variables the library reads, for a chip of this profile: each
// one names the variable and what is wrong. Empty when there are none.
std::vector<std::string> environmentProblems(const XpXdk::xpChipProfile& profile);

struct AgentCounters {
  U64 nextHopWrites = 0;       // next-hop table entries written for groups
  U64 nextHopErrors = 0;       // next-hop table writes the chip refused
  U64 nextHopCopies = 0;       // entries copied by moves
  U64 shuffles = 0;            // group moves applied
  U64 routesRepointed = 0;     // route re-requests caused by group moves and resizes
  U64 routesWithdrawnOnMove = 0;
  // Moves whose new block overlaps the old one: the group's routes were first pointed at a copy
  // elsewhere, so that none of them reads an entry while it is overwritten.
  U64 shufflesStaged = 0;
  // Such moves made in place, for want of free entries for the copy: the group's routes may meet
  // another member of their group while the entries shift.
  U64 shufflesUnstaged = 0;
  // Withdrawals held back because the library would have found no NHI room for them.
  U64 withdrawalsHeld = 0;
};

class XpLpmAgent {
 public:
  struct Family {
    Ptr<XpLpm::ConfigBase> config;
    Ptr<XpLpm::Status> status;
    Ptr<XpLpm::LpmSm> sm;
    std::unique_ptr<HwWriter> writer;
    // The largest NHI block a sub-trie can need, for the reserve.
    U64 largestNhiBlock = 0;
  };

  // A new simulated chip of this profile, configured and started empty. Throws AgentError when
  // the environment or the chip's geometry is not one the library can run with.
  explicit XpLpmAgent(const XpXdk::xpChipProfile& profile, const AgentOptions& options = {});
  // Over a chip that reports this profile's table contexts: started empty (cold), or rebuilt
  // from what the chip kept (a warm restart).
  enum class Start { cold, warm };
  XpLpmAgent(const XpXdk::xpChipProfile& profile, std::shared_ptr<ChipPort> chip, Start start,
             const AgentOptions& options = {});
  ~XpLpmAgent();

  const XpXdk::xpChipProfile& profile() const { return profile_; }
  ChipPort& chip() { return *chip_; }
  const ChipPort& chip() const { return *chip_; }
  // The chip, for a later agent to restart over.
  const std::shared_ptr<ChipPort>& sharedChip() const { return chip_; }
  Family& family(bool ipv6) { return ipv6 ? v6_ : v4_; }
  const Family& family(bool ipv6) const { return ipv6 ? v6_ : v4_; }
  const Ptr<XpLpmNextHop::Config>& nextHopConfig() const { return nhConfig_; }
  const Ptr<XpLpmNextHop::Status>& nextHopStatus() const { return nhStatus_; }
  const Ptr<XpLpmNextHop::LpmNextHopSm>& nextHopSm() const { return nhSm_; }
  const AgentCounters& counters() const { return counters_; }
  // Time spent in the LPM state machines' route requests (the library), estimated from a sample;
  // the writers time their own draining.
  double librarySeconds() const { return libraryTime_.seconds(); }
  const AgentOptions& options() const { return options_; }

  // --- next-hop groups
  SwId groupOf(U64 nextHop) const { return SwId(nextHop % options_.nextHopGroups); }
  SwId groupOf(const Route& r) const { return r.group != SwId() ? r.group : groupOf(r.nextHop); }
  Nway defaultWidth(SwId group) const { return Nway(static_cast<U16>(1u << (group.value() % 4))); }
  // The widths a group may have: 1 to the next-hop table's largest block.
  U32 maxGroupWidth() const;
  // Sets a group's width, placing the group if it has no block yet. A width outside
  // 1..maxGroupWidth() changes nothing and answers badWidth; a change the NHI reserve could not
  // take (every route of the group is re-pointed) changes nothing and answers noRoom.
  GroupResult groupWidthIs(SwId group, Nway width);
  // Removes a group; its routes are withdrawn first.
  void groupDel(SwId group);
  // The group's block, or the default block when it has none.
  NextHopBlock groupBlock(SwId group) const { return nhStatus_->swIdToNextHopBlock(group); }
  // The id the agent holds its scratch block of the next-hop table under: no route uses it; a
  // group's routes wait there while the group moves over its own old entries.
  static constexpr SwId kScratchGroup{~U64(0) - 1};
  // What the agent writes into each entry of a group's block: the group and the member.
  // The top bit tells a written entry from a never-written one.
  static constexpr U64 kGroupEntryValid = U64(1) << 63;
  static XpXdk::xpNhEntry groupEntry(SwId group, U32 member) {
    return XpXdk::xpNhEntry{kGroupEntryValid | (group.value() << 16) | member};
  }
  static SwId groupOfEntry(const XpXdk::xpNhEntry& e) { return SwId((e.data & ~kGroupEntryValid) >> 16); }
  static U32 memberOfEntry(const XpXdk::xpNhEntry& e) { return static_cast<U32>(e.data & 0xFFFF); }

  // --- routes
  // The configuration's one prefix object for a route's key, created on first use.
  Ptr<XpLpm::LpmPrefix> prefixOf(const Route& r);
  // The same without creating it: null for a key the agent never requested.
  Ptr<XpLpm::LpmPrefix> findPrefix(const Route& r) const;
  // For a caller about to request many routes spread over a large table: starts loading what
  // finding the route's key object reads, in two steps (0, then 1 once that has arrived; the
  // configuration's index, then the object). Changes nothing.
  void prefetchRoute(const Route& r, U32 step) const;
  // Requests the route (or changes its next hop) and writes the chip; answers what became of it.
  RouteResult routeIs(const Route& r) { return routeIs(r, prefixOf(r)); }
  // The same for a caller that already holds the route's prefix object.
  RouteResult routeIs(const Route& r, const Ptr<XpLpm::LpmPrefix>& prefix);
  // What became of a wanted route at its last request or re-pointing; for a route the agent
  // was never asked for, lpmRefused with `fail`.
  RouteResult routeState(const Route& r) const;
  // Withdraws the route and writes the chip.
  void routeDel(const Route& r);
  // Whether the route is placed in the chip, and with which block.
  bool installed(const Route& r);
  NextHopBlock installedBlock(const Route& r);
  // Routes wanted but unprogrammed because their group has no block.
  U64 routesWithoutGroupBlock() const;

  XpXdk::xpLpmLookupResult lookup(U32 vrf, U32 address) const;
  XpXdk::xpLpmLookupResult lookup(U32 vrf, const Ip6Prefix::Bytes& address) const;

  // --- warm restart
  struct RestartReport {
    U64 routesRecovered[2] = {0, 0};  // by family: IPv4, IPv6
    U64 entriesInvalid[2] = {0, 0};
    U64 entriesCleared[2] = {0, 0};  // invalid entries the agent cleared from the chip
    double seconds[2] = {0, 0};
    U64 groupsRestored = 0;
    U64 groupsMisplaced = 0;  // groups the manager did not put back at their old base
  };
  struct ReconcileReport {
    U64 kept = 0, changed = 0, added = 0, withdrawn = 0;
    U64 groupsResized = 0, groupsDropped = 0;
  };
  const RestartReport& restartReport() const { return restartReport_; }
  // After a warm restart: gives the wanted groups their widths (a group restored at the width
  // its block had in the chip may have been resized since), requests every wanted route, then
  // withdraws recovered routes that are no longer wanted and drops restored groups that no
  // wanted route or width names.
  ReconcileReport reconcile(const std::vector<Route>& wanted,
                            const std::vector<std::pair<SwId, Nway>>& wantedWidths = {});

  // --- NHI reserve
  struct NhiReserve {
    U64 entries = 0;  // free NHI entries below which inserts and next-hop changes are refused
    U64 free = 0;     // free NHI entries now
    U64 refused = 0;  // route requests refused to keep the reserve
  };
  NhiReserve nhiReserve(bool ipv6) const;
  // Withdrawals held back because no tile had room for the block they need (possible only over
  // a chip whose state was not admitted by this agent, e.g. after a warm restart); retried after
  // every withdrawal that succeeds. The route keeps forwarding to its old next hop meanwhile.
  U64 withdrawalsDeferred() const { return deferred_.size(); }

 private:
  // A group's routes, of both families, in the order they joined; a route that leaves is replaced
  // by the last one. Each is held by its key object's 32-bit name, with a reference.
  class RouteList {
   public:
    using const_iterator = XpLpm::LpmPrefixRefIterator;

    RouteList() = default;
    RouteList(const RouteList&) = delete;
    RouteList& operator=(const RouteList&) = delete;
    RouteList(RouteList&& o) noexcept : refs_(std::move(o.refs_)) {}
    RouteList& operator=(RouteList&& o) noexcept {
      std::swap(refs_, o.refs_);
      return *this;
    }
    ~RouteList() {
      for (const U32 ref : refs_) XpLpm::lpmPrefixAt(ref)->deleteRef();
    }

    U32 size() const { return static_cast<U32>(refs_.size()); }
    bool empty() const { return refs_.empty(); }
    Ptr<XpLpm::LpmPrefix> operator[](U32 i) const { return Ptr<XpLpm::LpmPrefix>(XpLpm::lpmPrefixAt(refs_[i])); }
    U32 ref(U32 i) const { return refs_[i]; }
    const_iterator begin() const { return const_iterator(refs_.data()); }
    const_iterator end() const { return const_iterator(refs_.data() + refs_.size()); }
    void push_back(const Ptr<XpLpm::LpmPrefix>& p) {
      refs_.push_back(p->ref());
      p->newRef();
    }
    // Removes the route at `at`; the last one takes its place and is returned, or null.
    Ptr<XpLpm::LpmPrefix> removeAt(U32 at) {
      const Ptr<XpLpm::LpmPrefix> gone = (*this)[at];
      refs_[at] = refs_.back();
      refs_.pop_back();
      gone->deleteRef();
      return at < refs_.size() ? (*this)[at] : Ptr<XpLpm::LpmPrefix>();
    }

   private:
    std::vector<U32> refs_;
  };

  struct Group {
    Nway width;
    RouteList routes;
    NextHopBlock read;  // the block its routes were last pointed at
    // Its number in groupOfTag_, which its routes' records carry: half the room of its id.
    U32 tag = 0;
  };
  // A wanted route's record lives in its prefix object, the configuration's one object for its
  // key: its group, its place in the group's list and what became of it. No map is probed to
  // find it.
  static bool isWanted(const Ptr<XpLpm::LpmPrefix>& p) {
    return p->record().ownerAt != XpLpm::LpmPrefixRecord::kNowhere;
  }
  SwId recordGroup(const Ptr<XpLpm::LpmPrefix>& p) const { return groupOfTag_[p->record().ownerTag]; }
  static RouteResult recordResult(const Ptr<XpLpm::LpmPrefix>& p);
  static void recordResultIs(const Ptr<XpLpm::LpmPrefix>& p, const RouteResult& result);
  // Makes the route wanted, as a member of `group`.
  void joinGroup(const Ptr<XpLpm::LpmPrefix>& prefix, SwId group);

  void configure();
  // Stops with AgentError when the chip and the configuration disagree on the geometry.
  void checkGeometry() const;
  void startFamily(Family& f, const Ptr<XpLpm::ConfigBase>& config, const char* name, bool ipv6, bool warm);
  // Re-places the groups of the recovered routes at their old blocks.
  void restoreGroups();
  struct RestoredGroup {
    SwId group;
    U32 width;
  };
  // The blocks the recovered routes point at that the chip's next-hop entries confirm, by base.
  std::map<U32, RestoredGroup> recoveredGroups() const;
  bool chipHoldsGroup(U32 base, U32 width, SwId& group) const;
  Group& groupIs(SwId group);
  // Adds the group, with a tag no other group has.
  void newGroup(SwId group, Nway width);
  // Applies what the last next-hop request changed: moves, then the group's own block.
  void applyNextHopChanges(SwId requested, const NextHopBlock& before);
  void writeGroupEntries(SwId group, const NextHopBlock& block);
  void copyEntries(const NextHopBlock& from, const NextHopBlock& to);
  // Moves a group's entries; when the new block overlaps the old one, its routes read a copy
  // elsewhere meanwhile.
  void moveGroup(SwId group, const NextHopBlock& from, const NextHopBlock& to);
  // `width` next-hop entries that no route reads and no group holds, or the default block.
  NextHopBlock unusedNextHops(U32 width) const;
  // Holds a block of at least `width` next-hop entries that no route reads, where a group's
  // routes wait while the group moves over its own old entries.
  void scratchIs(U32 width);
  // Re-requests every route of the group with `block`.
  enum class Repoint { installedOnly, all };
  // Re-requests the group's routes with `block`; installedOnly leaves the routes the chip does
  // not hold out of the library until the group's final block is known.
  void repointRoutes(SwId group, const NextHopBlock& block, Repoint which);
  // Re-requests, with `block`, routes of one group that share a sub-trie of family `f`.
  void repointTogether(Family& f, const std::vector<Ptr<XpLpm::LpmPrefix>>& routes, const NextHopBlock& block);
  RouteResult updateOutcome(Family& f, const Ptr<XpLpm::LpmPrefix>& prefix, const NextHopBlock& block);
  enum class Admission { check, skip };
  RouteResult requestRoute(const Ptr<XpLpm::LpmPrefix>& prefix, const NextHopBlock& block, Admission admission);
  // Whether the family can take one more insert or next-hop change and still have room for any
  // withdrawal that may follow.
  bool admits(const Family& f) const;
  bool admitsRepointing(SwId group) const;
  // Takes the prefix out of the chip, unless the library would find no room for the block the
  // deletion needs: the withdrawal is then deferred. Returns whether it was done.
  bool withdraw(const Ptr<XpLpm::LpmPrefix>& prefix);
  void retryDeferredWithdrawals();
  // Drops the configuration's key object of a route nobody wants any more.
  void forgetPrefix(const Ptr<XpLpm::LpmPrefix>& prefix);
  // The route is no longer wanted: it leaves its group's list and its record is cleared.
  void leaveGroup(const Ptr<XpLpm::LpmPrefix>& prefix);

  XpXdk::xpChipProfile profile_;
  AgentOptions options_;
  std::shared_ptr<ChipPort> chip_;
  Ptr<XpSystem::SystemStatus> systemStatus_;
  Ptr<XpLpm::ConfigV4> configV4_;
  Ptr<XpLpm::ConfigV6> configV6_;
  Ptr<XpLpmNextHop::Config> nhConfig_;
  Ptr<XpLpmNextHop::Status> nhStatus_;
  Ptr<XpLpmNextHop::LpmNextHopSm> nhSm_;
  Family v4_, v6_;
  HashMap<SwId, Group> groups_;
  // Group by tag; the tags of dropped groups are given out again, the last dropped first.
  std::vector<SwId> groupOfTag_;
  std::vector<U32> freeTags_;
  AgentCounters counters_;
  SampledTimer libraryTime_;
  RestartReport restartReport_;
  U64 refused_[2] = {0, 0};
  NextHopBlock scratch_;  // the scratch block, where it lies in the chip now
  XpLpm::LpmPrefixMap<bool> deferred_;  // withdrawals waiting for NHI room
};

}  // namespace Agent
}  // namespace XpLib
