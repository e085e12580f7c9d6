// Route file reading.
#include "RouteInput.h"

#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <unordered_map>

#include "agent/RouteFile.h"

namespace xplpm {

using XpLib::Agent::LineKind;
using XpLib::Agent::Route;

namespace {

std::vector<std::string_view> splitBars(std::string_view line) {
  std::vector<std::string_view> f;
  for (std::size_t start = 0;;) {
    const auto bar = line.find('|', start);
    f.push_back(line.substr(start, bar == std::string_view::npos ? std::string_view::npos : bar - start));
    if (bar == std::string_view::npos) return f;
    start = bar + 1;
  }
}

std::string_view trimmed(std::string_view s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

bool isAsNumber(std::string_view s) {
  XpLib::U32 as = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), as);
  return !s.empty() && ec == std::errc() && end == s.data() + s.size();
}

std::string routeKey(const Route& r) { return std::to_string(r.vrf) + "/" + r.prefixStr(); }

// Files the lines of one input into a RouteSet.
class Collector {
 public:
  Collector(RouteSet& set, FamilyFilter family, bool skipBad) : set_(set), family_(family), skipBad_(skipBad) {}

  // Returns false once reading should stop.
  bool line(std::string_view text, bool overlong) {
    ++set_.lines;
    if (set_.lines == 1 && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);  // a UTF-8 byte-order mark
    std::string why;
    Route r;
    LineKind kind = LineKind::error;
    if (overlong) {
      why = std::string("line longer than ") + std::to_string(kMaxLineBytes) + " bytes";
    } else if (const auto nul = text.find('\0'); nul != std::string_view::npos) {
      why = std::string("NUL byte at column ") + std::to_string(nul + 1) + " (a binary file?)";
    } else {
      kind = text.substr(0, 10) == "TABLE_DUMP" ? parseBgpdumpLine(text, r, why)
                                                 : XpLib::Agent::parseRouteLine(text, r, why);
    }
    if (kind == LineKind::skip) {
      ++set_.blank;
      return true;
    }
    if (kind == LineKind::error) {
      set_.badLines.push_back(fileError(set_.source, set_.lines, why));
      return skipBad_;
    }
    keep(r);
    return true;
  }

 private:
  void keep(const Route& r) {
    (r.ipv6 ? set_.hasV6 : set_.hasV4) = true;
    if ((family_ == FamilyFilter::ipv4 && r.ipv6) || (family_ == FamilyFilter::ipv6 && !r.ipv6)) {
      ++set_.otherFamily;
      return;
    }
    auto [it, fresh] = seen_.try_emplace(routeKey(r), set_.routes.size());
    if (fresh) {
      set_.routes.push_back(r);
    } else {
      set_.routes[it->second] = r;  // the last one wins
      ++set_.duplicates;
    }
  }

  RouteSet& set_;
  FamilyFilter family_;
  bool skipBad_;
  std::unordered_map<std::string, std::size_t> seen_;
};

// Cuts a byte stream into lines at LF, CR or CR LF, whatever the chunk boundaries.
class LineSplitter {
 public:
  explicit LineSplitter(Collector& c) : collector_(c) {}

  // Returns false once reading should stop.
  bool feed(std::string_view chunk) {
    for (char ch : chunk) {
      if (afterCr_ && ch == '\n') {
        afterCr_ = false;
        continue;
      }
      afterCr_ = ch == '\r';
      if (ch == '\n' || ch == '\r') {
        if (!flush()) return false;
      } else if (line_.size() < kMaxLineBytes) {
        line_ += ch;
        pending_ = true;
      } else {
        overlong_ = true;
      }
    }
    return true;
  }
  // The last line, when the input does not end with a line end.
  void finish() {
    if (pending_ || overlong_) flush();
  }

 private:
  bool flush() {
    const bool go = collector_.line(line_, overlong_);
    line_.clear();
    pending_ = overlong_ = false;
    return go;
  }

  Collector& collector_;
  std::string line_;
  bool pending_ = false, overlong_ = false, afterCr_ = false;
};

}  // namespace

LineKind parseBgpdumpLine(std::string_view line, Route& out, std::string& why) {
  const std::vector<std::string_view> f = splitBars(line);
  if (f.size() < 7) {
    why = "bgpdump line with fewer than 7 fields";
    return LineKind::error;
  }
  const std::string_view prefix = trimmed(f[5]);
  if (prefix.empty() || prefix.find_first_of(" \t#") != std::string_view::npos) {
    why = "bgpdump line whose prefix field '" + std::string(f[5]) + "' is not a prefix";
    return LineKind::error;
  }
  // A route the peer originated itself has an empty path: the peer is its origin.
  std::string_view path = trimmed(f[6]);
  std::string_view origin = trimmed(f[4]);
  if (!path.empty()) {
    if (auto brace = path.rfind('{'); brace != std::string_view::npos) path = path.substr(brace + 1);
    const auto lastSpace = path.find_last_of(' ');
    origin = lastSpace == std::string_view::npos ? path : path.substr(lastSpace + 1);
    if (auto comma = origin.find(','); comma != std::string_view::npos) origin = origin.substr(0, comma);
    if (!origin.empty() && origin.back() == '}') origin.remove_suffix(1);
  }
  if (!isAsNumber(origin)) {
    why = "bgpdump line whose AS path '" + std::string(f[6]) + "' does not end in an AS number";
    return LineKind::error;
  }
  return XpLib::Agent::parseRouteLine(std::string(prefix) + " " + std::string(origin), out, why);
}

RouteSet readRouteText(const std::string& source, std::string_view text, FamilyFilter family, bool skipBad) {
  RouteSet set;
  set.source = source;
  Collector collector(set, family, skipBad);
  LineSplitter lines(collector);
  if (lines.feed(text)) lines.finish();
  return set;
}

RouteSet readRoutes(const std::string& path, FamilyFilter family, bool skipBad) {
  RouteSet set;
  set.source = path == "-" ? "standard input" : path;
  gzFile f = nullptr;
  if (path == "-") {
    const int fd = dup(STDIN_FILENO);
    f = fd >= 0 ? gzdopen(fd, "rb") : nullptr;
    if (!f && fd >= 0) close(fd);
  } else {
    errno = 0;
    f = gzopen(path.c_str(), "rb");
  }
  if (!f) badInput(set.source, std::string("cannot open the file") + (errno ? std::string(": ") + std::strerror(errno) : ""));
  Collector collector(set, family, skipBad);
  LineSplitter lines(collector);
  char buf[1 << 16];
  bool going = true;
  int n = 0;
  while (going && (n = gzread(f, buf, sizeof buf)) > 0) going = lines.feed(std::string_view(buf, static_cast<std::size_t>(n)));
  int err = Z_OK;
  const char* msg = gzerror(f, &err);
  std::string where = set.source, failure;
  if (n < 0 && err == Z_ERRNO) {
    failure = std::string("cannot read the file: ") + std::strerror(errno);
  } else if (n < 0 || (err != Z_OK && err != Z_STREAM_END)) {
    where += std::string(":") + std::to_string(set.lines + 1);
    failure = std::string("truncated or corrupt gzip stream (") + msg + ")";
  }
  gzclose(f);
  if (!failure.empty()) badInput(where, failure);
  if (going) lines.finish();
  return set;
}

}  // namespace xplpm
