// Tests of XpBitVector and crcHashFunction: bit layout, a bitwise CRC reference, spread over real routes.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <unordered_set>
#include <vector>

#include "xdk/XpBitVector.h"
#include "xdk/xpHashFunction.h"

using namespace XpXdk;
using XpLib::U64;

namespace {

using KeyBytes = std::array<U8, 18>;  // key byte 0 = most significant

const std::array<U32, 64> kPolys = {
    0x1B1DD, 0x1901B, 0x1FA8B, 0x1F1CB, 0x17329, 0x15483, 0x1C867, 0x1E015, 0x19B6D, 0x14881, 0x1EFE3,
    0x10219, 0x1C7B5, 0x1D10F, 0x1EA51, 0x1FF33, 0x1899B, 0x1BE21, 0x1A485, 0x1395F, 0x192A7, 0x19EF1,
    0x1DB4B, 0x13E31, 0x146A1, 0x1B76F, 0x13571, 0x13999, 0x1158F, 0x141FF, 0x1B0D9, 0x14691, 0x12B7D,
    0x1B7A9, 0x16B6B, 0x1FF05, 0x1AC27, 0x17DD7, 0x189AD, 0x1A02D, 0x1F655, 0x171DD, 0x1FF35, 0x1EB7B,
    0x1203D, 0x14573, 0x154B5, 0x1CE13, 0x1C553, 0x18357, 0x17CD3, 0x1C9BB, 0x1797F, 0x1B345, 0x1885F,
    0x1386D, 0x14CC7, 0x1F74F, 0x15297, 0x1B84D, 0x1FE31, 0x1F571, 0x140CD, 0x155AF};

// Bit-at-a-time CRC straight from the definition: key bit j is vector bit width - 1 - j.
U32 refCrc(const std::vector<U8>& vec, U32 width, U32 tread, U32 poly, U32 preset) {
  U32 reg = preset ? 0xFFFF : 0;
  for (U32 j = 0; j < tread; ++j) {
    U32 v = width - 1 - j;
    U32 in = (vec[v / 8] >> (v % 8)) & 1;
    U32 feedback = ((reg >> 15) & 1) ^ in;
    reg = (reg << 1) & 0xFFFF;
    if (feedback) reg ^= poly & 0xFFFF;
  }
  return reg;
}

U32 refHash(const std::vector<U8>& vec, U32 width, U32 bits, U32 poly, U32 preset, U32 tread) {
  U64 h = refCrc(vec, width, tread, poly, preset);
  if (bits > 16) {
    U32 ext = poly == crcHashFunction::primaryExtensionPoly ? crcHashFunction::alternateExtensionPoly
                                                              : crcHashFunction::primaryExtensionPoly;
    h |= U64(refCrc(vec, width, tread, ext, preset)) << 16;
  }
  return U32(h & ((U64(1) << bits) - 1));
}

std::vector<U8> randomVector(std::mt19937& rng, U32 width) {
  std::vector<U8> vec(XpBitVector::byteCount(width));
  for (auto& b : vec) b = U8(rng());
  if (width % 8) vec.back() &= U8((1u << (width % 8)) - 1);
  return vec;
}

// IPv4 routes as 144-bit keys for VRF 0 cut to `tread` key bits; distinct keys only.
std::vector<KeyBytes> loadV4Keys(U32 tread) {
  gzFile file = gzopen(XPLPM_DATA_DIR "/routes-v4.txt.gz", "rb");
  if (!file) return {};
  std::unordered_set<U64> seen;  // tread <= 64: the first 8 key bytes say it all
  std::vector<KeyBytes> keys;
  char line[256];
  while (gzgets(file, line, sizeof line)) {
    unsigned a, b, c, d, len;
    if (line[0] == '#' || std::sscanf(line, "%u.%u.%u.%u/%u", &a, &b, &c, &d, &len) != 5 || len > 32) continue;
    U64 addr = (U64(a) << 24) | (b << 16) | (c << 8) | d;
    U64 key = addr << 16;  // key bits 0..15 VRF 0, 16..47 address, left-aligned in 64 bits
    key &= ~U64(0) << (48 - len);
    key &= ~U64(0) << (64 - tread);
    if (!seen.insert(key).second) continue;
    KeyBytes kb{};
    for (int i = 0; i < 8; ++i) kb[i] = U8(key >> (56 - 8 * i));
    keys.push_back(kb);
  }
  gzclose(file);
  return keys;
}

XpBitVector reversed(const KeyBytes& kb) {
  KeyBytes vec;
  std::reverse_copy(kb.begin(), kb.end(), vec.begin());
  return XpBitVector(vec, 144);
}

double worstRatio(const std::vector<U32>& hashes, U32 shift) {
  std::vector<U32> buckets(1u << 15);
  for (U32 h : hashes) ++buckets[(h >> shift) & 0x7FFF];
  return *std::max_element(buckets.begin(), buckets.end()) / (double(hashes.size()) / buckets.size());
}

std::vector<U32> hashAll(const std::vector<XpBitVector>& keys, const crcHashFunction& hf) {
  std::vector<U32> hashes;
  for (const auto& k : keys) hashes.push_back(hf.hash(k));
  return hashes;
}

}  // namespace

TEST(XpBitVectorTest, LsbFirstLayoutMasksTailAndCompares) {
  std::array<U8, 2> raw = {0x81, 0xFF};
  XpBitVector v(raw, 12);
  EXPECT_EQ(v.size(), 12u);
  EXPECT_TRUE(v.bit(0));
  EXPECT_FALSE(v.bit(1));
  EXPECT_TRUE(v.bit(7));
  EXPECT_TRUE(v.bit(11));
  EXPECT_EQ(v.byte(1), 0x0F);  // bits 12..15 are not part of the vector
  EXPECT_EQ(v, XpBitVector(std::array<U8, 2>{0x81, 0x0F}, 12));
  EXPECT_NE(v, XpBitVector(std::array<U8, 2>{0x81, 0x0F}, 13));
  EXPECT_THROW(v.bit(12), std::out_of_range);
  EXPECT_THROW(v.byte(2), std::out_of_range);
  EXPECT_THROW(XpBitVector(raw, 17), std::invalid_argument);
  EXPECT_THROW(XpBitVector(145), std::invalid_argument);
}

TEST(CrcHashFunctionTest, RejectsBadArguments) {
  struct Case { U32 keyWidth, hashBits, poly, preset, tread; };
  for (auto c : {Case{0, 16, 0x1B1DD, 1, 0}, Case{145, 16, 0x1B1DD, 1, 35}, Case{144, 0, 0x1B1DD, 1, 35},
                 Case{144, 33, 0x1B1DD, 1, 35}, Case{144, 16, 0xB1DD, 1, 35}, Case{144, 16, 0x3B1DD, 1, 35},
                 Case{144, 16, 0x1B1DD, 2, 35}, Case{48, 16, 0x1B1DD, 1, 49}}) {
    SCOPED_TRACE(testing::Message() << c.keyWidth << " " << c.hashBits << " " << c.poly << " " << c.preset << " "
                                    << c.tread);
    EXPECT_THROW(crcHashFunction(c.keyWidth, c.hashBits, c.poly, c.preset, c.tread), std::invalid_argument);
  }
  crcHashFunction hf(48, 32, 0x1FFFF, 0, 48);
  EXPECT_THROW(hf.hash(XpBitVector(144)), std::invalid_argument);
}

TEST(CrcHashFunctionTest, MatchesBitwiseReference) {
  const unsigned seed = 20240611;
  std::printf("seed %u\n", seed);
  std::mt19937 rng(seed);
  for (U32 width : {144u, 48u, 13u}) {
    for (U32 tread : {0u, 1u, 7u, 8u, 13u, 35u, 64u, 100u, 144u}) {
      if (tread > width) continue;
      for (U32 bits : {1u, 11u, 16u, 17u, 24u, 32u}) {
        for (U32 poly : {kPolys[0], kPolys[37], kPolys[63], crcHashFunction::primaryExtensionPoly}) {
          for (U32 preset : {0u, 1u}) {
            SCOPED_TRACE(testing::Message() << "width " << width << " tread " << tread << " bits " << bits
                                            << " poly " << std::hex << poly << " preset " << preset);
            crcHashFunction hf(width, bits, poly, preset, tread);
            for (int i = 0; i < 8; ++i) {
              auto vec = randomVector(rng, width);
              ASSERT_EQ(hf.hash(XpBitVector(vec, width)), refHash(vec, width, bits, poly, preset, tread));
            }
          }
        }
      }
    }
  }
}

TEST(CrcHashFunctionTest, IgnoresBitsOutsideTread) {
  std::mt19937 rng(7);
  for (U32 tread : {0u, 3u, 35u, 64u, 143u}) {
    SCOPED_TRACE(tread);
    crcHashFunction hf(144, 32, kPolys[5], 1, tread);
    for (int i = 0; i < 50; ++i) {
      auto a = randomVector(rng, 144), b = randomVector(rng, 144);
      for (U32 v = 144 - tread; v < 144; ++v) {  // copy a's tread bits into b, keep b's others
        b[v / 8] = U8((b[v / 8] & ~(1u << (v % 8))) | (a[v / 8] & (1u << (v % 8))));
      }
      ASSERT_EQ(hf.hash(XpBitVector(a, 144)), hf.hash(XpBitVector(b, 144)));
    }
  }
}

TEST(CrcHashFunctionTest, SpreadsRealIpv4KeysWithEveryPolynomial) {
  auto keys = loadV4Keys(35);
  ASSERT_GT(keys.size(), 10000u) << "cannot read " XPLPM_DATA_DIR "/routes-v4.txt.gz";
  std::vector<XpBitVector> vecs;
  for (const auto& k : keys) vecs.push_back(reversed(k));
  double worstLow = 0, worstHigh = 0;
  for (U32 poly : kPolys) {
    SCOPED_TRACE(testing::Message() << std::hex << poly);
    double low = worstRatio(hashAll(vecs, crcHashFunction(144, 15, poly, 1, 35)), 0);
    auto wide = hashAll(vecs, crcHashFunction(144, 32, poly, 1, 35));
    double high = worstRatio(wide, 17);  // bits from the extension CRC only
    EXPECT_LE(low, 8.0);
    EXPECT_LE(high, 8.0);
    worstLow = std::max(worstLow, low);
    worstHigh = std::max(worstHigh, high);
    // The keys carry 19 non-zero bits and the 32-bit result is a remainder modulo a degree-32
    // product of coprime polynomials, so no two distinct keys may collide.
    std::sort(wide.begin(), wide.end());
    EXPECT_EQ(std::unique(wide.begin(), wide.end()), wide.end());
  }
  std::printf("%zu distinct keys, mean %.2f per bucket, worst max/mean: low bits %.2f, high bits %.2f\n",
              keys.size(), keys.size() / 32768.0, worstLow, worstHigh);
}
