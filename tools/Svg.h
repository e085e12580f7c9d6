// The charts: `show fill --svg FILE` (the fill of every prefix table, NHI tile and the
// next-hop table) and `capacity --svg FILE` (the resources with the headroom measured).
// Both show only the families in use, title the input and its route counts, colour each bar
// by the CRM thresholds (green below 70 %, amber from 70 %, red from 85 %), name the fullest
// resource or the one that ran out first, and print percentages as the text reports do.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "Session.h"

namespace xplpm {

// The chart of the session's last survey; `report` is the run's document (input, route counts).
// Throws BadInput when the file cannot be written.
void writeFillSvg(Session& s, const nlohmann::json& report, const std::string& path);

// The chart of one profile's capacity report (capacityJson and resourcesJson in `report`).
void writeCapacitySvg(const nlohmann::json& report, const std::string& input, const std::string& path);

}  // namespace xplpm
