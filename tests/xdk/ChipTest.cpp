// Tests of the simulated chip: lookups against a brute-force longest match, entry checks, SDK return codes.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "xdk/xpChip.h"
#include "xdk/xpHashPolynomials.h"

using namespace XpXdk;

namespace {

using KeyBytes = std::array<U8, 18>;

bool keyBit(const KeyBytes& k, U32 i) { return (k[i / 8] >> (7 - i % 8)) & 1; }
void setKeyBit(KeyBytes& k, U32 i, bool v) { k[i / 8] = U8((k[i / 8] & ~(0x80 >> i % 8)) | (v ? 0x80 >> i % 8 : 0)); }

struct TableSpec {
  U32 id, tread, depth, selector;
};

// Two NHI tiles (one bit in each valid bitmap byte; byte 2 lies outside the mask), 3 pairs per entry.
xpLpmTableContext makeContext(U32 keyLength, const std::vector<TableSpec>& tables, U32 nhiEntries = 128) {
  xpLpmTableContext c;
  c.vrfIdWidth = 16;
  c.keyLength = keyLength;
  for (const auto& t : tables)
    c.prefixTableContext[t.id] = {true, t.depth, t.id % 2 ? 128u : 256u, U8(t.tread), U8(t.selector)};
  c.nhiTableSize = nhiEntries;
  c.nhiPairPerEntry = 3;
  c.nhiTileBitmap = {0x01, 0x02, 0xFF};
  c.nhiTileBitmapValidMask = 0x03;
  return c;
}

// Depth 1000 (not a power of two) hashes to 9 bits; treads 30 and 17 are not byte multiples.
const xpLpmTableContext kV4 = makeContext(48, {{0, 24, 64, 0}, {2, 16, 4, 1}, {3, 40, 1000, 2}, {7, 30, 256, 3}});
const xpLpmTableContext kV6 = makeContext(
    144, {{1, 16, 16, 0}, {4, 60, 512, 0}, {5, 60, 512, 1}, {9, 17, 64, 2}, {12, 80, 256, 3}, {20, 144, 128, 1}});

// The position of a key in a table, from the chip's definition, one bit at a time.
U32 positionOf(const xpLpmTableContext& c, U32 t, const KeyBytes& key) {
  const xpPrefixTableContext& tc = c.prefixTableContext[t];
  U32 bits = 0;
  while ((2ull << bits) <= tc.depth) ++bits;
  KeyBytes vec{};
  for (U32 i = 0; i < tc.tread; ++i)
    if (keyBit(key, i)) vec[(143 - i) / 8] |= U8(1u << ((143 - i) % 8));
  return crcHashFunction(144, bits, lpmHashPolynomial(t, tc.hashSelector), 1, tc.tread).hash(XpBitVector(vec, 144));
}

xpLpmPrefixEntry encodeEntry(const KeyBytes& key, U32 branchLen, U8 numSlots) {
  xpLpmPrefixEntry e;
  e.mode = 1;
  e.stride = 8;
  e.numSlots = numSlots;
  e.branchLen = U8(branchLen);
  for (U32 i = 0; i < branchLen; ++i)
    if (keyBit(key, i)) e.branch[(branchLen - 1 - i) / 8] |= U8(1u << ((branchLen - 1 - i) % 8));
  return e;
}

xpLpmLeaf encodeLeaf(const KeyBytes& key, U32 branchLen, U32 len) {
  U32 p = len - branchLen;
  U64 w[2] = {0, 0};
  w[p / 64] |= U64(1) << (p % 64);
  for (U32 j = 0; j < p; ++j)
    if (keyBit(key, branchLen + j)) w[(p - 1 - j) / 64] |= U64(1) << ((p - 1 - j) % 64);
  return {w[0], w[1]};
}

struct Route {
  KeyBytes key;  // bits beyond len are zero
  U32 len, table, position, slot;
  xpLpmNhiPair nextHops;
};

// Writes hand-encoded entries into one memory and keeps every route written, for a brute-force longest match.
class Model {
 public:
  explicit Model(xpLpmMemory& memory) : memory_(memory) {}

  // One entry holding `prefixes` (key, length, slot) under their common first branchLen bits. Nothing is
  // written when the position is taken, a prefix was written before, or the NHI tile is full.
  void addEntry(U32 table, U32 branchLen, std::vector<Route> prefixes, U8 numSlots) {
    const xpLpmTableContext& c = memory_.context();
    U32 position = positionOf(c, table, prefixes[0].key);
    if (!taken_.insert({table, position}).second) return;
    for (auto& p : prefixes) {
      for (U32 i = p.len; i < 144; ++i) setKeyBit(p.key, i, false);
      if (!written_.insert({p.key, p.len}).second) return;
    }
    xpLpmPrefixEntry e = encodeEntry(prefixes[0].key, branchLen, numSlots);
    e.keySize = c.keyLength == 48 ? 0 : 2;
    U32 blocks = (numSlots + c.nhiPairPerEntry - 1) / c.nhiPairPerEntry;
    e.nhiTile = U8(tile_++ % memory_.nhiTiles());
    if (nextOffset_[e.nhiTile] + blocks > memory_.nhiEntriesPerTile()) return;
    e.nhiOffset = U16(nextOffset_[e.nhiTile]);
    nextOffset_[e.nhiTile] += blocks;
    std::vector<xpLpmNhiEntry> nhi(blocks);
    for (Route& p : prefixes) {
      e.slots[p.slot] = encodeLeaf(p.key, branchLen, p.len);
      p.table = table;
      p.position = position;
      p.nextHops = {U32(routes_.size() + 1000), U16(p.len)};
      nhi[p.slot / c.nhiPairPerEntry].pair[p.slot % c.nhiPairPerEntry] = p.nextHops;
      routes_.push_back(p);
    }
    for (U32 i = 0; i < blocks; ++i) ASSERT_EQ(memory_.writeNhiEntry(e.nhiTile, e.nhiOffset + i, nhi[i]), XP_NO_ERR);
    ASSERT_EQ(memory_.writePrefixEntry(table, position, e), XP_NO_ERR);
  }

  std::optional<Route> longestMatch(const KeyBytes& key) const {
    std::optional<Route> best;
    for (const Route& r : routes_) {
      U32 whole = r.len / 8, rest = r.len % 8;
      if ((best && r.len <= best->len) || std::memcmp(key.data(), r.key.data(), whole) != 0) continue;
      if (!rest || !((key[whole] ^ r.key[whole]) & U8(0xFF00 >> rest))) best = r;
    }
    return best;
  }

  const std::vector<Route>& routes() const { return routes_; }

 private:
  xpLpmMemory& memory_;
  std::set<std::pair<U32, U32>> taken_;
  std::set<std::pair<KeyBytes, U32>> written_;
  std::vector<Route> routes_;
  U32 tile_ = 0;
  std::array<U32, 8> nextOffset_{};
};

KeyBytes randomKey(std::mt19937& rng, U32 keyLength) {
  KeyBytes k{};
  k[1] = U8(rng() % 4);                              // VRF 0..3
  k[2] = std::array<U8, 3>{10, 32, 192}[rng() % 3];  // few first address bytes, so that prefixes nest
  for (U32 i = 3; i < keyLength / 8; ++i) k[i] = U8(rng());
  return k;
}

// Random entries: branches past the tread, holes between slots, leaves up to 127 bits, some with long zero
// runs; then keys inside a route, one bit off a route, and anywhere, each checked against the brute force.
// A key inside a route has random bits past it, and so past every tread, yet must land at its position.
void checkAgainstBruteForce(const xpLpmTableContext& context, U32 seed, U32 entries, U32 keys) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::printf("[ seed     ] %u\n", seed);
  std::mt19937 rng(seed);
  xpLpmMemory memory(context);
  Model model(memory);
  const U32 keyLength = context.keyLength;
  std::vector<U32> tables;
  for (U32 t = 0; t < 32; ++t)
    if (context.prefixTableContext[t].valid) tables.push_back(t);
  auto copyRoute = [&](KeyBytes& k) {
    const Route& r = model.routes()[rng() % model.routes().size()];
    for (U32 i = 0; i < r.len; ++i) setKeyBit(k, i, keyBit(r.key, i));
    return r.len;
  };
  for (U32 n = 0; n < entries; ++n) {
    U32 t = tables[rng() % tables.size()];
    U32 tread = context.prefixTableContext[t].tread;
    KeyBytes base = randomKey(rng, keyLength);
    if (!model.routes().empty() && rng() % 2) copyRoute(base);  // nest under an earlier route
    U32 branchLen = tread + rng() % (std::min(8u, keyLength - tread) + 1);
    U32 maxP = std::min(127u, keyLength - branchLen);
    U8 numSlots = U8(1 + rng() % xpLpmPrefixEntry::kMaxSlots);
    std::vector<Route> prefixes;
    for (U32 s = 0; s < numSlots; ++s) {
      if (rng() % 3 == 0) continue;  // a hole
      bool zeros = rng() % 8 == 0;
      KeyBytes k = base;
      for (U32 i = branchLen; i < keyLength; ++i) setKeyBit(k, i, !zeros && (rng() & 1));
      prefixes.push_back({k, branchLen + (rng() % 4 == 0 ? maxP : U32(rng() % (maxP + 1))), 0, 0, s, {}});
    }
    if (!prefixes.empty()) model.addEntry(t, branchLen, prefixes, numSlots);
  }
  std::vector<xpLpmKey> lookups(keys);
  U32 hits = 0;
  U64 lengthSum = 0;
  for (U32 n = 0; n < keys; ++n) {
    KeyBytes& k = lookups[n].bytes = randomKey(rng, keyLength);
    lookups[n].keyLength = keyLength;
    if (n % 3 == 1) copyRoute(k);
    if (n % 3 == 2) {  // one bit off a route
      U32 len = copyRoute(k);
      U32 i = rng() % len;
      setKeyBit(k, i, !keyBit(k, i));
    }
    std::optional<Route> want = model.longestMatch(k);
    xpLpmLookupResult got = memory.lookup(lookups[n]);
    ASSERT_EQ(got.hit, want.has_value()) << "key " << n;
    if (!want) continue;
    ++hits;
    lengthSum += got.matchLength;
    EXPECT_EQ(std::tuple(got.matchLength, got.tableId, got.position, got.slot, got.nextHopBlock.base),
              std::tuple(want->len, want->table, want->position, want->slot, want->nextHops.base))
        << "key " << n;
  }
  EXPECT_GT(hits, keys / 3);
  // Lookup cost, reported only: the same keys again, checked by their sum.
  const U32 rounds = 20;
  U64 again = 0;
  auto start = std::chrono::steady_clock::now();
  for (U32 r = 0; r < rounds; ++r)
    for (const auto& key : lookups) again += memory.lookup(key).matchLength;
  double ns = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(again, lengthSum * rounds);
  std::printf("[ cost     ] %zu tables, %zu routes, %u of %u keys hit: %.0f ns per lookup\n", tables.size(),
              model.routes().size(), hits, keys, ns / (rounds * keys));
}

TEST(ChipLookup, MatchesBruteForceIpv4) { checkAgainstBruteForce(kV4, 4401, 300, 6000); }
TEST(ChipLookup, MatchesBruteForceIpv6) { checkAgainstBruteForce(kV6, 6601, 300, 6000); }
const KeyBytes kKey = xpLpmKey::ipv4(1, 0x0A0102F3).bytes;

TEST(ChipLookup, EntryFieldsDecideTheMatch) {
  struct Case {
    const char* name;
    void (*change)(xpLpmPrefixEntry&);
    U32 length;  // 0: miss
  };
  const std::vector<Case> cases = {
      {"as written", [](xpLpmPrefixEntry&) {}, 37},
      {"key size of a 144-bit key", [](xpLpmPrefixEntry& e) { e.keySize = 2; }, 0},
      {"bitmap mode", [](xpLpmPrefixEntry& e) { e.mode = 2; }, 0},
      {"branch bit 25 flipped (past the tread)", [](xpLpmPrefixEntry& e) { e.branch[0] ^= 0x02; }, 0},
      {"branch bit 10 flipped (within the tread)", [](xpLpmPrefixEntry& e) { e.branch[2] ^= 0x01; }, 0},
      {"bits above the branch are ignored", [](xpLpmPrefixEntry& e) { e.branch[3] |= 0xF8, e.branch[9] = 1; }, 37},
      {"slot 1 bit flipped", [](xpLpmPrefixEntry& e) { e.slots[1].leafVal ^= 1; }, 27},
      {"slot longer than the key", [](xpLpmPrefixEntry& e) { e.slots[2] = encodeLeaf(kKey, 27, 49); }, 37},
      {"slots emptied", [](xpLpmPrefixEntry& e) { e.slots[0] = e.slots[1] = {}; }, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    xpLpmMemory memory(kV4);
    xpLpmPrefixEntry e = encodeEntry(kKey, 27, 3);  // table 0, tread 24: a /27 in slot 0 and a /37 in slot 1
    e.slots[0] = encodeLeaf(kKey, 27, 27);
    e.slots[1] = encodeLeaf(kKey, 27, 37);
    c.change(e);
    ASSERT_EQ(memory.writePrefixEntry(0, positionOf(kV4, 0, kKey), e), XP_NO_ERR);
    xpLpmLookupResult r = memory.lookup(xpLpmKey::ipv4(1, 0x0A0102F3));
    EXPECT_EQ(r.hit ? r.matchLength : 0, c.length);
  }
}

TEST(ChipLookup, LongestAcrossTablesAndLowestIdOnTies) {
  xpLpmMemory memory(kV4);
  auto write = [&](U32 table, U32 branchLen, U32 len) {
    xpLpmPrefixEntry e = encodeEntry(kKey, branchLen, 1);
    e.slots[0] = encodeLeaf(kKey, branchLen, len);
    ASSERT_EQ(memory.writePrefixEntry(table, positionOf(kV4, table, kKey), e), XP_NO_ERR);
  };
  auto winner = [&] {
    xpLpmLookupResult r = memory.lookup(xpLpmKey::ipv4(1, 0x0A0102F3));
    return std::pair<U32, U32>(r.tableId, r.matchLength);
  };
  write(0, 24, 28);
  write(3, 40, 40);
  EXPECT_EQ(winner(), std::pair(3u, 40u));
  write(7, 30, 44);
  EXPECT_EQ(winner(), std::pair(7u, 44u));
  write(0, 24, 44);  // ties table 7
  EXPECT_EQ(winner(), std::pair(0u, 44u));
  ASSERT_EQ(memory.writePrefixEntry(0, positionOf(kV4, 0, kKey), xpLpmPrefixEntry()), XP_NO_ERR);
  EXPECT_EQ(winner(), std::pair(7u, 44u));
}

TEST(ChipLookup, NumSlotsBoundsTheSlotsAndPicksTheNhiPair) {
  xpLpmMemory memory(kV4);
  xpLpmPrefixEntry e = encodeEntry(kKey, 24, 0);
  e.nhiTile = 1;
  e.nhiOffset = 7;
  e.slots[1] = encodeLeaf(kKey, 24, 26);
  e.slots[3] = encodeLeaf(kKey, 24, 30);
  e.slots[4] = encodeLeaf(kKey, 24, 32);
  xpLpmNhiEntry second;  // slots 3..5
  second.pair[0] = {300, 3};
  second.pair[1] = {400, 4};
  ASSERT_EQ(memory.writeNhiEntry(1, 8, second), XP_NO_ERR);
  struct Case {
    U8 numSlots;
    U32 slot, length;  // length 0: miss
    xpLpmNhiPair nextHops;
  };
  for (const Case& c : {Case{0, 0, 0, {}}, Case{1, 0, 0, {}}, Case{2, 1, 26, {}}, Case{4, 3, 30, {300, 3}},
                        Case{5, 4, 32, {400, 4}}, Case{200, 4, 32, {400, 4}}}) {
    SCOPED_TRACE("numSlots " + std::to_string(c.numSlots));
    e.numSlots = c.numSlots;
    ASSERT_EQ(memory.writePrefixEntry(0, positionOf(kV4, 0, kKey), e), XP_NO_ERR);
    xpLpmLookupResult r = memory.lookup(xpLpmKey::ipv4(1, 0x0A0102F3));
    EXPECT_EQ(r.hit ? r.matchLength : 0, c.length);
    if (!r.hit) continue;
    EXPECT_EQ(r.slot, c.slot);
    EXPECT_EQ(r.nextHopBlock, c.nextHops);
  }
}

TEST(ChipMemory, OutOfRangeAccessesReturn11) {
  xpChip chip(kV4, kV6, xpNhTableContext{32});
  xpLpmMemory& v4 = chip.lpm(false);
  xpLpmPrefixEntry entry;
  xpLpmNhiEntry nhi;
  xpNhEntry nh{0xABCD};
  EXPECT_EQ(v4.readPrefixEntry(3, 999, &entry), XP_NO_ERR);
  EXPECT_TRUE(entry.empty());  // never written
  EXPECT_EQ(v4.readPrefixEntry(3, 1000, &entry), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(v4.writePrefixEntry(0, 64, entry), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(v4.readPrefixEntry(1, 0, &entry), XP_ERR_OUT_OF_RANGE);  // not a valid table
  EXPECT_EQ(v4.writePrefixEntry(1, 0, entry), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(v4.readPrefixEntry(32, 0, &entry), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(v4.readNhiEntry(1, 63, &nhi), XP_NO_ERR);
  EXPECT_EQ(v4.readNhiEntry(2, 0, &nhi), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(v4.writeNhiEntry(0, 64, nhi), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(chip.writeNextHop(32, nh), XP_ERR_OUT_OF_RANGE);
  EXPECT_EQ(chip.readNextHop(32, &nh), XP_ERR_OUT_OF_RANGE);
  ASSERT_EQ(chip.writeNextHop(31, nh), XP_NO_ERR);
  nh = {};
  ASSERT_EQ(chip.readNextHop(31, &nh), XP_NO_ERR);
  EXPECT_EQ(nh.data, 0xABCDu);
}

TEST(ChipMemory, ManagerCountsFailsOnceAndFreesZeroedPositions) {
  xpChip chip(kV4, kV6, xpNhTableContext{8});
  xpSimLpmMgr& mgr = chip.lpmMgr(true);
  xpLpmPrefixEntry written = encodeEntry(kKey, 30, 1);
  ASSERT_EQ(mgr.writePrefixEntry(0, 4, 5, &written), XP_NO_ERR);
  ASSERT_EQ(mgr.writePrefixEntry(0, 4, 6, &written), XP_NO_ERR);
  EXPECT_EQ(chip.lpm(true).occupied(4), 2u);
  EXPECT_EQ(chip.lpm(false).occupied(4), 0u);
  mgr.failPrefixEntryReadIs(4, 5, XP_ERR_INVALID_DATA);
  mgr.failNhiEntryReadIs(1, 3, XP_ERR_INVALID_ARG);
  xpLpmPrefixEntry read;
  xpLpmNhiEntry nhi;
  EXPECT_EQ(mgr.readPrefixEntry(0, 4, 6, &read, 0), XP_NO_ERR);
  EXPECT_EQ(mgr.readPrefixEntry(0, 4, 5, &read, 0), XP_ERR_INVALID_DATA);
  EXPECT_EQ(mgr.readPrefixEntry(0, 4, 5, &read, 0), XP_NO_ERR);
  EXPECT_EQ(read, written);
  EXPECT_EQ(mgr.readNhiEntry(0, 1, 3, &nhi, 0), XP_ERR_INVALID_ARG);
  EXPECT_EQ(mgr.readNhiEntry(0, 1, 3, &nhi, 0), XP_NO_ERR);
  EXPECT_EQ(mgr.reads(), 5u);
  EXPECT_EQ(mgr.writes(), 2u);
  const xpLpmPrefixEntry zero;
  ASSERT_EQ(mgr.writePrefixEntry(0, 4, 5, &zero), XP_NO_ERR);
  EXPECT_EQ(chip.lpm(true).occupied(4), 1u);
  EXPECT_EQ(chip.lpm(true).entries(4).count(6), 1u);
  ASSERT_EQ(mgr.readPrefixEntry(0, 4, 5, &read, 0), XP_NO_ERR);
  EXPECT_TRUE(read.empty());
}

// The table packs its entries and fills a removal's hole with the last one: after any history of
// writes and clears, every position reads its last write and iteration names each entry once.
TEST(ChipMemory, PackedTableReadsEveryPositionsLastWrite) {
  xpLpmMemory v4(kV4);
  const U32 table = 3, depth = 1000;
  std::map<U32, xpLpmPrefixEntry> want;
  std::mt19937 rng(7);
  for (int step = 0; step < 20000; ++step) {
    const U32 position = rng() % 64 * 15;  // a few positions, hit again and again
    xpLpmPrefixEntry e;
    if (rng() % 3) {
      e = encodeEntry(kKey, 40, 1);
      e.nhiOffset = static_cast<U16>(step);
      want[position] = e;
    } else {
      want.erase(position);
    }
    ASSERT_EQ(v4.writePrefixEntry(table, position, e), XP_NO_ERR);
    ASSERT_EQ(v4.occupied(table), want.size());
    std::map<U32, xpLpmPrefixEntry> held;
    for (const auto& [pos, entry] : v4.entries(table)) ASSERT_TRUE(held.emplace(pos, entry).second) << pos;
    ASSERT_EQ(held, want) << "step " << step;
  }
  xpLpmPrefixEntry read;
  for (U32 position = 0; position < depth; ++position) {
    ASSERT_EQ(v4.readPrefixEntry(table, position, &read), XP_NO_ERR);
    EXPECT_EQ(read, want.count(position) ? want[position] : xpLpmPrefixEntry()) << position;
  }
  EXPECT_THROW(v4.entries(table).at(1), std::out_of_range);
}

}  // namespace
