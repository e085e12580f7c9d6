// The user's tread settings: whether the treads of each address family's prefix tables were configured by hand.
#pragma once

#include "platform/Ptr.h"

namespace XpLib {
namespace Config {

// A family whose treads are user-configured gets no minimum tread for any prefix length.
class LpmTreadCfg : public PtrInterface {
 public:
  LpmTreadCfg() = default;
  LpmTreadCfg(bool ipv4TreadUserCfgd, bool ipv6TreadUserCfgd)
      : ipv4TreadUserCfgd_(ipv4TreadUserCfgd), ipv6TreadUserCfgd_(ipv6TreadUserCfgd) {}

  bool ipv4TreadUserCfgd() const { return ipv4TreadUserCfgd_; }
  void ipv4TreadUserCfgdIs(bool b) { ipv4TreadUserCfgd_ = b; }
  bool ipv6TreadUserCfgd() const { return ipv6TreadUserCfgd_; }
  void ipv6TreadUserCfgdIs(bool b) { ipv6TreadUserCfgd_ = b; }

 private:
  bool ipv4TreadUserCfgd_ = false;
  bool ipv6TreadUserCfgd_ = false;
};

inline Ptr<LpmTreadCfg> lpmTreadCfgFactory(bool ipv4TreadUserCfgd, bool ipv6TreadUserCfgd) {
  return makePtr<LpmTreadCfg>(ipv4TreadUserCfgd, ipv6TreadUserCfgd);
}

}  // namespace Config
}  // namespace XpLib
