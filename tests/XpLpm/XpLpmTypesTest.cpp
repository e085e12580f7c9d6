// Tests of the LPM key and index value types: branch byte/word layout, order, text forms, ids, enumerations.
#include "support/TestSupport.h"
#include "XpLpm/XpLpmTypes.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <iostream>
#include <random>
#include <sstream>
#include <tuple>
#include <vector>

#include "platform/Exception.h"

namespace XpLib {
namespace XpLpm {
namespace {

std::array<U32, 5> words(const SubTrieBranch& b) { return {b.word0(), b.word1(), b.word2(), b.word3(), b.word4()}; }

// Key byte i straight from the word layout: four bytes per word, most significant first; word4 has two.
U8 layoutByte(const std::array<U32, 5>& w, U32 i) {
  if (i >= 16) return static_cast<U8>(w[4] >> (i == 16 ? 8 : 0));
  return static_cast<U8>(w[i / 4] >> (24 - 8 * (i % 4)));
}

SubTrieBranch randomBranch(std::mt19937& rng) {
  std::uniform_int_distribution<U32> any;
  return SubTrieBranch(any(rng), any(rng), any(rng), any(rng), static_cast<U16>(any(rng)));
}

TEST(SubTrieBranchTest, BytesAndChunksFollowTheWordLayout) {
  const unsigned seed = 1101;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  for (int round = 0; round < 200; ++round) {
    SubTrieBranch b = randomBranch(rng);
    const auto w = words(b);
    SubTrieBranch rebuilt;
    for (U32 i = 0; i < 18; ++i) {
      ASSERT_EQ(b.u8(i), layoutByte(w, i)) << "byte " << i;
      rebuilt.u8Is(i, b.u8(i));
    }
    EXPECT_EQ(rebuilt, b);
    EXPECT_EQ(b.u64(0), (U64(w[0]) << 32) | w[1]);
    EXPECT_EQ(b.u64(1), (U64(w[2]) << 32) | w[3]);
    EXPECT_EQ(b.u64(2), U64(w[4]) << 48);

    SubTrieBranch viaChunks;
    const U64 noise = std::uniform_int_distribution<U64>(0, 0xFFFFFFFFFFFFull)(rng);
    viaChunks.u64Is(0, b.u64(0));
    viaChunks.u64Is(1, b.u64(1));
    viaChunks.u64Is(2, b.u64(2) | noise);
    EXPECT_EQ(viaChunks, b) << "u64Is(2) must take bits 63..48 only";
  }
}

TEST(SubTrieBranchTest, BadIndexesThrowAndLeaveTheBranchUnchanged) {
  const SubTrieBranch original(1, 2, 3, 4, 5);
  SubTrieBranch b = original;
  xplpm_test::expectThrowMessage<RangeException>([&] { b.u8(18); }, "SubTrieBranch::u8: index out of range");
  xplpm_test::expectThrowMessage<RangeException>([&] { b.u8Is(18, 0xFF); }, "SubTrieBranch::u8Is: index out of range");
  xplpm_test::expectThrowMessage<RangeException>([&] { b.u64(3); }, "SubTrieBranch::u64: index out of range");
  xplpm_test::expectThrowMessage<RangeException>([&] { b.u64Is(3, ~0ull); }, "SubTrieBranch::u64Is: index out of range");
  xplpm_test::expectThrowMessage<NondeletableAttrException>([&] { b.u8Del(0); }, "SubTrieBranch::u8Del");
  xplpm_test::expectThrowMessage<NondeletableAttrException>([&] { b.u64Del(0); }, "SubTrieBranch::u64Del");
  EXPECT_EQ(b, original);
}

TEST(SubTrieBranchTest, OrderIsLexicographicOverUnsignedWords) {
  const unsigned seed = 1102;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  // A small alphabet makes long equal runs likely, so every word gets to decide.
  const U32 alphabet[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
  auto pick = [&] { return alphabet[std::uniform_int_distribution<int>(0, 4)(rng)]; };
  for (int round = 0; round < 2000; ++round) {
    SubTrieBranch a(pick(), pick(), pick(), pick(), static_cast<U16>(pick()));
    SubTrieBranch b(pick(), pick(), pick(), pick(), static_cast<U16>(pick()));
    if (round % 3 == 0) b = SubTrieBranch(a.word0(), a.word1(), a.word2(), a.word3(), static_cast<U16>(pick()));
    const auto ta = std::make_tuple(a.word0(), a.word1(), a.word2(), a.word3(), a.word4());
    const auto tb = std::make_tuple(b.word0(), b.word1(), b.word2(), b.word3(), b.word4());
    ASSERT_EQ(a == b, ta == tb);
    ASSERT_EQ(a != b, ta != tb);
    ASSERT_EQ(a < b, ta < tb);
    ASSERT_EQ(a <= b, ta <= tb);
    ASSERT_EQ(a > b, ta > tb);
    ASSERT_EQ(a >= b, ta >= tb);
  }
}

TEST(SubTrieBranchTest, TextFormRoundTrips) {
  SubTrieBranch b(0xFFFFFFFF, 1, 0, 42, 0xFFFF);
  EXPECT_EQ(b.valueToStrep(),
            "Value('XpLib::XpLpm::SubTrieBranch', ** {'word0': 4294967295, 'word1': 1, 'word2': 0, 'word3': 42, "
            "'word4': 65535})");
  std::ostringstream os;
  os << b;
  EXPECT_EQ(os.str(), b.valueToStrep());
  std::cout << "seed 1103\n";
  std::mt19937 rng(1103);
  for (int round = 0; round < 100; ++round) {
    SubTrieBranch r = randomBranch(rng);
    EXPECT_EQ(SubTrieBranch::fromString(r.valueToStrep()), r);
  }
  for (const char* bad : {"", "Value('XpLib::XpLpm::SubTrieBranch', ** {'word0': 1})",
                          "Value('XpLib::XpLpm::SubTrieBranch', ** {'word0': 0, 'word1': 0, 'word2': 0, 'word3': 0, "
                          "'word4': 65536})",
                          "Value('XpLib::XpLpm::SubTrieBranch', ** {'word0': 4294967296, 'word1': 0, 'word2': 0, "
                          "'word3': 0, 'word4': 0})",
                          "Value('XpLib::XpLpm::SubTrieBranch', ** {'word0': 0, 'word1': 0, 'word2': 0, "
                          "'word3': 123456789012345678901234567890, 'word4': 0})"}) {
    SCOPED_TRACE(bad);
    EXPECT_THROW(SubTrieBranch::fromString(bad), RangeException);
  }
}

TEST(PrefixTableIdTest, RangeIsZeroToThirtyTwo) {
  EXPECT_EQ(PrefixTableId(32).value(), 32);
  EXPECT_EQ(PrefixTableId::fromString("32"), PrefixTableId(32));
  EXPECT_EQ(PrefixTableId(7).str(), "7");
  EXPECT_LT(PrefixTableId(3), PrefixTableId(31));
  const std::string message = "PrefixTableId::value < 0 or > 32 not allowed";
  xplpm_test::expectThrowMessage<RangeException>([] { PrefixTableId id(33); }, message);
  for (const char* text : {"33", "256", "4294967296", "-1"}) {
    SCOPED_TRACE(text);
    xplpm_test::expectThrowMessage<RangeException>([&] { PrefixTableId::fromString(text); }, message);
  }
  EXPECT_THROW(PrefixTableId::fromString("x"), RangeException);
  EXPECT_THROW(PrefixTableId::fromString(""), RangeException);
}

TEST(NhiTableIdxTest, DefaultMarksNoBlockAndOrderIsTileThenOffset) {
  const NhiTableIdx none;
  EXPECT_EQ(none.tile().value(), 255);
  EXPECT_EQ(none.offset(), 65535);
  EXPECT_NE(none, NhiTableIdx(U8(0), 0));
  EXPECT_LT(NhiTableIdx(U8(0), 65535), NhiTableIdx(U8(1), 0));
  EXPECT_LT(NhiTableIdx(U8(1), 2), NhiTableIdx(U8(1), 3));
  EXPECT_EQ(NhiTableIdx(U8(3), 120).str(), "3,120");
  EXPECT_EQ(NhiTableIdx(U8(3), 120).valueToStrep(),
            "Value('XpLib::XpLpm::NhiTableIdx', ** {'tile': 3, 'offset': 120})");
}

template <class E>
void expectNames(const std::vector<std::string>& names) {
  for (U32 v = 0; v < names.size(); ++v) {
    SCOPED_TRACE(names[v]);
    E e = static_cast<E>(v);
    EXPECT_EQ(stringValue(e), names[v]);
    EXPECT_EQ(enumFromNumber<E>(v), e);
    EXPECT_EQ(enumFromName<E>(names[v]), e);
    std::ostringstream os;
    os << e;
    EXPECT_EQ(os.str(), names[v]);
  }
  EXPECT_FALSE(enumFromNumber<E>(static_cast<U32>(names.size())));
  EXPECT_FALSE(enumFromName<E>("noSuchValue"));
}

TEST(EnumerationsTest, NamesAndNumbers) {
  expectNames<KeyType>({"keyShort48b", "keyLong144b"});
  expectNames<SubTrieMode>({"modeSparse", "modeBitmap", "modeCpe"});
  expectNames<RouteReturnCode>({"pass", "fail", "retry", "subTrieNotPresent", "subTriePresent", "nhiTableFull",
                                "nhiCapacityExceeded", "full", "hashCollision"});
  expectNames<RestartMode>({"modeNoRestart", "modeRestartCli", "modeRestartTest", "modeRestartNormal"});
  expectNames<CommandType>({"commandTypePrefix", "commandTypeNhi"});
  expectNames<PrefixTableType>({"prefixTableNarrow128b", "prefixTableWide256b"});
  EXPECT_EQ(static_cast<U32>(full), 7u);
  EXPECT_EQ(static_cast<U32>(hashCollision), 8u);
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
