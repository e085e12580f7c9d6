// The human summary of a report: the same figures as the JSON document, as lines.
#pragma once

#include <nlohmann/json.hpp>

namespace xplpm {

// Prints the summary of `j` on standard output, ending with the exit status it implies.
void printHuman(const nlohmann::json& j, int status);

// The same for the report of `xplpm serve`.
void printServeHuman(const nlohmann::json& j, int status);

}  // namespace xplpm
