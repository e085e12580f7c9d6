// Time spent in one kind of call, estimated from one call in kEvery: a clock read costs tens of
// nanoseconds here, a route's whole programming about a microsecond, so timing every call would
// slow down what it measures.
#pragma once

#include <chrono>

#include "platform/Types.h"

namespace XpLib {
namespace Agent {

class SampledTimer {
 public:
  static constexpr U64 kEvery = 32;

  template <class F>
  void run(F&& f) {
    if (++calls_ % kEvery != 0) {
      f();
      return;
    }
    const auto t0 = std::chrono::steady_clock::now();
    f();
    sampled_ += std::chrono::steady_clock::now() - t0;
  }

  // The estimate for every call so far.
  double seconds() const { return std::chrono::duration<double>(sampled_).count() * kEvery; }

 private:
  U64 calls_ = 0;
  std::chrono::steady_clock::duration sampled_{};
};

}  // namespace Agent
}  // namespace XpLib
