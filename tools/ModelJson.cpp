// Model pieces as JSON.
#include "ModelJson.h"

namespace xplpm {

using nlohmann::json;
using XpLib::U32;
using XpLib::XpLpm::LpmPrefix;

const char* familyKey(bool ipv6) { return ipv6 ? "ipv6" : "ipv4"; }

std::pair<U32, std::string> prefixKey(const LpmPrefix& p) {
  if (p.addressFamily() == XpLib::XpLpm::AddressFamily::ipv6) {
    const auto& k = static_cast<const XpLib::XpLpm::LpmPrefixV6&>(p).vrfAndIp6Prefix();
    return {k.vrf, k.prefix.str()};
  }
  const auto& k = static_cast<const XpLib::XpLpm::LpmPrefixV4&>(p).vrfAndPrefix();
  return {k.vrf, k.prefix.str()};
}

json blockJson(const XpLib::Agent::NextHopBlock& b) { return {{"base", b.base().value()}, {"size", b.size().value()}}; }

json subTrieJson(const XpLib::XpLpm::LpmSm& sm, const XpLib::XpLpm::PrefixTable& table, const XpLib::XpLpm::SubTrie& st) {
  static const char* const kModes[] = {"sparse", "bitmap", "cpe"};
  json prefixes = json::array();
  for (U32 slot = 0; slot < st.slots().size(); ++slot) {
    const XpLib::Ptr<LpmPrefix>& p = st.slots()[slot];
    if (!p) continue;
    const auto [vrf, text] = prefixKey(*p);
    prefixes.push_back({{"slot", slot},
                        {"vrf", vrf},
                        {"prefix", text},
                        {"next_hop_block", blockJson(st.nhiInfoKey().slotToNextHopBlock(static_cast<XpLib::U8>(slot)))}});
  }
  const XpLib::Ptr<XpLib::XpLpm::NhiInfo> shared = sm.sharedNhi(st.nhiInfoKey());
  const bool v6 = sm.config()->addressFamily() == XpLib::XpLpm::AddressFamily::ipv6;
  return {{"family", familyKey(v6)},
          {"table", table.tableId().value()},
          {"tread", table.tableConfig()->tread()},
          {"index", st.index().value()},
          {"branch_len", st.branchLen()},
          {"stride", st.stride()},
          {"mode", st.mode() <= XpLib::XpLpm::modeCpe ? kModes[st.mode()] : "unknown"},
          {"max_prefix_slot", st.maxPrefixSlot()},
          {"nhi", {{"tile", st.nhiBaseIdx().tile().value()}, {"offset", st.nhiBaseIdx().offset()}, {"block_size", st.nhiBlkSize()}}},
          {"shared_by", shared ? shared->subTrieCount() : 0},
          {"prefixes", prefixes}};
}

json prefixTableJson(const XpLib::XpLpm::PrefixTable& table) {
  U32 prefixes = 0;
  for (const auto& [idx, st] : table.subTrieMap()) prefixes += st->numPrefixes();
  return {{"id", table.tableId().value()},
          {"tread", table.tableConfig()->tread()},
          {"subtries", table.subTries()},
          {"prefixes", prefixes},
          {"capacity", table.tableConfig()->depth()}};
}

json summaryJson(const XpLib::Agent::XpLpmAgent& agent, const bool inUse[2]) {
  json j;
  for (bool v6 : {false, true}) {
    if (!inUse[v6]) continue;
    const XpLib::XpLpm::LpmSm& sm = *agent.family(v6).sm;
    json shuffling{{"enabled", sm.hashShufflingEnabled()}};
    if (sm.hashShufflingEnabled())
      shuffling.update({{"attempts", sm.numHashShufflingAttempt()}, {"success", sm.numHashShufflingSuccess()}});
    j[familyKey(v6)] = {{"hash_shuffling", shuffling},
                        {"nhi_block_overflows", sm.numNhiOverflow()},
                        {"nhi_defrags", sm.numNhiBlockDefrag()},
                        {"nhi_shared_blocks", sm.numSharedNhiBlocks()},
                        {"routes", sm.prefixToSubTries()}};
  }
  const auto& nh = *agent.nextHopSm();
  j["nexthop"] = {{"allocs", nh.numNhBlockAlloc()},     {"updates", nh.numNhBlockUpdate()},
                  {"frees", nh.numNhBlockFree()},       {"overflows", nh.numNhBlockOverflow()},
                  {"defrags", nh.numNhBlockDefrag()},   {"entries", nh.allocator()->entriesCapacity()},
                  {"free_entries", nh.allocator()->freeEntries()}};
  return j;
}

}  // namespace xplpm
