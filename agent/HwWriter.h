// HwWriter: drains a state machine's pending commands into the chip.
//
// This is where make-before-break is realised: commands are applied strictly
// in queue order, one at a time, and each is dequeued only after it is
// written, so the chip sees NHI entries before the prefix entry that points at
// them and a moved sub-trie's new entry before its old one is cleared. A write
// whose entry already holds exactly that content is skipped (after a restart
// the replayed writes change nothing) and counted.
//
// A request that compacted an NHI tile is the exception. Its queue holds writes
// that are right only for a moment (a sub-trie that grew is written at its moved
// old block with its new slot count, past the end of that block and over the
// next one) and block moves that overlap their own old entries while the prefix
// entries still read them. After such a request the writer follows the queue
// but writes only what the chip must hold at the end: a prefix entry's last
// image, and an NHI entry only with the contents the model's live block there
// wants. Before an NHI write lands on entries that prefix entries still read,
// those readers are moved aside to a copy of what they read, in entries nobody
// uses; their own writes later in the queue point them at their final place.
// The command digest still covers every command.
#pragma once

#include <optional>
#include <vector>

#include "XpLpm/Config.h"
#include "XpLpm/Status.h"
#include "agent/SampledTimer.h"
#include "platform/Hash.h"
#include "xdk/xpIpRouteLpmMgr.h"

namespace XpLib {
namespace XpLpm {
class LpmSm;
}

namespace Agent {

struct HwWriterCounters {
  U64 prefixWrites = 0;
  U64 prefixSkipped = 0;
  U64 nhiWrites = 0;
  U64 nhiSkipped = 0;
  U64 errors = 0;  // writes the SDK refused
  // After a compaction: commands left out because the chip must not hold them at the end.
  U64 guarded = 0;
  // Of those, NHI writes that would have landed in another live block with other contents.
  U64 guardedLive = 0;
  // Writes that moved the readers of overlapped NHI entries aside (copies and re-pointed entries).
  U64 stagingWrites = 0;
  // NHI writes over entries still read by prefix entries that could not be moved aside.
  U64 unprotected = 0;
  U64 compactionDrains = 0;
  // FNV-1a over every command's target and entry image, in queue order: equal
  // command streams give equal digests.
  U64 digest = kFnv1aOffset;

  U64 writes() const { return prefixWrites + nhiWrites + stagingWrites; }
  U64 skipped() const { return prefixSkipped + nhiSkipped; }
};

class HwWriter {
 public:
  // Reads the chip's prefix entries once, to know which NHI entries they read.
  HwWriter(const Ptr<XpLpm::Status>& status, const Ptr<XpLpm::ConfigBase>& config, const XpLpm::LpmSm* sm,
           XpXdk::xpIpRouteLpmMgr* mgr);

  // Writes every queued command, oldest first.
  void drain();
  // Clears a prefix entry outside the command stream: one recovery could not parse.
  bool clearPrefixEntry(U32 table, U32 offset);
  const HwWriterCounters& counters() const { return counters_; }
  // Time spent draining (encoding, comparing, writing the chip), estimated from a sample.
  double seconds() const { return timer_.seconds(); }

 private:
  struct Item;
  class Plan;

  void drainQueue();
  void write(const XpLpm::CommandBase& cmd);
  void drainAfterCompaction();
  bool writePrefix(U32 table, U32 offset, const XpXdk::xpLpmPrefixEntry& entry, const XpXdk::xpLpmPrefixEntry& held);
  bool writeNhi(U32 tile, U32 offset, const XpXdk::xpLpmNhiEntry& entry);
  // Adds `delta` to the reader count of every NHI entry the prefix entry reads.
  void countReads(const XpXdk::xpLpmPrefixEntry& e, int delta);
  U32 readers(U32 tile, U32 offset) const;

  Ptr<XpLpm::Status> status_;
  Ptr<XpLpm::ConfigBase> config_;
  const XpLpm::LpmSm* sm_;
  XpXdk::xpIpRouteLpmMgr* mgr_;
  HwWriterCounters counters_;
  SampledTimer timer_;
  U64 compactionsSeen_ = 0;
  // Per tile and entry: how many of the chip's prefix entries read that NHI entry.
  std::vector<std::vector<U16>> readers_;
  // The last prefix command of this drain and the entry it left in the chip, while nothing else
  // has written a prefix entry since: a replay after a restart asks for a sub-trie's entry once
  // per route, one request after another, and the same command again needs no encoding and
  // finds its entry in place.
  Ptr<const XpLpm::PrefixCommand> lastPrefixCmd_;
  XpXdk::xpLpmPrefixEntry lastPrefixEntry_;
};

}  // namespace Agent
}  // namespace XpLib
