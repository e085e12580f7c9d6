// Tests of Bitmap against a std::vector<bool> model, across word boundaries and the inline/heap storage split.
#include "platform/Bitmap.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace XpLib {
namespace {

U32 modelFind(const std::vector<bool>& bits, U32 lo, U32 hi, bool value, Bitmap::IndexPreference pref) {
  U32 found = Bitmap::npos;
  for (U32 i = lo; i <= hi && i < bits.size(); ++i) {
    if (bits[i] != value) continue;
    found = i;
    if (pref == Bitmap::indexLowest) break;
  }
  return found;
}

TEST(BitmapTest, FreshBitmapState) {
  for (U32 length : {1u, 64u, 216u, 300u}) {
    SCOPED_TRACE(length);
    Bitmap clear(7, length, static_cast<Bitmap::BitState>(1));
    EXPECT_EQ(clear.findClearBitInRange(0, length - 1, static_cast<Bitmap::IndexPreference>(0)), 0u);
    EXPECT_EQ(clear.findSetBitInRange(0, length - 1, Bitmap::indexLowest), Bitmap::npos);
    EXPECT_EQ(clear.numSet(), 0u);
    Bitmap set(7, length, Bitmap::bitSet);
    EXPECT_EQ(set.findClearBitInRange(0, length - 1, Bitmap::indexLowest), Bitmap::npos);
    EXPECT_EQ(set.findSetBitInRange(0, length - 1, Bitmap::indexHighest), length - 1);
    EXPECT_EQ(set.numSet(), length);
  }
}

TEST(BitmapTest, RandomOperationsMatchModel) {
  const unsigned seed = 424242;
  std::cout << "seed " << seed << "\n";
  std::mt19937 rng(seed);
  for (U32 length : {1u, 63u, 64u, 65u, 128u, 216u, 256u, 257u, 400u}) {
    SCOPED_TRACE(testing::Message() << "length " << length);
    auto index = [&] { return std::uniform_int_distribution<U32>(0, length - 1)(rng); };
    Bitmap bitmap(length, length, Bitmap::bitClear);
    std::vector<bool> model(length, false);
    for (int step = 0; step < 2000; ++step) {
      U32 lo = index();
      U32 hi = index();
      const int op = step % 5;
      if (op == 0) {
        bitmap.setBit(lo);
        model[lo] = true;
      } else if (op == 1) {
        bitmap.clearBit(lo);
        model[lo] = false;
      } else if (op == 2 || op == 3) {
        // lo > hi is an empty range and must change nothing.
        (op == 2 ? bitmap.setBitsInRange(lo, hi) : bitmap.clearBitsInRange(lo, hi));
        for (U32 i = lo; i <= hi; ++i) model[i] = op == 2;
      }
      ASSERT_EQ(bitmap.isSet(lo), model[lo]);
      for (auto pref : {Bitmap::indexLowest, Bitmap::indexHighest}) {
        ASSERT_EQ(bitmap.findSetBitInRange(lo, hi, pref), modelFind(model, lo, hi, true, pref))
            << lo << ".." << hi << " pref " << pref;
        ASSERT_EQ(bitmap.findClearBitInRange(lo, hi, pref), modelFind(model, lo, hi, false, pref))
            << lo << ".." << hi << " pref " << pref;
      }
    }
    EXPECT_EQ(bitmap.numSet(), std::count(model.begin(), model.end(), true));
    Bitmap copy(bitmap);
    copy.clearBit(0);
    EXPECT_EQ(bitmap.bit(0), model[0]) << "a copy must not share storage";
  }
}

TEST(BitmapDeathTest, IndexPastLengthIsFatal) {
  Bitmap bitmap(0, 10, Bitmap::bitClear);
  EXPECT_DEATH(bitmap.setBit(10), "index < length_");
  EXPECT_DEATH(bitmap.findClearBitInRange(0, 10, Bitmap::indexLowest), "index < length_");
}

}  // namespace
}  // namespace XpLib
