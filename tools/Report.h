// The JSON document every programming command reports, and the exit status it implies.
#pragma once

#include <nlohmann/json.hpp>

#include "Options.h"
#include "RouteInput.h"
#include "Session.h"

namespace xplpm {

// The figures of a programmed session: routes, speed, commands, hardware, memory, and (read from
// the chip now, unless a command that goes on to change the chip reads it at its end) tables, NHI.
enum class ChipNow { read, later };
nlohmann::json runJson(Session& s, const RouteSet& set, const Options& c, ChipNow chip = ChipNow::read);

// The tables and NHI sections, read from the chip as it is now.
void chipJson(Session& s, nlohmann::json& j);

// Outcome counts of a tally: failed, failures_by_code (summing to failed) and failures_by_length.
nlohmann::json tallyJson(const Tally& t);

// What the state machines' whole-model checks went over: per family sub-tries, routes (and of
// those the ones lagging their request), NHI blocks and sharing records; next-hop groups. A
// broken invariant stops the process inside the check, as everywhere in the library.
nlohmann::json checkJson(XpLib::Agent::XpLpmAgent& agent);

// The verification's figures: {"probes", "mismatches"}.
nlohmann::json verifyJson(const Figures& f);

// The document's verdict: exitMismatch for a verification mismatch, a refused chip write or
// a restart that lost its model; exitNotFit for routes not placed (unless allowed); else exitOk.
int exitStatus(const nlohmann::json& j, bool allowFailed);

}  // namespace xplpm
