#include "XpLpm/NhiPositionMap.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <vector>

namespace XpLib {
namespace XpLpm {
namespace {

// The NHI block maps answer lookups, counts and iteration (in position order) exactly as an
// ordered map of the same changes would, across tiles met out of order and arrays that grow.
TEST(NhiPositionMapTest, AnswersAsAnOrderedMapOfTheSameChanges) {
  std::mt19937 rng(20261125);
  NhiPositionMap<std::shared_ptr<int>> map;
  std::map<NhiTableIdx, std::shared_ptr<int>> reference;
  for (int step = 0; step < 20000; ++step) {
    const NhiTableIdx idx(static_cast<U8>(rng() % 5 * 2), static_cast<U16>(rng() % 3 == 0 ? rng() % 9000 : rng() % 40));
    if (rng() % 3 == 0) {
      ASSERT_EQ(map.erase(idx), reference.erase(idx) == 1);
    } else {
      auto v = std::make_shared<int>(step);
      map.set(idx, v);
      reference[idx] = v;
    }
    ASSERT_EQ(map.size(), reference.size());
    ASSERT_EQ(map.get(idx), reference.count(idx) ? reference[idx] : nullptr);
  }
  std::vector<std::pair<NhiTableIdx, std::shared_ptr<int>>> got;
  for (const auto& entry : map) got.push_back(entry);
  std::vector<std::pair<NhiTableIdx, std::shared_ptr<int>>> want(reference.begin(), reference.end());
  EXPECT_EQ(got, want);
  map.set(NhiTableIdx(3, 7), nullptr);  // setting nothing is no entry
  EXPECT_FALSE(map.contains(NhiTableIdx(3, 7)));
  EXPECT_EQ(map.size(), reference.size());
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
