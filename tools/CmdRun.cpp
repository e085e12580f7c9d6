// `xplpm run`: program a route table from empty and report.
#include "Commands.h"
#include "Report.h"

namespace xplpm {

int cmdRun(const Options& c) {
  Programmed p = programmed(c, c.verify);
  nlohmann::json j = runJson(*p.session, p.set, c);
  if (c.verify) j["verify"] = {{"probes", p.session->figures().verifyProbes}, {"mismatches", p.session->figures().verifyMismatches}};
  return finish(j, c);
}

}  // namespace xplpm
