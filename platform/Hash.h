// Hashing for the keyed collections: every value hashes by its content.
//
// Value types give a `U32 hash() const`; integers and enumerations are mixed so
// that consecutive numbers spread over a power-of-two index.
#pragma once

#include <concepts>
#include <string_view>
#include <type_traits>

#include "platform/Types.h"

namespace XpLib {

// Final mix of a 64-bit value (the MurmurHash3 finaliser), folded to 32 bits.
constexpr U32 hashMix(U64 x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return static_cast<U32>(x);
}

// Combines a running hash with one more hashed field.
constexpr U32 hashCombine(U32 seed, U32 h) { return hashMix((static_cast<U64>(seed) << 32) | h); }

// 64-bit FNV-1a: a fixed, documented value for checksums and ids kept outside the process.
inline constexpr U64 kFnv1aOffset = 0xcbf29ce484222325ull;
inline constexpr U64 kFnv1aPrime = 0x100000001b3ull;

constexpr U64 fnv1a(std::string_view bytes) {
  U64 h = kFnv1aOffset;
  for (unsigned char c : bytes) {
    h ^= c;
    h *= kFnv1aPrime;
  }
  return h;
}

template <class T>
concept HasHashMember = requires(const T& t) {
  { t.hash() } -> std::convertible_to<U32>;
};

template <class T>
struct HashOf {
  U32 operator()(const T& v) const {
    if constexpr (HasHashMember<T>) {
      return v.hash();
    } else if constexpr (std::is_enum_v<T>) {
      return hashMix(static_cast<U64>(v));
    } else {
      static_assert(std::is_integral_v<T>, "give the key type a hash() member");
      return hashMix(static_cast<U64>(v));
    }
  }
};

}  // namespace XpLib
