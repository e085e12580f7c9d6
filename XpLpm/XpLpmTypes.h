// The LPM model's small value types: the 144-bit branch key, table and NHI
// positions, and the model's enumerations with their text forms.
#pragma once

#include <array>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/IntValue.h"
#include "platform/Types.h"
#include "xdk/xpLpmEntry.h"

namespace XpLib {
namespace XpLpm {

// A key prefix of up to 144 bits, left-aligned in five words, most significant
// first. Key bit 0 is the most significant bit of word0.
//
//   word0 bits 0..31 | word1 32..63 | word2 64..95 | word3 96..127 | word4 128..143 (16 bits)
//
// A long key (keyLong144b) is 16 VRF bits then a 128-bit IPv6 address; a short
// key (keyShort48b) is 16 VRF bits then a 32-bit IPv4 address, in the first 48 bits.
class SubTrieBranch {
 public:
  static constexpr unsigned kBytes = XpXdk::kLpmKeyBytes;
  static_assert(kBytes == 18, "five words: four of 32 bits and one of 16");

  SubTrieBranch() = default;
  SubTrieBranch(U32 w0, U32 w1, U32 w2, U32 w3, U16 w4) : w_{w0, w1, w2, w3, w4} {}
  // Parses the reflection text form; throws RangeException on bad text.
  static SubTrieBranch fromString(std::string_view text);

  U32 word0() const { return w_[0]; }
  U32 word1() const { return w_[1]; }
  U32 word2() const { return w_[2]; }
  U32 word3() const { return w_[3]; }
  U16 word4() const { return static_cast<U16>(w_[4]); }

  // Key byte i: byte 0 is key bits 0..7, byte 17 the low byte of word4.
  U8 u8(U32 i) const;
  void u8Is(U32 i, U8 v);
  // 64 key bits, left-aligned: u64(0) = word0:word1, u64(1) = word2:word3, u64(2) = word4 in bits 63..48.
  U64 u64(U32 i) const;
  void u64Is(U32 i, U64 v);
  [[noreturn]] void u8Del(U32 i);
  [[noreturn]] void u64Del(U32 i);

  // Unchecked byte access for hot paths that already hold a valid index.
  U8 byteAt(U32 i) const { return static_cast<U8>(w_[i >> 2] >> (i < 16 ? 24 - 8 * (i & 3) : 8 * (17 - i))); }

  U32 hash() const;
  std::string valueToStrep() const;
  std::string str() const { return valueToStrep(); }

  bool operator==(const SubTrieBranch&) const = default;
  auto operator<=>(const SubTrieBranch&) const = default;

 private:
  std::array<U32, 5> w_{};  // w_[4] holds word4 in its low 16 bits
};

std::ostream& operator<<(std::ostream& os, const SubTrieBranch& b);

// The identity of one prefix table, 0..32.
class PrefixTableId {
 public:
  static constexpr U8 kMax = 32;

  PrefixTableId() = default;
  // Throws RangeException above 32.
  PrefixTableId(U8 value);
  static PrefixTableId fromString(std::string_view text);

  U8 value() const { return value_; }
  U32 hash() const { return hashMix(value_); }
  std::string str() const { return std::to_string(value_); }

  bool operator==(const PrefixTableId&) const = default;
  auto operator<=>(const PrefixTableId&) const = default;

 private:
  U8 value_ = 0;
};

std::ostream& operator<<(std::ostream& os, const PrefixTableId& id);

// One entry (hash position) of a prefix table.
using PrefixTableIdx = IntValue<struct PrefixTableIdxTag, U32>;
// One tile of the NHI table.
using NhiTileIdx = IntValue<struct NhiTileIdxTag, U8>;

// The position of one NHI entry. The default {255, 65535} marks "no NHI block".
class NhiTableIdx {
 public:
  NhiTableIdx() = default;
  NhiTableIdx(NhiTileIdx tile, U16 offset) : tile_(tile), offset_(offset) {}
  NhiTableIdx(U8 tile, U16 offset) : tile_(tile), offset_(offset) {}

  NhiTileIdx tile() const { return tile_; }
  U16 offset() const { return offset_; }
  void tileIs(NhiTileIdx t) { tile_ = t; }
  void offsetIs(U16 o) { offset_ = o; }

  U32 hash() const { return hashMix((static_cast<U64>(tile_.value()) << 16) | offset_); }
  // "tile,offset", as traces and diagnostics print it.
  std::string str() const { return tile_.str() + "," + std::to_string(offset_); }
  std::string valueToStrep() const;

  bool operator==(const NhiTableIdx& o) const { return tile_ == o.tile_ && offset_ == o.offset_; }
  bool operator!=(const NhiTableIdx& o) const { return !(*this == o); }
  auto operator<=>(const NhiTableIdx& o) const {
    if (auto c = tile_ <=> o.tile_; c != 0) return c;
    return offset_ <=> o.offset_;
  }

 private:
  NhiTileIdx tile_{255};
  U16 offset_ = 65535;
};

std::ostream& operator<<(std::ostream& os, const NhiTableIdx& i);

enum KeyType : U32 { keyShort48b = 0, keyLong144b = 1 };
enum SubTrieMode : U32 { modeSparse = 0, modeBitmap = 1, modeCpe = 2 };
// The order is deliberate: full stands between nhiCapacityExceeded and hashCollision.
enum RouteReturnCode : U32 {
  pass = 0,
  fail = 1,
  retry = 2,
  subTrieNotPresent = 3,
  subTriePresent = 4,
  nhiTableFull = 5,
  nhiCapacityExceeded = 6,
  full = 7,
  hashCollision = 8
};
enum RestartMode : U32 { modeNoRestart = 0, modeRestartCli = 1, modeRestartTest = 2, modeRestartNormal = 3 };
enum CommandType : U32 { commandTypePrefix = 0, commandTypeNhi = 1 };
enum PrefixTableType : U32 { prefixTableNarrow128b = 0, prefixTableWide256b = 1 };

// The value names of each enumeration, in numeric order.
template <class E>
struct EnumNames;
template <>
struct EnumNames<KeyType> {
  static constexpr std::array<std::string_view, 2> names{"keyShort48b", "keyLong144b"};
};
template <>
struct EnumNames<SubTrieMode> {
  static constexpr std::array<std::string_view, 3> names{"modeSparse", "modeBitmap", "modeCpe"};
};
template <>
struct EnumNames<RouteReturnCode> {
  static constexpr std::array<std::string_view, 9> names{
      "pass", "fail", "retry", "subTrieNotPresent", "subTriePresent", "nhiTableFull", "nhiCapacityExceeded", "full",
      "hashCollision"};
};
template <>
struct EnumNames<RestartMode> {
  static constexpr std::array<std::string_view, 4> names{"modeNoRestart", "modeRestartCli", "modeRestartTest",
                                                         "modeRestartNormal"};
};
template <>
struct EnumNames<CommandType> {
  static constexpr std::array<std::string_view, 2> names{"commandTypePrefix", "commandTypeNhi"};
};
template <>
struct EnumNames<PrefixTableType> {
  static constexpr std::array<std::string_view, 2> names{"prefixTableNarrow128b", "prefixTableWide256b"};
};

template <class E>
concept ModelEnum = requires { EnumNames<E>::names; };

// The value's name; a number outside the enumeration prints as the number.
template <ModelEnum E>
std::string stringValue(E e) {
  const auto& names = EnumNames<E>::names;
  return static_cast<U32>(e) < names.size() ? std::string(names[e]) : std::to_string(static_cast<U32>(e));
}

// Conversion from a number; nullopt outside the enumeration.
template <ModelEnum E>
std::optional<E> enumFromNumber(U32 v) {
  return v < EnumNames<E>::names.size() ? std::optional<E>(static_cast<E>(v)) : std::nullopt;
}

// Conversion from a value name; nullopt for an unknown name.
template <ModelEnum E>
std::optional<E> enumFromName(std::string_view name) {
  const auto& names = EnumNames<E>::names;
  for (U32 i = 0; i < names.size(); ++i)
    if (names[i] == name) return static_cast<E>(i);
  return std::nullopt;
}

template <ModelEnum E>
std::ostream& operator<<(std::ostream& os, E e) {
  return os << stringValue(e);
}

}  // namespace XpLpm
}  // namespace XpLib
