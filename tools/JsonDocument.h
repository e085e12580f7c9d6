// The JSON documents the tool writes. Every one starts from the same header, so that a
// consumer can tell which schema it reads and which tool wrote it; a change that renames or
// drops a key takes a new schema number, added keys do not.
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string_view>

namespace xplpm {

inline constexpr int kJsonSchema = 1;

// {"schema": 1, "tool": {"name": "xplpm", "version": ...}, "command": command}; without
// "command" when it is empty (a chip profile is a document, not a command's report).
nlohmann::json documentHeader(std::string_view command);

// The document indented by two, or on one line (a JSON-lines record); text that is not
// UTF-8 is replaced rather than thrown on.
void writeJson(std::ostream& out, const nlohmann::json& j, bool oneLine = false);

}  // namespace xplpm
