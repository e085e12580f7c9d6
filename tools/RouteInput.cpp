// Route file reading: one libarchive reader for plain and compressed input, the line
// classifier, and the table of routes with every peer's path.
#include "RouteInput.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <tuple>
#include <unordered_map>

#include "agent/RouteFile.h"
#include "platform/Hash.h"

namespace xplpm {

using XpLib::U32;
using XpLib::U64;
using XpLib::U8;
using XpLib::Agent::LineKind;
using XpLib::Agent::Route;

std::size_t RouteKeyHash::operator()(const RouteKey& k) const {
  U64 a = 0, b = 0;
  std::memcpy(&a, k.address.data(), 8);
  std::memcpy(&b, k.address.data() + 8, 8);
  return XpLib::hashCombine(XpLib::hashCombine(k.vrf << 9 | U32(k.len) << 1 | k.v6, XpLib::hashMix(a)), XpLib::hashMix(b));
}

RouteKey routeKey(const Route& r) {
  RouteKey k{r.vrf, r.ipv6 ? r.v6.len() : r.v4.len(), r.ipv6, {}};
  if (r.ipv6) {
    k.address = r.v6.address();
  } else {
    for (unsigned i = 0; i < 4; ++i) k.address[i] = r.v4.octet(i);
  }
  return k;
}

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
  U32 as = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), as);
  return !s.empty() && ec == std::errc() && end == s.data() + s.size();
}

// The origin AS of a path: its last AS, or the first of a trailing set.
std::string_view originOf(std::string_view path) {
  if (auto brace = path.rfind('{'); brace != std::string_view::npos) path = path.substr(brace + 1);
  const auto lastSpace = path.find_last_of(' ');
  std::string_view origin = lastSpace == std::string_view::npos ? path : path.substr(lastSpace + 1);
  if (auto comma = origin.find(','); comma != std::string_view::npos) origin = origin.substr(0, comma);
  if (!origin.empty() && origin.back() == '}') origin.remove_suffix(1);
  return origin;
}

// ASes on a path as route selection counts them: a set counts one, and the confederation
// segments bgpdump prints in parentheses or brackets count none.
U32 pathLength(std::string_view path) {
  U32 n = 0;
  char closing = 0;
  bool inNumber = false;
  for (char ch : path) {
    if (closing) {
      closing = ch == closing ? 0 : closing;
      continue;
    }
    if (ch == '{' || ch == '(' || ch == '[') {
      n += ch == '{';
      closing = ch == '{' ? '}' : ch == '(' ? ')' : ']';
      inNumber = false;
      continue;
    }
    const bool digit = (ch >= '0' && ch <= '9') || (inNumber && ch == '.');  // asdot: 1.10
    n += digit && !inNumber;
    inNumber = digit;
  }
  return n;
}

std::optional<std::array<U8, 16>> peerAddress(std::string_view text) {
  if (text.find(':') != std::string_view::npos) return XpLib::Ip6Prefix::parseAddress(text);
  const auto v4 = XpLib::Prefix::parse(std::string(text) + "/32");
  if (!v4) return std::nullopt;
  std::array<U8, 16> a{};
  a[10] = a[11] = 0xFF;
  for (unsigned i = 0; i < 4; ++i) a[12 + i] = v4->octet(i);
  return a;
}

// A peer's path for a prefix. Route lines have no peer: their path is the only one.
struct PeerPath {
  std::array<U8, 16> peer{};
  U32 length = 0;
  U64 nextHop = 0;
  bool operator<(const PeerPath& o) const { return std::tie(length, peer) < std::tie(o.length, o.peer); }
};

// The routes of one input by prefix, each following the best of its peers' paths. The
// routes live in the set's own list, in the order their prefixes first came; only prefixes
// that peers gave keep their paths.
class RouteTable {
 public:
  explicit RouteTable(RouteSet& set) : set_(set) {}

  // A route line (no peer: it replaces whatever the prefix had) or a peer's path.
  void announce(const Route& r, const PeerPath* path) {
    auto [it, fresh] = index_.try_emplace(routeKey(r), set_.routes.size());
    const std::size_t i = it->second;
    if (fresh) {
      set_.routes.push_back(r);
      wanted_.push_back(false);
    }
    set_.duplicates += !fresh;
    if (!path) {
      paths_.erase(i);
      update(i, true, r.nextHop);
      return;
    }
    std::vector<PeerPath>& paths = paths_[i];
    auto same = std::find_if(paths.begin(), paths.end(), [&](const PeerPath& p) { return p.peer == path->peer; });
    if (same == paths.end()) same = paths.insert(paths.end(), *path);
    *same = *path;
    choose(i, paths);
  }
  void withdraw(const Route& r, const std::array<U8, 16>& peer) {
    const auto it = index_.find(routeKey(r));
    const auto paths = it == index_.end() ? paths_.end() : paths_.find(it->second);
    if (paths == paths_.end()) return;
    std::vector<PeerPath>& p = paths->second;
    const auto gone = std::remove_if(p.begin(), p.end(), [&](const PeerPath& x) { return x.peer == peer; });
    if (gone == p.end()) return;
    p.erase(gone, p.end());
    choose(it->second, p);
  }
  // From the first update line on, every change is a request to replay, starting with the
  // routes as they stand.
  void startReplay() {
    if (replay_) return;
    replay_ = true;
    for (std::size_t i = 0; i < set_.routes.size(); ++i)
      if (wanted_[i]) set_.ops.push_back({false, set_.routes[i]});
  }
  // Leaves only the routes wanted at the end.
  void finish() {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < set_.routes.size(); ++i)
      if (wanted_[i]) set_.routes[kept++] = set_.routes[i];
    set_.withdrawn = set_.routes.size() - kept;
    set_.routes.resize(kept);
  }

 private:
  void choose(std::size_t i, const std::vector<PeerPath>& paths) {
    update(i, !paths.empty(), paths.empty() ? 0 : std::min_element(paths.begin(), paths.end())->nextHop);
  }
  void update(std::size_t i, bool wanted, U64 nextHop) {
    Route& r = set_.routes[i];
    const bool changed = wanted != wanted_[i] || (wanted && nextHop != r.nextHop);
    wanted_[i] = wanted;
    if (wanted) r.nextHop = nextHop;
    if (replay_ && changed) set_.ops.push_back({!wanted, r});
  }

  RouteSet& set_;
  std::vector<bool> wanted_;
  std::unordered_map<std::size_t, std::vector<PeerPath>> paths_;
  std::unordered_map<RouteKey, std::size_t, RouteKeyHash> index_;
  bool replay_ = false;
};

// Files the lines of one input into a RouteSet.
class Collector {
 public:
  Collector(RouteSet& set, FamilyFilter family, bool skipBad) : set_(set), table_(set), family_(family), skipBad_(skipBad) {}

  // Returns false once reading should stop.
  bool line(std::string_view text, bool overlong) {
    ++set_.lines;
    if (set_.lines == 1 && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);  // a UTF-8 byte-order mark
    std::string why;
    LineKind kind = LineKind::error;
    if (overlong) {
      why = std::string("line longer than ") + std::to_string(kMaxLineBytes) + " bytes";
    } else if (const auto nul = text.find('\0'); nul != std::string_view::npos) {
      why = std::string("NUL byte at column ") + std::to_string(nul + 1) + " (a binary file?)";
    } else if (text.substr(0, 10) == "TABLE_DUMP" || text.substr(0, 6) == "BGP4MP") {
      BgpdumpLine b;
      kind = parseBgpdumpLine(text, b, why);
      if (kind == LineKind::route) bgpdump(b);
    } else {
      Route r;
      kind = XpLib::Agent::parseRouteLine(text, r, why);
      if (kind == LineKind::route && selected(r)) table_.announce(r, nullptr);
    }
    if (kind == LineKind::skip) ++set_.blank;
    if (kind != LineKind::error) return true;
    set_.badLines.push_back(fileError(set_.source, set_.lines, why));
    return skipBad_;
  }
  void finish() { table_.finish(); }

 private:
  // Whether the route is of the family read; counts it when it is not.
  bool selected(const Route& r) {
    (r.ipv6 ? set_.hasV6 : set_.hasV4) = true;
    const bool other = (family_ == FamilyFilter::ipv4 && r.ipv6) || (family_ == FamilyFilter::ipv6 && !r.ipv6);
    set_.otherFamily += other;
    return !other;
  }
  void bgpdump(const BgpdumpLine& b) {
    if (b.kind != BgpdumpLine::Kind::rib) table_.startReplay();
    if (b.kind == BgpdumpLine::Kind::withdraw) {
      ++set_.withdrawals;
      table_.withdraw(b.route, b.peer);
      return;
    }
    const PeerPath path{b.peer, b.pathLength, b.route.nextHop};
    if (selected(b.route)) table_.announce(b.route, &path);
  }

  RouteSet& set_;
  RouteTable table_;
  FamilyFilter family_;
  bool skipBad_;
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

using Archive = std::unique_ptr<archive, int (*)(archive*)>;

// A reader of plain or compressed bytes: the raw format takes any byte stream, the empty
// format an empty one, and the filters undo the compressions route files come in.
Archive openInput(const std::string& path, const std::string& source) {
  Archive a(archive_read_new(), archive_read_free);
  if (!a) badFile(source, 0, "cannot read the file: out of memory");
  archive_read_support_filter_gzip(a.get());
  archive_read_support_filter_bzip2(a.get());
  archive_read_support_filter_xz(a.get());
  archive_read_support_filter_lzma(a.get());
  archive_read_support_filter_zstd(a.get());
  archive_read_support_format_raw(a.get());
  archive_read_support_format_empty(a.get());
  const int opened = path == "-" ? archive_read_open_fd(a.get(), STDIN_FILENO, 1 << 16)
                                 : archive_read_open_filename(a.get(), path.c_str(), 1 << 16);
  if (opened != ARCHIVE_OK) {
    const int err = archive_errno(a.get());
    badFile(source, 0, std::string("cannot open the file") + (err > 0 ? std::string(": ") + std::strerror(err) : ""));
  }
  return a;
}

}  // namespace

LineKind parseBgpdumpLine(std::string_view line, BgpdumpLine& out, std::string& why) {
  const std::vector<std::string_view> f = splitBars(line);
  const bool update = line.substr(0, 6) == "BGP4MP";
  const std::string_view type = f.size() > 2 ? trimmed(f[2]) : std::string_view();
  if (update && type == "STATE") {
    out.kind = BgpdumpLine::Kind::state;
    return LineKind::skip;
  }
  if (update && type != "A" && type != "W") {
    why = "bgpdump update line of type '" + std::string(type) + "' (expected A, W or STATE)";
    return LineKind::error;
  }
  out.kind = !update ? BgpdumpLine::Kind::rib : type == "A" ? BgpdumpLine::Kind::announce : BgpdumpLine::Kind::withdraw;
  const bool withdraw = out.kind == BgpdumpLine::Kind::withdraw;
  if (f.size() < (withdraw ? 6u : 7u)) {
    why = std::string("bgpdump line with fewer than ") + (withdraw ? "6" : "7") + " fields";
    return LineKind::error;
  }
  const auto peer = peerAddress(trimmed(f[3]));
  if (!peer) {
    why = "bgpdump line whose peer address '" + std::string(f[3]) + "' is not an IP address";
    return LineKind::error;
  }
  out.peer = *peer;
  const std::string_view prefix = trimmed(f[5]);
  if (prefix.empty() || prefix.find_first_of(" \t#") != std::string_view::npos) {
    why = "bgpdump line whose prefix field '" + std::string(f[5]) + "' is not a prefix";
    return LineKind::error;
  }
  // A route the peer originated itself has an empty path: the peer is its origin.
  const std::string_view path = withdraw ? std::string_view() : trimmed(f[6]);
  const std::string_view origin = withdraw ? "0" : path.empty() ? trimmed(f[4]) : originOf(path);
  if (!isAsNumber(origin)) {
    why = "bgpdump line whose AS path '" + std::string(f[6]) + "' does not end in an AS number";
    return LineKind::error;
  }
  out.pathLength = pathLength(path);
  return XpLib::Agent::parseRouteLine(std::string(prefix) + " " + std::string(origin), out.route, why);
}

RouteSet readRouteText(const std::string& source, std::string_view text, FamilyFilter family, bool skipBad) {
  RouteSet set;
  set.source = source;
  Collector collector(set, family, skipBad);
  LineSplitter lines(collector);
  if (lines.feed(text)) lines.finish();
  collector.finish();
  return set;
}

RouteSet readRoutes(const std::string& path, FamilyFilter family, bool skipBad) {
  RouteSet set;
  set.source = path == "-" ? "standard input" : path;
  Archive a = openInput(path, set.source);
  Collector collector(set, family, skipBad);
  LineSplitter lines(collector);
  archive_entry* entry = nullptr;
  int status = archive_read_next_header(a.get(), &entry);
  bool going = status == ARCHIVE_OK;
  la_ssize_t n = 0;
  char buf[1 << 16];
  while (going && (n = archive_read_data(a.get(), buf, sizeof buf)) > 0)
    going = lines.feed(std::string_view(buf, static_cast<std::size_t>(n)));
  if (status == ARCHIVE_OK && n < 0) status = static_cast<int>(n);
  if (status != ARCHIVE_OK && status != ARCHIVE_EOF) {
    const char* msg = archive_error_string(a.get());
    badFile(set.source, set.lines + 1, std::string("truncated or corrupt input (") + (msg ? msg : "unknown error") + ")");
  }
  if (going) lines.finish();
  collector.finish();
  return set;
}

}  // namespace xplpm
