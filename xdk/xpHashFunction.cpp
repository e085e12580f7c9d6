// Table-driven CRC hash over the leading key bits of a hash-indexed table's key.
#include "xdk/xpHashFunction.h"

#include <stdexcept>
#include <string>

namespace XpXdk {

namespace {

constexpr U32 crcBits = 16;
constexpr U32 crcMask = (1u << crcBits) - 1;

void require(bool ok, const char* what) {
  if (!ok) throw std::invalid_argument(std::string("crcHashFunction: ") + what);
}

}  // namespace

crcHashFunction::crcHashFunction(U32 keyWidth, U32 hashBits, U32 poly, U32 preset, U32 tread)
    : keyWidth_(keyWidth), hashBits_(hashBits), poly_(poly), preset_(preset), tread_(tread) {
  require(keyWidth >= 1 && keyWidth <= XpBitVector::maxBits, "keyWidth must be 1..144");
  require(hashBits >= 1 && hashBits <= 32, "hashBits must be 1..32");
  require((poly >> crcBits) == 1, "poly must have bit 16 set and be below 2^17");
  require(preset <= 1, "preset must be 0 or 1");
  require(tread <= keyWidth, "tread must not exceed keyWidth");

  extensionPoly_ = poly == primaryExtensionPoly ? alternateExtensionPoly : primaryExtensionPoly;
  mask_ = hashBits == 32 ? ~0u : (1u << hashBits) - 1;
  topByte_ = XpBitVector::byteCount(keyWidth) - 1;
  alignShift_ = (8 - keyWidth % 8) % 8;
  table_ = buildTable(poly);
  extensionTable_ = hashBits > crcBits ? buildTable(extensionPoly_) : Table{};
}

// Entry i is i(x) * x^16 mod poly: the register change caused by the 8 bits of i leaving the
// top of the register. The same entry serves fewer than 8 bits when i is below 2^bits.
crcHashFunction::Table crcHashFunction::buildTable(U32 poly) {
  Table table{};
  for (U32 i = 0; i < table.size(); ++i) {
    U32 reg = i << (crcBits - 8);
    for (int b = 0; b < 8; ++b) reg = (reg & 0x8000) ? ((reg << 1) ^ poly) & crcMask : (reg << 1) & crcMask;
    table[i] = static_cast<XpLib::U16>(reg);
  }
  return table;
}

// Key byte k (key bits 8k..8k+7, key bit 8k in bit 7). When keyWidth is not a multiple of 8
// the key bytes straddle vector bytes; the last key byte is then padded with zeros.
U32 crcHashFunction::keyByte(const U8* vec, U32 k) const {
  U32 i = topByte_ - k;
  if (alignShift_ == 0) return vec[i];
  U32 word = static_cast<U32>(vec[i]) << alignShift_;
  if (i > 0) word |= vec[i - 1] >> (8 - alignShift_);
  return word & 0xFF;
}

U32 crcHashFunction::crc(const U8* vec, const Table& table) const {
  U32 reg = preset_ ? crcMask : 0;
  U32 wholeBytes = tread_ / 8;
  for (U32 k = 0; k < wholeBytes; ++k) reg = ((reg << 8) & crcMask) ^ table[((reg >> 8) ^ keyByte(vec, k)) & 0xFF];
  U32 rest = tread_ % 8;
  if (rest == 0) return reg;
  // The last rest bits go in at once: the rest bits leaving the register combine with them into
  // an index below 2^rest, and shifting only by rest keeps the CRC exact (no zero padding).
  U32 bits = keyByte(vec, wholeBytes) >> (8 - rest);
  return ((reg << rest) & crcMask) ^ table[(reg >> (crcBits - rest)) ^ bits];
}

U32 crcHashFunction::hash(const XpBitVector& key) const {
  if (key.size() != keyWidth_) throw std::invalid_argument("crcHashFunction::hash: key width mismatch");
  const U8* vec = key.bytes().data();
  U32 low = crc(vec, table_);
  if (hashBits_ <= crcBits) return low & mask_;
  return ((crc(vec, extensionTable_) << crcBits) | low) & mask_;
}

}  // namespace XpXdk
