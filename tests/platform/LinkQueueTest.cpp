#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "platform/LinkQueue.h"

namespace XpLib {
namespace {

using Token = std::shared_ptr<int>;

template <std::size_t N>
std::vector<std::pair<U32, int>> contents(const LinkQueue<Token, N>& q) {
  std::vector<std::pair<U32, int>> out;
  for (const auto& [index, t] : q) out.emplace_back(index, t ? *t : -1);
  return out;
}

// A queue that keeps its first entries inside itself must behave exactly as one on the heap,
// through growth past the inline room, middle inserts, erases, copies and moves, and must
// hold every value exactly once: a token's count returns to one when both queues are gone.
TEST(LinkQueueTest, InlineEntriesBehaveAsHeapEntriesThroughEveryOperation) {
  std::mt19937 rng(20261123);
  std::vector<Token> tokens;
  for (int i = 0; i < 64; ++i) tokens.push_back(std::make_shared<int>(i));
  {
    LinkQueue<Token, 3> small;
    LinkQueue<Token> plain;
    for (int step = 0; step < 20000; ++step) {
      const Token& t = tokens[rng() % tokens.size()];
      const U32 index = rng() % 12;
      switch (rng() % 8) {
        case 0:
        case 1:
          small.insert(index, t);
          plain.insert(index, t);
          break;
        case 2:
          EXPECT_EQ(small.enqRunning(t), plain.enqRunning(t));
          break;
        case 3:
          small.pop();
          plain.pop();
          break;
        case 4:
          EXPECT_EQ(small.erase(index), plain.erase(index));
          break;
        case 5: {
          LinkQueue<Token, 3> copy(small);
          small = std::move(copy);
          break;
        }
        case 6: {
          LinkQueue<Token, 3> moved(std::move(small));
          small = moved;
          break;
        }
        default:
          if (rng() % 16 == 0) {
            small.clear();
            plain.clear();
          }
      }
      ASSERT_EQ(contents(small), contents(plain)) << "step " << step;
      ASSERT_EQ(small.metadata(), plain.metadata()) << "step " << step;
    }
  }
  for (const Token& t : tokens) EXPECT_EQ(t.use_count(), 1) << *t;
}

}  // namespace
}  // namespace XpLib
