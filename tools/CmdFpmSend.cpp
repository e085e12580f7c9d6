// `xplpm fpm-send`: a route file sent over FPM as zebra's dplane_fpm_nl sends a table
// (one route per frame, frames batched into large writes), to load `xplpm serve` and
// time it end to end: from the first byte sent to the last offload answer read.
//
// Next hops. The file's next-hop numbers fold onto --multipath-sets sets; set k has
// 1 + k % 4 paths, each a gateway of a benchmarking range (198.18.0.0/15,
// 2001:2::/48) on interface 2 + its member number. With --style objects the sets go
// first as next-hop objects (a group object for sets of several paths) and routes
// name them by RTA_NH_ID, as zebra 8.4 does by default; with --style multipath each
// route carries its paths (RTA_GATEWAY/RTA_OIF, or RTA_MULTIPATH).
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <iostream>

#include "Commands.h"
#include "Errors.h"
#include "JsonDocument.h"
#include "fpm/FpmSocket.h"
#include "fpm/FpmWire.h"

namespace xplpm {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint8_t kProtocolBgp = 186;
constexpr std::uint32_t kMainTable = 254;
constexpr std::size_t kChunkBytes = 256 * 1024;

// The answers of the server: routes it says are offloaded, or failed.
class Answers final : public fpm::MessageSink, public fpm::FrameSink {
 public:
  void route(const fpm::RouteMessage& m) override {
    if (m.flags & RTM_F_OFFLOAD_FAILED) {
      ++failed;
    } else if (m.flags & RTM_F_OFFLOAD) {
      ++offloaded;
    } else {
      ++other;
    }
  }
  void nextHop(const fpm::NextHopMessage&) override { ++other; }
  void ignored(std::uint64_t, const char*) override { ++other; }
  void problem(const fpm::Problem& p) override {
    ++malformed;
    if (malformed == 1) printInputError({"fpm-send", "the server's answer at offset " + std::to_string(p.offset) + ": " + p.what});
  }
  void frame(std::uint64_t offset, std::string_view payload) override { parser_.parse(payload, offset, *this); }

  U64 offloaded = 0, failed = 0, other = 0, malformed = 0;
  U64 answered() const { return offloaded + failed; }

 private:
  fpm::NetlinkParser parser_;
};

class Sender {
 public:
  Sender(const Options& c, const RouteSet& set) : c_(c), routes_(set.routes) {
    for (const auto& r : routes_) hasFamily_[r.ipv6] = true;
  }

  // The next frames of the stream, about a chunk's worth; empty once everything is out.
  std::string next();
  U64 frames = 0, nextHops = 0, routesSent = 0;

 private:
  unsigned width(U32 set) const { return 1 + set % 4; }
  std::uint32_t memberId(bool v6, U32 set, unsigned m) const { return 1 + ((v6 * c_.multipathSets + set) * 5) + m; }
  std::uint32_t groupId(bool v6, U32 set) const { return memberId(v6, set, 4); }
  fpm::NextHopPath path(bool v6, U32 set, unsigned m) const;
  void nextHopObjects(std::string& out);
  void route(std::string& out, const XpLib::Agent::Route& r);
  void frame(std::string& out) {
    fpm::appendFrame(out, scratch_);
    scratch_.clear();
    ++frames;
  }

  const Options& c_;
  const std::vector<XpLib::Agent::Route>& routes_;
  bool hasFamily_[2] = {false, false};
  bool objectsSent_ = false;
  std::size_t at_ = 0;
  std::string scratch_;
  fpm::RouteMessage message_;
};

fpm::NextHopPath Sender::path(bool v6, U32 set, unsigned m) const {
  fpm::NextHopPath p;
  const U32 host = 1 + set * 4 + m;
  p.family = v6 ? AF_INET6 : AF_INET;
  if (v6) {
    p.gateway = {0x20, 0x01, 0x00, 0x02};
    for (unsigned i = 0; i < 4; ++i) p.gateway[12 + i] = static_cast<std::uint8_t>(host >> (24 - 8 * i));
  } else {
    const U32 a = (198u << 24 | 18u << 16) + host;
    for (unsigned i = 0; i < 4; ++i) p.gateway[i] = static_cast<std::uint8_t>(a >> (24 - 8 * i));
  }
  p.ifindex = 2 + m;
  return p;
}

void Sender::nextHopObjects(std::string& out) {
  for (bool v6 : {false, true}) {
    if (!hasFamily_[v6]) continue;
    for (U32 set = 0; set < c_.multipathSets; ++set) {
      fpm::NextHopMessage g;
      g.id = groupId(v6, set);
      for (unsigned m = 0; m < width(set); ++m) {
        fpm::NextHopMessage one;
        one.id = memberId(v6, set, m);
        one.path = path(v6, set, m);
        fpm::appendNextHop(scratch_, one);
        frame(out);
        g.group.push_back({one.id, 1});
        ++nextHops;
      }
      if (g.group.size() < 2) continue;
      fpm::appendNextHop(scratch_, g);
      frame(out);
      ++nextHops;
    }
  }
}

void Sender::route(std::string& out, const XpLib::Agent::Route& r) {
  fpm::RouteMessage& m = message_;
  m.add = !c_.withdraw;
  m.ipv6 = r.ipv6;
  m.dst = {};
  if (r.ipv6) {
    m.dst = r.v6.address();
  } else {
    for (unsigned i = 0; i < 4; ++i) m.dst[i] = r.v4.octet(i);
  }
  m.len = r.ipv6 ? r.v6.len() : r.v4.len();
  m.table = r.vrf == 0 ? kMainTable : r.vrf;
  m.protocol = kProtocolBgp;
  m.type = RTN_UNICAST;
  m.priority = 20;
  const U32 set = static_cast<U32>(r.nextHop % c_.multipathSets);
  m.nhId.reset();
  m.paths.clear();
  if (c_.style == "objects") {
    m.nhId = width(set) == 1 ? memberId(r.ipv6, set, 0) : groupId(r.ipv6, set);
  } else {
    for (unsigned k = 0; k < width(set); ++k) m.paths.push_back(path(r.ipv6, set, k));
  }
  fpm::appendRoute(scratch_, m);
  frame(out);
  ++routesSent;
}

std::string Sender::next() {
  std::string out;
  if (!objectsSent_) {
    objectsSent_ = true;
    if (c_.style == "objects" && !c_.withdraw) nextHopObjects(out);
  }
  while (at_ < routes_.size() && out.size() < kChunkBytes) route(out, routes_[at_++]);
  return out;
}

struct Outcome {
  double sendSeconds = 0, seconds = 0;
  U64 bytes = 0;
  bool complete = false;
};

// Sends the whole stream while reading answers, then waits for the last answers.
Outcome exchange(fpm::Connection& conn, Sender& sender, Answers& answers, const Options& c) {
  Outcome o;
  const auto t0 = Clock::now();
  const auto deadline = [&] { return Clock::now() - t0 > std::chrono::duration<double>(c.wait); };
  fpm::FrameReader reader;
  std::string_view in;
  std::string why;
  bool sending = true;
  for (;;) {
    if (sending && conn.queued() < kChunkBytes) {
      const std::string chunk = sender.next();
      o.bytes += chunk.size();
      conn.queue(chunk);
      if (chunk.empty()) sending = false;
    }
    if (!conn.flush(why)) badInput("--connect " + c.connect, why);
    if (!sending && !conn.wantsWrite() && o.sendSeconds == 0) o.sendSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
    const bool waiting = !c.withdraw && c.wait > 0 && answers.answered() < sender.routesSent;
    if (!sending && !conn.wantsWrite() && (!waiting || deadline())) break;
    // While there is more to send, a writable socket wakes the loop as well as an answer does.
    pollfd p{conn.fd(), static_cast<short>(POLLIN | (sending || conn.wantsWrite() ? POLLOUT : 0)), 0};
    poll(&p, 1, 50);
    if (!(p.revents & (POLLIN | POLLHUP | POLLERR))) continue;
    const auto r = conn.read(1 << 20, in, why);
    if (r == fpm::Connection::Read::closed || r == fpm::Connection::Read::failed) badInput("--connect " + c.connect, "the server closed the connection" + (why.empty() ? "" : ": " + why));
    if (r == fpm::Connection::Read::data && !reader.feed(in, answers)) badInput("--connect " + c.connect, "the server's answers cannot be followed");
  }
  o.seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  o.complete = c.withdraw || c.wait == 0 || answers.answered() >= sender.routesSent;
  return o;
}

}  // namespace

int cmdFpmSend(const Options& c) {
  const RouteSet set = loadRoutes(c);
  std::string why;
  const std::optional<fpm::Endpoint> to = fpm::parseEndpoint(c.connect, why);
  if (!to) badInput("--connect", why);
  fpm::Socket s = fpm::connectTo(*to, why);
  if (!s) badInput("--connect " + c.connect, why);
  fpm::Connection conn(std::move(s));
  Sender sender(c, set);
  Answers answers;
  const Outcome o = exchange(conn, sender, answers, c);
  const double rate = o.seconds > 0 ? sender.routesSent / o.seconds : 0;
  nlohmann::json j = documentHeader("fpm-send");
  j.update({{"connect", c.connect}, {"style", c.style}, {"withdraw", c.withdraw},
                         {"routes", sender.routesSent}, {"next_hops", sender.nextHops}, {"frames", sender.frames},
                         {"bytes", o.bytes}, {"send_seconds", o.sendSeconds}, {"seconds", o.seconds},
                         {"routes_per_second", rate}, {"complete", o.complete},
                         {"answers", {{"offloaded", answers.offloaded}, {"failed", answers.failed}, {"other", answers.other},
                                      {"malformed", answers.malformed}}}});
  const int status = !o.complete ? exitMismatch : answers.failed > 0 && !c.allowFailed ? exitNotFit : exitOk;
  if (c.json) {
    writeJson(std::cout, j);
  } else {
    std::printf("xplpm fpm-send: %llu routes and %llu next hops in %llu frames (%llu bytes) to %s in %.2f s\n",
                static_cast<unsigned long long>(sender.routesSent), static_cast<unsigned long long>(sender.nextHops),
                static_cast<unsigned long long>(sender.frames), static_cast<unsigned long long>(o.bytes), c.connect.c_str(),
                o.sendSeconds);
    std::printf("  answers    %llu offloaded, %llu failed after %.2f s: %.0f routes/s end to end%s\n",
                static_cast<unsigned long long>(answers.offloaded), static_cast<unsigned long long>(answers.failed),
                o.seconds, rate, o.complete ? "" : " (NOT EVERY ROUTE WAS ANSWERED)");
  }
  return status;
}

}  // namespace xplpm
