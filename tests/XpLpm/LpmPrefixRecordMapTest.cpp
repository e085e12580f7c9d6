// Tests of the route-keyed collections that keep their entries in the key objects: whatever keys
// they meet and however many collections of one field share the objects, each behaves as the
// plain hash map it stands for, iteration order included.
#include "XpLpm/LpmPrefixRecordMap.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "XpLpm/Config.h"

namespace XpLib {
namespace XpLpm {
namespace {

using RecordMap = LpmPrefixRecordMap<RequestField>;
using PlainMap = LpmPrefixMap<NextHopBlock>;

std::vector<std::pair<Ptr<LpmPrefix>, NextHopBlock>> contents(const RecordMap& m) {
  std::vector<std::pair<Ptr<LpmPrefix>, NextHopBlock>> out;
  for (const auto& e : m) out.emplace_back(e.first, e.second);
  return out;
}

std::vector<std::pair<Ptr<LpmPrefix>, NextHopBlock>> contents(const PlainMap& m) {
  std::vector<std::pair<Ptr<LpmPrefix>, NextHopBlock>> out;
  for (const auto& [p, v] : m) out.emplace_back(p, v);
  return out;
}

// Keys of every kind a collection can meet: one configuration's objects, another's, and objects
// made outside any; several collections of the field over them at once, some of which empty out
// and start again (giving up and taking the records of a configuration).
TEST(LpmPrefixRecordMapTest, SeveralCollectionsOfOneFieldEachActAsAPlainMap) {
  struct Case {
    const char* name;
    U32 collections;
    bool foreign;  // keys of a second configuration and unmanaged objects too
  };
  for (const Case& c : {Case{"one collection, one configuration", 1, false},
                        Case{"three collections over one configuration", 3, false},
                        Case{"three collections, keys of every kind", 3, true}}) {
    SCOPED_TRACE(c.name);
    Ptr<ConfigV4> cfg = configV4Factory("a");
    Ptr<ConfigV4> other = configV4Factory("b");
    std::vector<Ptr<LpmPrefix>> keys;
    for (U32 i = 0; i < 24; ++i) keys.push_back(cfg->newLpmPrefix(VrfAndPrefix{1, Prefix(0x0A000000u + (i << 8), 24)}));
    if (c.foreign) {
      for (U32 i = 0; i < 8; ++i) keys.push_back(other->newLpmPrefix(VrfAndPrefix{1, Prefix(0x0A000000u + (i << 8), 24)}));
      for (U32 i = 0; i < 8; ++i) keys.push_back(lpmPrefixV4Factory(VrfAndPrefix{2, Prefix(0x0B000000u + (i << 8), 24)}));
    }
    std::vector<std::unique_ptr<RecordMap>> maps;
    std::vector<PlainMap> want(c.collections);
    for (U32 m = 0; m < c.collections; ++m) maps.push_back(std::make_unique<RecordMap>());

    std::mt19937 rng(7);
    for (int op = 0; op < 20000; ++op) {
      const U32 m = rng() % c.collections;
      const Ptr<LpmPrefix>& k = keys[rng() % keys.size()];
      const U32 what = rng() % 10;
      if (what < 5) {
        const NextHopBlock v(rng() % 4, 1);
        const bool changed = !want[m].contains(k) || want[m].get(k) != v;
        want[m].set(k, v);
        ASSERT_EQ(maps[m]->assign(k, v), changed) << "op " << op;
      } else if (what < 8) {
        ASSERT_EQ(maps[m]->erase(k), want[m].erase(k)) << "op " << op;
      } else if (what < 9) {
        // Empty one out now and then, so that it lets go of the records and others may take them.
        while (!want[m].empty()) {
          const Ptr<LpmPrefix> first = (*want[m].begin()).first;
          want[m].erase(first);
          ASSERT_TRUE(maps[m]->erase(first));
        }
      }
      for (U32 n = 0; n < c.collections; ++n) {
        ASSERT_EQ(maps[n]->contains(k), want[n].contains(k)) << "op " << op << " collection " << n;
        ASSERT_EQ(maps[n]->get(k), want[n].get(k)) << "op " << op << " collection " << n;
        ASSERT_EQ(maps[n]->size(), want[n].size()) << "op " << op << " collection " << n;
      }
      if (op % 97 == 0)
        for (U32 n = 0; n < c.collections; ++n) ASSERT_EQ(contents(*maps[n]), contents(want[n])) << "op " << op;
    }
    // A collection that goes away gives its records back: a new one keeps its entries there.
    maps.clear();
    RecordMap fresh;
    fresh.assign(keys[0], NextHopBlock(9, 1));
    EXPECT_EQ(keys[0]->record().request, NextHopBlock(9, 1));
  }
}

}  // namespace
}  // namespace XpLpm
}  // namespace XpLib
