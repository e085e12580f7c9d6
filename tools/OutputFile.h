// Files the tool writes for others to read while it runs (reports, the chip's state):
// replaced whole, never seen half-written.
#pragma once

#include <string>
#include <string_view>

namespace xplpm {

// Writes `bytes` to a temporary file beside `path` and renames it over `path`. Throws BadInput.
void replaceFile(const std::string& path, std::string_view bytes);

// Throws BadInput when `path` could not be replaced later (its folder is missing or not
// writable), so that the problem shows before anything is programmed.
void checkReplaceable(const std::string& path);

}  // namespace xplpm
