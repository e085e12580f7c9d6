// LpmSm lifecycle and request handling: start-up, dispatch, update and delete.
#include <algorithm>
#include <cstdlib>

#include "XpLpm/XpLpmSm.h"
#include "platform/Assert.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

void LpmSm::ConfigReactor::onRequest(const Ptr<LpmPrefix>& prefix) { owner_->handleRequest(prefix); }

LpmSm::LpmSm(const Name& name, const Ptr<ConfigBase>& config, const Ptr<Status>& status,
             const Ptr<RestartHelperBase>& restartHelper)
    : name_(name), status_(status), restartHelper_(restartHelper) {
  configIs(config);
  handleInitialized();
}

LpmSm::~LpmSm() = default;

void LpmSm::configIs(const Ptr<ConfigBase>& config) {
  const bool active = reactor_ ? reactor_->isNotificationActive() : true;
  reactor_.reset();
  config_ = config;
  if (!config) return;
  reactor_ = std::make_unique<ConfigReactor>(this);
  reactor_->isNotificationActiveIs(active);
  reactor_->notifierIs(config);
}

void LpmSm::hasNotificationActiveIs(bool active) {
  if (reactor_) reactor_->isNotificationActiveIs(active);
}

Ptr<PrefixTable> LpmSm::prefixTableIs(PrefixTableId id, const Ptr<PrefixTableConfig>& cfg) {
  if (const Ptr<PrefixTable>* held = prefixTable_.find(id)) return *held;
  Ptr<PrefixTable> table = prefixTableFactory(id, cfg);
  prefixTable_.set(id, table);
  return table;
}

void LpmSm::handleInitialized() {
  XP_TRACE(1, "LpmSm::handleInitialized");
  status_->pendingCmdDelAll();

  std::vector<Ptr<PrefixTable>> tables;
  for (const auto& [id, cfg] : config_->prefixTableConfigMap()) tables.push_back(prefixTableIs(id, cfg));
  // Insertion walks the tables from the largest tread down; equal treads keep no defined order
  // among themselves, but the sort sees the same input on every run.
  std::sort(tables.begin(), tables.end(), [](const Ptr<PrefixTable>& a, const Ptr<PrefixTable>& b) {
    return a->tableConfig()->tread() > b->tableConfig()->tread();
  });
  for (std::size_t i = 0; i < tables.size(); ++i)
    config_->prefixTableSortedByTreadIs(static_cast<U8>(i), tables[i]);

  createNhiAllocators();

  XP_ASSERT_TEXT(config_->leastTreadForPrefixLens() == config_->keyLength() + (U32)1,
                 "config()->leastTreadForPrefixLens() == config()->keyLength() + (U32)1");

  if (restartHelper_) restartHelper_->doRestart(false, this);
  initializedIs(true);

  // Replay over a snapshot: handling one request may not change the collection,
  // but a reactor of another reader might.
  std::vector<Ptr<LpmPrefix>> requested;
  requested.reserve(config_->requests());
  for (const auto& entry : config_->requestMap()) requested.push_back(entry.first);
  for (const auto& prefix : requested) handleRequest(prefix);
}

void LpmSm::createNhiAllocators() {
  U32 maxBlockSize = config_->nhiMaxBlockSize();
  if (const char* env = std::getenv("NHI_MAX_BLOCK_SIZE")) maxBlockSize = static_cast<U32>(std::strtol(env, nullptr, 10));
  for (U32 t = 0; t < config_->nhiAvailableTiles(); ++t) {
    nhiAllocatorIs(NhiTileIdx(static_cast<U8>(t)),
                   makePtr<BestFitAllocator>("nhiAllocator", config_->nhiEntriesPerTile(), 0, maxBlockSize));
  }
}

void LpmSm::handleRequest(const Ptr<LpmPrefix>& prefix) {
  XP_TRACE(3, "LpmSm::handleRequest lpmPrefix " << *prefix);
  if (!initialized_) {
    XP_TRACE(3, "LpmSm::handleRequest not initialized ");
    return;
  }
  const bool requested = requestedBlock(prefix) != NextHopBlock();
  const bool installed = prefixToSubTrie_.contains(prefix);
  if (requested && !installed) {
    XP_TRACE(3, "LpmSm::handleRequest insert prefix ");
    insertPrefix(prefix);
  } else if (requested) {
    XP_TRACE(3, "LpmSm::handleRequest update prefix ");
    updatePrefix(prefix);
  } else if (installed) {
    XP_TRACE(3, "LpmSm::handleRequest delete prefix ");
    deletePrefix(prefix);
  } else {
    XP_TRACE(3, "LpmSm::handleRequest ignore prefix ");
  }
}

void LpmSm::updatePrefix(const Ptr<LpmPrefix>& prefix) {
  XP_TRACE(3, "LpmSm::updatePrefix lpmPrefix " << *prefix);
  Ptr<SubTrie> subTrie = prefixToSubTrie(prefix);
  if (!subTrie) XP_FAIL("subTrie", *prefix);
  XP_TRACE(3, "LpmSm::updatePrefix subtrie " << *subTrie);
  if (!updateNhiInfoForSubTrie(subTrie)) {
    XP_TRACE(3, "LpmSm::updatePrefix update failed ");
    return;
  }
  generateSubTrieWriteCmds(subTrie, true, true);
  status_->prefixToNextHopBlockIs(prefix, requestedBlock(prefix));
}

void LpmSm::deletePrefix(const Ptr<LpmPrefix>& prefix) {
  XP_TRACE(3, "LpmSm::deletePrefix lpmPrefix " << *prefix);
  Ptr<SubTrie> subTrie = prefixToSubTrie(prefix);
  if (!subTrie) XP_FAIL("subTrie", *prefix);
  XP_TRACE(3, "LpmSm::deletePrefix subtrie " << *subTrie);
  subTrie->removePrefix(prefix);
  prefixToSubTrieDel(prefix);

  const bool keepsPrefixes = subTrie->numPrefixes() != 0;
  if (keepsPrefixes) {
    subTrie->compactPrefixes();
    XP_TRACE(3, "LpmSm::deletePrefix subtrie is compacted " << *subTrie);
    if (!updateNhiInfoForSubTrie(subTrie))
      XP_FAIL("updateNhiInfoForSubTrie( subTrie )", *prefix << " subTrie " << *subTrie);
  } else {
    XP_TRACE(3, "LpmSm::deletePrefix subtrie is empty, delete it ");
    releaseNhiInfo(subTrie);
    subTrie->table()->subTrieDel(subTrie->index());
  }
  generateSubTrieWriteCmds(subTrie, true, keepsPrefixes);
  status_->prefixToNextHopBlockDel(prefix);
}

Ptr<LpmSm> LpmSmIs(const Name& name, const Ptr<ConfigBase>& config, const Ptr<Status>& status,
                   const Ptr<RestartHelperBase>& restartHelper) {
  Ptr<LpmSm> sm = makePtr<LpmSm>(name, config, status, restartHelper);
  sm->hasNotificationActiveIs(true);
  return sm;
}

}  // namespace XpLpm
}  // namespace XpLib
