// The trace facility: numbered levels 0-9, a settable level and sink.
//
// XP_TRACE(level, a << b << c) costs one predictable branch when the level is off:
// none of its arguments is evaluated unless the line will be written. A loop that traces
// tests the level once before it (Trace::on) and writes with XP_TRACE_ON.
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

// Formats a line through `write` (called with the stream and `context`) and emits it. Out of line,
// so that the stream lives in this frame, not in the frame of every function that traces.
using Writer = void (*)(std::ostream& os, const void* context);
void emitWritten(int level, Writer write, const void* context);

}  // namespace Trace
}  // namespace XpLib

// Writes one line unconditionally: for a caller that tested the level once, outside a loop.
// The formatting is a separate cold function; the caller only builds a reference to its locals.
#define XP_TRACE_ON(level, stream)                                                                      \
  do {                                                                                                  \
    const auto xpTraceWrite_ = [&](std::ostream& xpTraceOs_) __attribute__((noinline, cold)) {         \
      xpTraceOs_ << stream;                                                                             \
    };                                                                                                  \
    ::XpLib::Trace::emitWritten(                                                                        \
        level,                                                                                          \
        [](std::ostream& os, const void* w) { (*static_cast<const decltype(xpTraceWrite_)*>(w))(os); }, \
        &xpTraceWrite_);                                                                                \
  } while (0)

#define XP_TRACE(level, stream)                                  \
  do {                                                           \
    if (::XpLib::Trace::on(level)) [[unlikely]] {                \
      XP_TRACE_ON(level, stream);                                \
    }                                                            \
  } while (0)
