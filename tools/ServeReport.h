// What `xplpm serve` reports: its JSON document (written with --json-out at exit and on
// SIGUSR1), whose keys stay stable for scripts, and the figures it is built from.
#pragma once

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Options.h"
#include "ServeRib.h"
#include "Session.h"
#include "agent/CountingPort.h"
#include "fpm/FpmServer.h"

namespace xplpm {

struct ServeFigures {
  using Clock = std::chrono::steady_clock;
  std::string listen;
  std::optional<Clock::time_point> firstRoute;
  Clock::time_point lastRoute;
  U64 routeMessages = 0;
  U64 malformed = 0;
  // By reason: the parser's fixed texts, counted without copying them.
  std::map<std::string_view, U64> ignored;
  U64 feedbackOffloaded = 0, feedbackFailed = 0;
  bool warm = false;
  std::optional<XpLib::Agent::XpLpmAgent::ReconcileReport> firstReconcile;
  XpLib::Agent::PortWrites restartWrites;  // from the agent's start to the end of the first reconciliation
  double reconcileSeconds = 0;             // of the first reconciliation
  U64 reconciliations = 0;
  bool verified = false;
};

// The report. Scripts read its keys: they stay, and "schema" numbers the layout.
nlohmann::json serveJson(Session& s, ServeRib& rib, const ServeFigures& f, const fpm::ServerCounts& server,
                         const XpLib::Agent::CountingPort& port);

}  // namespace xplpm
