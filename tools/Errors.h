// How the tool fails: input it cannot run with travels as a BadInput exception
// to main, which prints it and exits 2; text echoed back from input is escaped.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace xplpm {

// The exit statuses a script can gate on (documented in --help and the README).
enum ExitStatus : int {
  exitOk = 0,        // everything asked for holds
  exitMismatch = 1,  // verification found a mismatch, the chip refused a write, or a restart lost the model
  exitBadInput = 2,  // a file, option, profile or environment variable the tool cannot run with
  exitNotFit = 3,    // some routes were not placed (unless --allow-failed)
};

struct InputError {
  std::string where;  // "FILE:LINE", "FILE: FIELD", "--option" or a variable; empty when the text names it
  std::string what;
};

// Input the tool cannot run with; it may carry several problems found at once.
class BadInput : public std::runtime_error {
 public:
  explicit BadInput(std::vector<InputError> errors);
  const std::vector<InputError>& errors() const { return errors_; }

 private:
  std::vector<InputError> errors_;
};

[[noreturn]] void badInput(std::string where, std::string what);

// Text from input made safe for a terminal and for JSON: control characters,
// DEL, C1 controls and bytes that are not UTF-8 become \xNN; a backslash is doubled
// so that an escape cannot be forged.
std::string escaped(std::string_view text);

// "xplpm: WHERE: WHAT" (escaped) on standard error, with `suffix` appended.
void printInputError(const InputError& e, const char* suffix = "");

}  // namespace xplpm
