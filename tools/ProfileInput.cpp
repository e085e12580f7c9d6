// Loading and checking chip profiles.
#include "ProfileInput.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace xplpm {

using nlohmann::json;
using XpLib::U32;
using XpLib::U8;

namespace {

struct Bad {
  std::string what;
};

U32 number(const json& j, const char* key, U32 lo, U32 hi, const std::string& where) {
  if (!j.contains(key)) throw Bad{where + ": missing \"" + key + "\""};
  const json& v = j.at(key);
  if (!v.is_number_unsigned() && !(v.is_number_integer() && v.get<long long>() >= 0))
    throw Bad{where + ": \"" + key + "\" is not a non-negative integer"};
  const unsigned long long n = v.get<unsigned long long>();
  if (n < lo || n > hi)
    throw Bad{where + ": \"" + key + "\" is " + std::to_string(n) + ", expected " + std::to_string(lo) + " to " +
              std::to_string(hi)};
  return static_cast<U32>(n);
}

XpXdk::xpLpmTableContext lpmContext(const json& j, bool v6) {
  const std::string where = v6 ? "ipv6" : "ipv4";
  if (!j.is_object()) throw Bad{where + ": missing context"};
  XpXdk::xpLpmTableContext c;
  c.vrfIdWidth = number(j, "vrfIdWidth", 16, 16, where);
  c.keyLength = number(j, "keyLength", v6 ? 144 : 48, v6 ? 144 : 48, where);
  if (!j.contains("prefixTables") || !j["prefixTables"].is_array() || j["prefixTables"].empty())
    throw Bad{where + ": \"prefixTables\" must be a non-empty array"};
  std::set<U32> ids;
  bool coversShort = false, coversLong = !v6;
  for (const json& t : j["prefixTables"]) {
    const U32 id = number(t, "id", 0, 31, where + ".prefixTables");
    const std::string at = where + ".prefixTables[id " + std::to_string(id) + "]";
    if (!ids.insert(id).second) throw Bad{at + ": id used twice"};
    auto& p = c.prefixTableContext[id];
    p.valid = true;
    p.depth = number(t, "depth", 2, 1u << 24, at);
    p.sramWidth = number(t, "sramWidth", 128, 256, at);
    if (p.sramWidth != 128 && p.sramWidth != 256) throw Bad{at + ": \"sramWidth\" must be 128 or 256"};
    p.tread = static_cast<U8>(number(t, "tread", 0, v6 ? 143 : 47, at));
    p.hashSelector = static_cast<U8>(number(t, "hashSelector", 0, 3, at));
    coversShort = coversShort || p.tread <= 16;
    coversLong = coversLong || p.tread == 60;
  }
  // Every prefix length needs a table it may go to, or the library stops on it.
  if (!coversShort) throw Bad{where + ": no prefix table of tread 16 or less, so a default route has nowhere to go"};
  if (!coversLong) throw Bad{where + ": no prefix table of tread 60, where /44 and longer IPv6 prefixes must start"};
  c.nhiPairPerEntry = static_cast<U8>(number(j, "nhiPairPerEntry", 6, 10, where));
  const std::set<U32> pairs{6, 7, 8, 10};
  if (!pairs.count(c.nhiPairPerEntry)) throw Bad{where + ": \"nhiPairPerEntry\" must be 6, 7, 8 or 10"};
  const U32 pairWidth = c.nhiPairPerEntry == 6 ? 21 : c.nhiPairPerEntry == 7 ? 18 : c.nhiPairPerEntry == 8 ? 16 : 12;
  c.nhiBlockBaseWidth = static_cast<U8>(number(j, "nhiBlockBaseWidth", 1, pairWidth, where));
  const U32 tiles = number(j, "nhiTiles", 1, 8, where);
  c.nhiTileBitmap[0] = static_cast<U8>((1u << tiles) - 1);
  c.nhiTileBitmapValidMask = 1;
  // The configurator takes 16,384 entries per tile; the chip must agree.
  c.nhiTableSize = tiles * 16384;
  return c;
}

json contextJson(const XpXdk::xpLpmTableContext& c) {
  json tables = json::array();
  for (U32 id = 0; id < XpXdk::xpLpmTableContext::kPrefixTables; ++id) {
    const auto& t = c.prefixTableContext[id];
    if (!t.valid) continue;
    tables.push_back({{"id", id}, {"depth", t.depth}, {"sramWidth", t.sramWidth}, {"tread", t.tread},
                      {"hashSelector", t.hashSelector}});
  }
  return {{"vrfIdWidth", c.vrfIdWidth},
          {"keyLength", c.keyLength},
          {"prefixTables", tables},
          {"nhiPairPerEntry", c.nhiPairPerEntry},
          {"nhiBlockBaseWidth", c.nhiBlockBaseWidth},
          {"nhiTiles", __builtin_popcount(c.nhiTileBitmap[0])}};
}

}  // namespace

std::optional<XpXdk::xpChipProfile> loadProfile(const std::string& name, InputError* error) {
  if (name.size() < 5 || name.substr(name.size() - 5) != ".json") {
    if (const auto* p = XpXdk::findChipProfile(name)) return *p;
    std::string known;
    for (const auto& p : XpXdk::builtinChipProfiles()) known += (known.empty() ? "" : ", ") + p.name;
    *error = {"--profile", "unknown profile '" + name + "' (built-in: " + known + "; or a FILE.json)"};
    return std::nullopt;
  }
  std::ifstream in(name);
  if (!in) {
    *error = {name, "cannot open the file"};
    return std::nullopt;
  }
  json j;
  try {
    j = json::parse(in);
  } catch (const json::parse_error& e) {
    *error = {name, std::string("not valid JSON: ") + e.what()};
    return std::nullopt;
  }
  try {
    if (!j.is_object()) throw Bad{"the profile must be a JSON object"};
    XpXdk::xpChipProfile p;
    p.name = j.value("name", name);
    p.description = j.value("description", std::string("profile read from ") + name);
    p.ipv4 = lpmContext(j.contains("ipv4") ? j["ipv4"] : json(), false);
    p.ipv6 = lpmContext(j.contains("ipv6") ? j["ipv6"] : json(), true);
    if (!j.contains("nextHop")) throw Bad{"missing \"nextHop\" context"};
    p.nextHop.rowBlkInc = number(j["nextHop"], "rowBlkInc", 1, 1u << 20, "nextHop");
    return p;
  } catch (const Bad& b) {
    *error = {name, b.what};
  } catch (const json::exception& e) {
    *error = {name, e.what()};
  }
  return std::nullopt;
}

std::string profileJson(const XpXdk::xpChipProfile& p) {
  json j{{"name", p.name},
         {"description", p.description},
         {"ipv4", contextJson(p.ipv4)},
         {"ipv6", contextJson(p.ipv6)},
         {"nextHop", {{"rowBlkInc", p.nextHop.rowBlkInc}}}};
  return j.dump(2);
}

}  // namespace xplpm
