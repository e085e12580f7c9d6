// `xplpm lookup`: the chip's answer for an address beside the reference's longest match, and
// where a prefix lives or why it is not placed.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "agent/Forwarding.h"

namespace xplpm {

// One query: an address (no '/') or a prefix, of either family, in a VRF.
struct Query {
  std::string text;
  XpLib::Agent::Route route;  // the address as a /32 or /128
  bool prefix = false;
};

// Throws BadInput for text that is neither an address nor a prefix.
Query parseQuery(XpLib::U32 vrf, const std::string& text);

// For an address: "chip" (table, tread, index, slot, the NHI entry and pair, the next-hop
// block, the group that owns it and the member the flow reaches, and the next-hop entry the
// chip holds there), "reference" (the longest installed match and its block) and "agree". For
// a prefix: "state" (installed, not requested, or the failure code), its group and block, and
// where it lives ("subtrie", with the prefix's slot) or the tables it may be placed in
// ("candidates"). `check` is needed for an address only: a prefix query may pass null.
nlohmann::json lookupJson(XpLib::Agent::XpLpmAgent& agent, const XpLib::Agent::Forwarding* check, const Query& q);

}  // namespace xplpm
