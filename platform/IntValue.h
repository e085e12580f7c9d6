// IntValue: a typed wrapper over one unsigned number, for identifiers and indexes.
//
// Each use is a distinct type (by its Tag), printed as a bare decimal number and
// parsed from one; the default value is the one the model reads as "none".
#pragma once

#include <charconv>
#include <compare>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/Hash.h"
#include "platform/Types.h"

namespace XpLib {

template <class Tag, class T, T Default = T(0)>
class IntValue {
 public:
  using ValueType = T;
  static constexpr T kDefault = Default;

  constexpr IntValue() = default;
  constexpr explicit IntValue(T v) : value_(v) {}

  constexpr T value() const { return value_; }
  void valueIs(T v) { value_ = v; }

  U32 hash() const { return hashMix(value_); }
  std::string str() const { return std::to_string(value_); }
  // Parses a decimal number that fits T; nullopt otherwise.
  static std::optional<IntValue> parse(std::string_view text) {
    T v{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return IntValue(v);
  }

  constexpr bool operator==(const IntValue&) const = default;
  constexpr auto operator<=>(const IntValue&) const = default;

 private:
  T value_ = Default;
};

template <class Tag, class T, T D>
std::ostream& operator<<(std::ostream& os, const IntValue<Tag, T, D>& v) {
  return os << +v.value();
}

// Jenkins one-at-a-time hash, fed a byte at a time.
class OneAtATimeHash {
 public:
  void add(U8 b) {
    h_ += b;
    h_ += h_ << 10;
    h_ ^= h_ >> 6;
  }
  template <class T>
  void addLittleEndian(T v) {
    for (unsigned i = 0; i < sizeof(T); ++i) add(static_cast<U8>(v >> (8 * i)));
  }
  U32 finish() const {
    U32 h = h_;
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
  }

 private:
  U32 h_ = 0;
};

}  // namespace XpLib
