// Route file reading.
#include "RouteInput.h"

#include <zlib.h>

#include <charconv>
#include <unordered_map>

#include "agent/RouteFile.h"

namespace xplpm {

using XpLib::Agent::LineKind;
using XpLib::Agent::Route;

namespace {

// One `bgpdump -m` RIB line: TABLE_DUMP2|time|B|peer|peerAS|PREFIX|AS_PATH|origin|...
// The origin AS (the last AS of the path, the first of a trailing set) is the next hop.
LineKind parseBgpdumpLine(std::string_view line, Route& out, std::string& why) {
  std::vector<std::string_view> f;
  for (std::size_t start = 0;;) {
    const auto bar = line.find('|', start);
    f.push_back(line.substr(start, bar == std::string_view::npos ? std::string_view::npos : bar - start));
    if (bar == std::string_view::npos) break;
    start = bar + 1;
  }
  if (f.size() < 7) {
    why = "bgpdump line with fewer than 7 fields";
    return LineKind::error;
  }
  std::string_view path = f[6];
  while (!path.empty() && (path.back() == ' ' || path.back() == '\r' || path.back() == '\n')) path.remove_suffix(1);
  if (auto brace = path.find('{'); brace != std::string_view::npos) path = path.substr(brace + 1);
  auto lastSpace = path.find_last_of(' ');
  std::string_view origin = lastSpace == std::string_view::npos ? path : path.substr(lastSpace + 1);
  if (auto comma = origin.find(','); comma != std::string_view::npos) origin = origin.substr(0, comma);
  if (!origin.empty() && origin.back() == '}') origin.remove_suffix(1);
  std::string synthetic = std::string(f[5]) + " " + std::string(origin);
  return XpLib::Agent::parseRouteLine(synthetic, out, why);
}

std::string routeKey(const Route& r) { return std::to_string(r.vrf) + "/" + r.prefixStr(); }

}  // namespace

RouteSet readRoutes(const std::string& path, FamilyFilter family, bool skipBad, InputError* fatal) {
  RouteSet set;
  gzFile f = gzopen(path.c_str(), "rb");
  if (!f) {
    *fatal = {path, "cannot open the file"};
    return set;
  }
  std::unordered_map<std::string, std::size_t> seen;
  std::string line;
  char buf[4096];
  std::string why;
  while (true) {
    line.clear();
    bool any = false;
    while (gzgets(f, buf, sizeof buf)) {
      any = true;
      line += buf;
      if (!line.empty() && line.back() == '\n') break;
    }
    if (!any) break;
    ++set.lines;
    Route r;
    const bool bgp = line.rfind("TABLE_DUMP", 0) == 0;
    const LineKind kind = bgp ? parseBgpdumpLine(line, r, why) : XpLib::Agent::parseRouteLine(line, r, why);
    if (kind == LineKind::skip) continue;
    if (kind == LineKind::error) {
      set.badLines.push_back({path + ":" + std::to_string(set.lines), why});
      if (!skipBad) break;
      continue;
    }
    (r.ipv6 ? set.hasV6 : set.hasV4) = true;
    if ((family == FamilyFilter::ipv4 && r.ipv6) || (family == FamilyFilter::ipv6 && !r.ipv6)) {
      ++set.otherFamily;
      continue;
    }
    auto [it, fresh] = seen.try_emplace(routeKey(r), set.routes.size());
    if (fresh) {
      set.routes.push_back(r);
    } else {
      set.routes[it->second] = r;  // the last one wins
      ++set.duplicates;
    }
  }
  int err = Z_OK;
  const char* msg = gzerror(f, &err);
  if (err != Z_OK && err != Z_STREAM_END && fatal->what.empty())
    *fatal = {path + ":" + std::to_string(set.lines + 1), std::string("truncated or corrupt gzip stream (") + msg + ")"};
  gzclose(f);
  return set;
}

}  // namespace xplpm
