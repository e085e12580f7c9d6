// The chip's memory kept across agent processes: every prefix-table entry, NHI entry and
// next-hop entry read through the chip port at exit, written to a state file, and written
// back into a fresh simulated chip by the next process, as a real chip keeps its tables
// while the agent restarts.
//
// The file is "XPLPMCHP", a format version, the body's length, the body (the profile's
// name and table geometry, then the entries that are not empty, family by family), and
// an FNV-1a checksum of everything before it, all little-endian. A file that is truncated,
// of another version, corrupt, or saved for another geometry is refused as a whole before
// anything is written into the chip.
#pragma once

#include <string>
#include <vector>

#include "agent/ChipPort.h"
#include "xdk/xpChipProfiles.h"

namespace xplpm {

struct ChipImage {
  struct PrefixEntry {
    XpLib::U32 table = 0, offset = 0;
    XpXdk::xpLpmPrefixEntry entry;
  };
  struct NhiEntry {
    XpLib::U32 tile = 0, offset = 0;
    XpXdk::xpLpmNhiEntry entry;
  };
  struct NextHopEntry {
    XpLib::U32 index = 0;
    XpXdk::xpNhEntry entry;
  };
  std::vector<PrefixEntry> prefix[2];  // by family: IPv4, IPv6
  std::vector<NhiEntry> nhi[2];
  std::vector<NextHopEntry> nextHop;

  XpLib::U64 entries() const;
};

// Every entry of the chip that is not empty, read through the port over the tables the profile's
// contexts describe. Throws BadInput naming the entry the chip refused to read.
ChipImage readChip(XpLib::Agent::ChipPort& chip, const XpXdk::xpChipProfile& profile);

// Writes every entry of the image through the port. Throws BadInput when the chip refuses one.
void writeChip(XpLib::Agent::ChipPort& chip, const ChipImage& image);

// The file's bytes for the image of a chip of this profile.
std::string encodeState(const XpXdk::xpChipProfile& profile, const ChipImage& image);
// The image in a state file's bytes; `file` names it in messages. Throws BadInput for anything
// but a whole, unchanged file saved for a chip of this profile's geometry.
ChipImage decodeState(const std::string& file, std::string_view bytes, const XpXdk::xpChipProfile& profile);

// Writes the file whole or not at all (a temporary file renamed over it). Throws BadInput.
void saveState(const std::string& path, const XpXdk::xpChipProfile& profile, const ChipImage& image);
// Reads and decodes the file. Throws BadInput.
ChipImage loadState(const std::string& path, const XpXdk::xpChipProfile& profile);
}  // namespace xplpm
