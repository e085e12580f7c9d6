// Accessors, checks and text forms of the LPM value types.
#include "XpLpm/XpLpmTypes.h"

#include <cstdio>
#include <regex>

#include "platform/Exception.h"

namespace XpLib {
namespace XpLpm {

U8 SubTrieBranch::u8(U32 i) const {
  if (i >= kBytes) throw RangeException("SubTrieBranch::u8: index out of range");
  return byteAt(i);
}

void SubTrieBranch::u8Is(U32 i, U8 v) {
  if (i >= kBytes) throw RangeException("SubTrieBranch::u8Is: index out of range");
  unsigned shift = i < 16 ? 24 - 8 * (i & 3) : 8 * (17 - i);
  U32& w = w_[i >> 2];
  w = (w & ~(U32(0xFF) << shift)) | (U32(v) << shift);
}

U64 SubTrieBranch::u64(U32 i) const {
  if (i > 2) throw RangeException("SubTrieBranch::u64: index out of range");
  if (i == 2) return static_cast<U64>(w_[4] & 0xFFFF) << 48;
  return (static_cast<U64>(w_[2 * i]) << 32) | w_[2 * i + 1];
}

void SubTrieBranch::u64Is(U32 i, U64 v) {
  if (i > 2) throw RangeException("SubTrieBranch::u64Is: index out of range");
  if (i == 2) {
    w_[4] = static_cast<U32>(v >> 48);
    return;
  }
  w_[2 * i] = static_cast<U32>(v >> 32);
  w_[2 * i + 1] = static_cast<U32>(v);
}

void SubTrieBranch::u8Del(U32) { throw NondeletableAttrException("SubTrieBranch::u8Del"); }
void SubTrieBranch::u64Del(U32) { throw NondeletableAttrException("SubTrieBranch::u64Del"); }

U32 SubTrieBranch::hash() const {
  U32 h = hashMix((static_cast<U64>(w_[0]) << 32) | w_[1]);
  h = hashCombine(h, hashMix((static_cast<U64>(w_[2]) << 32) | w_[3]));
  return hashCombine(h, w_[4]);
}

std::string SubTrieBranch::valueToStrep() const {
  char buf[160];
  std::snprintf(buf, sizeof buf,
                "Value('XpLib::XpLpm::SubTrieBranch', ** {'word0': %u, 'word1': %u, 'word2': %u, 'word3': %u, "
                "'word4': %u})",
                w_[0], w_[1], w_[2], w_[3], w_[4]);
  return buf;
}

SubTrieBranch SubTrieBranch::fromString(std::string_view text) {
  static const std::regex re(
      R"(Value\('XpLib::XpLpm::SubTrieBranch', \*\* \{'word0': (\d+), 'word1': (\d+), 'word2': (\d+), )"
      R"('word3': (\d+), 'word4': (\d+)\}\))");
  std::match_results<std::string_view::const_iterator> m;
  if (!std::regex_match(text.begin(), text.end(), m, re)) throw RangeException("SubTrieBranch: bad text form");
  U64 w[5];
  for (int i = 0; i < 5; ++i) {
    try {
      w[i] = std::stoull(m[i + 1].str());
    } catch (const std::out_of_range&) {
      w[i] = ~0ull;  // wider than 64 bits: reported as out of range below
    }
    if (w[i] > (i == 4 ? 0xFFFFull : 0xFFFFFFFFull)) throw RangeException("SubTrieBranch: word out of range");
  }
  return SubTrieBranch(static_cast<U32>(w[0]), static_cast<U32>(w[1]), static_cast<U32>(w[2]),
                       static_cast<U32>(w[3]), static_cast<U16>(w[4]));
}

std::ostream& operator<<(std::ostream& os, const SubTrieBranch& b) { return os << b.valueToStrep(); }

namespace {
constexpr const char* kPrefixTableIdRange = "PrefixTableId::value < 0 or > 32 not allowed";
}

PrefixTableId::PrefixTableId(U8 value) : value_(value) {
  if (value > kMax) throw RangeException(kPrefixTableIdRange);
}

PrefixTableId PrefixTableId::fromString(std::string_view text) {
  auto v = IntValue<struct ParseTag, U32>::parse(text);
  if (!v) {
    // A negative number, or one too wide for 32 bits, is still a value out of range.
    std::string_view digits = text.starts_with('-') ? text.substr(1) : text;
    const bool integer = !digits.empty() && digits.find_first_not_of("0123456789") == std::string_view::npos;
    throw RangeException(integer ? kPrefixTableIdRange : "PrefixTableId: not a number");
  }
  if (v->value() > kMax) throw RangeException(kPrefixTableIdRange);
  return PrefixTableId(static_cast<U8>(v->value()));
}

std::ostream& operator<<(std::ostream& os, const PrefixTableId& id) { return os << id.str(); }

std::string NhiTableIdx::valueToStrep() const {
  return "Value('XpLib::XpLpm::NhiTableIdx', ** {'tile': " + tile_.str() + ", 'offset': " + std::to_string(offset_) +
         "})";
}

std::ostream& operator<<(std::ostream& os, const NhiTableIdx& i) { return os << i.str(); }

}  // namespace XpLpm
}  // namespace XpLib
