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

// The routes of --routes (or the shipped table of --family), bad lines reported as --skip-bad-lines
// says. Throws BadInput, also for a file with no route of the family.
RouteSet loadRoutes(const Options& c);

// How the agent and the session run, from the options.
RunOptions runOptions(const Options& c);

// Reads the profile, checks the environment against it, reads the routes, starts the
// agent and programs every route (each bad input is reported before the next is read);
// verifies when asked. Throws BadInput.
Programmed programmed(const Options& c, bool verify);

// Prints the report (JSON or the summary) and returns the exit status it implies.
int finish(const nlohmann::json& j, const Options& c);

int cmdRun(const Options& c);
int cmdRestart(const Options& c);
int cmdChurn(const Options& c);
int cmdShow(const Options& c);
int cmdServe(const Options& c);
int cmdFpmSend(const Options& c);
int cmdProfileList();
int cmdProfileShow(const Options& c);

}  // namespace xplpm
