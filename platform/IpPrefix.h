// IP value types: IPv4 and IPv6 prefixes, and a prefix within a VRF.
//
// A prefix is always valid as a prefix: no address bit is set beyond its length.
// Constructors reject anything else with RangeException; parse() reports bad
// text without throwing, for input read from users.
#pragma once

#include <array>
#include <compare>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/Hash.h"
#include "platform/Types.h"

namespace XpLib {

class Prefix {
 public:
  static constexpr U8 kMaxLen = 32;

  Prefix() = default;
  // `address` in host order. Throws RangeException unless validAsPrefix.
  Prefix(U32 address, U8 len);

  static bool validAsPrefix(U32 address, U8 len);
  static U32 mask(U8 len) { return len == 0 ? 0 : ~U32(0) << (32 - len); }
  // Parses "a.b.c.d/len"; on failure returns nullopt and says why in `why`.
  static std::optional<Prefix> parse(std::string_view text, std::string* why = nullptr);

  U32 address() const { return address_; }
  U8 len() const { return len_; }
  // Address octet i (0 = most significant, as on the wire).
  U8 octet(unsigned i) const { return static_cast<U8>(address_ >> (24 - 8 * i)); }
  bool contains(U32 address) const { return ((address ^ address_) & mask(len_)) == 0; }

  std::string str() const;
  U32 hash() const { return hashMix((static_cast<U64>(address_) << 8) | len_); }

  bool operator==(const Prefix&) const = default;
  auto operator<=>(const Prefix&) const = default;

 private:
  U32 address_ = 0;
  U8 len_ = 0;
};

class Ip6Prefix {
 public:
  static constexpr U8 kMaxLen = 128;
  using Bytes = std::array<U8, 16>;

  Ip6Prefix() = default;
  // Throws RangeException unless validAsPrefix.
  Ip6Prefix(const Bytes& address, U8 len);

  static bool validAsPrefix(const Bytes& address, U8 len);
  static std::optional<Ip6Prefix> parse(std::string_view text, std::string* why = nullptr);
  // Parses an address alone (no length), in any RFC 4291 text form.
  static std::optional<Bytes> parseAddress(std::string_view text);

  const Bytes& address() const { return address_; }
  U8 len() const { return len_; }
  U8 octet(unsigned i) const { return address_[i]; }
  // The address as two 64-bit halves, most significant first.
  U64 high() const;
  U64 low() const;

  // RFC 5952 text: lower case, longest zero run compressed.
  std::string str() const;
  static std::string addressStr(const Bytes& address);
  U32 hash() const { return hashCombine(hashMix(high()), hashMix(low() ^ len_)); }

  bool operator==(const Ip6Prefix&) const = default;
  auto operator<=>(const Ip6Prefix&) const = default;

 private:
  Bytes address_{};
  U8 len_ = 0;
};

// A VRF number and an IPv4 prefix; ordered by VRF, then prefix.
struct VrfAndPrefix {
  U32 vrf = 0;
  Prefix prefix;

  U32 hash() const { return hashCombine(vrf, prefix.hash()); }
  std::string str() const;
  bool operator==(const VrfAndPrefix&) const = default;
  auto operator<=>(const VrfAndPrefix&) const = default;
};

struct VrfAndIp6Prefix {
  U32 vrf = 0;
  Ip6Prefix prefix;

  U32 hash() const { return hashCombine(vrf, prefix.hash()); }
  std::string str() const;
  bool operator==(const VrfAndIp6Prefix&) const = default;
  auto operator<=>(const VrfAndIp6Prefix&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Prefix& p);
std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p);
std::ostream& operator<<(std::ostream& os, const VrfAndPrefix& p);
std::ostream& operator<<(std::ostream& os, const VrfAndIp6Prefix& p);

}  // namespace XpLib
