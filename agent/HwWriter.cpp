// Draining the pending command queue into the chip.
#include "agent/HwWriter.h"

#include "agent/EntryCodec.h"

namespace XpLib {
namespace Agent {

namespace {

// Fields one by one: a record's padding bytes are not part of its content.
class Digest {
 public:
  explicit Digest(U64& d) : d_(d) {}
  template <class T>
  Digest& operator<<(const T& v) {
    for (unsigned i = 0; i < sizeof(T); ++i) {
      d_ ^= static_cast<U8>(static_cast<U64>(v) >> (8 * i));
      d_ *= 0x100000001b3ull;
    }
    return *this;
  }

 private:
  U64& d_;
};

void mix(U64& digest, U32 table, U32 offset, const XpXdk::xpLpmPrefixEntry& e) {
  Digest d(digest);
  d << U32(0) << table << offset << e.keySize << e.mode << e.branchLen << e.stride << e.nhiTile << e.nhiOffset
    << e.numSlots;
  for (U8 b : e.branch) d << b;
  for (const auto& leaf : e.slots) d << leaf.leafVal << leaf.leafValHigh;
}

void mix(U64& digest, U32 tile, U32 offset, const XpXdk::xpLpmNhiEntry& e) {
  Digest d(digest);
  d << U32(1) << tile << offset;
  for (const auto& pair : e.pair) d << pair.base << pair.size;
}

}  // namespace

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
    mix(counters_.digest, table, offset, entry);
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
  mix(counters_.digest, tile, offset, entry);
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
