// Small helpers shared by the tests.
#pragma once

#include <gtest/gtest.h>

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

}  // namespace xplpm_test
