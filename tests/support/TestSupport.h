// Small helpers shared by the tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Trace.h"

namespace xplpm_test {

// Collects trace lines at and below `level` for the life of the object.
struct TraceCapture {
  std::vector<std::string> lines;
  explicit TraceCapture(int level) {
    XpLib::Trace::levelIs(level);
    XpLib::Trace::sinkIs([this](int, std::string_view line) { lines.emplace_back(line); });
  }
  ~TraceCapture() {
    XpLib::Trace::sinkIs(nullptr);
    XpLib::Trace::levelIs(-1);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;
  // Lines that contain `text`.
  int count(const std::string& text) const {
    int n = 0;
    for (const auto& l : lines) n += l.find(text) != std::string::npos;
    return n;
  }
};

// Sets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }
  ~ScopedEnv() { unsetenv(name_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
};

// Expects f() to throw Ex with exactly `message`.
template <class Ex>
void expectThrowMessage(const std::function<void()>& f, const std::string& message) {
  try {
    f();
    ADD_FAILURE() << "no exception, expected: " << message;
  } catch (const Ex& e) {
    EXPECT_EQ(std::string(e.what()), message);
  }
}

// Jenkins one-at-a-time over a byte stream, written out plainly as the reference
// for the model's own hashes.
inline std::uint32_t oneAtATimeReference(const std::vector<std::uint8_t>& bytes) {
  std::uint32_t h = 0;
  for (std::uint8_t b : bytes) {
    h += b;
    h += h << 10;
    h ^= h >> 6;
  }
  h += h << 3;
  h ^= h >> 11;
  h += h << 15;
  return h;
}

}  // namespace xplpm_test
