// The SDK's hash functions that map a table key to an entry index of a hash-indexed table.
//
// Key bit order. A key of keyWidth bits is numbered from its most significant bit: key bit 0
// comes first. Callers lay the key bytes into the XpBitVector in reverse, so vector byte 0 is
// the least significant key byte and key bit j is vector bit keyWidth - 1 - j. For the
// 144-bit LPM key (VRF, then address):
//
//   key bit:      0 ........ 7 | 8 ....... 15 | ... | 128 ...... 135 | 136 ...... 143
//   key byte:          0       |      1       | ... |       16       |       17
//   vector byte:      17       |     16       | ... |        1       |        0
//   vector bit:  143 ..... 136 | 135 ... 128  | ... | 15 .......... 8 | 7 .......... 0
//
// crcHashFunction hashes the first `tread` key bits (vector bits keyWidth - 1 down to
// keyWidth - tread) and ignores every other bit of the key.
#pragma once

#include <array>

#include "xdk/XpBitVector.h"

namespace XpXdk {

class xpHashFunction {
 public:
  virtual ~xpHashFunction() = default;

  virtual U32 hash(const XpBitVector& key) const = 0;

 protected:
  xpHashFunction() = default;
  xpHashFunction(const xpHashFunction&) = default;
  xpHashFunction& operator=(const xpHashFunction&) = default;
};

// A CRC over the first `tread` key bits, fed most significant key bit first, with a 17-bit
// generator polynomial (x^16 term included) and a 16-bit register, reduced to `hashBits` bits.
//
// - preset: 1 starts the register at all ones, the usual CRC convention, so that leading zero
//   key bits still move the register; 0 starts it at zero (the plain polynomial remainder).
//   Either way the result differs only by a constant per tread, so the spread is the same.
// - hashBits <= 16: the low hashBits bits of the CRC.
// - hashBits 17..32: bits 15..0 are the CRC above and bits 31..16 a second CRC of the same
//   bits with extensionPoly(), a fixed primitive polynomial different from `poly`. Together they
//   are the key's remainder modulo the product of both polynomials, a 32-bit CRC whose upper
//   half does not follow from the lower. (A second pass with the same polynomial and another
//   preset would not do: it only XORs a constant onto the first.) Growing hashBits therefore
//   only prepends bits: the low 16 bits never change.
// - tread 0 hashes every key to the same value.
// Constructor arguments out of range throw std::invalid_argument: keyWidth 1..144,
// hashBits 1..32, poly with bit 16 set and below 2^17, preset 0 or 1, tread <= keyWidth.
class crcHashFunction : public xpHashFunction {
 public:
  static constexpr U32 primaryExtensionPoly = 0x1002D;    // x^16 + x^5 + x^3 + x^2 + 1
  static constexpr U32 alternateExtensionPoly = 0x1100B;  // x^16 + x^12 + x^3 + x + 1

  crcHashFunction(U32 keyWidth, U32 hashBits, U32 poly, U32 preset, U32 tread);

  // Requires: key.size() == keyWidth(); otherwise throws std::invalid_argument.
  U32 hash(const XpBitVector& key) const override;

  U32 keyWidth() const { return keyWidth_; }
  U32 hashBits() const { return hashBits_; }
  U32 poly() const { return poly_; }
  U32 preset() const { return preset_; }
  U32 tread() const { return tread_; }
  U32 extensionPoly() const { return extensionPoly_; }

 private:
  using Table = std::array<XpLib::U16, 256>;

  static Table buildTable(U32 poly);
  U32 keyByte(const U8* vec, U32 k) const;
  U32 crc(const U8* vec, const Table& table) const;

  U32 keyWidth_;
  U32 hashBits_;
  U32 poly_;
  U32 preset_;
  U32 tread_;
  U32 extensionPoly_;
  U32 mask_;
  U32 topByte_;      // vector byte that holds key bit 0
  U32 alignShift_;   // left shift that puts key bit 0 at bit 7 of topByte_
  Table table_;
  Table extensionTable_;  // built only when hashBits > 16
};

}  // namespace XpXdk
