// Resource use from the models.
#include "Resources.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace xplpm {

std::string Resource::label() const {
  std::string s = shared ? kind : std::string(ipv6 ? "ipv6 " : "ipv4 ") + kind;
  return name.empty() ? s : s + ", " + name;
}

std::string percentText(U64 used, U64 total) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f%%", total ? 100.0 * double(used) / double(total) : 0.0);
  return text;
}

Threshold thresholdOf(U64 used, U64 total) {
  const double shown = std::stod(percentText(used, total));
  return shown >= kThresholdHigh ? Threshold::high : shown >= kThresholdLow ? Threshold::low : Threshold::ok;
}

const char* thresholdName(Threshold t) { return t == Threshold::high ? "high" : t == Threshold::low ? "low" : "ok"; }

namespace {

void tableResources(const XpLib::XpLpm::LpmSm& sm, bool v6, std::vector<Resource>& out) {
  struct Tread {
    std::vector<U32> ids;
    U64 used = 0, depth = 0;
  };
  std::map<U32, Tread, std::greater<>> treads;
  for (const auto& [id, table] : sm.prefixTableMap()) {
    Tread& t = treads[table->tableConfig()->tread()];
    t.ids.push_back(id.value());
    t.used += table->subTries();
    t.depth += table->tableConfig()->depth();
  }
  for (auto& [tread, t] : treads) {
    std::sort(t.ids.begin(), t.ids.end());
    std::string ids;
    for (U32 id : t.ids) ids += (ids.empty() ? "" : ", ") + std::to_string(id);
    out.push_back(Resource{false, v6, "prefix-table entries",
                           "tread " + std::to_string(tread) + (t.ids.size() > 1 ? " (tables " : " (table ") + ids + ")",
                           tread, t.used, t.depth - t.used});
  }
}

}  // namespace

std::vector<Resource> modelResources(const XpLib::Agent::XpLpmAgent& agent, const bool inUse[2]) {
  std::vector<Resource> out;
  for (bool v6 : {false, true}) {
    if (!inUse[v6]) continue;
    const XpLib::XpLpm::LpmSm& sm = *agent.family(v6).sm;
    tableResources(sm, v6, out);
    std::vector<std::pair<U32, const XpLib::BestFitAllocator*>> tiles;
    for (const auto& [tile, a] : sm.nhiAllocatorMap()) tiles.emplace_back(tile.value(), a.ptr());
    std::sort(tiles.begin(), tiles.end());
    for (const auto& [tile, a] : tiles)
      out.push_back(Resource{false, v6, "NHI entries", "tile " + std::to_string(tile), 0,
                             U64(a->entriesCapacity() - a->freeEntries()), a->freeEntries()});
  }
  const auto& nh = *agent.nextHopSm()->allocator();
  out.push_back(Resource{true, false, "next-hop entries", "", 0, U64(nh.entriesCapacity() - nh.freeEntries()), nh.freeEntries()});
  return out;
}

std::vector<std::pair<U32, U32>> candidateTables(const XpLib::Agent::XpLpmAgent& agent, bool ipv6, U32 prefixLen) {
  const XpLib::XpLpm::ConfigBase& config = *agent.family(ipv6).config;
  const U32 keyLen = prefixLen + XpLib::XpLpm::kVrfBits;
  const U32 least = config.leastTreadForPrefixLen(static_cast<XpLib::U8>(keyLen));
  std::vector<std::pair<U32, U32>> first, second;
  for (U32 i = 0; i < config.prefixTableSortedByTreads(); ++i) {
    const auto table = config.prefixTableSortedByTread(static_cast<XpLib::U8>(i));
    const U32 tread = table->tableConfig()->tread();
    if (tread >= least && tread < keyLen) first.emplace_back(table->tableId().value(), tread);
    if (tread == keyLen) second.emplace_back(table->tableId().value(), tread);
  }
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

}  // namespace xplpm
