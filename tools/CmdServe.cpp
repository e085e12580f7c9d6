// `xplpm serve`: a live agent fed by a routing stack over FPM. It listens for zebra
// (dplane_fpm_nl), programs routes and next hops as they come, tells zebra back
// which routes are offloaded, and with --state keeps the chip's memory across its
// own restarts: a new process loads it into a fresh chip, restarts the agent warm
// over it, and reconciles once the routing stack has resent its table.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <sstream>

#include "ChipState.h"
#include "Commands.h"
#include "Environment.h"
#include "Errors.h"
#include "Human.h"
#include "JsonDocument.h"
#include "OutputFile.h"
#include "Report.h"
#include "ServeReport.h"

namespace xplpm {

namespace {

using Clock = std::chrono::steady_clock;
using XpLib::Agent::CountingPort;
using XpLib::Agent::XpLpmAgent;

// Problems of the feed shown on standard error; more are only counted.
constexpr U64 kProblemsShown = 100;

std::map<U32, U32> vrfMaps(const Options& c) {
  std::map<U32, U32> byTable, byVrf;
  for (const std::string& text : c.vrfMaps) {  // checked as TABLE=VRF by the command line
    const auto eq = text.find('=');
    const U32 table = static_cast<U32>(std::stoul(text.substr(0, eq)));
    const U32 vrf = static_cast<U32>(std::stoul(text.substr(eq + 1)));
    if (byTable.contains(table)) badInput("--vrf", "table " + std::to_string(table) + " is mapped twice");
    if (byVrf.contains(vrf))
      badInput("--vrf", "tables " + std::to_string(byVrf[vrf]) + " and " + std::to_string(table) + " both map to VRF " +
                            std::to_string(vrf));
    byTable[table] = vrf;
    byVrf[vrf] = table;
  }
  return byTable;
}

// Everything serve runs with, set up before the first byte is read: bad input stops it here,
// with nothing programmed.
struct Served {
  XpXdk::xpChipProfile profile;
  fpm::Endpoint listen;
  std::map<U32, U32> vrfs;
  std::shared_ptr<CountingPort> port;
  std::unique_ptr<Session> session;
  bool warm = false;
};

Served setUp(const Options& c) {
  Served s;
  s.profile = chipProfile(c.profile, "--profile");
  std::string why;
  const std::optional<fpm::Endpoint> listen = fpm::parseEndpoint(c.fpmListen, why, true);
  if (!listen) badInput("--fpm-listen", why);
  s.listen = *listen;
  s.vrfs = vrfMaps(c);
  for (const std::string* out : {&c.jsonOut, &c.fibOut, &c.state})
    if (!out->empty()) checkReplaceable(*out);
  std::optional<ChipImage> image;
  if (!c.state.empty() && access(c.state.c_str(), F_OK) == 0) image = loadState(c.state, s.profile);
  // The chip keeps its memory across the agent's restart: the new process finds it as the old one
  // left it. Writing it back is the simulation's part, not the agent's, so it is not counted.
  const auto chip = newChip(s.profile);
  if (image) writeChip(*chip, *image);
  s.warm = image.has_value();
  s.port = std::make_shared<CountingPort>(chip);
  RunOptions options = runOptions(c);
  s.session = std::make_unique<Session>(s.profile, options);
  s.session->agentIs(startAgent(s.profile, options.agent, s.port, s.warm ? XpLpmAgent::Start::warm : XpLpmAgent::Start::cold));
  // The agent's scratch block for group moves takes 8 entries, whatever the widths of the sets.
  checkGroupWidths(s.session->agent(), 4);
  return s;
}

class ServeHandler final : public fpm::ServerHandler {
 public:
  ServeHandler(const Options& c, Served& s, const fpm::FpmServer& server, const std::string& listen)
      : c_(c), s_(s), server_(server), rib_(s.session->agent(), {s.vrfs, s.warm}), progress_(isatty(2) && !c.json) {
    figures_.listen = listen;
    figures_.warm = s.warm;
  }

  void route(const fpm::RouteMessage& m) override {
    if (!figures_.firstRoute) figures_.firstRoute = Clock::now();
    ++figures_.routeMessages;
    rib_.route(m);
    figures_.lastRoute = Clock::now();
  }
  void nextHop(const fpm::NextHopMessage& m) override { rib_.nextHop(m); }
  void ignored(std::uint64_t, const char* why) override { ++figures_.ignored[why]; }
  void problem(const fpm::Problem& p) override {
    if (++figures_.malformed <= kProblemsShown) log("offset %llu: %s", static_cast<unsigned long long>(p.offset), p.what.c_str());
    if (figures_.malformed == kProblemsShown) log("further problems of the feed are counted, not shown");
  }
  void connected(const std::string& peer) override {
    log("%s connected%s", peer.c_str(), rib_.awaitingReconcile() ? "; routes are held until reconciliation" : "");
    rib_.newEpoch();
    reconcileDue_ = true;
    lastInput_ = Clock::now();
  }
  void disconnected(const std::string& why) override { log("peer %s", why.c_str()); }
  void signal(int sig) override {
    if (sig == SIGUSR1) writeOutputs();
    if (sig == SIGUSR2) reconcile("SIGUSR2");
  }
  void reply(std::string& out) override {
    if (server_.counts().bytes != bytesSeen_) {
      bytesSeen_ = server_.counts().bytes;
      lastInput_ = Clock::now();
    }
    const auto [offloaded, failed] = rib_.feedback(out);
    figures_.feedbackOffloaded += offloaded;
    figures_.feedbackFailed += failed;
  }
  int waitMs() override;
  void tick() override;

  // After the loop: verification, the chip's state, the report; returns the exit status.
  int finish();
  void log(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  std::chrono::duration<double> quiet() const { return std::chrono::duration<double>(c_.reconcileAfter); }
  void reconcile(const char* why);
  nlohmann::json writeOutputs();
  void progressLine();

  const Options& c_;
  Served& s_;
  const fpm::FpmServer& server_;
  ServeRib rib_;
  ServeFigures figures_;
  bool progress_;
  bool reconcileDue_ = false;
  Clock::time_point lastInput_ = Clock::now(), lastProgress_ = Clock::now();
  U64 bytesSeen_ = 0, routesAtProgress_ = 0;
};

void ServeHandler::log(const char* format, ...) {
  if (progress_) std::fprintf(stderr, "\r%-100s\r", "");
  std::fprintf(stderr, "xplpm serve: ");
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fprintf(stderr, "\n");
}

int ServeHandler::waitMs() {
  int ms = progress_ ? 500 : -1;
  if (reconcileDue_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(quiet() - (Clock::now() - lastInput_));
    const int due = static_cast<int>(std::max<long long>(0, left.count() + 1));
    ms = ms < 0 ? due : std::min(ms, due);
  }
  return ms;
}

void ServeHandler::tick() {
  if (reconcileDue_ && Clock::now() - lastInput_ >= quiet()) reconcile("quiet");
  if (progress_ && Clock::now() - lastProgress_ >= std::chrono::milliseconds(500)) progressLine();
}

void ServeHandler::progressLine() {
  const auto now = Clock::now();
  const double seconds = std::chrono::duration<double>(now - lastProgress_).count();
  const U64 routes = figures_.routeMessages;
  std::fprintf(stderr, "\rxplpm serve: %llu routes, %.0f/s, %llu failed, %llu malformed%s    ",
               static_cast<unsigned long long>(rib_.routes()), (routes - routesAtProgress_) / seconds,
               static_cast<unsigned long long>(rib_.counts().programFailures),
               static_cast<unsigned long long>(figures_.malformed), rib_.awaitingReconcile() ? ", awaiting reconcile" : "");
  std::fflush(stderr);
  lastProgress_ = now;
  routesAtProgress_ = routes;
}

void ServeHandler::reconcile(const char* why) {
  const auto t0 = Clock::now();
  const auto report = rib_.reconcile();
  reconcileDue_ = false;
  ++figures_.reconciliations;
  if (!figures_.firstReconcile) {
    figures_.firstReconcile = report;
    figures_.reconcileSeconds = std::chrono::duration<double>(Clock::now() - t0).count();
    if (figures_.warm) figures_.restartWrites = s_.port->writes();
  }
  log("reconciled (%s): %llu kept, %llu changed, %llu added, %llu withdrawn; %llu chip writes so far", why,
      static_cast<unsigned long long>(report.kept), static_cast<unsigned long long>(report.changed),
      static_cast<unsigned long long>(report.added), static_cast<unsigned long long>(report.withdrawn),
      static_cast<unsigned long long>(s_.port->writes().all()));
}

nlohmann::json ServeHandler::writeOutputs() {
  nlohmann::json j = serveJson(*s_.session, rib_, figures_, server_.counts(), *s_.port);
  try {
    if (!c_.jsonOut.empty()) {
      std::ostringstream doc;
      writeJson(doc, j);
      replaceFile(c_.jsonOut, doc.str());
    }
    if (!c_.fibOut.empty()) {
      std::ostringstream fib;
      rib_.writeFib(fib);
      replaceFile(c_.fibOut, fib.str());
    }
  } catch (const BadInput& e) {
    for (const InputError& error : e.errors()) printInputError(error);
  }
  return j;
}

int ServeHandler::finish() {
  if (c_.verify) {
    s_.session->verify(rib_.resolvedRoutes());
    figures_.verified = true;
  }
  if (!c_.state.empty()) {
    const ChipImage image = readChip(*s_.port, s_.profile);
    saveState(c_.state, s_.profile, image);
    log("chip state saved to %s: %llu entries", c_.state.c_str(), static_cast<unsigned long long>(image.entries()));
  }
  const nlohmann::json j = writeOutputs();
  return xplpm::finish(j, c_, exitStatus(j, c_.allowFailed), printServeHuman);
}

}  // namespace

int cmdServe(const Options& c) {
  // Caught from the start: a SIGTERM during a long warm start ends the process cleanly once it is up.
  fpm::FpmServer::catchSignals();
  Served s = setUp(c);
  std::string why;
  fpm::Socket listener = fpm::listenOn(s.listen, why);
  if (!listener) badInput("--fpm-listen " + c.fpmListen, why);
  const std::string bound = fpm::localAddress(listener.fd());
  fpm::FpmServer server(std::move(listener));
  ServeHandler handler(c, s, server, bound);
  const auto& restart = s.session->agent().restartReport();
  if (s.warm) {
    handler.log("warm restart from %s: %llu routes recovered; reconciling after %.2f s of quiet from the routing stack",
                c.state.c_str(), static_cast<unsigned long long>(restart.routesRecovered[0] + restart.routesRecovered[1]),
                c.reconcileAfter);
  }
  handler.log("listening on %s", bound.c_str());
  const int sig = server.run(handler);
  handler.log("stopping on %s", sig == SIGINT ? "SIGINT" : "SIGTERM");
  return handler.finish();
}

}  // namespace xplpm
