// Prefix-table configuration, hashing of prefixes for a table, and the run-time table.
#include "XpLpm/PrefixTable.h"

#include "XpLpm/SubTrie.h"
#include "platform/Assert.h"
#include "platform/Exception.h"
#include "xdk/XpBitVector.h"

namespace XpLib {
namespace XpLpm {

static_assert(XpXdk::kNarrowEntryBits == 88 && XpXdk::kWideEntryBits == 216);

U32 PrefixTableConfig::entrySize() const {
  if (tableType_ == prefixTableNarrow128b) return XpXdk::kNarrowEntryBits;
  XP_ASSERT_TEXT(tableType_ == prefixTableWide256b, "tableType() == prefixTableWide256b_");
  return XpXdk::kWideEntryBits;
}

U32 PrefixTableConfig::hashFunc(const Ptr<LpmPrefix>&) const {
  throw NoImplementationException("hashFunc must be implemented in the derived class");
}

std::string PrefixTableConfig::str() const {
  return tableId_.str() + "," + std::to_string(static_cast<U32>(tableType_)) + "," + std::to_string(depth_) + "," +
         std::to_string(tread_);
}

// The SDK takes the key least significant byte first: array byte j is key byte 17 - j.
U32 XpPrefixTableConfig::hashFunc(const Ptr<LpmPrefix>& prefix) const {
  XP_ASSERT_TEXT(xdkHashFunction_, "xdkHashFunction()");
  SubTrieBranch key = prefix->branch(tread());
  std::array<U8, SubTrieBranch::kBytes> bytes;
  for (U32 j = 0; j < SubTrieBranch::kBytes; ++j) bytes[j] = key.byteAt(SubTrieBranch::kBytes - 1 - j);
  return xdkHashFunction_->hash(XpXdk::XpBitVector(bytes, 8 * SubTrieBranch::kBytes));
}

Ptr<XpPrefixTableConfig> xpPrefixTableConfigFactory(PrefixTableId tableId, PrefixTableType tableType, U32 depth,
                                                    U8 tread) {
  return makePtr<XpPrefixTableConfig>(tableId, tableType, depth, tread);
}

PrefixTable::PrefixTable(PrefixTableId tableId, const Ptr<PrefixTableConfig>& tableConfig)
    : tableId_(tableId), tableConfig_(tableConfig) {}

PrefixTable::~PrefixTable() = default;

Ptr<SubTrie> PrefixTable::subTrie(PrefixTableIdx idx) const { return subTrie_.get(idx); }

void PrefixTable::subTrieIs(PrefixTableIdx idx, const Ptr<SubTrie>& st) { subTrie_.set(idx, st); }

void PrefixTable::subTrieDel(PrefixTableIdx idx) { subTrie_.erase(idx); }

void PrefixTable::subTrieDelAll() { subTrie_.clear(); }

std::string PrefixTable::str() const { return tableId_.str() + ", tcfg " + tableConfig_->str(); }

Ptr<PrefixTable> prefixTableFactory(PrefixTableId tableId, const Ptr<PrefixTableConfig>& tableConfig) {
  return makePtr<PrefixTable>(tableId, tableConfig);
}

}  // namespace XpLpm
}  // namespace XpLib
