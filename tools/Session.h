// One run of the tool: routes read, a chip programmed through the agent, and
// the figures the commands report.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "RouteInput.h"
#include "agent/ChipReport.h"
#include "agent/SimulatedChip.h"
#include "agent/XpLpmAgent.h"

namespace xplpm {

using XpLib::U32;
using XpLib::U64;

struct RunOptions {
  XpLib::Agent::AgentOptions agent;
  U64 probes = 1000000;
  U64 seed = 1;
  bool progress = false;  // a progress bar on standard error
};

// What became of a list of routes, each by its own outcome at the time of the count.
struct Tally {
  struct Length {
    U64 requested = 0, failed = 0;
  };
  U64 requested[2] = {0, 0}, installed[2] = {0, 0};  // by family: IPv4, IPv6
  std::map<std::string, U64> failuresByCode;
  std::map<std::pair<bool, int>, Length> byLength;  // (IPv6, prefix length)
  std::vector<std::string> samples;                 // "PREFIX: code", the first few

  U64 requestedAll() const { return requested[0] + requested[1]; }
  U64 installedAll() const { return installed[0] + installed[1]; }
  U64 failed() const { return requestedAll() - installedAll(); }
};

// Counts every route by the agent's answer for it. A route the agent calls installed
// but the state machine does not hold (or the reverse) is counted as "inconsistent".
Tally tally(XpLib::Agent::XpLpmAgent& agent, const std::vector<XpLib::Agent::Route>& routes);

struct FamilyFigures {
  std::vector<XpLib::Agent::TableFill> tables;
  std::vector<XpLib::Agent::NhiFill> nhi;
  XpLib::Agent::NhiOverlapAudit overlaps;
};

struct Figures {
  Tally programmed;  // right after programming
  FamilyFigures family[2];
  double programSeconds = 0;
  double programCpuSeconds = 0;  // the process's CPU time over the same span
  // Of the program time, estimated from samples: the LPM library's requests, and the writers'
  // draining into the chip (the simulated chip's own work included). The rest is the agent's.
  double librarySeconds = 0, writerSeconds = 0;
  double yardstickSeconds = 0;
  U64 memoryBytes = 0;
  U64 verifyProbes = 0, verifyMismatches = 0;
};

// A new simulated chip of this profile, every table empty. A profile the simulation refuses is
// bad input: it throws BadInput.
std::shared_ptr<XpLib::Agent::SimulatedChip> newChip(const XpXdk::xpChipProfile& profile);

// Starts an agent on a new chip of this profile, or over `chip`: warm (a restart over what the
// chip kept) unless told cold. An AgentError is bad input: it throws BadInput.
std::unique_ptr<XpLib::Agent::XpLpmAgent> startAgent(
    const XpXdk::xpChipProfile& profile, const XpLib::Agent::AgentOptions& options,
    std::shared_ptr<XpLib::Agent::ChipPort> chip = nullptr,
    XpLib::Agent::XpLpmAgent::Start start = XpLib::Agent::XpLpmAgent::Start::warm);

// A progress bar on standard error, redrawn at each whole percent; off when not asked for.
class Progress {
 public:
  Progress(bool on, const char* what, std::size_t total) : on_(on), what_(what), total_(total ? total : 1) {}
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void at(std::size_t i) {
    if (on_ && i >= next_) show(i);
  }

 private:
  void show(std::size_t i);
  bool on_;
  const char* what_;
  std::size_t total_;
  std::size_t next_ = 0;
};

class Session {
 public:
  Session(const XpXdk::xpChipProfile& profile, const RunOptions& options);

  // Starts the agent on an empty chip, then programs every route and measures it.
  void program(const std::vector<XpLib::Agent::Route>& routes);
  // The same for an update input: its announcements and withdrawals in order; `wanted` is
  // what stands at the end.
  void replay(const std::vector<RouteOp>& ops, const std::vector<XpLib::Agent::Route>& wanted);
  // Looks every route up at its first and last address, plus `probes` random addresses.
  void verify(const std::vector<XpLib::Agent::Route>& routes);
  // Fills and audits the chip's tables.
  void survey();

  XpLib::Agent::XpLpmAgent& agent() { return *agent_; }
  // Replaces the agent (a warm restart); the chip writes the old one had refused stay counted.
  void agentIs(std::unique_ptr<XpLib::Agent::XpLpmAgent> a);
  const XpXdk::xpChipProfile& profile() const { return profile_; }
  Figures& figures() { return figures_; }
  const RunOptions& options() const { return options_; }
  U64 digest() const;
  // Chip writes the simulated SDK refused, over every agent of the session.
  U64 hardwareErrors() const;

 private:
  // Request i: whether it is a withdrawal, and its route.
  using RequestAt = std::function<std::pair<bool, const XpLib::Agent::Route*>(std::size_t)>;
  // Makes n requests, measuring them, then counts `wanted` and times the yardstick.
  void request(std::size_t n, const RequestAt& at, const std::vector<XpLib::Agent::Route>& wanted);

  XpXdk::xpChipProfile profile_;
  RunOptions options_;
  std::unique_ptr<XpLib::Agent::XpLpmAgent> agent_;
  Figures figures_;
  U64 earlierErrors_ = 0;
};

}  // namespace xplpm
