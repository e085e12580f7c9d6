#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "platform/ObjectPool.h"

namespace XpLib {
namespace {

// A size no model type has, so that the test has the pool to itself.
using Pool = ObjectPool<136>;

// Collections hold objects by handle: a handle must name its object for as long as it lives,
// whichever chunk it came from and however often its memory went back and out again, and no two
// live objects may share one.
TEST(ObjectPoolTest, AHandleNamesItsObjectThroughReleaseAndReuseAcrossChunks) {
  std::mt19937 rng(20261125);
  std::map<U32, void*> live;
  auto check = [&] {
    for (const auto& [handle, object] : live) ASSERT_EQ(Pool::fromHandle(handle), object) << handle;
  };
  // Several chunks' worth (a chunk holds under 500), then churn that frees and reuses objects
  // from every chunk in a scrambled order.
  for (int i = 0; i < 2000; ++i) {
    U32 handle;
    void* object = Pool::allocate(handle);
    ASSERT_TRUE(live.emplace(handle, object).second) << "handle " << handle << " given twice";
  }
  check();
  for (int round = 0; round < 20000; ++round) {
    if (!live.empty() && rng() % 2) {
      auto it = live.begin();
      std::advance(it, rng() % live.size());
      Pool::release(it->second);
      live.erase(it);
    } else {
      U32 handle;
      void* object = Pool::allocate(handle);
      ASSERT_TRUE(live.emplace(handle, object).second) << "handle " << handle << " given twice";
    }
  }
  check();
  for (const auto& [handle, object] : live) Pool::release(object);
}

}  // namespace
}  // namespace XpLib
