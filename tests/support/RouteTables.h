// The shipped real-world route tables, read once, for tests and benchmarks.
#pragma once

#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "agent/RouteFile.h"

namespace xplpm_test {

inline std::vector<XpLib::Agent::Route> loadRouteFile(const std::string& path) {
  std::vector<XpLib::Agent::Route> out;
  gzFile f = gzopen(path.c_str(), "rb");
  if (!f) {
    std::fprintf(stderr, "cannot open %s\n", path.c_str());
    std::exit(1);
  }
  char line[512];
  std::string why;
  while (gzgets(f, line, sizeof line)) {
    XpLib::Agent::Route r;
    if (XpLib::Agent::parseRouteLine(line, r, why) == XpLib::Agent::LineKind::route) out.push_back(r);
  }
  gzclose(f);
  return out;
}

inline const std::vector<XpLib::Agent::Route>& realRoutes(bool ipv6) {
  static const auto v4 = loadRouteFile(XPLPM_DATA_DIR "/routes-v4.txt.gz");
  static const auto v6 = loadRouteFile(XPLPM_DATA_DIR "/routes-v6.txt.gz");
  return ipv6 ? v6 : v4;
}

}  // namespace xplpm_test
