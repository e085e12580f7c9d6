// The trace facility: numbered levels 0-9, a settable level and sink.
//
// XP_TRACE(level, a << b << c) costs one predictable branch when the level is off:
// none of its arguments is evaluated unless the line will be written.
//   level 1 start-up, 3 request path, 4 command generation, 6 sub-trie slots,
//   7 NHI decisions, 9 full table dumps.
#pragma once

#include <functional>
#include <sstream>
#include <string_view>

namespace XpLib {
namespace Trace {

// Lines at a level above this are dropped; -1 (the default) drops everything.
extern int gLevel;

inline bool on(int level) { return level <= gLevel; }
inline int level() { return gLevel; }
void levelIs(int level);

// The sink receives each finished line (without a newline) and its level.
using Sink = std::function<void(int level, std::string_view line)>;
// A null sink restores the default, which writes lines to standard error.
void sinkIs(Sink sink);
void emit(int level, std::string_view line);

}  // namespace Trace
}  // namespace XpLib

#define XP_TRACE(level, stream)                                      \
  do {                                                               \
    if (::XpLib::Trace::on(level)) [[unlikely]] {                    \
      std::ostringstream xpTraceOs_;                                 \
      xpTraceOs_ << stream;                                          \
      ::XpLib::Trace::emit(level, xpTraceOs_.view());                \
    }                                                                \
  } while (0)
