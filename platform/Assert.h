// Fatal assertions: always compiled in, whatever NDEBUG says.
//
// A broken invariant writes "Failed(" condition ") " and the values involved to
// standard error, then fails a C library assertion whose text is the condition,
// which aborts the process. Callers whose report names something other than the
// asserted expression (the `!"blk"` style) use XP_FAIL.
#pragma once

#include <sstream>
#include <string>

namespace XpLib {

[[noreturn]] void fatalFailure(const char* failedText, const std::string& values, const char* assertionText,
                               const char* file, unsigned line, const char* function);

}  // namespace XpLib

// Stops when `cond` is false; the report and the assertion both show the expression.
#define XP_ASSERT(cond)                                                                          \
  do {                                                                                           \
    if (!(cond)) [[unlikely]]                                                                    \
      ::XpLib::fatalFailure(#cond, std::string(), #cond, __FILE__, __LINE__, __func__);          \
  } while (0)

// As XP_ASSERT, with values streamed after the report: XP_ASSERT_V(x < n, " x " << x).
#define XP_ASSERT_V(cond, values)                                                                \
  do {                                                                                           \
    if (!(cond)) [[unlikely]] {                                                                  \
      std::ostringstream xpAssertOs_;                                                            \
      xpAssertOs_ << values;                                                                     \
      ::XpLib::fatalFailure(#cond, xpAssertOs_.str(), #cond, __FILE__, __LINE__, __func__);      \
    }                                                                                            \
  } while (0)

// As XP_ASSERT, but reporting and asserting a fixed text instead of the expression.
#define XP_ASSERT_TEXT(cond, text)                                                               \
  do {                                                                                           \
    if (!(cond)) [[unlikely]]                                                                    \
      ::XpLib::fatalFailure(text, std::string(), text, __FILE__, __LINE__, __func__);            \
  } while (0)

// As XP_ASSERT_TEXT, with values streamed after the report.
#define XP_ASSERT_TEXT_V(cond, text, values)                                                     \
  do {                                                                                           \
    if (!(cond)) [[unlikely]] {                                                                  \
      std::ostringstream xpAssertOs_;                                                            \
      xpAssertOs_ << values;                                                                     \
      ::XpLib::fatalFailure(text, xpAssertOs_.str(), text, __FILE__, __LINE__, __func__);        \
    }                                                                                            \
  } while (0)

// Unconditional stop: reports Failed(name) with the values, then fails the assertion !"name".
#define XP_FAIL(name, values)                                                                    \
  do {                                                                                           \
    std::ostringstream xpAssertOs_;                                                              \
    xpAssertOs_ << values;                                                                       \
    ::XpLib::fatalFailure(name, xpAssertOs_.str(), "!\"" name "\"", __FILE__, __LINE__, __func__); \
  } while (0)
