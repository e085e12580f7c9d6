// The human summary of a report: the same figures as the JSON document, as lines.
#pragma once

#include <nlohmann/json.hpp>

namespace xplpm {

// Prints the summary of `j` on standard output, ending with the exit status it implies.
void printHuman(const nlohmann::json& j, int status);

// The same for the report of `xplpm serve`.
void printServeHuman(const nlohmann::json& j, int status);

// The capacity report: for one profile its headroom, growths and resources; for several,
// one table with a column per profile.
void printCapacity(const nlohmann::json& doc, int status);

// A family's capacity figures as text: a headroom ("N (+P%)" of the table, or "not reached"),
// the resource that ran out first with its fill, then the route that failed and its code, and
// one growth's verdict.
std::string headroomText(const nlohmann::json& family, const char* which);
std::string ranOutText(const nlohmann::json& family);
std::string growthText(const nlohmann::json& growth, const nlohmann::json& family);

// "exit N: what it means", the last line of every report.
std::string resultLine(int status);

}  // namespace xplpm
