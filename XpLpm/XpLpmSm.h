// LpmSm: the state machine that owns the software image of one LPM instance.
//
// It reacts to changes of its configuration's `request` collection, places each
// route in a sub-trie of a hash-indexed prefix table, gives sub-tries blocks of
// NHI entries (shared between sub-tries of equal next-hop contents), and queues
// the hardware writes on its Status, in the order they must reach the chip.
// Single-threaded: every call comes from the agent's one event thread.
//
// The operations are split over several files by concern: LpmSm.cpp (lifecycle,
// requests), LpmSmInsert.cpp, LpmSmShuffle.cpp, LpmSmNhi.cpp (allocation and
// sharing), LpmSmCommands.cpp, LpmSmDiag.cpp (diagnostics and verification).
#pragma once

#include <string>
#include <vector>

#include "XpLpm/Config.h"
#include "XpLpm/NhiInfo.h"
#include "XpLpm/NhiPositionMap.h"
#include "XpLpm/PrefixTable.h"
#include "XpLpm/RestartHelperBase.h"
#include "XpLpm/Status.h"
#include "XpLpm/SubTrie.h"
#include "platform/BestFitAllocator.h"
#include "platform/HashMap.h"

namespace XpLib {
namespace XpLpm {

struct NhiInfoKeyHash {
  U32 operator()(const NhiInfoKey& k) const { return k.mapHash(); }
};

class LpmSm : public PtrInterface {
 public:
  // Delivers request changes of the configuration to the machine.
  class ConfigReactor : public ConfigBase::Notifiee {
   public:
    explicit ConfigReactor(LpmSm* owner) : owner_(owner) {}
    void onRequest(const Ptr<LpmPrefix>& prefix) override;

   private:
    LpmSm* owner_;
  };

  // Constructing the machine starts it (handleInitialized); requests that arrive
  // while it starts are dropped and picked up by the replay at its end.
  LpmSm(const Name& name, const Ptr<ConfigBase>& config, const Ptr<Status>& status,
        const Ptr<RestartHelperBase>& restartHelper);
  ~LpmSm() override;

  const Name& name() const { return name_; }
  const Ptr<ConfigBase>& config() const { return config_; }
  void configIs(const Ptr<ConfigBase>& config);
  void configDel() { configIs(nullptr); }
  const Ptr<Status>& status() const { return status_; }
  const Ptr<RestartHelperBase>& restartHelper() const { return restartHelper_; }
  bool hasNotificationActive() const { return reactor_ && reactor_->isNotificationActive(); }
  void hasNotificationActiveIs(bool active);

  // --- lifecycle and requests
  void handleInitialized();
  void handleRequest(const Ptr<LpmPrefix>& prefix);
  void updatePrefix(const Ptr<LpmPrefix>& prefix);
  void deletePrefix(const Ptr<LpmPrefix>& prefix);
  // The next-hop block a prefix is requested with: its `request` value, or the default block.
  NextHopBlock requestedBlock(const Ptr<LpmPrefix>& prefix) const { return config_->request(prefix); }

  // --- insertion
  void insertPrefix(const Ptr<LpmPrefix>& prefix);
  struct TablePass;
  // Whether a pass of insertPrefix tries the table, tracing why not.
  bool tableTried(const Ptr<PrefixTable>& table, U32 i, TablePass& walk) const;
  RouteReturnCode insertPrefixPass(const Ptr<LpmPrefix>& prefix, TablePass& walk);
  RouteReturnCode insertPrefixInternal(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& table);
  RouteReturnCode insertPrefixToTable(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& table);
  RouteReturnCode createSubTrieWithPrefix(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& table);
  RouteReturnCode insertPrefixToSubTrie(const Ptr<LpmPrefix>& prefix, const Ptr<SubTrie>& subTrie);
  // The steps of insertPrefixToSubTrie, each leaving the sub-trie untouched.
  struct SubTrieShape;
  bool commonBranch(const Ptr<LpmPrefix>& prefix, const SubTrie& subTrie, SubTrieShape& shape) const;
  bool shapeFor(const Ptr<LpmPrefix>& prefix, const SubTrie& subTrie, SubTrieShape& shape) const;
  RouteReturnCode nhiFor(const SubTrie& subTrie, SubTrieShape& shape);
  RouteReturnCode moveSubTrie(const Ptr<LpmPrefix>& prefix, const Ptr<PrefixTable>& srcPrefixTable);

  // --- NHI blocks
  U8 nhiBlockSize(U8 numPrefixes) const;
  bool isNhiBlockAvailable(U8 numPrefixes);
  NhiTableIdx allocateNhiBlock(U8 numPrefixes);
  void reallocNhiBlock(const NhiTableIdx& baseIdx, U8 numPrefixes);
  void releaseNhiBlock(const NhiTableIdx& baseIdx);
  void processNhiDefrag(NhiTileIdx tile, const Ptr<PendingCmds>& defragCmds);
  // The tile the last NHI block was handed out from, shared by every instance; 255 before the first.
  static U8 lastNhiTile();
  static void lastNhiTileIs(U8 tile);
  // The most prefix slots one sub-trie can hold: the widest entry at the smallest stride.
  U8 maxSubTrieSlots() const;
  // NHI entries that deleting an installed prefix would take: the block its sub-trie needs for
  // the prefixes that remain, or 0 when the sub-trie empties or their contents are already
  // shared. The deletion stops the process when no tile has that many free entries.
  U8 nhiBlockSizeToDelete(const Ptr<LpmPrefix>& prefix) const;

  // --- NHI sharing
  NhiInfoKey generateNhiInfoKey(const Ptr<SubTrie>& subTrie) const;
  NhiTableIdx nhiBaseIdxFromNhiInfoKey(const Ptr<SubTrie>& subTrie, const NhiInfoKey& key) const;
  Ptr<NhiInfo> allocateNhiInfo(const Ptr<SubTrie>& subTrie, const NhiInfoKey& key, const NhiTableIdx& nhiBaseIdx);
  void releaseNhiInfo(const Ptr<SubTrie>& subTrie);
  bool updateNhiInfoForSubTrie(const Ptr<SubTrie>& subTrie);

  // --- write commands
  void generateSubTrieWriteCmds(const Ptr<SubTrie>& subTrie, bool generatePrefixCmds, bool generateNhiCmds);
  void generateNhiWriteCmds(const Ptr<SubTrie>& subTrie);
  void generatePrefixTableWriteCmds(const Ptr<SubTrie>& subTrie);
  void generatePrefixTableIdxDeleteWriteCmd(const Ptr<PrefixTable>& prefixTable, PrefixTableIdx idx,
                                            const Ptr<SubTrie>& subTrie);

  // --- diagnostics and self-check; the print* outputs are the operator's show commands
  void showSoftwareSummary(int fd) const;
  void printPrefixTables(int fd) const;
  void printSubTrieInfo(int fd) const;
  void printNhiTiles(int fd) const;
  // NHI blocks used by more than one sub-trie.
  U32 numSharedNhiBlocks() const;
  void verifyLpmRoute(const Ptr<LpmPrefix>& prefix) const;
  // What verify() looked at.
  struct VerifyCounts {
    U64 subTries = 0;
    U64 routes = 0;        // installed routes, every one followed by verifyLpmRoute
    U64 routesStale = 0;   // of those, lagging their request since an update found no room
    U64 blocks = 0;
    U64 sharedRecords = 0;
  };
  // The whole model checked: every sub-trie of every table, every installed route (by
  // verifyLpmRoute, except routes that lag their request since an update found no room), the NHI
  // allocators, blocks and sharing records and the links between them, the entries counted
  // free and held, and the deletion need. A full scan; any broken invariant is fatal.
  VerifyCounts verify() const;
  void dumpPrefixTable(const Ptr<PrefixTable>& prefixTable) const;
  void dumpPrefixTables() const;

  // --- collections
  Ptr<PrefixTable> prefixTable(PrefixTableId id) const { return prefixTable_.get(id); }
  const HashMap<PrefixTableId, Ptr<PrefixTable>>& prefixTableMap() const { return prefixTable_; }
  // The table for `id`, created over `cfg` when the machine has none yet.
  Ptr<PrefixTable> prefixTableIs(PrefixTableId id, const Ptr<PrefixTableConfig>& cfg);

  Ptr<BestFitAllocator> nhiAllocator(NhiTileIdx tile) const { return nhiAllocator_.get(tile); }
  const HashMap<NhiTileIdx, Ptr<BestFitAllocator>>& nhiAllocatorMap() const { return nhiAllocator_; }
  void nhiAllocatorIs(NhiTileIdx tile, const Ptr<BestFitAllocator>& a) { nhiAllocator_.set(tile, a); }

  // A hint for a caller about to update the sub-tries of many routes spread over a full table
  // (re-pointing a group's routes): starts the loads that giving back the sub-trie's NHI records
  // will wait for, one link of the chain per step. Step 0 asks for what the sub-trie names; each
  // later step, called once the one before has had time to arrive, for what that names in turn
  // (steps 0 to 3). Changes nothing.
  static constexpr U32 kNhiPrefetchSteps = 4;
  void prefetchNhiRecords(const SubTrie& subTrie, U32 step) const;

  Ptr<Blk> nhiBaseIdxToBlk(const NhiTableIdx& idx) const { return nhiBaseIdxToBlk_.get(idx); }
  const NhiPositionMap<Ptr<Blk>>& nhiBaseIdxToBlkMap() const { return nhiBaseIdxToBlk_; }
  void nhiBaseIdxToBlkIs(const NhiTableIdx& idx, const Ptr<Blk>& blk) { nhiBaseIdxToBlk_.set(idx, blk); }
  void nhiBaseIdxToBlkDel(const NhiTableIdx& idx) { nhiBaseIdxToBlk_.erase(idx); }

  Ptr<SubTrieSet> nhiBaseIdxToSubTrie(const NhiTableIdx& idx) const { return nhiBaseIdxToSubTrie_.get(idx); }
  const NhiPositionMap<Ptr<SubTrieSet>>& nhiBaseIdxToSubTrieMap() const { return nhiBaseIdxToSubTrie_; }

  Ptr<NhiInfo> sharedNhi(const NhiInfoKey& key) const { return sharedNhi_.get(key); }
  const HashMap<NhiInfoKey, Ptr<NhiInfo>, NhiInfoKeyHash>& sharedNhiMap() const { return sharedNhi_; }
  // The record for `key`, created when absent.
  Ptr<NhiInfo> sharedNhiIs(const NhiInfoKey& key);
  void sharedNhiDel(const NhiInfoKey& key) { sharedNhi_.erase(key); }

  Ptr<SubTrie> prefixToSubTrie(const Ptr<LpmPrefix>& prefix) const { return prefixToSubTrie_.get(prefix); }
  U32 prefixToSubTries() const { return prefixToSubTrie_.size(); }
  const LpmPrefixRecordMap<SubTrieField>& prefixToSubTrieMap() const { return prefixToSubTrie_; }
  void prefixToSubTrieIs(const Ptr<LpmPrefix>& prefix, const Ptr<SubTrie>& subTrie) {
    prefixToSubTrie_.assign(prefix, subTrie);
  }
  void prefixToSubTrieDel(const Ptr<LpmPrefix>& prefix) { prefixToSubTrie_.erase(prefix); }

  // --- counters and switches
  U64 numNhiOverflow() const { return numNhiOverflow_; }
  void numNhiOverflowIs(U64 v) { numNhiOverflow_ = v; }
  void numNhiOverflowInc(U64 n = 1) { numNhiOverflow_ += n; }
  U64 numNhiBlockDefrag() const { return numNhiBlockDefrag_; }
  void numNhiBlockDefragIs(U64 v) { numNhiBlockDefrag_ = v; }
  void numNhiBlockDefragInc(U64 n = 1) { numNhiBlockDefrag_ += n; }
  U64 numHashShufflingAttempt() const { return numHashShufflingAttempt_; }
  void numHashShufflingAttemptIs(U64 v) { numHashShufflingAttempt_ = v; }
  void numHashShufflingAttemptInc(U64 n = 1) { numHashShufflingAttempt_ += n; }
  U64 numHashShufflingSuccess() const { return numHashShufflingSuccess_; }
  void numHashShufflingSuccessIs(U64 v) { numHashShufflingSuccess_ = v; }
  void numHashShufflingSuccessInc(U64 n = 1) { numHashShufflingSuccess_ += n; }
  bool nhiSharingEnabled() const { return nhiSharingEnabled_; }
  void nhiSharingEnabledIs(bool b) { nhiSharingEnabled_ = b; }
  bool hashShufflingEnabled() const { return hashShufflingEnabled_; }
  void hashShufflingEnabledIs(bool b) { hashShufflingEnabled_ = b; }
  // Off by default: a block is filed under the first tile visited, whichever tile's allocator
  // holds its entries. With several tiles that filing lets a compaction meet moved blocks it
  // has no record of (it stops on "subTrieSetOld"), lets two blocks of different tiles share
  // one base index, and after a restart makes recovery claim each block in the tile the chip
  // names, so that later blocks are written over recovered ones. On, a block is filed under
  // the tile whose allocator holds it, which the hardware writes then follow.
  bool nhiOwnTileFilingEnabled() const { return nhiOwnTileFilingEnabled_; }
  void nhiOwnTileFilingEnabledIs(bool b) { nhiOwnTileFilingEnabled_ = b; }
  bool initialized() const { return initialized_; }
  void initializedIs(bool b) { initialized_ = b; }
  // The outcome of the last insertion, so that an owner can say why a route was not placed.
  RouteReturnCode lastInsertReturnCode() const { return lastInsertReturnCode_; }
  // NHI entries that deletions could take beyond what they give back: a sub-trie that shares its
  // block and loses a prefix needs a block of its own for the rest. For every block used by c
  // sub-tries of n prefixes that is (c - 1) * nhiBlockSize(n - 1); the last user gives the shared
  // block back. Kept as sharing records change, so that an owner can keep that much room.
  U64 nhiSharedDeleteNeed() const { return nhiSharedDeleteNeed_; }

 private:
  void createNhiAllocators();
  // The parts of verify(): the tables' sub-tries, the NHI blocks and records, the routes.
  void verifySubTries(VerifyCounts& counts) const;
  void verifyNhiBlocks(VerifyCounts& counts) const;
  void verifyRoutes(VerifyCounts& counts) const;
  void enqueue(const Ptr<CommandBase>& cmd) { status_->pendingCmdEnq(cmd); }
  // The user set of the NHI block at `idx`, made empty when there is none.
  Ptr<SubTrieSet> nhiUsersAt(const NhiTableIdx& idx);

  Name name_;
  Ptr<ConfigBase> config_;
  std::unique_ptr<ConfigReactor> reactor_;
  Ptr<Status> status_;
  Ptr<RestartHelperBase> restartHelper_;
  HashMap<PrefixTableId, Ptr<PrefixTable>> prefixTable_;
  HashMap<NhiTileIdx, Ptr<BestFitAllocator>> nhiAllocator_;
  NhiPositionMap<Ptr<Blk>> nhiBaseIdxToBlk_;
  NhiPositionMap<Ptr<SubTrieSet>> nhiBaseIdxToSubTrie_;
  HashMap<NhiInfoKey, Ptr<NhiInfo>, NhiInfoKeyHash> sharedNhi_;
  LpmPrefixRecordMap<SubTrieField> prefixToSubTrie_;
  U64 numNhiOverflow_ = 0;
  U64 numNhiBlockDefrag_ = 0;
  U64 numHashShufflingAttempt_ = 0;
  U64 numHashShufflingSuccess_ = 0;
  bool nhiSharingEnabled_ = true;
  bool hashShufflingEnabled_ = true;
  bool nhiOwnTileFilingEnabled_ = false;
  bool initialized_ = false;
  U64 nhiSharedDeleteNeed_ = 0;
  RouteReturnCode lastInsertReturnCode_ = pass;
  // Where keys are built: most keys built are compared and dropped, or replaced by the shared
  // record's, so the representation is free again at the next build and nothing is allocated.
  mutable NhiInfoKey keyScratch_;
};

// Creates, starts and activates a state machine.
Ptr<LpmSm> LpmSmIs(const Name& name, const Ptr<ConfigBase>& config, const Ptr<Status>& status,
                   const Ptr<RestartHelperBase>& restartHelper);

// Narrows `branch` to its common leading bits with `other`, at most maxLen; newLen gets the length.
void findCommonBranch(SubTrieBranch& branch, const SubTrieBranch& other, U8 maxLen, U8& newLen);
// The smallest available stride not below `wanted`; 255 when there is none.
U8 getNextAvailableStride(const Ptr<ConfigBase>& config, U8 wanted);
// Appends the prefix bits a hardware leaf stores below the branch; returns the new branch length.
U8 combineBranchAndLeaf(SubTrieBranch& branch, U8 branchLen, U64& leafVal, U64& leafValHigh);

}  // namespace XpLpm
}  // namespace XpLib
