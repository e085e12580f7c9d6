// What every fuzz target checks of the tool's messages: printable and valid text.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "Errors.h"

namespace xplpm_fuzz {

// Stops the run (libFuzzer keeps the input) when `ok` does not hold.
inline void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "fuzz check failed: %s\n", what);
  std::abort();
}

// An error as printed: no control byte reaches the terminal, and it is valid UTF-8.
inline void requirePrintable(const xplpm::InputError& e) {
  for (const std::string* text : {&e.where, &e.what}) {
    const std::string shown = xplpm::escaped(*text);
    for (unsigned char c : shown) require(c >= 0x20 && c != 0x7F, "a control byte in a message");
    try {
      (void)nlohmann::json(shown).dump();
    } catch (const nlohmann::json::exception&) {
      require(false, "a message that is not UTF-8");
    }
  }
}

}  // namespace xplpm_fuzz
