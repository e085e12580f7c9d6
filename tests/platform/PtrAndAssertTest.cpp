// Reference counting, fatal assertions and the trace facility.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Assert.h"
#include "platform/Ptr.h"
#include "platform/Trace.h"

namespace XpLib {
namespace {

struct Counted : PtrInterface {
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int* deaths_;
};
struct Derived : Counted {
  using Counted::Counted;
};

TEST(PtrTest, ObjectDiesWithItsLastPtr) {
  int deaths = 0;
  Ptr<Counted> a = makePtr<Derived>(&deaths);
  {
    Ptr<Counted> b = a;
    Ptr<Counted> c = std::move(b);
    EXPECT_EQ(a->references(), 2u);
    EXPECT_FALSE(b);
    Ptr<Derived> d = ptr_cast<Derived>(c);
    EXPECT_EQ(d, a);
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(deaths, 0);
  a = a;  // self-assignment keeps the object
  EXPECT_EQ(deaths, 0);
  a = nullptr;
  EXPECT_EQ(deaths, 1);
}

TEST(TraceTest, ArgumentsAreNotEvaluatedWhenTheLevelIsOff) {
  std::vector<std::string> lines;
  Trace::sinkIs([&](int level, std::string_view line) { lines.push_back(std::to_string(level) + ":" + std::string(line)); });
  int evaluations = 0;
  auto costly = [&] {
    ++evaluations;
    return std::string("x");
  };
  Trace::levelIs(-1);
  XP_TRACE(0, "never " << costly());
  Trace::levelIs(3);
  XP_TRACE(4, "off " << costly());
  XP_TRACE(3, "LpmSm::handleRequest" << " lpmPrefix " << costly());
  XP_TRACE(1, "start " << 7);
  Trace::levelIs(-1);
  Trace::sinkIs(nullptr);
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"3:LpmSm::handleRequest lpmPrefix x", "1:start 7"}));
}

using FatalAssertDeathTest = ::testing::Test;

TEST(FatalAssertDeathTest, ReportsFailedThenTheAssertion) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int freeEntries = 5;
  EXPECT_DEATH(XP_ASSERT_V(freeEntries > 8, " freeentries " << freeEntries),
               "Failed\\(freeEntries > 8\\)  freeentries 5\n.*Assertion `freeEntries > 8' failed");
  EXPECT_DEATH(XP_FAIL("blk", " swId " << 42), "Failed\\(blk\\)  swId 42\n.*Assertion `!\"blk\"' failed");
  EXPECT_DEATH(XP_ASSERT_TEXT(false, "keyType() == keyLong144b_"),
               "Failed\\(keyType\\(\\) == keyLong144b_\\) \n.*Assertion `keyType\\(\\) == keyLong144b_' failed");
}

}  // namespace
}  // namespace XpLib
