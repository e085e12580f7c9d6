// The LPM Status entity and its command records: the hardware writes waiting
// for the agent, in order, and the next-hop block of every installed prefix.
#pragma once

#include <string>
#include <utility>

#include "XpLpm/LpmPrefix.h"
#include "XpLpm/LpmPrefixRecordMap.h"
#include "XpLpm/XpLpmTypes.h"
#include "platform/LinkQueue.h"
#include "platform/Notifier.h"
#include "platform/ObjectPool.h"
#include "platform/Ptr.h"

namespace XpLib {
namespace XpLpm {

class CommandBase : public PtrInterface {
 public:
  CommandType cmdType() const { return cmdType_; }

 protected:
  explicit CommandBase(CommandType t) : cmdType_(t) {}

 private:
  const CommandType cmdType_;
};

// The full image of one prefix-table entry.
class PrefixCommand : public CommandBase {
 public:
  PrefixCommand(PrefixTableId tableId, PrefixTableIdx index, const SubTrieBranch& branch, U8 branchLen, U8 stride,
                SubTrieMode mode, LpmPrefixList prefixList, const NhiTableIdx& nhiBaseIdx)
      : CommandBase(commandTypePrefix),
        tableId_(tableId),
        index_(index),
        branch_(branch),
        branchLen_(branchLen),
        stride_(stride),
        mode_(mode),
        prefixList_(std::move(prefixList)),
        nhiBaseIdx_(nhiBaseIdx) {}

  PrefixTableId tableId() const { return tableId_; }
  PrefixTableIdx index() const { return index_; }
  const SubTrieBranch& branch() const { return branch_; }
  U8 branchLen() const { return branchLen_; }
  U8 stride() const { return stride_; }
  SubTrieMode mode() const { return mode_; }
  // The entry's prefixes in slot order: list index = slot.
  const LpmPrefixList& prefixList() const { return prefixList_; }
  const NhiTableIdx& nhiBaseIdx() const { return nhiBaseIdx_; }

  // Commands are made and dropped by the million, each read once by the writer.
  static void* operator new(std::size_t) { return PoolOf<PrefixCommand>::allocate(); }
  static void operator delete(void* p) { PoolOf<PrefixCommand>::release(p); }

 private:
  const PrefixTableId tableId_;
  const PrefixTableIdx index_;
  const SubTrieBranch branch_;
  const U8 branchLen_;
  const U8 stride_;
  const SubTrieMode mode_;
  const LpmPrefixList prefixList_;
  const NhiTableIdx nhiBaseIdx_;
};

Ptr<PrefixCommand> prefixCommandFactory(PrefixTableId tableId, PrefixTableIdx index, const SubTrieBranch& branch,
                                        U8 branchLen, U8 stride, SubTrieMode mode, LpmPrefixList prefixList,
                                        const NhiTableIdx& nhiBaseIdx);

// One NHI entry and the next-hop blocks to pack into it, in order.
class NhiCommand : public CommandBase {
 public:
  NhiCommand(const NhiTableIdx& index, NextHopBlockList list)
      : CommandBase(commandTypeNhi), index_(index), nextHopBlockList_(std::move(list)) {}

  const NhiTableIdx& index() const { return index_; }
  const NextHopBlockList& nextHopBlockList() const { return nextHopBlockList_; }

  static void* operator new(std::size_t) { return PoolOf<NhiCommand>::allocate(); }
  static void operator delete(void* p) { PoolOf<NhiCommand>::release(p); }

 private:
  const NhiTableIdx index_;
  const NextHopBlockList nextHopBlockList_;
};

Ptr<NhiCommand> nhiCommandFactory(const NhiTableIdx& index, NextHopBlockList list);

class Status : public PtrInterface {
 public:
  class Notifiee : public BaseNotifiee<Status, Notifiee> {
   public:
    virtual void onPendingCmd(U32 /*index*/) {}
    virtual void onPendingCmdMetadata() {}
    virtual void onPrefixToNextHopBlock(const Ptr<LpmPrefix>&) {}

   protected:
    virtual ~Notifiee() = default;
  };

  explicit Status(const Name& name) : name_(name) {}
  const Name& name() const { return name_; }

  // Appends a command under the next running index: one above the newest queued
  // command and never below the counter, so indexes only grow, even across drains.
  U32 pendingCmdEnq(const Ptr<CommandBase>& cmd);
  // Removes the oldest command: the consumer's operation once it wrote it.
  void pendingCmdDeq();
  void pendingCmdDel(U32 index);
  void pendingCmdDelAll();
  U32 pendingCmds() const { return pendingCmd_.size(); }
  Ptr<CommandBase> pendingCmd(U32 index) const {
    const Ptr<CommandBase>* c = pendingCmd_.find(index);
    return c ? *c : Ptr<CommandBase>();
  }
  const LinkQueue<Ptr<CommandBase>>& pendingCmdQueue() const { return pendingCmd_; }
  // head: index of the oldest command; tail: the index the next command gets.
  const QueueMetadata& pendingCmdMetadata() const { return pendingCmd_.metadata(); }
  void pendingCmdMetadataIs(const QueueMetadata& md);

  // The block of an installed prefix, or the default block.
  NextHopBlock prefixToNextHopBlock(const Ptr<LpmPrefix>& p) const { return prefixToNextHopBlock_.get(p); }
  U32 prefixToNextHopBlocks() const { return prefixToNextHopBlock_.size(); }
  const LpmPrefixRecordMap<InstalledField>& prefixToNextHopBlockMap() const { return prefixToNextHopBlock_; }
  void prefixToNextHopBlockIs(const Ptr<LpmPrefix>& p, const NextHopBlock& block);
  void prefixToNextHopBlockDel(const Ptr<LpmPrefix>& p);
  void prefixToNextHopBlockDelAll();

  void notifieeAdd(Notifiee* n) { notifiees_.add(n); }
  void notifieeRemove(Notifiee* n) { notifiees_.remove(n); }

 private:
  Name name_;
  LinkQueue<Ptr<CommandBase>> pendingCmd_;
  LpmPrefixRecordMap<InstalledField> prefixToNextHopBlock_;
  NotifieeList<Notifiee> notifiees_;
};

Ptr<Status> statusFactory(const Name& name);

}  // namespace XpLpm
}  // namespace XpLib
