// The trace facility's level and sink.
#include "platform/Trace.h"

#include <cstdio>
#include <sstream>
#include <utility>

namespace XpLib {
namespace Trace {

int gLevel = -1;

namespace {
Sink& sink() {
  static Sink s;
  return s;
}
}  // namespace

void levelIs(int level) { gLevel = level; }

void sinkIs(Sink s) { sink() = std::move(s); }

void emit(int level, std::string_view line) {
  if (sink()) {
    sink()(level, line);
    return;
  }
  std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
}

void emitWritten(int level, Writer write, const void* context) {
  std::ostringstream os;
  write(os, context);
  emit(level, os.view());
}

}  // namespace Trace
}  // namespace XpLib
