// Chip profiles for the tool: a built-in one by name, or a JSON file with the
// same fields as the chip's table contexts, checked so that no value the
// library would stop on gets through.
#pragma once

#include <optional>
#include <string>

#include "RouteInput.h"
#include "xdk/xpChipProfiles.h"

namespace xplpm {

// The profile named, or read from NAME when it ends in ".json"; nullopt with `error` set otherwise.
std::optional<XpXdk::xpChipProfile> loadProfile(const std::string& nameOrFile, InputError* error);

// A profile as JSON, in the form loadProfile reads.
std::string profileJson(const XpXdk::xpChipProfile& p);

}  // namespace xplpm
