// A text image of a state machine's whole model, for comparing two models
// (a warm restart must rebuild the model it found).
#pragma once

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "XpLpm/XpLpmSm.h"

namespace XpLib {
namespace Agent {

// The branch as the hardware holds it: bits past branchLen are not part of it.
inline XpLpm::SubTrieBranch maskedBranch(const XpLpm::SubTrieBranch& b, U8 len) {
  XpLpm::SubTrieBranch m;
  for (U32 i = 0; i < len; ++i)
    if ((b.byteAt(i / 8) >> (7 - i % 8)) & 1) m.u8Is(i / 8, static_cast<U8>(m.byteAt(i / 8) | (0x80 >> (i % 8))));
  return m;
}

// Sub-tries by table and position with their shape, slots and NHI block; shared
// NHI records with their counts; installed routes with their blocks; free NHI
// entries in all (a block filed under another tile than its allocator's is
// accounted under its filed tile after a restart, see misfiledNhiBlocks).
// What a snapshot adds beyond the model itself, for comparisons within one run:
// each tile's free runs, the command queue, the machine's counters.
struct SnapshotDetail {
  bool freeRuns = false;
  bool queue = false;
  bool counters = false;
};

inline std::string modelSnapshot(const XpLpm::LpmSm& sm, const SnapshotDetail& detail = {}) {
  std::map<std::pair<U32, U32>, std::string> subTries;
  for (const auto& [id, table] : sm.prefixTableMap()) {
    for (const auto& [idx, st] : table->subTrieMap()) {
      std::ostringstream os;
      // The block's size as the allocator holds it: the sub-trie's own nhiBlkSize
      // is only raised on insertion, so it may remember a larger past size.
      const Ptr<Blk> blk = sm.nhiBaseIdxToBlk(st->nhiBaseIdx());
      os << maskedBranch(st->branch(), st->branchLen()).str() << " len " << +st->branchLen() << " stride "
         << +st->stride() << " slots " << +st->maxPrefixSlot() << " nhi " << st->nhiBaseIdx().str() << "/"
         << (blk ? blk->blkSz() : 0) << " key " << st->nhiInfoKey().str() << " [";
      for (const auto& p : st->slots()) os << (p ? p->stringValue() : "-") << ";";
      os << "]";
      subTries[{id.value(), idx.value()}] = os.str();
    }
  }
  std::set<std::string> shared, routes;
  for (const auto& [key, info] : sm.sharedNhiMap()) shared.insert(info->str());
  for (const auto& [p, block] : sm.status()->prefixToNextHopBlockMap()) routes.insert(p->stringValue() + " " + block.str());
  std::ostringstream os;
  for (const auto& [at, text] : subTries) os << "subtrie " << at.first << "/" << at.second << " " << text << "\n";
  for (const auto& s : shared) os << "shared " << s << "\n";
  for (const auto& r : routes) os << "route " << r << "\n";
  U64 freeEntries = 0;
  for (const auto& [tile, a] : sm.nhiAllocatorMap()) freeEntries += a->freeEntries();
  os << "nhi free " << freeEntries << "\n";
  if (detail.freeRuns) {
    for (const auto& [tile, a] : sm.nhiAllocatorMap()) {
      os << "tile " << tile << " runs";
      for (const auto& [start, len] : a->freeBlkStartIndexToSz()) os << " " << start << "+" << len;
      os << "\n";
    }
  }
  if (detail.queue) {
    const QueueMetadata& md = sm.status()->pendingCmdMetadata();
    os << "queue " << sm.status()->pendingCmds() << " head " << md.head << " tail " << md.tail << "\n";
  }
  if (detail.counters) {
    os << "counters " << sm.numNhiOverflow() << " " << sm.numNhiBlockDefrag() << " " << sm.numHashShufflingAttempt()
       << " " << sm.numHashShufflingSuccess() << "\n";
  }
  return os.str();
}

// The lines of one snapshot missing from the other, both ways, for a readable failure.
inline std::string snapshotDiff(const std::string& a, const std::string& b) {
  auto lines = [](const std::string& s) {
    std::multiset<std::string> out;
    std::istringstream is(s);
    for (std::string line; std::getline(is, line);) out.insert(line);
    return out;
  };
  const auto la = lines(a), lb = lines(b);
  std::ostringstream os;
  int shown = 0;
  for (const auto& l : la)
    if (!lb.count(l) && shown++ < 8) os << "- " << l << "\n";
  for (const auto& l : lb)
    if (!la.count(l) && shown++ < 16) os << "+ " << l << "\n";
  return os.str();
}

// Blocks held by another tile's allocator than the tile they are filed under.
inline U64 misfiledNhiBlocks(const XpLpm::LpmSm& sm) {
  U64 n = 0;
  for (const auto& [base, blk] : sm.nhiBaseIdxToBlkMap()) n += blk->allocator() != sm.nhiAllocator(base.tile()).ptr();
  return n;
}

}  // namespace Agent
}  // namespace XpLib
