// `xplpm show`: program, then print one of the library's diagnostics, their JSON form built
// from the models, or the fill chart.
#include <unistd.h>

#include <cstdio>

#include "Commands.h"
#include "Errors.h"
#include "Report.h"
#include "ShowJson.h"
#include "Svg.h"

namespace xplpm {

namespace {

void showFamily(const XpLib::XpLpm::LpmSm& sm, const std::string& what) {
  if (what == "summary") {
    sm.showSoftwareSummary(1);
    return;
  }
  if (what != "prefix-tables" && what != "subtries" && what != "nhi-tiles") return;
  dprintf(1, "[");
  if (what == "prefix-tables") sm.printPrefixTables(1);
  if (what == "subtries") sm.printSubTrieInfo(1);
  if (what == "nhi-tiles") sm.printNhiTiles(1);
  dprintf(1, "]\n");
}

// The library's own texts, as its show commands write them.
void showText(Session& s, const Options& c) {
  auto& agent = s.agent();
  for (bool v6 : {false, true}) {
    if (s.figures().programmed.requested[v6] == 0 && c.what != "nexthop") continue;
    showFamily(*agent.family(v6).sm, c.what);
  }
  if (c.what == "summary" || c.what == "nexthop") agent.nextHopSm()->showSoftwareSummary(1);
  if (c.what == "nexthop") {
    for (const auto& [group, block] : agent.nextHopStatus()->swIdToNextHopBlockMap())
      dprintf(1, " group %llu: base %u, %u entries\n", static_cast<unsigned long long>(group.value()),
              block.base().value(), block.size().value());
  }
}

}  // namespace

int cmdShow(const Options& c) {
  const bool json = c.json || c.jsonLines;
  if (c.what == "fill" && c.svg.empty()) badInput("--svg", "show fill needs --svg FILE");
  if (c.what == "fill" && json) badInput("--json", "show fill writes an SVG chart; capacity --json gives the figures");
  if (!json && (c.table >= 0 || c.limit != ~U64(0)))
    badInput(c.table >= 0 ? "--table" : "--limit", "needs --json or --json-lines (the library's text shows every table)");
  Programmed p = programmed(c, c.verify);
  Session& s = *p.session;
  // The status follows the same rules as run's, though the output is the diagnostic.
  nlohmann::json j = runJson(s, p.set, c);
  if (c.verify) j["verify"] = verifyJson(s.figures());
  std::fflush(stdout);
  if (c.what == "fill") {
    writeFillSvg(s, j, c.svg);
  } else if (json) {
    writeShowJson(s, c, j);
  } else {
    showText(s, c);
  }
  return exitStatus(j, c.allowFailed);
}

}  // namespace xplpm
