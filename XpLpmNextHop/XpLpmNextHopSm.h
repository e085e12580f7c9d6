// LpmNextHopSm: divides the chip's next-hop table among next-hop groups.
//
// Each client (a SwId) asks through Config.request for a block of Nway
// contiguous entries; the machine places it with a best-fit allocator, records
// the placement in Status.swIdToNextHopBlock, and when the table is fragmented
// compacts it, reporting every block it moved as a ShuffleCmd, in the order
// the moves must be applied. It never writes the hardware: the reader of
// Status does. Single-threaded, like the agent that drives it.
#pragma once

#include <memory>

#include "XpLpmNextHop/XpLpmNextHop.h"
#include "platform/BestFitAllocator.h"
#include "platform/HashMap.h"

namespace XpLib {
namespace XpLpmNextHop {

class LpmNextHopSm : public PtrInterface {
 public:
  class ConfigReactor : public Config::Notifiee {
   public:
    explicit ConfigReactor(LpmNextHopSm* owner) : owner_(owner) {}
    void onRequest(SwId swId) override;

   private:
    LpmNextHopSm* owner_;
  };

  // Constructing the machine starts it: the allocator is built and every
  // request already in the configuration is placed.
  LpmNextHopSm(const Name& name, const Ptr<Config>& config, const Ptr<Status>& status);
  ~LpmNextHopSm() override;

  const Name& name() const { return name_; }
  const Ptr<Config>& config() const { return config_; }
  const Ptr<Status>& status() const { return status_; }
  const Ptr<BestFitAllocator>& allocator() const { return allocator_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handleRequest(SwId swId);
  void insertEntry(SwId swId, Nway nway);
  void updateEntry(SwId swId, Nway nway);
  void deleteEntry(SwId swId);
  // Whether a block of nway entries can be had now; compacts the table when the
  // free entries suffice only in sum.
  bool isNhBlockAvailable(Nway nway);
  void doDefragment();
  void processDefrag(const Ptr<PendingCmds>& defragCmds);

  // The counters, as the summary prints them.
  void showSoftwareSummary(int fd) const;
  // Checks every placement against the allocator: each client in Status holds its own block of
  // the size Status gives (a resize that found no room keeps the old one), owned under its base;
  // the allocator's blocks and free runs tile the table. A full scan; any broken invariant is
  // fatal. Returns the clients.
  U64 verify() const;

  // The client's block, or null.
  Ptr<Blk> swIdToBlock(SwId swId) const { return swIdToBlock_.get(swId); }
  const HashMap<SwId, Ptr<Blk>>& swIdToBlockMap() const { return swIdToBlock_; }
  // The owner of the block that starts at an index (may hold stale bases given up by a re-size).
  SwId baseIdxToSwId(NextHopTableIdx idx) const { return baseIdxToSwId_.get(idx); }

  U64 numNhBlockOverflow() const { return numNhBlockOverflow_; }
  U64 numNhBlockDefrag() const { return numNhBlockDefrag_; }
  U64 numNhBlockAlloc() const { return numNhBlockAlloc_; }
  U64 numNhBlockUpdate() const { return numNhBlockUpdate_; }
  U64 numNhBlockFree() const { return numNhBlockFree_; }
  void numNhBlockOverflowInc(U64 n) { numNhBlockOverflow_ += n; }
  void numNhBlockDefragInc(U64 n) { numNhBlockDefrag_ += n; }
  void numNhBlockAllocInc(U64 n) { numNhBlockAlloc_ += n; }
  void numNhBlockUpdateInc(U64 n) { numNhBlockUpdate_ += n; }
  void numNhBlockFreeInc(U64 n) { numNhBlockFree_ += n; }
  void numNhBlockOverflowIs(U64 v) { numNhBlockOverflow_ = v; }
  void numNhBlockDefragIs(U64 v) { numNhBlockDefrag_ = v; }
  void numNhBlockAllocIs(U64 v) { numNhBlockAlloc_ = v; }
  void numNhBlockUpdateIs(U64 v) { numNhBlockUpdate_ = v; }
  void numNhBlockFreeIs(U64 v) { numNhBlockFree_ = v; }

 private:
  Name name_;
  Ptr<Config> config_;
  std::unique_ptr<ConfigReactor> reactor_;
  Ptr<Status> status_;
  Ptr<BestFitAllocator> allocator_;
  HashMap<SwId, Ptr<Blk>> swIdToBlock_;
  HashMap<NextHopTableIdx, SwId> baseIdxToSwId_;
  U64 numNhBlockOverflow_ = 0;
  U64 numNhBlockDefrag_ = 0;
  U64 numNhBlockAlloc_ = 0;
  U64 numNhBlockUpdate_ = 0;
  U64 numNhBlockFree_ = 0;
  bool initialized_ = false;
};

Ptr<LpmNextHopSm> lpmNextHopSmFactory(const Name& name, const Ptr<Config>& config, const Ptr<Status>& status);
Ptr<LpmNextHopSm> LpmNextHopSmIs(const Name& name, const Ptr<Config>& config, const Ptr<Status>& status);

}  // namespace XpLpmNextHop
}  // namespace XpLib
