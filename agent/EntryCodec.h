// The chip's entry format for the library's write commands: a PrefixCommand
// becomes an xpLpmPrefixEntry, an NhiCommand an xpLpmNhiEntry. This is the one
// place that knows the chip's bit layout (see xdk/xpLpmEntry.h). Everything else reaches
// the chip through ChipPort, which a real chip's SDK would implement.
#pragma once

#include "XpLpm/Status.h"
#include "XpLpm/XpLpmTypes.h"
#include "xdk/xpLpmEntry.h"

namespace XpLib {
namespace Agent {

// The entry image of a prefix command. Branch bits beyond branchLen, which the
// model may carry, are not part of the image.
XpXdk::xpLpmPrefixEntry encodePrefixEntry(const XpLpm::PrefixCommand& cmd, XpLpm::KeyType keyType);
// The same into an entry the caller keeps (464 bytes not copied once more).
void encodePrefixEntry(const XpLpm::PrefixCommand& cmd, XpLpm::KeyType keyType, XpXdk::xpLpmPrefixEntry& e);
XpXdk::xpLpmNhiEntry encodeNhiEntry(const XpLpm::NhiCommand& cmd);

// The leaf of a prefix stored below a branch of branchLen bits: its remaining
// bits behind a marker bit. The inverse steps are the library's: entryBranch and
// combineBranchAndLeaf.
XpXdk::xpLpmLeaf encodeLeaf(const XpLpm::LpmPrefix& prefix, U8 branchLen);

}  // namespace Agent
}  // namespace XpLib
