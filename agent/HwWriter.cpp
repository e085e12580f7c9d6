// Draining the pending command queue into the chip.
#include "agent/HwWriter.h"

#include "agent/EntryCodec.h"

namespace XpLib {
namespace Agent {

void HwWriter::drain() {
  while (status_->pendingCmds() > 0) {
    // Hold the command: dequeuing drops the queue's reference.
    Ptr<XpLpm::CommandBase> cmd = status_->pendingCmdQueue().front().second;
    write(*cmd);
    status_->pendingCmdDeq();
  }
}

void HwWriter::write(const XpLpm::CommandBase& cmd) {
  if (cmd.cmdType() == XpLpm::commandTypePrefix) {
    const auto& prefixCmd = static_cast<const XpLpm::PrefixCommand&>(cmd);
    const XpXdk::xpLpmPrefixEntry entry = encodePrefixEntry(prefixCmd, config_->keyType());
    XpXdk::xpLpmPrefixEntry held;
    const U32 table = prefixCmd.tableId().value(), offset = prefixCmd.index().value();
    if (mgr_->readPrefixEntry(0, table, offset, &held, 0) == XpXdk::XP_NO_ERR && held == entry) {
      ++counters_.prefixSkipped;
      return;
    }
    if (mgr_->writePrefixEntry(0, table, offset, &entry) != XpXdk::XP_NO_ERR) {
      ++counters_.errors;
      return;
    }
    ++counters_.prefixWrites;
    return;
  }
  const auto& nhiCmd = static_cast<const XpLpm::NhiCommand&>(cmd);
  const XpXdk::xpLpmNhiEntry entry = encodeNhiEntry(nhiCmd);
  XpXdk::xpLpmNhiEntry held;
  const U32 tile = nhiCmd.index().tile().value(), offset = nhiCmd.index().offset();
  if (mgr_->readNhiEntry(0, tile, offset, &held, 0) == XpXdk::XP_NO_ERR && held == entry) {
    ++counters_.nhiSkipped;
    return;
  }
  if (mgr_->writeNhiEntry(0, tile, offset, &entry) != XpXdk::XP_NO_ERR) {
    ++counters_.errors;
    return;
  }
  ++counters_.nhiWrites;
}

}  // namespace Agent
}  // namespace XpLib
