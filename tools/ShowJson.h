// `show summary|prefix-tables|subtries|nhi-tiles|nexthop --json` and `--json-lines`: the
// answers built from the models. The items of a list are written as they are made, so
// that the sub-tries of a whole table (a hundred megabytes of text) never sit in memory as
// one document; --table and --limit cut them down.
#pragma once

#include <nlohmann/json.hpp>

#include "Options.h"
#include "Session.h"

namespace xplpm {

// Writes the answer on standard output: one document (the header fields, the list under
// the name of what is shown, "truncated"), or JSON lines (the header as the first record,
// one record per item, then {"end": {"records", "truncated"}}). `report` is the run's
// document, whose header and route counts the answer repeats.
void writeShowJson(Session& s, const Options& c, const nlohmann::json& report);

}  // namespace xplpm
