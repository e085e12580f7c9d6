// The next-hop model's entities and text forms.
#include "XpLpmNextHop/XpLpmNextHop.h"

#include <sstream>

namespace XpLib {
namespace XpLpmNextHop {

std::string NextHopBlock::str() const {
  return "Value('XpLib::XpLpmNextHop::NextHopBlock', ** {'base': " + base_.str() + ", 'size': " + size_.str() + "})";
}

std::ostream& operator<<(std::ostream& os, const NextHopBlock& b) { return os << b.str(); }

std::string NextHopBlockList::str() const {
  std::string out = "[";
  for (const auto& [index, block] : q_) {
    if (out.size() > 1) out += ", ";
    out += block.base().str() + "/" + block.size().str();
  }
  return out + "]";
}

std::string ShuffleCmd::str() const {
  return "swId " + swId_.str() + " from " + prevNextHopBlock_.str() + " to " + nextHopBlock_.str();
}

Ptr<ShuffleCmd> shuffleCmdFactory(SwId swId, const NextHopBlock& nextHopBlock, const NextHopBlock& prevNextHopBlock) {
  return makePtr<ShuffleCmd>(swId, nextHopBlock, prevNextHopBlock);
}

void Config::tableSizeIs(U32 size) {
  if (size == tableSize_) return;
  tableSize_ = size;
  notifiees_.announce([](Notifiee& n) { n.onTableSize(); });
}

void Config::requestIs(SwId swId, Nway nway) {
  if (const Nway* held = request_.find(swId); held && *held == nway) return;
  request_.set(swId, nway);
  notifiees_.announce([swId](Notifiee& n) { n.onRequest(swId); });
}

void Config::requestDel(SwId swId) {
  if (!request_.erase(swId)) return;
  notifiees_.announce([swId](Notifiee& n) { n.onRequest(swId); });
}

void Config::requestDelAll() {
  while (!request_.empty()) requestDel(request_.begin()->first);
}

Ptr<Config> configFactory(const Name& name) { return makePtr<Config>(name); }

void Status::swIdToNextHopBlockIs(SwId swId, const NextHopBlock& block) {
  if (const NextHopBlock* held = swIdToNextHopBlock_.find(swId); held && *held == block) return;
  swIdToNextHopBlock_.set(swId, block);
  notifiees_.announce([swId](Notifiee& n) { n.onSwIdToNextHopBlock(swId); });
}

void Status::swIdToNextHopBlockDel(SwId swId) {
  if (!swIdToNextHopBlock_.erase(swId)) return;
  notifiees_.announce([swId](Notifiee& n) { n.onSwIdToNextHopBlock(swId); });
}

void Status::swIdToNextHopBlockDelAll() {
  while (!swIdToNextHopBlock_.empty()) swIdToNextHopBlockDel(swIdToNextHopBlock_.begin()->first);
}

U32 Status::shuffleCmdEnq(const Ptr<ShuffleCmd>& cmd) {
  U32 index = shuffleCmd_.enqReuseLast(cmd);
  notifiees_.announce([index](Notifiee& n) { n.onShuffleCmd(index); });
  return index;
}

Ptr<Status> statusFactory(const Name& name) { return makePtr<Status>(name); }

}  // namespace XpLpmNextHop
}  // namespace XpLib
