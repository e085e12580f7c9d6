// The simulated chip: LPM table memories, their SDK accessor, the next-hop table and the chip's lookup.
//
// Lookup never walks the key bit by bit. It holds the key once as a 144-bit unsigned integer (key
// bit 0 is integer bit 143), the form of the branch field (right-aligned, least significant byte
// first) and of the reversed hash key, so a branch compares with a shift and a mask; and once as
// words with key bit 0 on top, from which the 128 key bits below a branch are two shifts. A slot's
// leaf (marker at bit p, the p prefix bits below it) then compares with that window shifted right
// by 128 - p.
#include "xdk/xpChip.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <string>

#include "xdk/xpHashPolynomials.h"

namespace XpXdk {

namespace {

constexpr U32 kKeyBits = kLpmKeyBits;
constexpr U32 kKeyBytes = kLpmKeyBytes;
constexpr U8 kNoKeySize = 0xFF;  // a key length the chip does not look up
using KeyBytes = std::array<U8, kKeyBytes>;

// A value of up to 144 bits, least significant word first. The three words above the value stay
// zero so that a shift right by up to 144 bits reads within the array without a branch.
using Wide = std::array<U64, 6>;
// A field of up to 144 bits cut out of a Wide, least significant word first.
using Field = std::array<U64, 3>;

// Bytes given least significant first: the branch field.
Wide wideFromLeBytes(const KeyBytes& bytes) {
  Wide w{};
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(w.data(), bytes.data(), kKeyBytes);
  } else {
    for (U32 i = 0; i < kKeyBytes; ++i) w[i / 8] |= U64(bytes[i]) << (8 * (i % 8));
  }
  return w;
}

// Word by word: one 18-byte copy would load the words with wide loads, which stall on words just
// stored in parts.
KeyBytes leBytesFromWide(const Wide& w) {
  KeyBytes bytes;
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(bytes.data(), &w[0], 8);
    std::memcpy(bytes.data() + 8, &w[1], 8);
    std::memcpy(bytes.data() + 16, &w[2], 2);
  } else {
    for (U32 i = 0; i < kKeyBytes; ++i) bytes[i] = static_cast<U8>(w[i / 8] >> (8 * (i % 8)));
  }
  return bytes;
}

U64 lowMask(U32 bits) { return bits >= 64 ? ~U64(0) : (U64(1) << bits) - 1; }

// Bits shift .. shift + bits - 1 of x, right-aligned. Requires: shift <= 144, bits <= 192.
Field field(const Wide& x, U32 shift, U32 bits) {
  U32 q = shift / 64, r = shift % 64;
  Field out;
  for (U32 i = 0; i < 3; ++i) out[i] = r ? (x[q + i] >> r) | (x[q + i + 1] << (64 - r)) : x[q + i];
  for (U32 i = 0; i < 3; ++i) {
    U32 inWord = bits > 64 * i ? bits - 64 * i : 0;
    out[i] &= inWord ? lowMask(inWord) : 0;
  }
  return out;
}

U8 keySizeCode(U32 keyLength) {
  if (keyLength == 48) return xpLpmPrefixEntry::kKeySizeShort;
  if (keyLength == 144) return xpLpmPrefixEntry::kKeySizeLong;
  return kNoKeySize;
}

// A looked-up key in the two forms matching needs, built once per lookup.
struct KeyView {
  Wide value{};                 // the key as an integer: key bit i is bit 143 - i
  std::array<U64, 5> words{};  // key bit 64k + j in bit 63 - j of word k; zero past the key
  U32 length;
  U8 keySize;

  explicit KeyView(const xpLpmKey& key) : length(key.keyLength), keySize(keySizeCode(key.keyLength)) {
    for (U32 i = 0; i < kKeyBytes; ++i) words[i / 8] |= U64(key.bytes[i]) << (56 - 8 * (i % 8));
    value[0] = (words[1] << 16) | (words[2] >> 48);
    value[1] = (words[0] << 16) | (words[1] >> 48);
    value[2] = words[0] >> 48;
  }

  // Key bits a .. a + 63, key bit a in bit 63. Requires: a <= 208.
  U64 bits64(U32 a) const {
    U32 k = a / 64, r = a % 64;
    return r ? (words[k] << r) | (words[k + 1] >> (64 - r)) : words[k];
  }
};

// Position of the marker bit: the number of prefix bits the leaf holds below the branch.
U32 markerBit(const xpLpmLeaf& leaf) {
  if (leaf.leafValHigh) return 127 - std::countl_zero(leaf.leafValHigh);
  return 63 - std::countl_zero(leaf.leafVal);
}

// The entry's branch, decoded from the field and cut to branchLen bits; bits above it are ignored,
// as recovery ignores them.
bool branchMatches(const xpLpmPrefixEntry& entry, const KeyView& key) {
  U32 len = entry.branchLen;
  return field(wideFromLeBytes(entry.branch), 0, len) == field(key.value, kKeyBits - len, len);
}

// The 128 key bits below the branch, as two words with the first of them in bit 63 of `high`.
struct Window {
  U64 high, low;
};

// Whether the p key bits at the top of the window equal the leaf's bits below its marker at p.
// Shifting the window right by 128 - p brings those key bits to the leaf's places.
bool leafMatches(const Window& w, const xpLpmLeaf& leaf, U32 p) {
  if (p == 0) return true;
  U32 s = 128 - p;  // 1..127
  U64 high = s >= 64 ? 0 : w.high >> s;
  U64 low = s >= 64 ? w.high >> (s - 64) : (w.low >> s) | (w.high << (64 - s));
  U64 markerLow = p < 64 ? U64(1) << p : 0;
  U64 markerHigh = p >= 64 ? U64(1) << (p - 64) : 0;
  return low == (leaf.leafVal ^ markerLow) && high == (leaf.leafValHigh ^ markerHigh);
}

struct SlotMatch {
  U32 slot = 0;
  U32 length = 0;
};

// The longest slot of the entry that matches the key, if any.
std::optional<SlotMatch> matchEntry(const xpLpmPrefixEntry& entry, const KeyView& key) {
  if (entry.mode != xpLpmPrefixEntry::kModeSparse || entry.keySize != key.keySize) return std::nullopt;
  U32 branchLen = entry.branchLen;
  if (branchLen > key.length || !branchMatches(entry, key)) return std::nullopt;
  const Window window{key.bits64(branchLen), key.bits64(branchLen + 64)};
  std::optional<SlotMatch> best;
  U32 slots = std::min<U32>(entry.numSlots, xpLpmPrefixEntry::kMaxSlots);
  for (U32 s = 0; s < slots; ++s) {
    const xpLpmLeaf& leaf = entry.slots[s];
    if (leaf.empty()) continue;
    U32 p = markerBit(leaf);
    U32 length = branchLen + p;
    if (length > key.length || (best && length <= best->length)) continue;
    if (leafMatches(window, leaf, p)) best = SlotMatch{s, length};
  }
  return best;
}

// The hash key bytes of a table: the key cut to its first `tread` bits, bytes reversed (vector byte j
// is key byte 17 - j), which is the key integer's bytes least significant first with its low
// 144 - tread bits cleared.
KeyBytes cutKey(const Wide& key, U32 tread) {
  U32 dropped = kKeyBits - tread;
  auto keep = [dropped](U64 word, U32 low) {  // `low`: the integer bit that is bit 0 of the word
    if (dropped >= low + 64) return U64(0);
    return dropped > low ? word & ~lowMask(dropped - low) : word;
  };
  Wide cut{keep(key[0], 0), keep(key[1], 64), keep(key[2], 128)};
  return leBytesFromWide(cut);
}

void require(bool ok, const std::string& what) {
  if (!ok) throw std::invalid_argument("xpLpmMemory: " + what);
}

U64 positionKey(U32 a, U32 b) { return (U64(a) << 32) | b; }

}  // namespace

xpLpmKey xpLpmKey::ipv4(U32 vrf, U32 address) {
  xpLpmKey key;
  key.keyLength = 48;
  key.bytes[0] = static_cast<U8>(vrf >> 8);
  key.bytes[1] = static_cast<U8>(vrf);
  for (U32 i = 0; i < 4; ++i) key.bytes[2 + i] = static_cast<U8>(address >> (24 - 8 * i));
  return key;
}

xpLpmKey xpLpmKey::ipv6(U32 vrf, const std::array<U8, 16>& address) {
  xpLpmKey key;
  key.keyLength = 144;
  key.bytes[0] = static_cast<U8>(vrf >> 8);
  key.bytes[1] = static_cast<U8>(vrf);
  std::copy(address.begin(), address.end(), key.bytes.begin() + 2);
  return key;
}

const xpLpmPrefixEntry& xpPrefixTableStore::at(U32 position) const {
  const xpLpmPrefixEntry* e = find(position);
  if (!e) throw std::out_of_range("no prefix entry at position " + std::to_string(position));
  return *e;
}

void xpPrefixTableStore::put(U32 position, const xpLpmPrefixEntry& entry) {
  U32& place = placeOf_.at(position);
  if (place) {
    entries_[place - 1] = entry;
    return;
  }
  entries_.push_back(entry);
  positions_.push_back(position);
  place = size();
}

void xpPrefixTableStore::erase(U32 position) {
  if (position >= placeOf_.size() || !placeOf_[position]) return;
  const U32 hole = placeOf_[position] - 1, last = size() - 1;
  if (hole != last) {
    entries_[hole] = entries_[last];
    positions_[hole] = positions_[last];
    placeOf_[positions_[hole]] = hole + 1;
  }
  entries_.pop_back();
  positions_.pop_back();
  placeOf_[position] = 0;
}

// Throws std::invalid_argument for a valid table the chip could not hash into (depth below 2, tread
// above the key) and for more NHI pairs per entry than an NHI record holds.
xpLpmMemory::xpLpmMemory(const xpLpmTableContext& context) : context_(context) {
  for (U32 p = 0; p < xpLpmTableContext::kPrefixTables; ++p) {
    const xpPrefixTableContext& table = context.prefixTableContext[p];
    if (!table.valid) continue;
    require(table.depth >= 2, "prefix table " + std::to_string(p) + " has depth " + std::to_string(table.depth));
    require(table.hashSelector < 4, "prefix table " + std::to_string(p) + " has a hash selector above 3");
    U32 hashBits = std::bit_width(table.depth) - 1;  // floor(log2(depth))
    tables_[p].hash = std::make_unique<crcHashFunction>(kKeyBits, hashBits, lpmHashPolynomial(p, table.hashSelector),
                                                        1, table.tread);
    tables_[p].occupancy.assign((table.depth + 63) / 64, 0);
    tables_[p].entries.depthIs(table.depth);
  }
  U32 tiles = context.nhiTiles();
  if (tiles == 0) return;
  require(context.nhiPairPerEntry >= 1 && context.nhiPairPerEntry <= xpLpmNhiEntry::kMaxPairs,
          "nhiPairPerEntry must be 1.." + std::to_string(xpLpmNhiEntry::kMaxPairs));
  nhiEntriesPerTile_ = context.nhiTableSize / tiles;
  nhi_.assign(tiles, std::vector<xpLpmNhiEntry>(nhiEntriesPerTile_));
}

XP_STATUS xpLpmMemory::readPrefixEntry(U32 tableId, U32 offset, xpLpmPrefixEntry* entry) const {
  if (!entry) return XP_ERR_INVALID_ARG;
  if (tableId >= tables_.size() || !tables_[tableId].hash) return XP_ERR_OUT_OF_RANGE;
  if (offset >= context_.prefixTableContext[tableId].depth) return XP_ERR_OUT_OF_RANGE;
  const xpLpmPrefixEntry* held = tables_[tableId].entries.find(offset);
  *entry = held ? *held : xpLpmPrefixEntry();
  return XP_NO_ERR;
}

XP_STATUS xpLpmMemory::writePrefixEntry(U32 tableId, U32 offset, const xpLpmPrefixEntry& entry) {
  if (tableId >= tables_.size() || !tables_[tableId].hash) return XP_ERR_OUT_OF_RANGE;
  if (offset >= context_.prefixTableContext[tableId].depth) return XP_ERR_OUT_OF_RANGE;
  Table& table = tables_[tableId];
  U64& word = table.occupancy[offset / 64];
  U64 bit = U64(1) << (offset % 64);
  if (entry.empty()) {
    table.entries.erase(offset);
    word &= ~bit;
  } else {
    table.entries.put(offset, entry);
    word |= bit;
  }
  return XP_NO_ERR;
}

XP_STATUS xpLpmMemory::readNhiEntry(U32 tile, U32 offset, xpLpmNhiEntry* entry) const {
  if (!entry) return XP_ERR_INVALID_ARG;
  if (tile >= nhi_.size() || offset >= nhiEntriesPerTile_) return XP_ERR_OUT_OF_RANGE;
  *entry = nhi_[tile][offset];
  return XP_NO_ERR;
}

XP_STATUS xpLpmMemory::writeNhiEntry(U32 tile, U32 offset, const xpLpmNhiEntry& entry) {
  if (tile >= nhi_.size() || offset >= nhiEntriesPerTile_) return XP_ERR_OUT_OF_RANGE;
  nhi_[tile][offset] = entry;
  return XP_NO_ERR;
}

U32 xpLpmMemory::occupied(U32 tableId) const {
  return tableId < tables_.size() ? static_cast<U32>(tables_[tableId].entries.size()) : 0;
}

// Tables are visited in ascending id and a later table wins only with a strictly longer match, so
// equal lengths go to the lowest table id. A matching slot whose next hops lie outside the NHI
// memory is still a hit; its next-hop block is then the empty pair.
xpLpmLookupResult xpLpmMemory::lookup(const xpLpmKey& key) const {
  const KeyView view(key);
  if (view.keySize == kNoKeySize) return {};
  // Every cut key is built before the first hash: the bit vector copies them with wide loads, which
  // stall when they read bytes stored just before.
  std::array<KeyBytes, xpLpmTableContext::kPrefixTables> cuts;
  for (U32 t = 0; t < tables_.size(); ++t) {
    if (!tables_[t].entries.empty()) cuts[t] = cutKey(view.value, context_.prefixTableContext[t].tread);
  }
  xpLpmLookupResult best;
  const xpLpmPrefixEntry* bestEntry = nullptr;
  for (U32 t = 0; t < tables_.size(); ++t) {
    const Table& table = tables_[t];
    if (table.entries.empty()) continue;  // also every invalid table: nothing to hash for
    U32 position = table.hash->hash(XpBitVector(cuts[t], kKeyBits));
    if (!((table.occupancy[position / 64] >> (position % 64)) & 1)) continue;
    const xpLpmPrefixEntry* held = table.entries.find(position);
    if (!held) continue;
    std::optional<SlotMatch> match = matchEntry(*held, view);
    if (!match || (best.hit && match->length <= best.matchLength)) continue;
    best = xpLpmLookupResult{true, t, position, match->slot, match->length, {}};
    bestEntry = held;
  }
  if (!bestEntry) return best;
  U32 pairs = context_.nhiPairPerEntry;
  xpLpmNhiEntry nhi;
  if (pairs && readNhiEntry(bestEntry->nhiTile, bestEntry->nhiOffset + best.slot / pairs, &nhi) == XP_NO_ERR) {
    best.nextHopBlock = nhi.pair[best.slot % pairs];
  }
  return best;
}

XP_STATUS xpSimLpmMgr::readPrefixEntry(U32, U32 tableId, U32 offset, xpLpmPrefixEntry* entry, U32) {
  ++reads_;
  if (auto status = injected(prefixReadFailures_, positionKey(tableId, offset))) return *status;
  return memory_->readPrefixEntry(tableId, offset, entry);
}

XP_STATUS xpSimLpmMgr::writePrefixEntry(U32, U32 tableId, U32 offset, const xpLpmPrefixEntry* entry) {
  ++writes_;
  if (!entry) return XP_ERR_INVALID_ARG;
  const XP_STATUS status = memory_->writePrefixEntry(tableId, offset, *entry);
  if (afterWrite_ && *afterWrite_ && status == XP_NO_ERR)
    (*afterWrite_)(xpChipWrite{xpChipWrite::prefix, memory_->context().keyLength == 144, tableId, offset});
  return status;
}

XP_STATUS xpSimLpmMgr::readNhiEntry(U32, U32 tile, U32 offset, xpLpmNhiEntry* entry, U32) {
  ++reads_;
  if (auto status = injected(nhiReadFailures_, positionKey(tile, offset))) return *status;
  return memory_->readNhiEntry(tile, offset, entry);
}

XP_STATUS xpSimLpmMgr::writeNhiEntry(U32, U32 tile, U32 offset, const xpLpmNhiEntry* entry) {
  ++writes_;
  if (!entry) return XP_ERR_INVALID_ARG;
  const XP_STATUS status = memory_->writeNhiEntry(tile, offset, *entry);
  if (afterWrite_ && *afterWrite_ && status == XP_NO_ERR)
    (*afterWrite_)(xpChipWrite{xpChipWrite::nhi, memory_->context().keyLength == 144, tile, offset});
  return status;
}

void xpSimLpmMgr::failPrefixEntryReadIs(U32 tableId, U32 offset, XP_STATUS status) {
  prefixReadFailures_[positionKey(tableId, offset)] = status;
}

void xpSimLpmMgr::failNhiEntryReadIs(U32 tile, U32 offset, XP_STATUS status) {
  nhiReadFailures_[positionKey(tile, offset)] = status;
}

std::optional<XP_STATUS> xpSimLpmMgr::injected(std::unordered_map<U64, XP_STATUS>& failures, U64 key) {
  if (failures.empty()) return std::nullopt;
  auto it = failures.find(key);
  if (it == failures.end()) return std::nullopt;
  XP_STATUS status = it->second;
  failures.erase(it);
  return status;
}

xpChip::xpChip(const xpLpmTableContext& ipv4, const xpLpmTableContext& ipv6, const xpNhTableContext& nh)
    : v4_(std::make_unique<xpLpmMemory>(ipv4)),
      v6_(std::make_unique<xpLpmMemory>(ipv6)),
      v4Mgr_(v4_.get()),
      v6Mgr_(v6_.get()),
      nh_(nh.rowBlkInc) {}

XP_STATUS xpChip::readNextHop(U32 index, xpNhEntry* entry) const {
  if (!entry) return XP_ERR_INVALID_ARG;
  if (index >= nh_.size()) return XP_ERR_OUT_OF_RANGE;
  *entry = nh_[index];
  return XP_NO_ERR;
}

XP_STATUS xpChip::writeNextHop(U32 index, const xpNhEntry& entry) {
  if (index >= nh_.size()) return XP_ERR_OUT_OF_RANGE;
  nh_[index] = entry;
  if (afterWrite_) afterWrite_(xpChipWrite{xpChipWrite::nextHop, false, 0, index});
  return XP_NO_ERR;
}

void xpChip::afterWriteIs(xpWriteHook f) {
  afterWrite_ = std::move(f);
  v4Mgr_.afterWriteIs(&afterWrite_);
  v6Mgr_.afterWriteIs(&afterWrite_);
}

const xpNhEntry* xpChip::resolve(const xpLpmLookupResult& r, U64 selector) const {
  if (!r.hit || r.nextHopBlock.size == 0 || r.nextHopBlock.size == 0xFFFF) return nullptr;
  const U64 index = U64(r.nextHopBlock.base) + selector % r.nextHopBlock.size;
  return index < nh_.size() ? &nh_[index] : nullptr;
}

std::size_t xpLpmMemory::prefixEntryBytes() const {
  std::size_t bytes = 0;
  for (const Table& t : tables_) bytes += t.entries.heapBytes();
  return bytes;
}

}  // namespace XpXdk
