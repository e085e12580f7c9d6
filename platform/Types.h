// Fixed-width integer names used throughout xplpm.
#pragma once

#include <cstdint>
#include <string>

namespace XpLib {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;
using S32 = std::int32_t;

// Entities carry a name for diagnostics only.
using Name = std::string;

}  // namespace XpLib
