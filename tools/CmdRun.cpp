// `xplpm run`: program a route table from empty and report.
#include "Commands.h"
#include "Report.h"

namespace xplpm {

int cmdRun(const Options& c) {
  Programmed p = programmed(c, c.verify);
  Session& s = *p.session;
  nlohmann::json j = runJson(s, p.set, c);
  if (c.verify) j["verify"] = verifyJson(s.figures());
  if (c.check) j["check"] = checkJson(s.agent());
  return finish(j, c);
}

}  // namespace xplpm
