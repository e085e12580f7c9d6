// The command line: commands, options, their checks and the help text.
#pragma once

#include <CLI/CLI.hpp>

#include "Options.h"

namespace xplpm {

// What --help ends with: the exit statuses.
extern const char* const kExitStatusHelp;

// Declares every command and option of `app`; parsing fills `c`, c.command included.
void buildCli(CLI::App& app, Options& c);

}  // namespace xplpm
