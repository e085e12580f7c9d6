// The brute-force longest-prefix match.
#include "agent/ReferenceLpm.h"

#include "platform/Hash.h"

namespace XpLib {
namespace Agent {

namespace {
U64 key4(U32 vrf, U32 masked) { return (U64(vrf) << 32) | masked; }

std::pair<U64, U64> mask6(U64 hi, U64 lo, unsigned len) {
  if (len == 0) return {0, 0};
  if (len <= 64) return {hi & (~U64(0) << (64 - len)), 0};
  return {hi, len == 128 ? lo : lo & (~U64(0) << (128 - len))};
}

std::pair<U64, U64> halves(const Ip6Prefix::Bytes& a) {
  U64 hi = 0, lo = 0;
  for (int i = 0; i < 8; ++i) hi = (hi << 8) | a[i];
  for (int i = 8; i < 16; ++i) lo = (lo << 8) | a[i];
  return {hi, lo};
}
}  // namespace

std::size_t ReferenceLpm::Key6Hash::operator()(const Key6& k) const {
  return hashCombine(hashCombine(k.vrf, hashMix(k.hi)), hashMix(k.lo));
}

ReferenceLpm::ReferenceLpm() : v4_(33), v6_(129) {}

void ReferenceLpm::routeIs(U32 vrf, const Prefix& p, const NextHopBlock& b) {
  routes_ += v4_[p.len()].insert_or_assign(key4(vrf, p.address()), b).second;
}

void ReferenceLpm::routeIs(U32 vrf, const Ip6Prefix& p, const NextHopBlock& b) {
  routes_ += v6_[p.len()].insert_or_assign(Key6{vrf, p.high(), p.low()}, b).second;
}

void ReferenceLpm::routeDel(U32 vrf, const Prefix& p) { routes_ -= v4_[p.len()].erase(key4(vrf, p.address())); }

void ReferenceLpm::routeDel(U32 vrf, const Ip6Prefix& p) {
  routes_ -= v6_[p.len()].erase(Key6{vrf, p.high(), p.low()});
}

std::optional<ReferenceMatch> ReferenceLpm::lookup(U32 vrf, U32 address) const {
  for (int len = 32; len >= 0; --len) {
    const auto& m = v4_[len];
    if (m.empty()) continue;
    auto it = m.find(key4(vrf, address & Prefix::mask(static_cast<U8>(len))));
    if (it != m.end()) return ReferenceMatch{it->second, static_cast<U8>(len)};
  }
  return std::nullopt;
}

std::optional<ReferenceMatch> ReferenceLpm::lookup(U32 vrf, const Ip6Prefix::Bytes& address) const {
  const auto [hi, lo] = halves(address);
  for (int len = 128; len >= 0; --len) {
    const auto& m = v6_[len];
    if (m.empty()) continue;
    const auto [mh, ml] = mask6(hi, lo, static_cast<unsigned>(len));
    auto it = m.find(Key6{vrf, mh, ml});
    if (it != m.end()) return ReferenceMatch{it->second, static_cast<U8>(len)};
  }
  return std::nullopt;
}

}  // namespace Agent
}  // namespace XpLib
