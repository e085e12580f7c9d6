// The next-hop model: client ids, block placements, shuffle commands, and the
// Config (input) and Status (output) entities of the next-hop block manager.
#pragma once

#include <ostream>
#include <string>

#include "platform/HashMap.h"
#include "platform/IntValue.h"
#include "platform/LinkQueue.h"
#include "platform/Notifier.h"
#include "platform/Ptr.h"
#include "platform/Types.h"

namespace XpLib {
namespace XpLpmNextHop {

// A client's software id; all ones means none.
using SwId = IntValue<struct SwIdTag, U64, ~U64(0)>;
// A block size in next-hop entries; 65535 means none (and, as a request, no request).
using Nway = IntValue<struct NwayTag, U16, U16(0xFFFF)>;
// An entry of the next-hop table; all ones means none.
using NextHopTableIdx = IntValue<struct NextHopTableIdxTag, U32, ~U32(0)>;

// The placement of one block; the default {0xFFFFFFFF, 0xFFFF} means no block.
class NextHopBlock {
 public:
  NextHopBlock() = default;
  NextHopBlock(NextHopTableIdx base, Nway size) : base_(base), size_(size) {}
  NextHopBlock(U32 base, U16 size) : base_(base), size_(size) {}

  NextHopTableIdx base() const { return base_; }
  Nway size() const { return size_; }
  void baseIs(NextHopTableIdx b) { base_ = b; }
  void sizeIs(Nway s) { size_ = s; }

  // Jenkins one-at-a-time over base (4 bytes) then size (2 bytes), each least significant byte first.
  U32 hash() const {
    OneAtATimeHash h;
    h.addLittleEndian(base_.value());
    h.addLittleEndian(size_.value());
    return h.finish();
  }
  std::string str() const;
  std::string valueToStrep() const { return str(); }

  bool operator==(const NextHopBlock& o) const { return base_ == o.base_ && size_ == o.size_; }
  bool operator!=(const NextHopBlock& o) const { return !(*this == o); }
  auto operator<=>(const NextHopBlock& o) const {
    if (auto c = base_ <=> o.base_; c != 0) return c;
    return size_ <=> o.size_;
  }

 private:
  NextHopTableIdx base_;
  Nway size_;
};

std::ostream& operator<<(std::ostream& os, const NextHopBlock& b);

// An ordered list of blocks under running position indexes, as an NHI write carries it.
class NextHopBlockList {
 public:
  // The most pairs an NHI entry holds: a list that long still needs no heap memory.
  static constexpr U32 kInlineBlocks = 10;
  using const_iterator = LinkQueue<NextHopBlock, kInlineBlocks>::const_iterator;

  void newNextHopBlock(U32 index, const NextHopBlock& b) { q_.insert(index, b); }
  void nextHopBlockEnq(const NextHopBlock& b) { q_.enqRunning(b); }
  void nextHopBlockDeq() { q_.pop(); }
  bool nextHopBlockDel(U32 index) { return q_.erase(index); }
  void nextHopBlockDelAll() { q_.clear(); }
  // The block under `index`, or the default block.
  NextHopBlock nextHopBlock(U32 index) const {
    const NextHopBlock* b = q_.find(index);
    return b ? *b : NextHopBlock();
  }
  U32 nextHopBlocks() const { return q_.size(); }
  const QueueMetadata& nextHopBlockMetadata() const { return q_.metadata(); }
  const_iterator begin() const { return q_.begin(); }
  const_iterator end() const { return q_.end(); }

  bool operator==(const NextHopBlockList& o) const {
    return q_.metadata() == o.q_.metadata() && q_.sameEntries(o.q_);
  }
  // "[base/size, ...]" in list order, for traces.
  std::string str() const;
  bool operator!=(const NextHopBlockList& o) const { return !(*this == o); }

 private:
  LinkQueue<NextHopBlock, kInlineBlocks> q_;
};

// One relocation of a client's block by compaction.
class ShuffleCmd : public PtrInterface {
 public:
  ShuffleCmd(SwId swId, const NextHopBlock& nextHopBlock, const NextHopBlock& prevNextHopBlock)
      : swId_(swId), nextHopBlock_(nextHopBlock), prevNextHopBlock_(prevNextHopBlock) {}

  SwId swId() const { return swId_; }
  const NextHopBlock& nextHopBlock() const { return nextHopBlock_; }
  const NextHopBlock& prevNextHopBlock() const { return prevNextHopBlock_; }
  std::string str() const;

 private:
  const SwId swId_;
  const NextHopBlock nextHopBlock_;
  const NextHopBlock prevNextHopBlock_;
};

Ptr<ShuffleCmd> shuffleCmdFactory(SwId swId, const NextHopBlock& nextHopBlock, const NextHopBlock& prevNextHopBlock);

// The manager's input: the table size and each client's requested block size.
class Config : public PtrInterface {
 public:
  class Notifiee : public BaseNotifiee<Config, Notifiee> {
   public:
    virtual void onRequest(SwId) {}
    virtual void onTableSize() {}

   protected:
    virtual ~Notifiee() = default;
  };

  explicit Config(const Name& name) : name_(name) {}
  const Name& name() const { return name_; }

  U32 tableSize() const { return tableSize_; }
  void tableSizeIs(U32 size);

  // The requested size, or Nway() (65535) when the client asked for nothing.
  Nway request(SwId swId) const { return request_.get(swId); }
  U32 requests() const { return request_.size(); }
  const HashMap<SwId, Nway>& requestMap() const { return request_; }
  void requestIs(SwId swId, Nway nway);
  void newRequest(SwId swId, Nway nway) { requestIs(swId, nway); }
  void requestDel(SwId swId);
  void requestDelAll();

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeRemove(Notifiee* n) { notifiees_.remove(n); }

 private:
  Name name_;
  U32 tableSize_ = 0;
  HashMap<SwId, Nway> request_;
  NotifieeList<Notifiee> notifiees_;
};

Ptr<Config> configFactory(const Name& name);

// The manager's output: every client's placement and the queue of block moves.
class Status : public PtrInterface {
 public:
  class Notifiee : public BaseNotifiee<Status, Notifiee> {
   public:
    virtual void onSwIdToNextHopBlock(SwId) {}
    virtual void onShuffleCmd(U32 /*index*/) {}

   protected:
    virtual ~Notifiee() = default;
  };

  explicit Status(const Name& name) : name_(name) {}
  const Name& name() const { return name_; }

  // The client's placement, or NextHopBlock() when it holds none.
  NextHopBlock swIdToNextHopBlock(SwId swId) const { return swIdToNextHopBlock_.get(swId); }
  U32 swIdToNextHopBlocks() const { return swIdToNextHopBlock_.size(); }
  const HashMap<SwId, NextHopBlock>& swIdToNextHopBlockMap() const { return swIdToNextHopBlock_; }
  void swIdToNextHopBlockIs(SwId swId, const NextHopBlock& block);
  void newSwIdToNextHopBlock(SwId swId, const NextHopBlock& block) { swIdToNextHopBlockIs(swId, block); }
  void swIdToNextHopBlockDel(SwId swId);
  void swIdToNextHopBlockDelAll();

  // The queue's index rule: a drained queue gives its last index again, since
  // consumers key on queue order, not on the number.
  U32 shuffleCmdEnq(const Ptr<ShuffleCmd>& cmd);
  void shuffleCmdDeq() { shuffleCmd_.pop(); }
  void shuffleCmdDel(U32 index) { shuffleCmd_.erase(index); }
  void shuffleCmdDelAll() { shuffleCmd_.clear(); }
  U32 shuffleCmds() const { return shuffleCmd_.size(); }
  Ptr<ShuffleCmd> shuffleCmd(U32 index) const {
    const Ptr<ShuffleCmd>* c = shuffleCmd_.find(index);
    return c ? *c : Ptr<ShuffleCmd>();
  }
  const LinkQueue<Ptr<ShuffleCmd>>& shuffleCmdQueue() const { return shuffleCmd_; }
  const QueueMetadata& shuffleCmdMetadata() const { return shuffleCmd_.metadata(); }

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeRemove(Notifiee* n) { notifiees_.remove(n); }

 private:
  Name name_;
  HashMap<SwId, NextHopBlock> swIdToNextHopBlock_;
  LinkQueue<Ptr<ShuffleCmd>> shuffleCmd_;
  NotifieeList<Notifiee> notifiees_;
};

Ptr<Status> statusFactory(const Name& name);

}  // namespace XpLpmNextHop
}  // namespace XpLib
