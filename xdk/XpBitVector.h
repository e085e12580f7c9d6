// Fixed-capacity bit vector through which the SDK takes hash keys and entry images.
//
// Bit i is bit (i % 8) of byte i / 8 (LSB-first): byte 0 holds bits 0..7. Storage is inline
// (at most maxBits bits), so building one per hash costs a copy of at most 18 bytes and no
// allocation. Bits of the last byte above size() are kept at zero, so equality and byte()
// see only the vector's own bits.
#pragma once

#include <array>
#include <cstring>
#include <span>
#include <stdexcept>

#include "platform/Types.h"

namespace XpXdk {

using XpLib::U32;
using XpLib::U8;

class XpBitVector {
 public:
  // Enough for the LPM key, the longest the SDK hashes (xpLpmEntry.h: kLpmKeyBits).
  static constexpr U32 maxBits = 144;
  static constexpr U32 maxBytes = maxBits / 8;

  static constexpr U32 byteCount(U32 numBits) { return (numBits + 7) / 8; }

  // An all-zero vector of numBits bits.
  explicit XpBitVector(U32 numBits = 0) : numBits_(checkedSize(numBits)) {}

  // Requires: bytes.size() == byteCount(numBits). Bits of the last byte above numBits are dropped.
  XpBitVector(std::span<const U8> bytes, U32 numBits) : numBits_(checkedSize(numBits)) {
    if (bytes.size() != byteCount(numBits)) {
      throw std::invalid_argument("XpBitVector: byte array length does not match the bit count");
    }
    if (bytes.empty()) return;
    std::memcpy(bytes_.data(), bytes.data(), bytes.size());
    if (U32 tail = numBits % 8; tail != 0) bytes_[bytes.size() - 1] &= static_cast<U8>((1u << tail) - 1);
  }

  U32 size() const { return numBits_; }

  bool bit(U32 i) const {
    if (i >= numBits_) throw std::out_of_range("XpBitVector::bit: index out of range");
    return (bytes_[i / 8] >> (i % 8)) & 1u;
  }

  U8 byte(U32 i) const {
    if (i >= byteCount(numBits_)) throw std::out_of_range("XpBitVector::byte: index out of range");
    return bytes_[i];
  }

  // The byteCount(size()) bytes of the vector, byte 0 first.
  std::span<const U8> bytes() const { return {bytes_.data(), byteCount(numBits_)}; }

  bool operator==(const XpBitVector&) const = default;

 private:
  static U32 checkedSize(U32 numBits) {
    if (numBits > maxBits) throw std::invalid_argument("XpBitVector: more than 144 bits");
    return numBits;
  }

  std::array<U8, maxBytes> bytes_{};
  U32 numBits_;
};

}  // namespace XpXdk
