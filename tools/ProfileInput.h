// Chip profiles for the tool: a built-in one by name, or a JSON file with the
// same fields as the chip's table contexts. A JSON profile is checked field by
// field, and against the rules the library places prefixes by, so that no value
// it would stop on gets through: every problem is "FILE: FIELD: what is wrong".
#pragma once

#include <string>
#include <string_view>

#include "Errors.h"
#include "xdk/xpChipProfiles.h"

namespace xplpm {

// The NHI entries of one tile that the configurator derives from a chip; a profile
// may declare nhiEntriesPerTile, and no other value can work.
using XpXdk::kNhiEntriesPerTile;

// The profile named, or read from the file when the name ends in ".json" or holds a
// '/'. Throws BadInput; `option` names the argument in the message for an unknown name.
XpXdk::xpChipProfile loadProfile(const std::string& nameOrFile, const std::string& option);

// A JSON profile's text, `file` naming it in messages. Throws BadInput.
XpXdk::xpChipProfile readProfileText(const std::string& file, std::string_view text);

// A profile as JSON, in the form readProfileText reads.
std::string profileJson(const XpXdk::xpChipProfile& p);

}  // namespace xplpm
