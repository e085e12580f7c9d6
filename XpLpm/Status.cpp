// The LPM Status entity and command factories.
#include "XpLpm/Status.h"

namespace XpLib {
namespace XpLpm {

Ptr<PrefixCommand> prefixCommandFactory(PrefixTableId tableId, PrefixTableIdx index, const SubTrieBranch& branch,
                                        U8 branchLen, U8 stride, SubTrieMode mode, LpmPrefixList prefixList,
                                        const NhiTableIdx& nhiBaseIdx) {
  return makePtr<PrefixCommand>(tableId, index, branch, branchLen, stride, mode, std::move(prefixList), nhiBaseIdx);
}

Ptr<NhiCommand> nhiCommandFactory(const NhiTableIdx& index, NextHopBlockList list) {
  return makePtr<NhiCommand>(index, std::move(list));
}

U32 Status::pendingCmdEnq(const Ptr<CommandBase>& cmd) {
  U32 index = pendingCmd_.enqRunning(cmd);
  notifiees_.announce([index](Notifiee& n) {
    n.onPendingCmdMetadata();
    n.onPendingCmd(index);
  });
  return index;
}

void Status::pendingCmdDeq() {
  if (pendingCmd_.empty()) return;
  const U32 index = pendingCmd_.front().first;
  pendingCmd_.pop();
  notifiees_.announce([index](Notifiee& n) { n.onPendingCmd(index); });
}

void Status::pendingCmdDel(U32 index) {
  if (!pendingCmd_.erase(index)) return;
  notifiees_.announce([index](Notifiee& n) { n.onPendingCmd(index); });
}

void Status::pendingCmdDelAll() {
  while (!pendingCmd_.empty()) pendingCmdDeq();
}

void Status::pendingCmdMetadataIs(const QueueMetadata& md) {
  if (md == pendingCmd_.metadata()) return;
  pendingCmd_.metadataIs(md);
  notifiees_.announce([](Notifiee& n) { n.onPendingCmdMetadata(); });
}

void Status::prefixToNextHopBlockIs(const Ptr<LpmPrefix>& p, const NextHopBlock& block) {
  if (!prefixToNextHopBlock_.assign(p, block)) return;
  notifiees_.announce([&p](Notifiee& n) { n.onPrefixToNextHopBlock(p); });
}

void Status::prefixToNextHopBlockDel(const Ptr<LpmPrefix>& p) {
  Ptr<LpmPrefix> keep = p;  // the caller's reference may be the map's own key
  if (!prefixToNextHopBlock_.erase(keep)) return;
  notifiees_.announce([&keep](Notifiee& n) { n.onPrefixToNextHopBlock(keep); });
}

void Status::prefixToNextHopBlockDelAll() {
  while (!prefixToNextHopBlock_.empty()) prefixToNextHopBlockDel((*prefixToNextHopBlock_.begin()).first);
}

Ptr<Status> statusFactory(const Name& name) { return makePtr<Status>(name); }

}  // namespace XpLpm
}  // namespace XpLib
