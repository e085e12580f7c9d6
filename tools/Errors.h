// How the tool fails: input it cannot run with travels as a BadInput exception
// to main, which prints it and exits 2; text echoed back from input is escaped.
// Under --json a problem is a JSON record on standard error instead of a line.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Types.h"

namespace xplpm {

// The exit statuses a script can gate on (documented in --help and the README).
enum ExitStatus : int {
  exitOk = 0,        // everything asked for holds
  exitMismatch = 1,  // verification found a mismatch, the chip refused a write, or a restart lost the model
  exitBadInput = 2,  // a file, option, profile or environment variable the tool cannot run with
  exitNotFit = 3,    // some routes were not placed (unless --allow-failed)
};

struct InputError {
  InputError(std::string where_, std::string what_, std::string file_ = {}, XpLib::U64 line_ = 0)
      : where(std::move(where_)), what(std::move(what_)), file(std::move(file_)), line(line_) {}

  std::string where;  // "FILE:LINE", "FILE: FIELD", "--option" or a variable; empty when the text names it
  std::string what;
  std::string file;     // the file the problem is in, when it is in one
  XpLib::U64 line = 0;  // its line, 0 when the problem is not at a line
};

// A problem in a file: at a line of it ("FILE:LINE"), or in the file as a whole (line 0).
InputError fileError(const std::string& file, XpLib::U64 line, std::string what);
[[noreturn]] void badFile(const std::string& file, XpLib::U64 line, std::string what);

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

// "xplpm: WHERE: WHAT" (escaped) on standard error, with " (skipped)" for a line read past.
// As JSON: {"error": {"file", "line", "message", "where"}} on one line ("warning" and
// "skipped": true for a line read past), file and line null when the problem has none.
void printInputError(const InputError& e, bool json = false, bool skipped = false);

}  // namespace xplpm
