// HashMap against std::map under random operations, and its deterministic order.
#include "platform/HashMap.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <map>
#include <random>
#include <vector>

namespace XpLib {
namespace {

// A key type whose hash collides often, to exercise probing and backward shifts.
struct Clumped {
  U32 v = 0;
  U32 hash() const { return v % 7; }
  bool operator==(const Clumped&) const = default;
};

template <class Map, class Ref>
void expectSame(const Map& m, const Ref& ref) {
  ASSERT_EQ(m.size(), ref.size());
  for (const auto& [k, v] : ref) {
    const auto* found = m.find(k);
    ASSERT_NE(found, nullptr) << "key " << k;
    EXPECT_EQ(*found, v);
  }
  std::size_t seen = 0;
  for (const auto& e : m) {
    ++seen;
    EXPECT_EQ(ref.count(e.first), 1u);
  }
  EXPECT_EQ(seen, ref.size());
}

TEST(HashMapTest, MatchesReferenceUnderRandomOperations) {
  const unsigned seed = 20261122;
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  HashMap<U32, U32> m;
  std::map<U32, U32> ref;
  for (int step = 0; step < 60000; ++step) {
    U32 key = rng() % 2000;  // a small key space, so erases and overwrites hit
    switch (rng() % 4) {
      case 0:
      case 1: {
        U32 value = rng();
        EXPECT_EQ(m.set(key, value), ref.count(key) == 0);
        ref[key] = value;
        break;
      }
      case 2:
        EXPECT_EQ(m.erase(key), ref.erase(key) == 1);
        break;
      default:
        EXPECT_EQ(m.get(key, 7u), ref.count(key) ? ref[key] : 7u);
    }
    if (step % 5000 == 0) expectSame(m, ref);
    if (step == 30000) {
      m.clear();
      ref.clear();
    }
  }
  expectSame(m, ref);
}

TEST(HashMapTest, CollidingKeysSurviveErasureInAnyOrder) {
  HashMap<Clumped, int> m;
  for (U32 i = 0; i < 200; ++i) m.set(Clumped{i}, static_cast<int>(i));
  for (U32 i = 0; i < 200; i += 3) EXPECT_TRUE(m.erase(Clumped{i}));
  for (U32 i = 0; i < 200; ++i) {
    const int* v = m.find(Clumped{i});
    if (i % 3 == 0) {
      EXPECT_EQ(v, nullptr) << i;
    } else {
      ASSERT_NE(v, nullptr) << i;
      EXPECT_EQ(*v, static_cast<int>(i));
    }
  }
}

TEST(HashMapTest, OrderDependsOnlyOnTheHistoryOfOperations) {
  // Two maps given the same operations iterate alike, whatever their index sizes.
  HashMap<U32, int> a, b;
  b.reserve(5000);
  std::printf("seed 7\n");
  std::mt19937 rng(7);
  for (int i = 0; i < 3000; ++i) {
    U32 k = rng() % 1000;
    if (rng() % 3 == 0) {
      a.erase(k);
      b.erase(k);
    } else {
      a.set(k, i);
      b.set(k, i);
    }
  }
  std::vector<U32> ka, kb;
  for (const auto& e : a) ka.push_back(e.first);
  for (const auto& e : b) kb.push_back(e.first);
  EXPECT_EQ(ka, kb);
  // Insertion order is kept until an erase moves the last entry into the hole.
  HashMap<U32, int> c;
  for (U32 k : {5u, 3u, 9u, 1u}) c.set(k, 0);
  c.erase(3);
  std::vector<U32> kc;
  for (const auto& e : c) kc.push_back(e.first);
  EXPECT_EQ(kc, (std::vector<U32>{5, 1, 9}));
}

TEST(HashMapTest, EmptyMapOwnsNoHeapAndCopiesAreIndependent) {
  HashMap<U32, U32> m;
  EXPECT_EQ(m.heapBytes(), 0u);
  m.set(1, 10);
  m.set(2, 20);
  HashMap<U32, U32> copy = m;
  copy.set(1, 11);
  copy.erase(2);
  EXPECT_EQ(m.get(1), 10u);
  EXPECT_EQ(m.get(2), 20u);
  EXPECT_EQ(copy.get(1), 11u);
  EXPECT_FALSE(copy.contains(2));
  m.clear();
  EXPECT_EQ(m.heapBytes(), 0u);
}

}  // namespace
}  // namespace XpLib
