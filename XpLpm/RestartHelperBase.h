// RestartHelperBase: rebuilds a state machine's model from what the chip holds
// after an agent restart. It reads every prefix-table entry and the NHI entries
// behind each valid one, and rebuilds sub-tries, NHI blocks, sharing records
// and installed routes; recovered routes are recorded as requested with the
// next-hop blocks the hardware holds. It queues no command: the hardware
// already holds what is rebuilt. The chip-specific derived class knows how a
// route key is rebuilt from hardware bits (createPrefix) and how a route found
// in an entry that turns out invalid is dropped (deletePrefix).
#pragma once

#include <string>
#include <vector>

#include "XpLpm/Config.h"
#include "XpLpm/LpmPrefix.h"
#include "XpLpm/NhiInfo.h"
#include "XpLpm/Status.h"
#include "platform/Ptr.h"
#include "xdk/xpIpRouteLpmMgr.h"

namespace XpLib {
namespace XpLpm {

class LpmSm;

// The branch a prefix-table entry holds (right-aligned, least significant byte first), as the
// model holds a branch (left-aligned). Requires: branchLen within the key.
SubTrieBranch entryBranch(const XpXdk::xpLpmPrefixEntry& e);

class RestartHelperBase : public PtrInterface {
 public:
  RestartHelperBase(const Ptr<ConfigBase>& config, const Ptr<Status>& lpmStatus);

  const Ptr<ConfigBase>& config() const { return config_; }
  const Ptr<Status>& lpmStatus() const { return lpmStatus_; }
  LpmSm* lpmSm() const { return lpmSm_; }
  virtual void lpmSmIs(LpmSm* sm) { lpmSm_ = sm; }
  XpXdk::xpIpRouteLpmMgr* xdkLpmMgr() const { return xdkLpmMgr_; }
  void xdkLpmMgrIs(XpXdk::xpIpRouteLpmMgr* mgr) { xdkLpmMgr_ = mgr; }

  // The route key of one occupied slot, from the sub-trie's branch and the slot's leaf words.
  virtual Ptr<LpmPrefix> createPrefix(const SubTrieBranch& branch, U8 branchLen, const U64& leafVal,
                                      const U64& leafValHigh, U8 stride);
  // Drops a route found in an entry that turned out invalid.
  virtual void deletePrefix(const Ptr<LpmPrefix>& prefix);

  // Rebuilds the machine from the hardware; clears entries that do not parse
  // when removeStale is set. 0 when done.
  int doRestart(bool removeStale, LpmSm* lpmSm);

  // What the last doRestart saw, for reports.
  struct Counts {
    U64 entriesRead = 0;
    U64 entriesEmpty = 0;
    U64 entriesInvalid = 0;
    U64 entriesCleared = 0;
    U64 subTries = 0;
    U64 routes = 0;
  };
  const Counts& counts() const { return counts_; }
  // Every entry the last doRestart found invalid, and why. They stay in the hardware unless
  // removeStale was set.
  struct InvalidEntry {
    PrefixTableId tableId;
    U32 offset = 0;
    std::string reason;
  };
  const std::vector<InvalidEntry>& invalidEntries() const { return invalidEntries_; }

 private:
  struct Place {
    Ptr<LpmPrefix> prefix;  // null: an empty slot
  };
  // Parses one entry into its places; returns the reason it is invalid, or empty.
  std::string parsePrefixTableEntry(const XpXdk::xpLpmPrefixEntry& e, const Ptr<PrefixTable>& table, U32 offset,
                                    SubTrieBranch& branch, std::vector<Place>& places);
  // The entry's key size, mode, branch and stride as our writes make them; the reason if not.
  std::string checkEntryShape(const XpXdk::xpLpmPrefixEntry& e, const Ptr<PrefixTable>& table) const;
  // Parses one slot of the entry into `places`; the reason it is invalid, or empty.
  std::string parseSlot(const XpXdk::xpLpmPrefixEntry& e, const XpXdk::xpLpmLeaf& leaf, const SubTrieBranch& branch,
                        const Ptr<PrefixTable>& table, U32 offset, std::vector<Place>& places);
  // Checks that the entry's NHI block can be held as it was, and reads its contents into the key;
  // returns the reason it cannot, or empty.
  std::string readNhiBlock(const XpXdk::xpLpmPrefixEntry& e, const std::vector<Place>& places, NhiInfoKey& nhiInfoKey);
  void rebuild(const XpXdk::xpLpmPrefixEntry& e, const Ptr<PrefixTable>& table, U32 offset,
               const SubTrieBranch& branch, const std::vector<Place>& places, const NhiInfoKey& nhiInfoKey);
  void dropInvalid(bool removeStale, U32 tableId, U32 offset, const std::vector<Place>& places);

  Ptr<ConfigBase> config_;
  Ptr<Status> lpmStatus_;
  LpmSm* lpmSm_ = nullptr;
  XpXdk::xpIpRouteLpmMgr* xdkLpmMgr_ = nullptr;
  Counts counts_;
  std::vector<InvalidEntry> invalidEntries_;
};

}  // namespace XpLpm
}  // namespace XpLib
