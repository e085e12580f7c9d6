// Parsing, printing and validation of the IP value types.
#include "platform/IpPrefix.h"

#include <charconv>
#include <cstdio>

#include "platform/Exception.h"

namespace XpLib {

namespace {

constexpr const char* kInvalidPrefix = "Prefix::validAsPrefix != true not allowed";

bool fail(std::string* why, const char* text) {
  if (why) *why = text;
  return false;
}

// Splits "address/len" and parses the length, bounded by `maxLen`.
bool splitPrefix(std::string_view text, U8 maxLen, std::string_view* address, U8* len, std::string* why) {
  auto slash = text.find('/');
  if (slash == std::string_view::npos) return fail(why, "missing '/length'");
  *address = text.substr(0, slash);
  std::string_view lenText = text.substr(slash + 1);
  unsigned value = 0;
  auto [end, ec] = std::from_chars(lenText.data(), lenText.data() + lenText.size(), value);
  if (ec != std::errc() || end != lenText.data() + lenText.size() || lenText.empty())
    return fail(why, "prefix length is not a number");
  if (value > maxLen) return fail(why, "prefix length too long");
  *len = static_cast<U8>(value);
  return true;
}

std::optional<U32> parseIp4(std::string_view text) {
  U32 address = 0;
  for (int i = 0; i < 4; ++i) {
    auto dot = i < 3 ? text.find('.') : text.size();
    if (dot == std::string_view::npos) return std::nullopt;
    std::string_view part = text.substr(0, dot);
    unsigned octet = 0;
    auto [end, ec] = std::from_chars(part.data(), part.data() + part.size(), octet);
    if (ec != std::errc() || end != part.data() + part.size() || part.empty() || part.size() > 3 || octet > 255)
      return std::nullopt;
    address = (address << 8) | octet;
    text = i < 3 ? text.substr(dot + 1) : std::string_view();
  }
  return address;
}

}  // namespace

Prefix::Prefix(U32 address, U8 len) : address_(address), len_(len) {
  if (!validAsPrefix(address, len)) throw RangeException(kInvalidPrefix);
}

bool Prefix::validAsPrefix(U32 address, U8 len) { return len <= kMaxLen && (address & ~mask(len)) == 0; }

std::optional<Prefix> Prefix::parse(std::string_view text, std::string* why) {
  std::string_view addressText;
  U8 len = 0;
  if (!splitPrefix(text, kMaxLen, &addressText, &len, why)) return std::nullopt;
  auto address = parseIp4(addressText);
  if (!address) {
    fail(why, "bad IPv4 address");
    return std::nullopt;
  }
  if (!validAsPrefix(*address, len)) {
    fail(why, "address has bits set beyond the prefix length");
    return std::nullopt;
  }
  return Prefix(*address, len);
}

std::string Prefix::str() const {
  char buf[24];
  std::snprintf(buf, sizeof buf, "%u.%u.%u.%u/%u", octet(0), octet(1), octet(2), octet(3), len_);
  return buf;
}

Ip6Prefix::Ip6Prefix(const Bytes& address, U8 len) : address_(address), len_(len) {
  if (!validAsPrefix(address, len)) throw RangeException(kInvalidPrefix);
}

bool Ip6Prefix::validAsPrefix(const Bytes& address, U8 len) {
  if (len > kMaxLen) return false;
  for (unsigned i = 0; i < 16; ++i) {
    int keep = static_cast<int>(len) - static_cast<int>(8 * i);
    U8 mask = keep >= 8 ? 0xFF : keep <= 0 ? 0 : static_cast<U8>(0xFF << (8 - keep));
    if (address[i] & ~mask) return false;
  }
  return true;
}

U64 Ip6Prefix::high() const {
  U64 v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | address_[i];
  return v;
}

U64 Ip6Prefix::low() const {
  U64 v = 0;
  for (int i = 8; i < 16; ++i) v = (v << 8) | address_[i];
  return v;
}

std::optional<Ip6Prefix::Bytes> Ip6Prefix::parseAddress(std::string_view text) {
  // Up to eight 16-bit groups, with at most one "::" standing for a run of zero groups;
  // the last 32 bits may be written as a dotted IPv4 address.
  std::array<U16, 8> head{}, tail{};
  int nHead = 0, nTail = 0;
  bool compressed = false;
  if (text.size() >= 2 && text.substr(0, 2) == "::") {
    compressed = true;
    text.remove_prefix(2);
  } else if (!text.empty() && text[0] == ':') {
    return std::nullopt;
  }
  while (!text.empty()) {
    auto colon = text.find(':');
    std::string_view group = text.substr(0, colon);
    int& n = compressed ? nTail : nHead;
    auto& groups = compressed ? tail : head;
    if (group.find('.') != std::string_view::npos && colon == std::string_view::npos) {
      auto v4 = parseIp4(group);
      if (!v4 || nHead + nTail + 2 > 8) return std::nullopt;
      groups[n++] = static_cast<U16>(*v4 >> 16);
      groups[n++] = static_cast<U16>(*v4);
      text = {};
      break;
    }
    unsigned value = 0;
    auto [end, ec] = std::from_chars(group.data(), group.data() + group.size(), value, 16);
    if (ec != std::errc() || end != group.data() + group.size() || group.empty() || group.size() > 4) return std::nullopt;
    if (nHead + nTail >= 8) return std::nullopt;
    groups[n++] = static_cast<U16>(value);
    if (colon == std::string_view::npos) {
      text = {};
      break;
    }
    text.remove_prefix(colon + 1);
    if (!text.empty() && text[0] == ':') {
      if (compressed) return std::nullopt;
      compressed = true;
      text.remove_prefix(1);
    } else if (text.empty()) {
      return std::nullopt;  // a trailing single ':'
    }
  }
  if (compressed ? nHead + nTail > 7 : nHead != 8) return std::nullopt;
  std::array<U16, 8> groups{};
  for (int i = 0; i < nHead; ++i) groups[i] = head[i];
  for (int i = 0; i < nTail; ++i) groups[8 - nTail + i] = tail[i];
  Bytes bytes{};
  for (int i = 0; i < 8; ++i) {
    bytes[2 * i] = static_cast<U8>(groups[i] >> 8);
    bytes[2 * i + 1] = static_cast<U8>(groups[i]);
  }
  return bytes;
}

std::optional<Ip6Prefix> Ip6Prefix::parse(std::string_view text, std::string* why) {
  std::string_view addressText;
  U8 len = 0;
  if (!splitPrefix(text, kMaxLen, &addressText, &len, why)) return std::nullopt;
  auto address = parseAddress(addressText);
  if (!address) {
    fail(why, "bad IPv6 address");
    return std::nullopt;
  }
  if (!validAsPrefix(*address, len)) {
    fail(why, "address has bits set beyond the prefix length");
    return std::nullopt;
  }
  return Ip6Prefix(*address, len);
}

std::string Ip6Prefix::addressStr(const Bytes& a) {
  U16 groups[8];
  for (int i = 0; i < 8; ++i) groups[i] = static_cast<U16>((a[2 * i] << 8) | a[2 * i + 1]);
  // The longest run of two or more zero groups is written "::" (the first, on a tie).
  int bestStart = -1, bestLen = 1;
  for (int i = 0; i < 8;) {
    if (groups[i] != 0) {
      ++i;
      continue;
    }
    int j = i;
    while (j < 8 && groups[j] == 0) ++j;
    if (j - i > bestLen) bestStart = i, bestLen = j - i;
    i = j;
  }
  std::string out;
  char buf[8];
  for (int i = 0; i < 8; ++i) {
    if (i == bestStart) {
      out += "::";
      i += bestLen - 1;
      continue;
    }
    if (!out.empty() && out.back() != ':') out += ':';
    std::snprintf(buf, sizeof buf, "%x", groups[i]);
    out += buf;
  }
  return out;
}

std::string Ip6Prefix::str() const { return addressStr(address_) + "/" + std::to_string(len_); }

std::string VrfAndPrefix::str() const { return std::to_string(vrf) + ":" + prefix.str(); }
std::string VrfAndIp6Prefix::str() const { return std::to_string(vrf) + ":" + prefix.str(); }

std::ostream& operator<<(std::ostream& os, const Prefix& p) { return os << p.str(); }
std::ostream& operator<<(std::ostream& os, const Ip6Prefix& p) { return os << p.str(); }
std::ostream& operator<<(std::ostream& os, const VrfAndPrefix& p) { return os << p.str(); }
std::ostream& operator<<(std::ostream& os, const VrfAndIp6Prefix& p) { return os << p.str(); }

}  // namespace XpLib
