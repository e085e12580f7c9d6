// Loading and checking chip profiles.
#include "ProfileInput.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "JsonDocument.h"
#include "XpLpm/Config.h"
#include "XpLpm/PrefixTable.h"

namespace xplpm {

using nlohmann::json;
using XpLib::U32;
using XpLib::U64;
using XpLib::U8;

namespace {

// A problem at a field; the file is added where it is caught.
struct Bad {
  std::string field;
  std::string what;
};

// Builds the document like nlohmann's own parser, but knows where it is, so that a
// value the parser cannot take (1e400) or a key given twice is reported at its field.
class PathReader {
 public:
  bool null() { return value(nullptr); }
  bool boolean(bool v) { return value(v); }
  bool number_integer(json::number_integer_t v) { return value(v); }
  bool number_unsigned(json::number_unsigned_t v) { return value(v); }
  bool number_float(json::number_float_t v, const std::string&) { return value(v); }
  bool string(std::string& v) { return value(v); }
  bool binary(json::binary_t& v) { return value(json::binary(v)); }
  bool start_object(std::size_t) { return open(json::object(), false); }
  bool start_array(std::size_t) { return open(json::array(), true); }
  bool end_object() { return close(); }
  bool end_array() { return close(); }
  bool key(std::string& k) {
    Frame& f = frames_.back();
    f.key = k;
    if (!f.keys.insert(k).second) {
      failure_ = {path(), "given twice"};
      return false;
    }
    return true;
  }
  bool parse_error(std::size_t position, const std::string&, const json::exception& e) {
    std::string what = e.what();
    if (what.rfind("[json.", 0) == 0) what = what.substr(what.find("] ") + 2);
    failure_ = {path(), what};
    position_ = position;
    return false;
  }

  json& root() { return root_; }
  const Bad& failure() const { return failure_; }
  std::size_t position() const { return position_; }

 private:
  struct Frame {
    json* value;
    bool array;
    long index = -1;
    std::string key;
    std::set<std::string> keys;
  };

  std::string path() const {
    std::string p;
    for (const Frame& f : frames_) {
      if (f.array && f.index >= 0) p += std::string("[") + std::to_string(f.index) + "]";
      if (!f.array && !f.key.empty()) p += (p.empty() ? "" : ".") + f.key;
    }
    return p;
  }
  json* place(json v) {
    if (frames_.empty()) {
      root_ = std::move(v);
      return &root_;
    }
    Frame& f = frames_.back();
    if (f.array) {
      ++f.index;
      f.value->push_back(std::move(v));
      return &f.value->back();
    }
    return &((*f.value)[f.key] = std::move(v));
  }
  bool value(json v) {
    place(std::move(v));
    return true;
  }
  bool open(json v, bool array) {
    frames_.push_back(Frame{place(std::move(v)), array, -1, {}, {}});
    return true;
  }
  bool close() {
    frames_.pop_back();
    return true;
  }

  json root_;
  std::vector<Frame> frames_;
  Bad failure_;
  std::size_t position_ = 0;
};

std::string describe(const json& v) {
  if (v.is_string()) return "the string " + v.dump();
  if (v.is_number()) return v.dump();
  return std::string("a") + (v.is_array() || v.is_object() ? "n " : " ") + v.type_name();
}

std::string join(std::initializer_list<const char*> keys) {
  std::string s;
  for (const char* k : keys) s += (s.empty() ? "" : ", ") + std::string(k);
  return s;
}

// A JSON object at `path`, with only the keys given.
void expectObject(const json& j, const std::string& path, std::initializer_list<const char*> keys) {
  if (!j.is_object()) throw Bad{path, "is " + describe(j) + ", expected an object"};
  for (const auto& item : j.items()) {
    const std::string& k = item.key();
    if (std::none_of(keys.begin(), keys.end(), [&](const char* known) { return k == known; }))
      throw Bad{(path.empty() ? "" : path + ".") + k, "unknown field (expected " + join(keys) + ")"};
  }
}

U32 integer(const json& obj, const std::string& path, const char* key, U64 lo, U64 hi) {
  const std::string field = (path.empty() ? "" : path + ".") + key;
  if (!obj.contains(key)) throw Bad{field, std::string("missing (expected ") + std::to_string(lo) + std::string(" to ") + std::to_string(hi) + ")"};
  const json& v = obj.at(key);
  const std::string range = std::string("an integer from ") + std::to_string(lo) + std::string(" to ") + std::to_string(hi);
  if (!v.is_number_integer()) throw Bad{field, "is " + describe(v) + ", expected " + range};
  if (v.is_number_unsigned() ? v.get<U64>() > hi || v.get<U64>() < lo : v.get<long long>() < static_cast<long long>(lo))
    throw Bad{field, "is " + v.dump() + ", expected " + range};
  return static_cast<U32>(v.get<U64>());
}

std::string text(const json& obj, const char* key, const std::string& fallback) {
  if (!obj.contains(key)) return fallback;
  if (!obj.at(key).is_string()) throw Bad{key, "is " + describe(obj.at(key)) + ", expected a string"};
  return obj.at(key).get<std::string>();
}

// The least tread the library allows each key length, as the agent configures it: IPv4
// treads are taken as configured by the user (no minimum), IPv6 keeps the tuned minimums.
std::vector<U8> leastTreads(bool v6) {
  XpLib::Ptr<XpLib::XpLpm::ConfigBase> config;
  if (v6) {
    config = XpLib::XpLpm::configV6Factory("profile-check");
    config->keyTypeIs(XpLib::XpLpm::keyLong144b);
  } else {
    config = XpLib::XpLpm::configV4Factory("profile-check");
    config->keyTypeIs(XpLib::XpLpm::keyShort48b);
  }
  config->populateLeastTreadForPrefixLenSettings(!v6);
  std::vector<U8> least(config->keyLength() + 1u);
  for (U32 len = 0; len < least.size(); ++len) least[len] = config->leastTreadForPrefixLen(static_cast<U8>(len));
  return least;
}

U32 entryBits(U32 sramWidth) {
  const auto type = sramWidth == 128 ? XpLib::XpLpm::prefixTableNarrow128b : XpLib::XpLpm::prefixTableWide256b;
  return XpLib::XpLpm::xpPrefixTableConfigFactory(XpLib::XpLpm::PrefixTableId(0), type, 2, 0)->entrySize();
}

std::string prefixLen(U32 keyLen, U32 vrfBits) { return std::string("/") + std::to_string(keyLen - vrfBits); }

// The state machine tries a prefix of key length L in every table of tread t with
// least(L) <= t <= L, and creates a sub-trie there whose branch is the whole prefix: a
// key length beyond the entry's bits stops it, and a length no table takes stops it too.
void checkPlacement(const XpXdk::xpLpmTableContext& c, const std::string& where, const std::vector<std::string>& fields) {
  const std::vector<U8> least = leastTreads(c.keyLength == 144);
  const U32 keyLength = c.keyLength, vrf = c.vrfIdWidth;
  const auto taken = [&](U32 len) {
    return std::any_of(c.prefixTableContext.begin(), c.prefixTableContext.end(),
                       [&](const auto& t) { return t.valid && least[len] <= t.tread && t.tread <= len; });
  };
  for (U32 len = vrf; len <= keyLength; ++len) {
    if (taken(len)) continue;
    U32 last = len;
    while (last < keyLength && !taken(last + 1) && least[last + 1] == least[len]) ++last;
    throw Bad{where + ".prefixTables", "no table takes " + prefixLen(len, vrf) + " to " + prefixLen(last, vrf) +
                                           " prefixes (key lengths " + std::to_string(len) + " to " + std::to_string(last) +
                                           "): each needs a table of tread from " + std::to_string(least[len]) +
                                           " to its key length"};
  }
  for (U32 id = 0; id < c.prefixTableContext.size(); ++id) {
    const auto& t = c.prefixTableContext[id];
    if (!t.valid) continue;
    U32 longest = 0;
    for (U32 len = t.tread; len <= keyLength; ++len)
      if (least[len] <= t.tread) longest = len;
    const U32 bits = entryBits(t.sramWidth);
    if (longest > bits)
      throw Bad{fields[id] + ".sramWidth",
                std::string("a ") + std::to_string(t.sramWidth) + std::string("-bit entry holds ") + std::to_string(bits) +
                    " key bits, but prefixes up to " + prefixLen(longest, vrf) + std::string(" (") + std::to_string(longest) +
                    std::string(" key bits) may be placed at tread ") + std::to_string(t.tread) + ": it must be 256 bits wide"};
  }
}

XpXdk::xpPrefixTableContext prefixTable(const json& t, const std::string& at, U32 keyLength) {
  expectObject(t, at, {"id", "depth", "sramWidth", "tread", "hashSelector"});
  XpXdk::xpPrefixTableContext p;
  p.valid = true;
  p.depth = integer(t, at, "depth", 2, 1u << 24);
  p.sramWidth = integer(t, at, "sramWidth", 128, 256);
  if (p.sramWidth != 128 && p.sramWidth != 256) throw Bad{at + ".sramWidth", std::string("is ") + std::to_string(p.sramWidth) + ", expected 128 or 256"};
  p.tread = static_cast<U8>(integer(t, at, "tread", 0, keyLength - 1));
  p.hashSelector = static_cast<U8>(integer(t, at, "hashSelector", 0, 3));
  return p;
}

XpXdk::xpLpmTableContext lpmContext(const json& root, bool v6) {
  const std::string where = v6 ? "ipv6" : "ipv4";
  if (!root.contains(where)) throw Bad{where, "missing (the table context of the family)"};
  const json& j = root.at(where);
  expectObject(j, where, {"vrfIdWidth", "keyLength", "prefixTables", "nhiPairPerEntry", "nhiBlockBaseWidth",
                          "nhiTiles", "nhiEntriesPerTile"});
  XpXdk::xpLpmTableContext c;
  c.vrfIdWidth = integer(j, where, "vrfIdWidth", 16, 16);
  c.keyLength = integer(j, where, "keyLength", v6 ? 144 : 48, v6 ? 144 : 48);
  if (!j.contains("prefixTables")) throw Bad{where + ".prefixTables", "missing"};
  const json& tables = j.at("prefixTables");
  if (!tables.is_array() || tables.empty())
    throw Bad{where + ".prefixTables", "is " + describe(tables) + ", expected a non-empty array"};
  std::vector<std::string> fields(XpXdk::xpLpmTableContext::kPrefixTables);
  for (std::size_t i = 0; i < tables.size(); ++i) {
    const std::string at = where + std::string(".prefixTables[") + std::to_string(i) + "]";
    if (!tables[i].is_object()) throw Bad{at, "is " + describe(tables[i]) + ", expected an object"};
    const U32 id = integer(tables[i], at, "id", 0, XpXdk::xpLpmTableContext::kPrefixTables - 1);
    if (c.prefixTableContext[id].valid) throw Bad{at + ".id", std::string("is ") + std::to_string(id) + ", already used by " + fields[id]};
    c.prefixTableContext[id] = prefixTable(tables[i], at, c.keyLength);
    fields[id] = at;
  }
  c.nhiPairPerEntry = static_cast<U8>(integer(j, where, "nhiPairPerEntry", 6, 10));
  if (c.nhiPairPerEntry == 9) throw Bad{where + ".nhiPairPerEntry", "is 9, expected 6, 7, 8 or 10"};
  const U32 pairWidth = XpLib::XpLpm::ConfigBase::nhiPairWidth(c.nhiPairPerEntry);
  c.nhiBlockBaseWidth = static_cast<U8>(integer(j, where, "nhiBlockBaseWidth", 1, pairWidth));
  const U32 tiles = integer(j, where, "nhiTiles", 1, 8);
  if (j.contains("nhiEntriesPerTile") && integer(j, where, "nhiEntriesPerTile", 1, 1u << 16) != kNhiEntriesPerTile)
    throw Bad{where + ".nhiEntriesPerTile", "is " + j.at("nhiEntriesPerTile").dump() +
                                                std::string(", but the library derives ") + std::to_string(kNhiEntriesPerTile) +
                                                " entries per tile from any chip: only " +
                                                std::to_string(kNhiEntriesPerTile) + " can work"};
  c.nhiTileBitmap[0] = static_cast<U8>((1u << tiles) - 1);
  c.nhiTileBitmapValidMask = 1;
  c.nhiTableSize = tiles * kNhiEntriesPerTile;
  checkPlacement(c, where, fields);
  return c;
}

XpXdk::xpChipProfile profileOf(const json& j, const std::string& file) {
  expectObject(j, "", {"schema", "tool", "name", "description", "ipv4", "ipv6", "nextHop"});
  // The header a written profile carries: a later schema may mean fields this reader does not know.
  if (j.contains("schema")) integer(j, "", "schema", kJsonSchema, kJsonSchema);
  if (j.contains("tool") && !j.at("tool").is_object())
    throw Bad{"tool", "is " + describe(j.at("tool")) + ", expected an object (the tool that wrote the profile)"};
  XpXdk::xpChipProfile p;
  p.name = text(j, "name", file);
  p.description = text(j, "description", "profile read from " + file);
  p.ipv4 = lpmContext(j, false);
  p.ipv6 = lpmContext(j, true);
  if (!j.contains("nextHop")) throw Bad{"nextHop", "missing (the next-hop table context)"};
  expectObject(j.at("nextHop"), "nextHop", {"rowBlkInc"});
  p.nextHop.rowBlkInc = integer(j.at("nextHop"), "nextHop", "rowBlkInc", 1, 1u << 20);
  // An NHI pair holds a block's base in nhiBlockBaseWidth bits: each entry of the table must be addressable.
  for (bool v6 : {false, true}) {
    const U32 width = (v6 ? p.ipv6 : p.ipv4).nhiBlockBaseWidth;
    if (width < 32 && p.nextHop.rowBlkInc > (1u << width))
      throw Bad{"nextHop.rowBlkInc", std::string("is ") + std::to_string(p.nextHop.rowBlkInc) + ", but " + (v6 ? "ipv6" : "ipv4") +
                                         std::string(".nhiBlockBaseWidth ") + std::to_string(width) + " addresses only " +
                                         std::to_string(1u << width) + " next-hop entries"};
  }
  return p;
}

json contextJson(const XpXdk::xpLpmTableContext& c) {
  json tables = json::array();
  for (U32 id = 0; id < XpXdk::xpLpmTableContext::kPrefixTables; ++id) {
    const auto& t = c.prefixTableContext[id];
    if (!t.valid) continue;
    tables.push_back({{"id", id}, {"depth", t.depth}, {"sramWidth", t.sramWidth}, {"tread", t.tread},
                      {"hashSelector", t.hashSelector}});
  }
  const int tiles = static_cast<int>(c.nhiTiles());
  return {{"vrfIdWidth", c.vrfIdWidth},
          {"keyLength", c.keyLength},
          {"prefixTables", tables},
          {"nhiPairPerEntry", c.nhiPairPerEntry},
          {"nhiBlockBaseWidth", c.nhiBlockBaseWidth},
          {"nhiTiles", tiles},
          {"nhiEntriesPerTile", tiles ? c.nhiTableSize / tiles : 0}};
}

XpLib::U64 lineOf(std::string_view text, std::size_t position) {
  const std::size_t upto = std::min(position, text.size());
  return 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(upto), '\n');
}

}  // namespace

XpXdk::xpChipProfile readProfileText(const std::string& file, std::string_view text) {
  PathReader reader;
  if (!json::sax_parse(text, &reader)) {
    const Bad& bad = reader.failure();
    if (bad.what == "given twice") throw BadInput({{file + ": " + bad.field, bad.what, file}});
    const XpLib::U64 line = lineOf(text, reader.position());
    const std::string where = file + ":" + std::to_string(line);
    throw BadInput({{bad.field.empty() ? where : where + ": " + bad.field, "not valid JSON: " + bad.what, file, line}});
  }
  try {
    return profileOf(reader.root(), file);
  } catch (const Bad& b) {
    throw BadInput({{b.field.empty() ? file : file + ": " + b.field, b.what, file}});
  }
}

XpXdk::xpChipProfile loadProfile(const std::string& name, const std::string& option) {
  const bool file = name.find('/') != std::string::npos || (name.size() >= 5 && name.substr(name.size() - 5) == ".json");
  if (!file) {
    if (const auto* p = XpXdk::findChipProfile(name)) return *p;
    std::string known;
    for (const auto& p : XpXdk::builtinChipProfiles()) known += (known.empty() ? "" : ", ") + p.name;
    badInput(option, "unknown profile '" + name + "' (built-in: " + known + "; or a FILE.json)");
  }
  std::ifstream in(name, std::ios::binary);
  if (!in) badFile(name, 0, "cannot open the file");
  constexpr std::size_t kMaxBytes = 1 << 20;
  std::string text(kMaxBytes + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in.bad()) badFile(name, 0, "cannot read the file");
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > kMaxBytes) badFile(name, 0, "larger than 1 MiB: not a chip profile");
  return readProfileText(name, text);
}

std::string profileJson(const XpXdk::xpChipProfile& p) {
  json j = documentHeader("");
  j.update({{"name", p.name},
            {"description", p.description},
            {"ipv4", contextJson(p.ipv4)},
            {"ipv6", contextJson(p.ipv6)},
            {"nextHop", {{"rowBlkInc", p.nextHop.rowBlkInc}}}});
  return j.dump(2);
}

}  // namespace xplpm
