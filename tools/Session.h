// One run of the tool: routes read, a chip programmed through the agent, and
// the figures the commands report.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "RouteInput.h"
#include "agent/ChipReport.h"
#include "agent/XpLpmAgent.h"

namespace xplpm {

using XpLib::U32;
using XpLib::U64;

struct RunOptions {
  std::string profileName = "reference";
  U32 nextHopGroups = 256;
  bool verify = false;
  U64 probes = 1000000;
  U64 seed = 1;
  bool progress = false;  // a progress bar on standard error
};

struct FamilyFigures {
  U64 requested = 0, installed = 0, failed = 0;
  std::map<std::string, U64> failuresByCode;
  std::vector<XpLib::Agent::TableFill> tables;
  std::vector<XpLib::Agent::NhiFill> nhi;
  XpLib::Agent::NhiOverlapAudit overlaps;
};

struct Figures {
  FamilyFigures family[2];
  double programSeconds = 0;
  double yardstickSeconds = 0;
  U64 memoryBytes = 0;
  U64 verifyProbes = 0, verifyMismatches = 0;
  std::vector<std::string> failureSamples;  // "PREFIX: code", the first few
};

class Session {
 public:
  Session(const XpXdk::xpChipProfile& profile, const RunOptions& options);

  // Programs every route, from empty, and measures it.
  void program(const std::vector<XpLib::Agent::Route>& routes);
  // Looks every route up at its first and last address, plus `probes` random addresses.
  void verify(const std::vector<XpLib::Agent::Route>& routes);
  // Fills and audits the chip's tables.
  void survey();

  XpLib::Agent::XpLpmAgent& agent() { return *agent_; }
  void agentIs(std::unique_ptr<XpLib::Agent::XpLpmAgent> a) { agent_ = std::move(a); }
  const XpXdk::xpChipProfile& profile() const { return profile_; }
  Figures& figures() { return figures_; }
  const RunOptions& options() const { return options_; }
  U64 digest() const;

 private:
  XpXdk::xpChipProfile profile_;
  RunOptions options_;
  std::unique_ptr<XpLib::Agent::XpLpmAgent> agent_;
  Figures figures_;
};

}  // namespace xplpm
