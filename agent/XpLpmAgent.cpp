// The agent: entities, configuration from the chip, state machines, next-hop
// groups and writers.
#include "agent/XpLpmAgent.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <map>
#include <optional>
#include <string_view>

#include "XpLpmConfigurator/XpLpmConfigurator.h"
#include "agent/AgentRestartHelper.h"
#include "agent/SimulatedChip.h"

namespace XpLib {
namespace Agent {

std::string RouteResult::code() const {
  switch (state) {
    case RouteState::installed: return "installed";
    case RouteState::lpmRefused: return XpLpm::stringValue(lpmCode);
    case RouteState::nextHopTableFull: return "nextHopTableFull";
    case RouteState::nhiReserve: return "nhiReserve";
    case RouteState::nhiTableFull: return "nhiTableFull";
  }
  return "unknown";
}

namespace {

// A variable the library reads with strtol, which takes whatever leading digits there are: only
// a plain decimal number within [lo, hi] means what it says.
std::optional<std::string> badNumber(const char* name, U64 lo, U64 hi, const std::string& why, U64* value) {
  const char* text = std::getenv(name);
  if (!text) return std::nullopt;
  const std::string_view v(text);
  U64 n = 0;
  const auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
  if (v.empty() || ec != std::errc() || end != v.data() + v.size())
    return std::string(name) + "='" + std::string(v) + "' is not a decimal number";
  if (n < lo || n > hi)
    return std::string(name) + "=" + std::to_string(n) + " is outside " + std::to_string(lo) + ".." +
           std::to_string(hi) + ": " + why;
  if (value) *value = n;
  return std::nullopt;
}

// Key bits of the widest prefix-table entry of a family, which holds the most slots.
U32 widestEntryBits(const XpXdk::xpLpmTableContext& c) {
  U32 bits = 0;
  for (const auto& t : c.prefixTableContext)
    if (t.valid) bits = std::max(bits, t.sramWidth == 128 ? XpXdk::kNarrowEntryBits : XpXdk::kWideEntryBits);
  return bits;
}

// A warm start replays every recovered route inside the machine's construction, a prefix command
// or more per route. Left to the end, the queue would hold the whole table's commands at once
// (hundreds of megabytes on a full table, every page of them faulted in); written as it fills, in
// the same order, it stays small and in the cache.
class ReplayDrain : public XpLpm::Status::Notifiee {
 public:
  ReplayDrain(const Ptr<XpLpm::Status>& status, HwWriter& writer) : writer_(writer) { notifierIs(status); }

  void onPendingCmd(U32) override {
    // Draining dequeues, which tells us again.
    if (draining_ || notifier()->pendingCmds() < kBatch) return;
    draining_ = true;
    writer_.drain();
    draining_ = false;
  }

 private:
  static constexpr U32 kBatch = 512;
  HwWriter& writer_;
  bool draining_ = false;
};

}  // namespace

std::vector<std::string> environmentProblems(const XpXdk::xpChipProfile& profile) {
  std::vector<std::string> problems;
  auto note = [&](std::optional<std::string> p) {
    if (p) problems.push_back(std::move(*p));
  };
  note(badNumber("MAX_LPM_PREFIXTABLE_SRAM_ENTRIES", 2, U64(1) << 24,
                 "every prefix table hashes into that many entries, which needs at least 2", nullptr));
  note(badNumber("NHI_TABLE_SIZE", 1, 0xFFFF, "it also becomes the entries of one NHI tile, a 16-bit count", nullptr));
  note(badNumber("NUMBER_OF_NHI_TILES", 1, 64, "a chip's tile bitmap marks at most 64 tiles", nullptr));
  // A sub-trie holds at most entry bits / smallest stride slots.
  U64 needed = 1;
  for (const auto* c : {&profile.ipv4, &profile.ipv6}) {
    if (c->nhiPairPerEntry == 0) continue;
    const U64 slots = widestEntryBits(*c) / XpXdk::kMinStride;
    needed = std::max<U64>(needed, (slots + c->nhiPairPerEntry - 1) / c->nhiPairPerEntry);
  }
  note(badNumber("NHI_MAX_BLOCK_SIZE", needed, 0xFFFF,
                 "an NHI block of up to " + std::to_string(needed) +
                     " entries is needed for a full sub-trie, and a tile that cannot hand it out stops the process",
                 nullptr));
  U64 nhTable = profile.nextHop.rowBlkInc;
  note(badNumber("NH_TABLE_SIZE", 1, profile.nextHop.rowBlkInc,
                 "the chip's next-hop table has " + std::to_string(profile.nextHop.rowBlkInc) + " entries", &nhTable));
  note(badNumber("NH_MAX_BLOCK_SIZE", 1, std::max<U64>(nhTable, 1),
                 "a group's block cannot be larger than the next-hop table", nullptr));
  return problems;
}

XpLpmAgent::XpLpmAgent(const XpXdk::xpChipProfile& profile, const AgentOptions& options)
    : XpLpmAgent(profile, std::make_shared<SimulatedChip>(profile), Start::cold, options) {}

XpLpmAgent::XpLpmAgent(const XpXdk::xpChipProfile& profile, std::shared_ptr<ChipPort> chip, Start start,
                       const AgentOptions& options)
    : profile_(profile), options_(options), chip_(std::move(chip)) {
  configure();
  startFamily(v4_, configV4_, "ipv4", false, start == Start::warm);
  startFamily(v6_, configV6_, "ipv6", true, start == Start::warm);
  if (start == Start::warm) restoreGroups();
}

XpLpmAgent::~XpLpmAgent() = default;

void XpLpmAgent::configure() {
  if (options_.nextHopGroups == 0) throw AgentError("nextHopGroups must be at least 1");
  if (const std::vector<std::string> problems = environmentProblems(profile_); !problems.empty())
    throw AgentError(problems.front());
  systemStatus_ = XpXdk::systemStatusFor(profile_);
  configV4_ = XpLpm::configV4Factory("ipv4");
  configV6_ = XpLpm::configV6Factory("ipv6");
  nhConfig_ = XpLpmNextHop::configFactory("nexthop");
  xpLpmConfiguratorFactory(systemStatus_, configV4_, configV6_, nhConfig_, nullptr)->doConfig();
  nhStatus_ = XpLpmNextHop::statusFactory("nexthop");
  nhSm_ = XpLpmNextHop::LpmNextHopSmIs("nexthop", nhConfig_, nhStatus_);
  checkGeometry();
}

// The library sizes everything from the configuration, the chip from its own table contexts: a
// disagreement would send writes past the chip's tables and lookups to other entries.
void XpLpmAgent::checkGeometry() const {
  for (bool v6 : {false, true}) {
    const XpLpm::ConfigBase& cfg = v6 ? static_cast<const XpLpm::ConfigBase&>(*configV6_) : *configV4_;
    const XpXdk::xpLpmTableContext& context = v6 ? profile_.ipv6 : profile_.ipv4;
    const std::string family = v6 ? "ipv6" : "ipv4";
    // The chip divides its NHI table evenly among the tiles its bitmap marks.
    const U32 tiles = context.nhiTiles();
    const U32 perTile = tiles ? context.nhiTableSize / tiles : 0;
    if (cfg.nhiAvailableTiles() != tiles || cfg.nhiEntriesPerTile() != perTile) {
      throw AgentError(family + " NHI: the chip has " + std::to_string(tiles) + " tiles of " +
                       std::to_string(perTile) + " entries, the library was configured for " +
                       std::to_string(cfg.nhiAvailableTiles()) + " tiles of " +
                       std::to_string(cfg.nhiEntriesPerTile()) + " entries");
    }
    for (const auto& [id, table] : cfg.prefixTableConfigMap()) {
      const XpXdk::xpPrefixTableContext& ctx = context.prefixTableContext[id.value()];
      if (ctx.depth != table->depth() || ctx.tread != table->tread()) {
        throw AgentError(family + " prefix table " + id.str() + ": the chip has " + std::to_string(ctx.depth) +
                         " entries at tread " + std::to_string(ctx.tread) + ", the library was configured for " +
                         std::to_string(table->depth()) + " at tread " + std::to_string(table->tread()));
      }
    }
  }
  const U32 nhEntries = nhSm_->allocator()->entriesCapacity();
  if (nhEntries > chip_->nextHopEntries()) {
    throw AgentError("next-hop table: the chip has " + std::to_string(chip_->nextHopEntries()) +
                     " entries, the library was configured for " + std::to_string(nhEntries));
  }
}

void XpLpmAgent::startFamily(Family& f, const Ptr<XpLpm::ConfigBase>& config, const char* name, bool ipv6,
                             bool warm) {
  f.config = config;
  f.status = XpLpm::statusFactory(name);
  Ptr<AgentRestartHelper> helper;
  std::unique_ptr<ReplayDrain> replayDrain;
  if (warm) {
    config->restartModeIs(XpLpm::modeRestartNormal);
    helper = makePtr<AgentRestartHelper>(config, f.status);
    helper->xdkLpmMgrIs(&chip_->lpmMgr(ipv6));
    // The writer must count the chip's readers before anything is written, and the machine
    // writes nothing before recovery has read the chip.
    helper->onMachineIs([&](XpLpm::LpmSm* sm) {
      f.writer = std::make_unique<HwWriter>(f.status, config, sm, &chip_->lpmMgr(ipv6));
      replayDrain = std::make_unique<ReplayDrain>(f.status, *f.writer);
    });
  }
  const auto t0 = std::chrono::steady_clock::now();
  f.sm = XpLpm::LpmSmIs(name, config, f.status, helper);
  // The machine keeps the helper; the callback's references end here.
  if (helper) helper->onMachineIs(nullptr);
  replayDrain.reset();
  // Set once the machine has started: its start-up replays only what recovery found in the chip,
  // which keeps every block it has, so no block is filed before the switch is on.
  f.sm->nhiOwnTileFilingEnabledIs(options_.nhiOwnTileFiling);
  // No block is larger than a tile, whatever a sub-trie could hold in a wider one.
  f.largestNhiBlock = std::min<U64>(f.sm->nhiBlockSize(f.sm->maxSubTrieSlots()), config->nhiEntriesPerTile());
  if (!f.writer) f.writer = std::make_unique<HwWriter>(f.status, config, f.sm.ptr(), &chip_->lpmMgr(ipv6));
  f.writer->drain();
  if (!warm) return;
  // A route recovered from an earlier entry and then met again in an invalid one
  // lost its request but is still placed: let the machine take it out.
  std::vector<Ptr<XpLpm::LpmPrefix>> orphans;
  for (const auto& [prefix, subTrie] : f.sm->prefixToSubTrieMap())
    if (config->request(prefix) == NextHopBlock()) orphans.push_back(prefix);
  for (const auto& prefix : orphans) f.sm->handleRequest(prefix);
  f.writer->drain();
  // An entry recovery could not parse stays in the chip and would go on matching lookups with
  // whatever it holds: clear it, unless the machine has since placed a sub-trie there.
  for (const auto& bad : helper->invalidEntries()) {
    const Ptr<XpLpm::PrefixTable> table = f.sm->prefixTable(bad.tableId);
    if (table && table->subTrie(XpLpm::PrefixTableIdx(bad.offset))) continue;
    if (f.writer->clearPrefixEntry(bad.tableId.value(), bad.offset)) ++restartReport_.entriesCleared[ipv6];
  }
  restartReport_.seconds[ipv6] = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  restartReport_.routesRecovered[ipv6] = helper->counts().routes;
  restartReport_.entriesInvalid[ipv6] = helper->counts().entriesInvalid;
}

// Whether the chip's next-hop entries from `base` name one group's members 0..width-1; `group`
// is that group.
bool XpLpmAgent::chipHoldsGroup(U32 base, U32 width, SwId& group) const {
  const U32 tableSize = nhSm_->allocator()->entriesCapacity();
  if (width == 0 || width > maxGroupWidth() || base >= tableSize || width > tableSize - base) return false;
  for (U32 m = 0; m < width; ++m) {
    XpXdk::xpNhEntry e;
    if (chip_->readNextHop(base + m, &e) != XpXdk::XP_NO_ERR || !(e.data & kGroupEntryValid) ||
        memberOfEntry(e) != m || (m > 0 && groupOfEntry(e) != group))
      return false;
    if (m == 0) group = groupOfEntry(e);
  }
  return true;
}

std::map<U32, XpLpmAgent::RestoredGroup> XpLpmAgent::recoveredGroups() const {
  // Entries past a block may still name the members of a wider block given up before, so the
  // width comes from the routes, and the chip only confirms it: the width most routes name wins.
  std::map<U32, std::map<U32, U64>> widthsAt;  // base -> width -> routes that say so
  for (bool v6 : {false, true}) {
    for (const auto& [prefix, block] : family(v6).config->requestMap())
      ++widthsAt[block.base().value()][block.size().value()];
  }
  std::map<U32, RestoredGroup> blocks;
  for (const auto& [base, widths] : widthsAt) {
    U64 votes = 0;
    for (const auto& [width, routes] : widths) {
      SwId group;
      if (routes > votes && chipHoldsGroup(base, width, group)) {
        blocks[base] = RestoredGroup{group, width};
        votes = routes;
      }
    }
  }
  return blocks;
}

void XpLpmAgent::restoreGroups() {
  // A base that names no group's first member is not restored: the routes that point there are
  // re-pointed by reconcile. Entries no route points at are leftovers of blocks given up.
  // Fillers stand in the gaps so that each group lands at its old base.
  const U32 maxWidth = maxGroupWidth();
  std::vector<SwId> fillers;
  U64 nextFiller = U64(1) << 47;
  auto fill = [&](U32 from, U32 to) {
    while (from < to) {
      const U32 n = std::min(to - from, maxWidth);
      fillers.push_back(SwId(nextFiller++));
      nhConfig_->requestIs(fillers.back(), Nway(static_cast<U16>(n)));
      from += n;
    }
  };
  U32 cursor = 0;
  for (const auto& [base, restored] : recoveredGroups()) {
    if (groups_.contains(restored.group) || base < cursor) continue;
    fill(cursor, base);
    const Nway width(static_cast<U16>(restored.width));
    newGroup(restored.group, width);
    nhConfig_->requestIs(restored.group, width);
    ++restartReport_.groupsRestored;
    if (groupBlock(restored.group).base().value() != base) {
      // Its routes still point at the old place, and reconcile re-points them here.
      ++restartReport_.groupsMisplaced;
      writeGroupEntries(restored.group, groupBlock(restored.group));
    }
    cursor = base + restored.width;
  }
  for (SwId f : fillers) nhConfig_->requestDel(f);
  while (nhStatus_->shuffleCmds()) nhStatus_->shuffleCmdDeq();
}

XpLpmAgent::ReconcileReport XpLpmAgent::reconcile(const std::vector<Route>& wanted,
                                                  const std::vector<std::pair<SwId, Nway>>& wantedWidths) {
  ReconcileReport report;
  HashMap<SwId, bool> named;
  // Widths first: a route requested before its group's resize would be written twice.
  for (const auto& [group, width] : wantedWidths) {
    named.set(group, true);
    const Group* g = groups_.find(group);
    if (g && g->width == width && groupBlock(group) != NextHopBlock()) continue;
    if (groupWidthIs(group, width) != GroupResult::badWidth && g) ++report.groupsResized;
  }
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    // Each key is a cache miss in a full table, and after a restart most routes come back
    // unchanged, which is little work to hide the next miss behind: asked for far ahead.
    if (i + 16 < wanted.size()) prefetchRoute(wanted[i + 16], 0);
    if (i + 8 < wanted.size()) prefetchRoute(wanted[i + 8], 1);
    const Route& r = wanted[i];
    Ptr<XpLpm::LpmPrefix> prefix = prefixOf(r);
    const NextHopBlock before = family(r.ipv6).config->request(prefix);
    routeIs(r, prefix);
    named.set(groupOf(r), true);
    const NextHopBlock after = family(r.ipv6).config->request(prefix);
    if (before == NextHopBlock()) {
      ++report.added;
    } else {
      before == after ? ++report.kept : ++report.changed;
    }
  }
  for (bool v6 : {false, true}) {
    Family& f = family(v6);
    std::vector<Ptr<XpLpm::LpmPrefix>> unwanted;
    for (const auto& [prefix, block] : f.config->requestMap())
      if (!isWanted(prefix)) unwanted.push_back(prefix);
    for (const auto& prefix : unwanted) {
      withdraw(prefix);
      ++report.withdrawn;
    }
  }
  std::vector<SwId> idle;
  for (const auto& [group, g] : groups_)
    if (g.routes.empty() && !named.contains(group)) idle.push_back(group);
  for (SwId group : idle) {
    groupDel(group);
    ++report.groupsDropped;
  }
  return report;
}

XpLpmAgent::Group& XpLpmAgent::groupIs(SwId group) {
  if (Group* g = groups_.find(group)) return *g;
  // A next-hop table whose largest block is narrower than a default width gets groups that fit.
  const Nway width(static_cast<U16>(std::min<U32>(defaultWidth(group).value(), maxGroupWidth())));
  newGroup(group, width);
  const NextHopBlock before = groupBlock(group);
  nhConfig_->requestIs(group, width);
  applyNextHopChanges(group, before);
  return *groups_.find(group);
}

void XpLpmAgent::newGroup(SwId group, Nway width) {
  U32 tag = static_cast<U32>(groupOfTag_.size());
  if (freeTags_.empty()) {
    groupOfTag_.push_back(group);
  } else {
    tag = freeTags_.back();
    freeTags_.pop_back();
    groupOfTag_[tag] = group;
  }
  groups_.set(group, Group{width, {}, {}, tag});
}

U32 XpLpmAgent::maxGroupWidth() const {
  const BestFitAllocator& a = *nhSm_->allocator();
  // 65535 is no width at all: a request of that size is a withdrawal.
  return std::min({a.maxBlkSz(), a.entriesCapacity(), U32(0xFFFE)});
}

// The scratch block is taken when groups first change after their creation: before any of them,
// the table has no holes and no group can move. Widths only grow it.
void XpLpmAgent::scratchIs(U32 width) {
  if (scratch_ != NextHopBlock() && scratch_.size().value() >= width) return;
  const NextHopBlock before = groupBlock(kScratchGroup);
  nhConfig_->requestIs(kScratchGroup, Nway(static_cast<U16>(width)));
  applyNextHopChanges(kScratchGroup, before);
  scratch_ = groupBlock(kScratchGroup);
}

// A new width re-points every route of the group, each sub-trie of them possibly to a new NHI
// block: the change is admitted only when the reserve can take that on top of what it keeps.
bool XpLpmAgent::admitsRepointing(SwId group) const {
  const Group* g = groups_.find(group);
  if (!options_.nhiReserve || !g) return true;
  U64 routes[2] = {0, 0};
  for (const Ptr<XpLpm::LpmPrefix>& prefix : g->routes) {
    const bool v6 = prefix->addressFamily() == XpLpm::AddressFamily::ipv6;
    routes[v6] += static_cast<bool>(family(v6).sm->prefixToSubTrie(prefix));
  }
  for (bool v6 : {false, true}) {
    const NhiReserve reserve = nhiReserve(v6);
    if (routes[v6] && reserve.free < reserve.entries + routes[v6] * family(v6).largestNhiBlock) return false;
  }
  return true;
}

GroupResult XpLpmAgent::groupWidthIs(SwId group, Nway width) {
  if (width.value() == 0 || width.value() > maxGroupWidth()) return GroupResult::badWidth;
  if (const Group* g = groups_.find(group); g && g->width != width && !admitsRepointing(group))
    return GroupResult::noRoom;
  scratchIs(std::max<U32>(width.value(), scratch_ == NextHopBlock() ? 8 : scratch_.size().value()));
  groupIs(group).width = width;
  const NextHopBlock before = groupBlock(group);
  nhConfig_->requestIs(group, width);
  applyNextHopChanges(group, before);
  const NextHopBlock after = groupBlock(group);
  return after != NextHopBlock() && after.size() == width ? GroupResult::placed : GroupResult::noRoom;
}

void XpLpmAgent::groupDel(SwId group) {
  Group* g = groups_.find(group);
  if (!g) return;
  scratchIs(std::max<U32>(g->width.value(), scratch_ == NextHopBlock() ? 8 : scratch_.size().value()));
  g = groups_.find(group);
  for (const Ptr<XpLpm::LpmPrefix>& prefix : g->routes) {
    withdraw(prefix);
    prefix->record().ownerAt = XpLpm::LpmPrefixRecord::kNowhere;
  }
  freeTags_.push_back(g->tag);
  groups_.erase(group);
  nhConfig_->requestDel(group);
  applyNextHopChanges(group, NextHopBlock());
}

void XpLpmAgent::applyNextHopChanges(SwId requested, const NextHopBlock& before) {
  while (nhStatus_->shuffleCmds() > 0) {
    Ptr<XpLpmNextHop::ShuffleCmd> cmd = nhStatus_->shuffleCmdQueue().front().second;
    if (cmd->swId() == kScratchGroup) {
      // Nothing reads the scratch block; it is wherever the manager put it last.
      scratch_ = cmd->nextHopBlock();
      nhStatus_->shuffleCmdDeq();
      continue;
    }
    moveGroup(cmd->swId(), cmd->prevNextHopBlock(), cmd->nextHopBlock());
    ++counters_.shuffles;
    // The move's own block, not the group's latest: a group that is also being
    // resized gets its final block only below, once that block is written.
    repointRoutes(cmd->swId(), cmd->nextHopBlock(), Repoint::installedOnly);
    nhStatus_->shuffleCmdDeq();
  }
  const NextHopBlock after = groupBlock(requested);
  if (after == before || after == NextHopBlock()) return;
  writeGroupEntries(requested, after);
  repointRoutes(requested, after, Repoint::all);
}

// A block may move up over its own old entries, so the copy runs like memmove.
void XpLpmAgent::copyEntries(const NextHopBlock& from, const NextHopBlock& to) {
  const U32 src = from.base().value(), dst = to.base().value(), n = to.size().value();
  for (U32 k = 0; k < n; ++k) {
    const U32 i = dst > src ? n - 1 - k : k;
    XpXdk::xpNhEntry e;
    chip_->readNextHop(src + i, &e);
    if (chip_->writeNextHop(dst + i, e) != XpXdk::XP_NO_ERR) ++counters_.nextHopErrors;
    ++counters_.nextHopCopies;
  }
}

void XpLpmAgent::moveGroup(SwId group, const NextHopBlock& from, const NextHopBlock& to) {
  const U32 width = to.size().value();
  const U32 src = from.base().value(), dst = to.base().value();
  const Group* g = groups_.find(group);
  const bool overlaps = src < dst + width && dst < src + width;
  if (!overlaps || !g || g->routes.empty()) {
    copyEntries(from, to);
    return;
  }
  NextHopBlock aside = scratch_.size().value() != 0xFFFF && scratch_.size().value() >= width
                           ? NextHopBlock(scratch_.base(), Nway(static_cast<U16>(width)))
                           : unusedNextHops(width);
  if (aside == NextHopBlock()) {
    ++counters_.shufflesUnstaged;
    copyEntries(from, to);
    return;
  }
  ++counters_.shufflesStaged;
  copyEntries(from, aside);
  repointRoutes(group, aside, Repoint::installedOnly);
  copyEntries(aside, to);
}

NextHopBlock XpLpmAgent::unusedNextHops(U32 width) const {
  // Every block a route may read now or a group holds at the end, ascending by base.
  std::vector<std::pair<U32, U32>> used;
  for (const auto& [group, g] : groups_)
    if (g.read != NextHopBlock()) used.emplace_back(g.read.base().value(), g.read.size().value());
  for (const auto& [group, block] : nhStatus_->swIdToNextHopBlockMap())
    used.emplace_back(block.base().value(), block.size().value());
  for (const auto& [prefix, unused] : deferred_) {
    const NextHopBlock b = family(prefix->addressFamily() == XpLpm::AddressFamily::ipv6).status->prefixToNextHopBlock(prefix);
    if (b != NextHopBlock()) used.emplace_back(b.base().value(), b.size().value());
  }
  std::sort(used.begin(), used.end());
  const U32 tableSize = std::min(nhSm_->allocator()->entriesCapacity(), chip_->nextHopEntries());
  U32 cursor = 0;
  for (const auto& [base, size] : used) {
    if (base >= cursor + width) break;
    cursor = std::max(cursor, base + size);
  }
  if (cursor + width > tableSize) return NextHopBlock();
  return NextHopBlock(cursor, static_cast<U16>(width));
}

void XpLpmAgent::writeGroupEntries(SwId group, const NextHopBlock& block) {
  for (U32 m = 0; m < block.size().value(); ++m) {
    XpXdk::xpNhEntry held;
    const XpXdk::xpNhEntry want = groupEntry(group, m);
    if (chip_->readNextHop(block.base().value() + m, &held) == XpXdk::XP_NO_ERR && held == want) continue;
    if (chip_->writeNextHop(block.base().value() + m, want) != XpXdk::XP_NO_ERR) ++counters_.nextHopErrors;
    ++counters_.nextHopWrites;
  }
}

// The routes follow their group's block; this is the agent's own housekeeping, so it is not held
// to the reserve a control plane's requests are: a sub-trie that is re-pointed gives its old block
// back as it takes a new one, unless another sub-trie shares it.
void XpLpmAgent::repointRoutes(SwId group, const NextHopBlock& block, Repoint which) {
  Group* g = groups_.find(group);
  if (!g) return;
  g->read = block;
  // Re-requesting may withdraw a route but never changes the group's membership, so a route's
  // place in the list names it throughout.
  std::vector<bool> done(g->routes.size());
  std::vector<Ptr<XpLpm::LpmPrefix>> alone, together;
  // A group's routes lie all over a full table: a route's object, its sub-trie, the sub-trie's
  // slots, their objects and the sub-trie's NHI records are each a cache miss, and each needs the
  // one before it to be found. Re-pointing one route takes far longer than a miss, so the chain is
  // walked a link per route ahead of it: the object six routes on, its sub-trie five on, then the
  // slots (four on), their objects (three on) and the machine's steps for the NHI records, the
  // last one route on.
  constexpr U32 kNhiSteps = XpLpm::LpmSm::kNhiPrefetchSteps;
  const auto prefetchAhead = [this, routes = &g->routes](U32 i) {
    const U32 n = routes->size();
    const auto object = [&](U32 k) { return XpLpm::lpmPrefixAt(routes->ref(k)); };
    if (i + kNhiSteps + 2 < n) {
      __builtin_prefetch(object(i + kNhiSteps + 2));
      __builtin_prefetch(&object(i + kNhiSteps + 2)->record());
    }
    if (i + kNhiSteps + 1 < n)
      if (const XpLpm::SubTrie* st = object(i + kNhiSteps + 1)->record().subTrie) __builtin_prefetch(st);
    for (U32 ahead = kNhiSteps; ahead >= 1; --ahead) {
      if (i + ahead >= n) continue;
      const XpLpm::LpmPrefix& p = *object(i + ahead);
      const XpLpm::SubTrie* st = p.record().subTrie;
      if (!st) continue;
      family(p.addressFamily() == XpLpm::AddressFamily::ipv6).sm->prefetchNhiRecords(*st, kNhiSteps - ahead);
      const XpLpm::SubTrie::Slots slots = st->slots();
      if (ahead == kNhiSteps) __builtin_prefetch(slots.refs());
      if (ahead == kNhiSteps - 1)
        for (U32 s = 0; s < slots.size(); ++s)
          if (slots.refs()[s] != XpLpm::kNoLpmPrefix) __builtin_prefetch(&XpLpm::lpmPrefixAt(slots.refs()[s])->record());
    }
  };
  for (U32 i = 0; i < g->routes.size(); ++i) {
    prefetchAhead(i);
    if (done[i]) continue;
    const Ptr<XpLpm::LpmPrefix>& prefix = g->routes[i];
    Family& f = family(prefix->addressFamily() == XpLpm::AddressFamily::ipv6);
    const Ptr<XpLpm::SubTrie> subTrie = f.sm->prefixToSubTrie(prefix);
    if (!subTrie && which == Repoint::installedOnly) {
      // Not in the chip: nothing reads it, and a request left on the old block would be placed
      // there by the next notification. It is asked for again with the group's final block.
      if (f.config->request(prefix) != NextHopBlock()) withdraw(prefix);
      continue;
    }
    // A route whose request does not change is no notification for the machine: it goes alone.
    alone.clear();
    together.clear();
    if (!subTrie) {
      alone.push_back(prefix);
    } else {
      for (const Ptr<XpLpm::LpmPrefix>& p : subTrie->slots()) {
        if (!p || !isWanted(p) || recordGroup(p) != group) continue;
        done[p->record().ownerAt] = true;
        (block != NextHopBlock() && f.config->request(p) != block ? together : alone).push_back(p);
      }
    }
    if (together.size() == 1) {
      alone.push_back(together.back());
      together.clear();
    }
    for (const Ptr<XpLpm::LpmPrefix>& p : alone) {
      recordResultIs(p, requestRoute(p, block, Admission::skip));
      ++counters_.routesRepointed;
    }
    if (!together.empty()) repointTogether(f, together, block);
  }
}

// Each route is still its own request, handled in slot order; only the notifications wait until
// every request has changed. So the first route's update writes the sub-trie's final NHI contents
// and the others find nothing left to change, where one at a time each would write the sub-trie
// and an NHI block in between. Nothing else runs between the changes and the first update, so the
// machine meets no request of another sub-trie that it has not handled.
void XpLpmAgent::repointTogether(Family& f, const std::vector<Ptr<XpLpm::LpmPrefix>>& routes,
                                 const NextHopBlock& block) {
  f.sm->hasNotificationActiveIs(false);
  libraryTime_.run([&] {
    for (const Ptr<XpLpm::LpmPrefix>& p : routes) {
      deferred_.erase(p);
      f.config->requestIs(p, block);
    }
  });
  f.sm->hasNotificationActiveIs(true);
  for (const Ptr<XpLpm::LpmPrefix>& p : routes) {
    libraryTime_.run([&] { f.sm->handleRequest(p); });
    f.writer->drain();
    recordResultIs(p, updateOutcome(f, p, block));
    ++counters_.routesRepointed;
  }
}

// An installed route whose update found no NHI room still points at the old block, which another
// group may soon be given: take it out instead.
RouteResult XpLpmAgent::updateOutcome(Family& f, const Ptr<XpLpm::LpmPrefix>& prefix, const NextHopBlock& block) {
  if (f.status->prefixToNextHopBlock(prefix) == block) return RouteResult{};
  withdraw(prefix);
  ++counters_.routesWithdrawnOnMove;
  return RouteResult{RouteState::nhiTableFull};
}

bool XpLpmAgent::admits(const Family& f) const {
  const NhiReserve reserve = nhiReserve(&f == &v6_);
  return reserve.free >= reserve.entries;
}

XpLpmAgent::NhiReserve XpLpmAgent::nhiReserve(bool ipv6) const {
  const XpLpm::LpmSm& sm = *family(ipv6).sm;
  NhiReserve r;
  U64 tiles = 0;
  for (const auto& [tile, allocator] : sm.nhiAllocatorMap()) {
    r.free += allocator->freeEntries();
    ++tiles;
  }
  // A block must fit one tile: below `largest` free entries a tile may be unable to take any
  // block, so that much of each tile does not count. Beyond that the reserve covers what
  // deletions from shared blocks could take, one block for a deletion's transient need, and
  // one block and one shared-record growth for the request being admitted.
  const U64 largest = family(ipv6).largestNhiBlock;
  r.entries = tiles * (largest ? largest - 1 : 0) + sm.nhiSharedDeleteNeed() + 3 * largest;
  r.refused = refused_[ipv6];
  return r;
}

bool XpLpmAgent::withdraw(const Ptr<XpLpm::LpmPrefix>& prefix) {
  Family& f = family(prefix->addressFamily() == XpLpm::AddressFamily::ipv6);
  if (f.sm->prefixToSubTrie(prefix)) {
    const U8 need = f.sm->nhiBlockSizeToDelete(prefix);
    bool room = need == 0;
    for (const auto& [tile, allocator] : f.sm->nhiAllocatorMap()) room = room || allocator->freeEntries() >= need;
    if (!room) {
      // The route stays as the chip has it. A next-hop change that found no room left its new
      // block requested: ask for the installed one again, which needs no new block, or the next
      // rewrite of its sub-trie would write the new block behind the Status's back.
      const NextHopBlock installed = f.status->prefixToNextHopBlock(prefix);
      if (f.config->request(prefix) != installed) {
        f.config->requestIs(prefix, installed);
        f.writer->drain();
      }
      if (!deferred_.contains(prefix)) ++counters_.withdrawalsHeld;
      deferred_.set(prefix, true);
      return false;
    }
  }
  deferred_.erase(prefix);
  if (f.config->request(prefix) == NextHopBlock()) return true;
  libraryTime_.run([&] { f.config->requestDel(prefix); });
  f.writer->drain();
  if (!deferred_.empty()) retryDeferredWithdrawals();
  return true;
}

void XpLpmAgent::retryDeferredWithdrawals() {
  std::vector<Ptr<XpLpm::LpmPrefix>> waiting;
  for (const auto& [prefix, unused] : deferred_) waiting.push_back(prefix);
  for (const auto& prefix : waiting) {
    if (!deferred_.contains(prefix)) continue;
    deferred_.erase(prefix);
    if (withdraw(prefix) && !isWanted(prefix)) forgetPrefix(prefix);
  }
}

void XpLpmAgent::forgetPrefix(const Ptr<XpLpm::LpmPrefix>& prefix) {
  if (prefix->addressFamily() == XpLpm::AddressFamily::ipv6) {
    configV6_->lpmPrefixDel(static_cast<const XpLpm::LpmPrefixV6&>(*prefix).vrfAndIp6Prefix());
  } else {
    configV4_->lpmPrefixDel(static_cast<const XpLpm::LpmPrefixV4&>(*prefix).vrfAndPrefix());
  }
}

RouteResult XpLpmAgent::requestRoute(const Ptr<XpLpm::LpmPrefix>& prefix, const NextHopBlock& block,
                                     Admission admission) {
  const bool v6 = prefix->addressFamily() == XpLpm::AddressFamily::ipv6;
  Family& f = family(v6);
  if (block == NextHopBlock()) {
    withdraw(prefix);
    return RouteResult{RouteState::nextHopTableFull};
  }
  deferred_.erase(prefix);
  const bool wasInstalled = static_cast<bool>(f.sm->prefixToSubTrie(prefix));
  const bool sameBlock = wasInstalled && f.status->prefixToNextHopBlock(prefix) == block;
  // A re-announcement keeps its NHI contents; anything else may take a block.
  if (admission == Admission::check && options_.nhiReserve && !sameBlock && !admits(f)) {
    ++refused_[v6];
    withdraw(prefix);
    return RouteResult{RouteState::nhiReserve};
  }
  libraryTime_.run([&] { f.config->requestIs(prefix, block); });
  f.writer->drain();
  if (!wasInstalled) {
    if (f.sm->prefixToSubTrie(prefix)) return RouteResult{};
    return RouteResult{RouteState::lpmRefused, f.sm->lastInsertReturnCode()};
  }
  return updateOutcome(f, prefix, block);
}

void XpLpmAgent::joinGroup(const Ptr<XpLpm::LpmPrefix>& prefix, SwId group) {
  Group& g = groupIs(group);
  XpLpm::LpmPrefixRecord& record = prefix->record();
  record.ownerTag = g.tag;
  record.ownerAt = static_cast<U32>(g.routes.size());
  g.routes.push_back(prefix);
}

void XpLpmAgent::leaveGroup(const Ptr<XpLpm::LpmPrefix>& prefix) {
  XpLpm::LpmPrefixRecord& record = prefix->record();
  if (record.ownerAt == XpLpm::LpmPrefixRecord::kNowhere) return;
  const U32 at = record.ownerAt;
  record.ownerAt = XpLpm::LpmPrefixRecord::kNowhere;
  Group* g = groups_.find(recordGroup(prefix));
  if (!g) return;
  if (const Ptr<XpLpm::LpmPrefix> moved = g->routes.removeAt(at)) moved->record().ownerAt = at;
}

RouteResult XpLpmAgent::recordResult(const Ptr<XpLpm::LpmPrefix>& p) {
  const U32 word = p->record().ownerWord;
  return RouteResult{static_cast<RouteState>(word & 0xFF), static_cast<XpLpm::RouteReturnCode>(word >> 8)};
}

void XpLpmAgent::recordResultIs(const Ptr<XpLpm::LpmPrefix>& p, const RouteResult& result) {
  p->record().ownerWord = static_cast<U32>(result.state) | static_cast<U32>(result.lpmCode) << 8;
}

Ptr<XpLpm::LpmPrefix> XpLpmAgent::prefixOf(const Route& r) {
  if (r.ipv6) return configV6_->newLpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  return configV4_->newLpmPrefix(VrfAndPrefix{r.vrf, r.v4});
}

Ptr<XpLpm::LpmPrefix> XpLpmAgent::findPrefix(const Route& r) const {
  if (r.ipv6) return configV6_->lpmPrefix(VrfAndIp6Prefix{r.vrf, r.v6});
  return configV4_->lpmPrefix(VrfAndPrefix{r.vrf, r.v4});
}

void XpLpmAgent::prefetchRoute(const Route& r, U32 step) const {
  if (r.ipv6) {
    configV6_->lpmPrefixPrefetch(VrfAndIp6Prefix{r.vrf, r.v6}, step);
  } else {
    configV4_->lpmPrefixPrefetch(VrfAndPrefix{r.vrf, r.v4}, step);
  }
}

RouteResult XpLpmAgent::routeIs(const Route& r, const Ptr<XpLpm::LpmPrefix>& prefix) {
  const SwId group = groupOf(r);
  if (isWanted(prefix) && recordGroup(prefix) != group) leaveGroup(prefix);
  if (!isWanted(prefix)) joinGroup(prefix, group);
  Group& g = *groups_.find(group);  // found again: joining may have added a group
  g.read = groupBlock(group);
  const RouteResult result = requestRoute(prefix, g.read, Admission::check);
  recordResultIs(prefix, result);
  return result;
}

RouteResult XpLpmAgent::routeState(const Route& r) const {
  const Ptr<XpLpm::LpmPrefix> prefix = findPrefix(r);
  return prefix && isWanted(prefix) ? recordResult(prefix) : RouteResult{RouteState::lpmRefused, XpLpm::fail};
}

void XpLpmAgent::routeDel(const Route& r) {
  Ptr<XpLpm::LpmPrefix> prefix = findPrefix(r);
  if (!prefix) return;
  leaveGroup(prefix);
  // A withdrawn route's key object is no longer needed by anyone; a deferred withdrawal keeps
  // it while the machine still holds the prefix.
  if (withdraw(prefix)) forgetPrefix(prefix);
}

bool XpLpmAgent::installed(const Route& r) {
  Ptr<XpLpm::LpmPrefix> p = findPrefix(r);
  return p && family(r.ipv6).sm->prefixToSubTrie(p);
}

NextHopBlock XpLpmAgent::installedBlock(const Route& r) {
  Ptr<XpLpm::LpmPrefix> p = findPrefix(r);
  return p ? family(r.ipv6).status->prefixToNextHopBlock(p) : NextHopBlock();
}

U64 XpLpmAgent::routesWithoutGroupBlock() const {
  U64 n = 0;
  for (const auto& [group, g] : groups_) n += groupBlock(group) == NextHopBlock() ? g.routes.size() : 0;
  return n;
}

XpXdk::xpLpmLookupResult XpLpmAgent::lookup(U32 vrf, U32 address) const {
  return chip_->lookup(XpXdk::xpLpmKey::ipv4(vrf, address));
}

XpXdk::xpLpmLookupResult XpLpmAgent::lookup(U32 vrf, const Ip6Prefix::Bytes& address) const {
  return chip_->lookup(XpXdk::xpLpmKey::ipv6(vrf, address));
}

}  // namespace Agent
}  // namespace XpLib
