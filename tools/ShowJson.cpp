// The show commands' JSON and JSON-lines forms.
#include "ShowJson.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "JsonDocument.h"
#include "ModelJson.h"

namespace xplpm {

using nlohmann::json;
using XpLib::Agent::XpLpmAgent;

namespace {

// Writes the items of one list as they come, as a document or as JSON lines.
class Records {
 public:
  Records(const json& header, const std::string& key, bool lines, U64 limit)
      : key_(key), lines_(lines), limit_(limit) {
    if (lines_) {
      writeJson(std::cout, header, true);
      return;
    }
    std::cout << "{\n";
    for (const auto& [k, v] : header.items()) std::cout << "  " << json(k).dump() << ": " << dump(v) << ",\n";
    std::cout << "  " << json(key_).dump() << ": [";
  }

  // Writes one item; false once the limit is reached, and nothing more is taken.
  bool add(const json& item) {
    if (n_ >= limit_) {
      truncated_ = true;
      return false;
    }
    if (lines_) {
      writeJson(std::cout, item, true);
    } else {
      std::cout << (n_ ? ",\n    " : "\n    ") << dump(item);
    }
    ++n_;
    return true;
  }

  void finish() {
    if (lines_) {
      writeJson(std::cout, {{"end", {{"records", n_}, {"truncated", truncated_}}}}, true);
      return;
    }
    std::cout << (n_ ? "\n  ],\n" : "],\n") << "  \"truncated\": " << (truncated_ ? "true" : "false") << "\n}\n";
  }

 private:
  static std::string dump(const json& v) { return v.dump(-1, ' ', false, json::error_handler_t::replace); }

  std::string key_;
  bool lines_;
  U64 limit_;
  U64 n_ = 0;
  bool truncated_ = false;
};

template <class Map>
auto sortedByKey(const Map& map) {
  std::vector<typename Map::value_type> items(map.begin(), map.end());
  std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return items;
}

bool wanted(const Options& c, U32 tableId) { return c.table < 0 || static_cast<U32>(c.table) == tableId; }

// Each list's items, in table, position, tile or group order; false once the limit is reached.
bool tableItems(const XpLib::XpLpm::LpmSm& sm, bool v6, const Options& c, Records& out) {
  for (const auto& [id, table] : sortedByKey(sm.prefixTableMap())) {
    if (!wanted(c, id.value())) continue;
    if (c.what == "prefix-tables") {
      json t = prefixTableJson(*table);
      t["family"] = familyKey(v6);
      if (!out.add(t)) return false;
      continue;
    }
    for (const auto& [idx, st] : sortedByKey(table->subTrieMap()))
      if (!out.add(subTrieJson(sm, *table, *st))) return false;
  }
  return true;
}

bool tileItems(const XpLib::XpLpm::LpmSm& sm, bool v6, Records& out) {
  for (const auto& [tile, a] : sortedByKey(sm.nhiAllocatorMap())) {
    const json t{{"family", familyKey(v6)},
                 {"tile", tile.value()},
                 {"capacity", a->entriesCapacity()},
                 {"free", a->freeEntries()},
                 {"used", XpLib::U64(a->entriesCapacity() - a->freeEntries())}};
    if (!out.add(t)) return false;
  }
  return true;
}

void groupItems(const XpLpmAgent& agent, Records& out) {
  for (const auto& [group, block] : sortedByKey(agent.nextHopStatus()->swIdToNextHopBlockMap())) {
    if (group == XpLpmAgent::kScratchGroup) continue;
    if (!out.add(json{{"group", group.value()}, {"block", blockJson(block)}})) return;
  }
}

}  // namespace

void writeShowJson(Session& s, const Options& c, const json& report) {
  const XpLpmAgent& agent = s.agent();
  const bool inUse[2] = {s.figures().programmed.requested[0] > 0, s.figures().programmed.requested[1] > 0};
  json header = documentHeader(c.command);
  header.update({{"what", c.what}, {"profile", report["profile"]}, {"input", report["input"]}, {"family", report["family"]}});
  header["routes"] = {{"requested", report["routes"]["requested"]},
                      {"installed", report["routes"]["installed"]},
                      {"failed", report["routes"]["failed"]}};
  if (c.what == "summary") {
    header["summary"] = summaryJson(agent, inUse);
    writeJson(std::cout, header, c.jsonLines);
    return;
  }
  if (c.what == "nexthop") header["nexthop"] = summaryJson(agent, inUse)["nexthop"];
  const std::string key = c.what == "nexthop" ? "groups" : c.what;
  Records out(header, key == "prefix-tables" ? "prefix_tables" : key == "nhi-tiles" ? "nhi_tiles" : key, c.jsonLines, c.limit);
  if (c.what == "nexthop") groupItems(agent, out);
  for (bool v6 : {false, true}) {
    if (!inUse[v6]) continue;
    const XpLib::XpLpm::LpmSm& sm = *agent.family(v6).sm;
    if ((c.what == "prefix-tables" || c.what == "subtries") && !tableItems(sm, v6, c, out)) break;
    if (c.what == "nhi-tiles" && !tileItems(sm, v6, out)) break;
  }
  out.finish();
}

}  // namespace xplpm
