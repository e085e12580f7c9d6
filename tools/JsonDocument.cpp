// The JSON header and writer shared by every command.
#include "JsonDocument.h"

#include <ostream>
#include <string>

namespace xplpm {

nlohmann::json documentHeader(std::string_view command) {
  nlohmann::json j{{"schema", kJsonSchema}, {"tool", {{"name", "xplpm"}, {"version", XPLPM_VERSION}}}};
  if (!command.empty()) j["command"] = std::string(command);
  return j;
}

void writeJson(std::ostream& out, const nlohmann::json& j, bool oneLine) {
  out << j.dump(oneLine ? -1 : 2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

}  // namespace xplpm
