// Loading the shipped real-world route tables for benchmarks.
#pragma once

#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/IpPrefix.h"

namespace xplpm_bench {

struct Route4 {
  XpLib::Prefix prefix;
  unsigned origin;
};
struct Route6 {
  XpLib::Ip6Prefix prefix;
  unsigned origin;
};

template <class Route, class Parse>
std::vector<Route> loadRoutes(const char* file, Parse parse) {
  std::vector<Route> out;
  gzFile f = gzopen(file, "rb");
  if (!f) {
    std::fprintf(stderr, "cannot open %s\n", file);
    std::exit(1);
  }
  char line[512];
  while (gzgets(f, line, sizeof line)) {
    std::string s(line);
    if (s.empty() || s[0] == '#') continue;
    auto space = s.find(' ');
    auto p = parse(s.substr(0, space));
    if (p) out.push_back(Route{*p, static_cast<unsigned>(std::strtoul(s.c_str() + space + 1, nullptr, 10))});
  }
  gzclose(f);
  return out;
}

inline const std::vector<Route4>& routesV4() {
  static const auto r = loadRoutes<Route4>(XPLPM_DATA_DIR "/routes-v4.txt.gz",
                                           [](const std::string& t) { return XpLib::Prefix::parse(t); });
  return r;
}

inline const std::vector<Route6>& routesV6() {
  static const auto r = loadRoutes<Route6>(XPLPM_DATA_DIR "/routes-v6.txt.gz",
                                           [](const std::string& t) { return XpLib::Ip6Prefix::parse(t); });
  return r;
}

}  // namespace xplpm_bench
