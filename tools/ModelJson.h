// The state machines' models as JSON: the pieces `show ... --json` and `lookup` are built
// from. The library's own show texts are a loose dictionary notation that no JSON parser
// takes; these carry the same facts under snake_case keys.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "agent/XpLpmAgent.h"

namespace xplpm {

// "ipv4" or "ipv6".
const char* familyKey(bool ipv6);

// A route's VRF and prefix text.
std::pair<XpLib::U32, std::string> prefixKey(const XpLib::XpLpm::LpmPrefix& p);

// {"base", "size"} of a next-hop block.
nlohmann::json blockJson(const XpLib::Agent::NextHopBlock& b);

// One sub-trie: its table, position, shape (branch length, stride, mode, slots), NHI block,
// how many sub-tries share that block, and its prefixes by slot.
nlohmann::json subTrieJson(const XpLib::XpLpm::LpmSm& sm, const XpLib::XpLpm::PrefixTable& table,
                           const XpLib::XpLpm::SubTrie& st);

// One prefix table: id, tread, sub-tries, prefixes, capacity (its depth).
nlohmann::json prefixTableJson(const XpLib::XpLpm::PrefixTable& table);

// The counters of the state machines' summaries: shuffling, NHI overflows, compactions and
// shared blocks per family in use, and the next-hop block manager's.
nlohmann::json summaryJson(const XpLib::Agent::XpLpmAgent& agent, const bool inUse[2]);

}  // namespace xplpm
