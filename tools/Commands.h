// The tool's commands (one file each) and what they share: reading the inputs in
// order, programming, and turning a report into output and an exit status.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>

#include "Options.h"
#include "RouteInput.h"
#include "Session.h"

namespace xplpm {

struct Programmed {
  RouteSet set;
  std::unique_ptr<Session> session;
};

// The profile, checked against the environment, with the geometry the environment gives the
// library. Throws BadInput; `option` names the argument for an unknown name.
XpXdk::xpChipProfile chipProfile(const std::string& nameOrFile, const std::string& option);
// The route input of --routes (the shipped table of the family by default). Throws BadInput.
RouteSet loadRoutes(const Options& c);
// Starts an agent on a new chip of the profile and programs (or replays) the routes;
// verifies when asked. Throws BadInput.
std::unique_ptr<Session> programSession(const XpXdk::xpChipProfile& profile, const RouteSet& set, const Options& c,
                                        bool verify);

// How the agent and the session run, from the options.
RunOptions runOptions(const Options& c);

// Reads the profile, checks the environment against it, reads the routes, starts the
// agent and programs every route (each bad input is reported before the next is read);
// verifies when asked. Throws BadInput.
Programmed programmed(const Options& c, bool verify);

// Prints the report (JSON or the summary) and returns the exit status it implies.
int finish(const nlohmann::json& j, const Options& c);
// The same for a report with its own status and summary.
int finish(const nlohmann::json& j, const Options& c, int status, void (*human)(const nlohmann::json&, int));

int cmdRun(const Options& c);
int cmdRestart(const Options& c);
int cmdChurn(const Options& c);
int cmdShow(const Options& c);
int cmdLookup(const Options& c);
int cmdCapacity(const Options& c);
int cmdServe(const Options& c);
int cmdFpmSend(const Options& c);
int cmdProfileList();
int cmdProfileShow(const Options& c);

}  // namespace xplpm
