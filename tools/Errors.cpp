// Reporting bad input.
#include "Errors.h"

#include <cstdio>
#include <iostream>

#include "JsonDocument.h"

namespace xplpm {

BadInput::BadInput(std::vector<InputError> errors)
    : std::runtime_error(errors.empty() ? "bad input" : errors.front().where + ": " + errors.front().what),
      errors_(std::move(errors)) {}

void badInput(std::string where, std::string what) { throw BadInput({InputError{std::move(where), std::move(what)}}); }

InputError fileError(const std::string& file, XpLib::U64 line, std::string what) {
  return {line ? file + ":" + std::to_string(line) : file, std::move(what), file, line};
}

void badFile(const std::string& file, XpLib::U64 line, std::string what) {
  throw BadInput({fileError(file, line, std::move(what))});
}

namespace {

// Length of the well-formed UTF-8 sequence at `s` (2 to 4 bytes) that is not a C1 control, or 0.
std::size_t printableUtf8(std::string_view s) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char c = b(0);
  const std::size_t n = c > 0xF4 ? 0 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 ? 2 : 0;
  if (n == 0 || s.size() < n) return 0;
  for (std::size_t i = 1; i < n; ++i)
    if ((b(i) & 0xC0) != 0x80) return 0;
  if (n == 2 && c == 0xC2 && b(1) < 0xA0) return 0;  // U+0080..U+009F steer terminals too
  if (n == 3 && ((c == 0xE0 && b(1) < 0xA0) || (c == 0xED && b(1) >= 0xA0))) return 0;  // overlong, surrogates
  if (n == 4 && ((c == 0xF0 && b(1) < 0x90) || (c == 0xF4 && b(1) >= 0x90))) return 0;  // overlong, beyond U+10FFFF
  return n;
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\\') {
      out += "\\\\";
      ++i;
    } else if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
      ++i;
    } else if (const std::size_t n = c >= 0x80 ? printableUtf8(text.substr(i)) : 0; n > 0) {
      out.append(text.substr(i, n));
      i += n;
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
      ++i;
    }
  }
  return out;
}

void printInputError(const InputError& e, bool json, bool skipped) {
  const char* suffix = skipped ? " (skipped)" : "";
  if (json) {
    nlohmann::json problem{{"file", nullptr}, {"line", nullptr}, {"message", escaped(e.what)}, {"where", escaped(e.where)}};
    if (!e.file.empty()) problem["file"] = escaped(e.file);
    if (e.line) problem["line"] = e.line;
    if (skipped) problem["skipped"] = true;
    nlohmann::json j = documentHeader("");
    j[skipped ? "warning" : "error"] = problem;
    writeJson(std::cerr, j, true);
    return;
  }
  if (e.where.empty()) {
    std::fprintf(stderr, "xplpm: %s%s\n", escaped(e.what).c_str(), suffix);
  } else {
    std::fprintf(stderr, "xplpm: %s: %s%s\n", escaped(e.where).c_str(), escaped(e.what).c_str(), suffix);
  }
}

}  // namespace xplpm
