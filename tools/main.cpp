// xplpm: program real route tables into a simulated chip through the library,
// verify every lookup, restart, churn, and show what the tables hold.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "Cli.h"
#include "Commands.h"
#include "Errors.h"
#include "platform/Trace.h"

namespace {

using namespace xplpm;

int dispatch(const Options& c) {
  if (c.command == "run") return cmdRun(c);
  if (c.command == "restart") return cmdRestart(c);
  if (c.command == "churn") return cmdChurn(c);
  if (c.command == "show") return cmdShow(c);
  if (c.command == "lookup") return cmdLookup(c);
  if (c.command == "capacity") return cmdCapacity(c);
  if (c.command == "serve") return cmdServe(c);
  if (c.command == "fpm-send") return cmdFpmSend(c);
  if (c.command == "profile list") return cmdProfileList();
  return cmdProfileShow(c);
}

// Whether errors go out as JSON: asked for on the command line, even one that does not parse.
bool jsonAsked(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") break;
    if (arg == "--json" || arg == "--json-lines") return true;
  }
  return false;
}

// The model is hundreds of megabytes of small objects reached at random, so TLB misses are part
// of programming time, and transparent huge pages can take them away. But every huge page is
// cleared whole when first touched, and with THP defragmentation on madvise a fault may compact
// memory first: on the machines we measure, programming ran about a fifth slower with them. So
// they are asked for only with XPLPM_HUGE_PAGES=1. glibc's malloc reads its tunable only at
// start-up: the tool sets it and starts itself again, and a tunable the user set is left as it is.
void preferHugePages(char** argv) {
  const char* choice = std::getenv("XPLPM_HUGE_PAGES");
  if (!choice || std::string_view(choice) != "1") return;
  const char* given = std::getenv("GLIBC_TUNABLES");
  std::string tunables = given ? given : "";
  if (tunables.find("glibc.malloc.hugetlb") != std::string::npos) return;
  tunables += tunables.empty() ? "glibc.malloc.hugetlb=1" : ":glibc.malloc.hugetlb=1";
  if (setenv("GLIBC_TUNABLES", tunables.c_str(), 1) != 0) return;
  execv("/proc/self/exe", argv);  // returns only when it failed: run on with normal pages
}

}  // namespace

int main(int argc, char** argv) {
  preferHugePages(argv);
  CLI::App app{"xplpm: longest-prefix-match route tables on a simulated Xp chip"};
  Options c;
  buildCli(app, c);
  const bool json = jsonAsked(argc, argv);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {  // --help, --version
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    printInputError({"", e.what()}, json);
    return exitBadInput;
  }
  try {
    static std::ofstream traceOut;  // the sink writes to it until the process ends
    if (c.trace >= 0) {
      if (!c.traceFile.empty()) {
        traceOut.open(c.traceFile);
        if (!traceOut) badFile(c.traceFile, 0, "cannot write the trace file");
        XpLib::Trace::sinkIs([&](int, std::string_view line) { traceOut << line << '\n'; });
      }
      XpLib::Trace::levelIs(c.trace);
    }
    return dispatch(c);
  } catch (const BadInput& e) {
    for (const InputError& error : e.errors()) printInputError(error, json);
    return exitBadInput;
  }
}
