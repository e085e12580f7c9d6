// Prefix tables: the configuration of one hardware prefix table (geometry and
// hash) and the run-time table that holds its sub-tries by hash position.
#pragma once

#include <memory>
#include <string>

#include "XpLpm/LpmPrefix.h"
#include "XpLpm/XpLpmTypes.h"
#include "platform/HashMap.h"
#include "platform/Ptr.h"
#include "xdk/xpHashFunction.h"

namespace XpLib {
namespace XpLpm {

class SubTrie;

// One hardware prefix table: which, how wide its entries are, how many entries,
// and how many leading key bits (the tread) select an entry. Immutable.
class PrefixTableConfig : public PtrInterface {
 public:
  PrefixTableConfig(PrefixTableId tableId, PrefixTableType tableType, U32 depth, U8 tread)
      : tableId_(tableId), tableType_(tableType), depth_(depth), tread_(tread) {}

  PrefixTableId tableId() const { return tableId_; }
  PrefixTableType tableType() const { return tableType_; }
  U32 depth() const { return depth_; }
  U8 tread() const { return tread_; }

  // Bits of one entry that can hold prefix data: 88 for a 128-bit entry, 216 for a 256-bit one.
  U32 entrySize() const;
  // The 32-bit hash of a prefix for this table; reducing it to the depth is the caller's.
  virtual U32 hashFunc(const Ptr<LpmPrefix>& prefix) const;
  // "tableId,tableType,depth,tread".
  std::string str() const;

 private:
  const PrefixTableId tableId_;
  const PrefixTableType tableType_;
  const U32 depth_;
  const U8 tread_;
};

// A prefix table bound to the chip SDK's hash function, which it owns.
class XpPrefixTableConfig : public PrefixTableConfig {
 public:
  using PrefixTableConfig::PrefixTableConfig;

  const XpXdk::xpHashFunction* xdkHashFunction() const { return xdkHashFunction_.get(); }
  // Takes ownership; set once by the configurator.
  void xdkHashFunctionIs(XpXdk::xpHashFunction* f) {
    if (f != xdkHashFunction_.get()) xdkHashFunction_.reset(f);
  }
  // Destroys the hash function when the configuration is torn down.
  void doCleanup() { xdkHashFunction_.reset(); }

  U32 hashFunc(const Ptr<LpmPrefix>& prefix) const override;

 private:
  std::unique_ptr<XpXdk::xpHashFunction> xdkHashFunction_;
};

Ptr<XpPrefixTableConfig> xpPrefixTableConfigFactory(PrefixTableId tableId, PrefixTableType tableType, U32 depth,
                                                    U8 tread);

// The run-time table: its sub-tries by position.
class PrefixTable : public PtrInterface {
 public:
  using SubTrieMap = HashMap<PrefixTableIdx, Ptr<SubTrie>>;

  PrefixTable(PrefixTableId tableId, const Ptr<PrefixTableConfig>& tableConfig);
  ~PrefixTable() override;

  PrefixTableId tableId() const { return tableId_; }
  const Ptr<PrefixTableConfig>& tableConfig() const { return tableConfig_; }
  // The entry a prefix hashes to. The chip's hash already returns fewer bits than
  // the depth; the reduction only guards hand-made configurations.
  PrefixTableIdx positionOf(const Ptr<LpmPrefix>& prefix) const {
    U32 h = tableConfig_->hashFunc(prefix);
    return PrefixTableIdx(tableConfig_->depth() ? h % tableConfig_->depth() : h);
  }

  // The sub-trie at `idx`, or null.
  Ptr<SubTrie> subTrie(PrefixTableIdx idx) const;
  U32 subTries() const { return subTrie_.size(); }
  const SubTrieMap& subTrieMap() const { return subTrie_; }
  void subTrieIs(PrefixTableIdx idx, const Ptr<SubTrie>& st);
  void newSubTrie(PrefixTableIdx idx, const Ptr<SubTrie>& st) { subTrieIs(idx, st); }
  void subTrieDel(PrefixTableIdx idx);
  void subTrieDelAll();

  // "<tableId>, tcfg <config>".
  std::string str() const;

 private:
  const PrefixTableId tableId_;
  const Ptr<PrefixTableConfig> tableConfig_;
  SubTrieMap subTrie_;
};

Ptr<PrefixTable> prefixTableFactory(PrefixTableId tableId, const Ptr<PrefixTableConfig>& tableConfig);

}  // namespace XpLpm
}  // namespace XpLib
