// HwWriter: drains a state machine's pending commands into the chip.
//
// This is where make-before-break is realised: commands are applied strictly
// in queue order, one at a time, and each is dequeued only after it is
// written, so the chip sees NHI entries before the prefix entry that points at
// them and a moved sub-trie's new entry before its old one is cleared. A write
// whose entry already holds exactly that content is skipped (after a restart
// the replayed writes change nothing) and counted.
#pragma once

#include "XpLpm/Config.h"
#include "XpLpm/Status.h"
#include "xdk/xpChip.h"

namespace XpLib {
namespace Agent {

struct HwWriterCounters {
  U64 prefixWrites = 0;
  U64 prefixSkipped = 0;
  U64 nhiWrites = 0;
  U64 nhiSkipped = 0;
  U64 errors = 0;  // writes the SDK refused
  // FNV-1a over every command's target and entry image, in queue order: equal
  // command streams give equal digests.
  U64 digest = 0xcbf29ce484222325ull;

  U64 writes() const { return prefixWrites + nhiWrites; }
  U64 skipped() const { return prefixSkipped + nhiSkipped; }
};

class HwWriter {
 public:
  HwWriter(const Ptr<XpLpm::Status>& status, const Ptr<XpLpm::ConfigBase>& config, XpXdk::xpIpRouteLpmMgr* mgr)
      : status_(status), config_(config), mgr_(mgr) {}

  // Writes every queued command, oldest first.
  void drain();
  const HwWriterCounters& counters() const { return counters_; }

 private:
  void write(const XpLpm::CommandBase& cmd);

  Ptr<XpLpm::Status> status_;
  Ptr<XpLpm::ConfigBase> config_;
  XpXdk::xpIpRouteLpmMgr* mgr_;
  HwWriterCounters counters_;
};

}  // namespace Agent
}  // namespace XpLib
