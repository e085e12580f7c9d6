// The fatal-assertion reporter.
// The C library's assertion machinery must be declared even in optimised builds.
#undef NDEBUG
#include "platform/Assert.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>

namespace XpLib {

void fatalFailure(const char* failedText, const std::string& values, const char* assertionText, const char* file,
                  unsigned line, const char* function) {
  std::fprintf(stderr, "Failed(%s) %s\n", failedText, values.c_str());
  std::fflush(stderr);
  // The C library's own assertion failure prints the condition the way every
  // operator already knows, and aborts so that a core file is written.
  __assert_fail(assertionText, file, line, function);
}

}  // namespace XpLib
