// The configurator: derives the LPM and next-hop configurations from the chip's table contexts.
//
// It runs once at start-up, before the state machines exist, and reads three table contexts:
//   51  IPv4 LPM table   -> ConfigV4 (key type, prefix tables and their hashes, NHI geometry, strides, treads)
//   52  IPv6 LPM table   -> ConfigV6 (the same)
//   53  next-hop table   -> the next-hop Config's table size
// Anything the chip reports that the engine cannot drive stops the process; there is no partial result.
#pragma once

#include "XpLpm/Config.h"
#include "XpLpmConfigurator/LpmTreadCfg.h"
#include "XpLpmNextHop/XpLpmNextHop.h"
#include "platform/Ptr.h"
#include "platform/Types.h"
#include "xdk/xpTableContext.h"

namespace XpLib {

class XpLpmConfigurator : public PtrInterface {
 public:
  static constexpr U32 kLpmV4TableContextId = XpSystem::SystemStatus::kLpmV4ContextId;
  static constexpr U32 kLpmV6TableContextId = XpSystem::SystemStatus::kLpmV6ContextId;
  static constexpr U32 kNextHopTableContextId = XpSystem::SystemStatus::kNextHopContextId;

  // Only stores the references; `lpmTreadCfg` may be null.
  XpLpmConfigurator(const Ptr<const XpSystem::SystemStatus>& systemStatus, const Ptr<XpLpm::ConfigV4>& lpmConfigV4,
                    const Ptr<XpLpm::ConfigV6>& lpmConfigV6, const Ptr<XpLpmNextHop::Config>& lpmNhConfig,
                    const Ptr<const Config::LpmTreadCfg>& lpmTreadCfg);

  const Ptr<const XpSystem::SystemStatus>& systemStatus() const { return systemStatus_; }
  const Ptr<XpLpm::ConfigV4>& lpmConfigV4() const { return lpmConfigV4_; }
  const Ptr<XpLpm::ConfigV6>& lpmConfigV6() const { return lpmConfigV6_; }
  const Ptr<XpLpmNextHop::Config>& lpmNhConfig() const { return lpmNhConfig_; }
  const Ptr<const Config::LpmTreadCfg>& lpmTreadCfg() const { return lpmTreadCfg_; }

  // Configures IPv4, then IPv6, then the next-hop table.
  void doConfig();
  // Fills `config` from the LPM table context `tableId`.
  void configLpmWithTableContext(U32 tableId, const Ptr<XpLpm::ConfigBase>& config);
  // Sets, or checks, the next-hop table size against the next-hop table context.
  void configNhWithTableContext();

 private:
  void configPrefixTables(const XpXdk::xpLpmTableContext& lpmContext, XpLpm::ConfigBase& config) const;
  void configNhi(const XpXdk::xpLpmTableContext& lpmContext, XpLpm::ConfigBase& config) const;
  bool treadUserCfgd(XpLpm::KeyType keyType) const;

  const Ptr<const XpSystem::SystemStatus> systemStatus_;
  const Ptr<XpLpm::ConfigV4> lpmConfigV4_;
  const Ptr<XpLpm::ConfigV6> lpmConfigV6_;
  const Ptr<XpLpmNextHop::Config> lpmNhConfig_;
  const Ptr<const Config::LpmTreadCfg> lpmTreadCfg_;
};

Ptr<XpLpmConfigurator> xpLpmConfiguratorFactory(const Ptr<const XpSystem::SystemStatus>& systemStatus,
                                                const Ptr<XpLpm::ConfigV4>& lpmConfigV4,
                                                const Ptr<XpLpm::ConfigV6>& lpmConfigV6,
                                                const Ptr<XpLpmNextHop::Config>& lpmNhConfig,
                                                const Ptr<const Config::LpmTreadCfg>& lpmTreadCfg);

}  // namespace XpLib
