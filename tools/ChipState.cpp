// Reading, writing, encoding and checking the chip's saved memory.
#include "ChipState.h"

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Errors.h"
#include "OutputFile.h"
#include "platform/Hash.h"

namespace xplpm {

using XpLib::U16;
using XpLib::U32;
using XpLib::U64;
using XpLib::U8;
using XpLib::fnv1a;

namespace {

constexpr char kMagic[8] = {'X', 'P', 'L', 'P', 'M', 'C', 'H', 'P'};
constexpr U32 kVersion = 1;
constexpr std::size_t kHeaderBytes = sizeof kMagic + 4 + 8;  // magic, version, body length
constexpr std::size_t kChecksumBytes = 8;

class Writer {
 public:
  template <class T>
  void num(T v) {
    for (std::size_t i = 0; i < sizeof(T); ++i) out.push_back(static_cast<char>(static_cast<U64>(v) >> (8 * i)));
  }
  void bytes(const void* p, std::size_t n) { out.append(static_cast<const char*>(p), n); }
  std::string out;
};

// Reads what a Writer wrote; running past the end throws Truncated with the offset.
class Reader {
 public:
  struct Truncated {
    std::size_t at;
  };
  Reader(std::string_view in, std::size_t base) : in_(in), base_(base) {}
  template <class T>
  T num() {
    need(sizeof(T));
    U64 v = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) v |= U64(static_cast<U8>(in_[pos_ + i])) << (8 * i);
    pos_ += sizeof(T);
    return static_cast<T>(v);
  }
  void bytes(void* p, std::size_t n) {
    need(n);
    std::memcpy(p, in_.data() + pos_, n);
    pos_ += n;
  }
  // A count of records of at least `recordBytes` each, which the bytes left must be able to hold.
  U32 count(std::size_t recordBytes) {
    const U32 n = num<U32>();
    if (U64(n) * recordBytes > in_.size() - pos_) throw Truncated{base_ + in_.size()};
    return n;
  }
  std::size_t offset() const { return base_ + pos_; }
  bool done() const { return pos_ == in_.size(); }

 private:
  void need(std::size_t n) {
    if (in_.size() - pos_ < n) throw Truncated{base_ + in_.size()};
  }
  std::string_view in_;
  std::size_t base_, pos_ = 0;
};

void geometry(Writer& w, const XpXdk::xpLpmTableContext& c) {
  w.num<U32>(c.vrfIdWidth);
  w.num<U32>(c.keyLength);
  for (const auto& t : c.prefixTableContext) {
    w.num<U8>(t.valid);
    w.num<U32>(t.depth);
    w.num<U32>(t.sramWidth);
    w.num<U8>(t.tread);
    w.num<U8>(t.hashSelector);
  }
  w.num<U32>(c.nhiTableSize);
  w.num<U8>(c.nhiPairPerEntry);
  w.num<U8>(c.nhiBlockBaseWidth);
  w.bytes(c.nhiTileBitmap.data(), c.nhiTileBitmap.size());
  w.num<U8>(c.nhiTileBitmapValidMask);
}

std::string geometryOf(const XpXdk::xpChipProfile& p) {
  Writer w;
  geometry(w, p.ipv4);
  geometry(w, p.ipv6);
  w.num<U32>(p.nextHop.rowBlkInc);
  return w.out;
}

// Only the slots that hold something are stored, behind a mask of them.
void putPrefixEntry(Writer& w, const XpXdk::xpLpmPrefixEntry& e) {
  w.num<U8>(e.keySize);
  w.num<U8>(e.mode);
  w.num<U8>(e.branchLen);
  w.num<U8>(e.stride);
  w.bytes(e.branch.data(), e.branch.size());
  w.num<U8>(e.nhiTile);
  w.num<U16>(e.nhiOffset);
  w.num<U8>(e.numSlots);
  U32 mask = 0;
  for (U32 s = 0; s < e.slots.size(); ++s) mask |= U32(!e.slots[s].empty()) << s;
  w.num<U32>(mask);
  for (U32 s = 0; s < e.slots.size(); ++s) {
    if (e.slots[s].empty()) continue;
    w.num<U64>(e.slots[s].leafVal);
    w.num<U64>(e.slots[s].leafValHigh);
  }
}

XpXdk::xpLpmPrefixEntry getPrefixEntry(Reader& r) {
  XpXdk::xpLpmPrefixEntry e;
  e.keySize = r.num<U8>();
  e.mode = r.num<U8>();
  e.branchLen = r.num<U8>();
  e.stride = r.num<U8>();
  r.bytes(e.branch.data(), e.branch.size());
  e.nhiTile = r.num<U8>();
  e.nhiOffset = r.num<U16>();
  e.numSlots = r.num<U8>();
  const U32 mask = r.num<U32>();
  for (U32 s = 0; s < e.slots.size(); ++s) {
    if (!((mask >> s) & 1)) continue;
    e.slots[s].leafVal = r.num<U64>();
    e.slots[s].leafValHigh = r.num<U64>();
  }
  return e;
}

constexpr std::size_t kPrefixRecordMin = 1 + 4 + 4 + 18 + 1 + 2 + 1 + 4;
constexpr std::size_t kNhiRecordBytes = 1 + 4 + XpXdk::xpLpmNhiEntry::kMaxPairs * 6;
constexpr std::size_t kNextHopRecordBytes = 4 + 8;

U32 perTileOf(const XpXdk::xpLpmTableContext& c) { return c.nhiTiles() ? c.nhiTableSize / c.nhiTiles() : 0; }

[[noreturn]] void refused(const char* what, U32 a, U32 b, XpXdk::XP_STATUS status) {
  badInput("chip", std::string("the chip refused ") + what + " " + std::to_string(a) + "/" + std::to_string(b) +
                       " (status " + std::to_string(status) + ")");
}

void readFamily(XpLib::Agent::ChipPort& chip, const XpXdk::xpLpmTableContext& c, bool v6, ChipImage& image) {
  XpXdk::xpIpRouteLpmMgr& mgr = chip.lpmMgr(v6);
  for (U32 t = 0; t < c.prefixTableContext.size(); ++t) {
    if (!c.prefixTableContext[t].valid) continue;
    for (U32 o = 0; o < c.prefixTableContext[t].depth; ++o) {
      XpXdk::xpLpmPrefixEntry e;
      if (const auto st = mgr.readPrefixEntry(0, t, o, &e, 0); st != XpXdk::XP_NO_ERR) refused("to read prefix entry", t, o, st);
      if (!e.empty()) image.prefix[v6].push_back({t, o, e});
    }
  }
  const XpXdk::xpLpmNhiEntry unused;
  for (U32 tile = 0; tile < c.nhiTiles(); ++tile) {
    for (U32 o = 0; o < perTileOf(c); ++o) {
      XpXdk::xpLpmNhiEntry e;
      if (const auto st = mgr.readNhiEntry(0, tile, o, &e, 0); st != XpXdk::XP_NO_ERR) refused("to read NHI entry", tile, o, st);
      if (!(e == unused)) image.nhi[v6].push_back({tile, o, e});
    }
  }
}

}  // namespace

U64 ChipImage::entries() const {
  return prefix[0].size() + prefix[1].size() + nhi[0].size() + nhi[1].size() + nextHop.size();
}

ChipImage readChip(XpLib::Agent::ChipPort& chip, const XpXdk::xpChipProfile& profile) {
  ChipImage image;
  readFamily(chip, profile.ipv4, false, image);
  readFamily(chip, profile.ipv6, true, image);
  for (U32 i = 0; i < chip.nextHopEntries(); ++i) {
    XpXdk::xpNhEntry e;
    if (const auto st = chip.readNextHop(i, &e); st != XpXdk::XP_NO_ERR) refused("to read next-hop entry", 0, i, st);
    if (e.data != 0) image.nextHop.push_back({i, e});
  }
  return image;
}

void writeChip(XpLib::Agent::ChipPort& chip, const ChipImage& image) {
  for (bool v6 : {false, true}) {
    XpXdk::xpIpRouteLpmMgr& mgr = chip.lpmMgr(v6);
    for (const auto& p : image.nhi[v6])
      if (const auto st = mgr.writeNhiEntry(0, p.tile, p.offset, &p.entry); st != XpXdk::XP_NO_ERR)
        refused("to write NHI entry", p.tile, p.offset, st);
    for (const auto& p : image.prefix[v6])
      if (const auto st = mgr.writePrefixEntry(0, p.table, p.offset, &p.entry); st != XpXdk::XP_NO_ERR)
        refused("to write prefix entry", p.table, p.offset, st);
  }
  for (const auto& n : image.nextHop)
    if (const auto st = chip.writeNextHop(n.index, n.entry); st != XpXdk::XP_NO_ERR) refused("to write next-hop entry", 0, n.index, st);
}

std::string encodeState(const XpXdk::xpChipProfile& profile, const ChipImage& image) {
  Writer body;
  body.num<U16>(static_cast<U16>(std::min<std::size_t>(profile.name.size(), 0xFFFF)));
  body.bytes(profile.name.data(), std::min<std::size_t>(profile.name.size(), 0xFFFF));
  const std::string g = geometryOf(profile);
  body.num<U32>(static_cast<U32>(g.size()));
  body.bytes(g.data(), g.size());
  for (bool v6 : {false, true}) {
    body.num<U32>(static_cast<U32>(image.prefix[v6].size()));
    for (const auto& p : image.prefix[v6]) {
      body.num<U8>(static_cast<U8>(p.table));
      body.num<U32>(p.offset);
      putPrefixEntry(body, p.entry);
    }
    body.num<U32>(static_cast<U32>(image.nhi[v6].size()));
    for (const auto& n : image.nhi[v6]) {
      body.num<U8>(static_cast<U8>(n.tile));
      body.num<U32>(n.offset);
      for (const auto& pair : n.entry.pair) {
        body.num<U32>(pair.base);
        body.num<U16>(pair.size);
      }
    }
  }
  body.num<U32>(static_cast<U32>(image.nextHop.size()));
  for (const auto& n : image.nextHop) {
    body.num<U32>(n.index);
    body.num<U64>(n.entry.data);
  }
  Writer file;
  file.bytes(kMagic, sizeof kMagic);
  file.num<U32>(kVersion);
  file.num<U64>(body.out.size());
  file.out += body.out;
  file.num<U64>(fnv1a(file.out));
  return file.out;
}

namespace {

// The header and the checksum; returns the body.
std::string_view checkedBody(const std::string& file, std::string_view bytes) {
  if (bytes.size() < sizeof kMagic || std::memcmp(bytes.data(), kMagic, sizeof kMagic) != 0)
    badInput(file, "not an xplpm state file (no XPLPMCHP header)");
  Reader header(bytes.substr(sizeof kMagic), sizeof kMagic);
  U32 version = 0;
  U64 length = 0;
  try {
    version = header.num<U32>();
    length = header.num<U64>();
  } catch (const Reader::Truncated&) {
    badInput(file, "truncated: " + std::to_string(bytes.size()) + " bytes, shorter than the header");
  }
  if (version != kVersion)
    badInput(file, "state file version " + std::to_string(version) + "; this xplpm reads version " + std::to_string(kVersion));
  if (length > bytes.size() || kHeaderBytes + length + kChecksumBytes != bytes.size()) {
    const bool shorter = length > bytes.size() || kHeaderBytes + length + kChecksumBytes > bytes.size();
    badInput(file, std::string(shorter ? "truncated: " : "trailing bytes: ") + std::to_string(bytes.size()) +
                       " bytes where the header announces a body of " + std::to_string(length));
  }
  Reader tail(bytes.substr(bytes.size() - kChecksumBytes), bytes.size() - kChecksumBytes);
  if (tail.num<U64>() != fnv1a(bytes.substr(0, bytes.size() - kChecksumBytes)))
    badInput(file, "checksum mismatch: the file was changed or damaged");
  return bytes.substr(kHeaderBytes, length);
}

void decodeFamily(Reader& r, const XpXdk::xpLpmTableContext& c, bool v6, ChipImage& image, const std::string& file) {
  const char* family = v6 ? "ipv6" : "ipv4";
  for (U32 n = r.count(kPrefixRecordMin); n > 0; --n) {
    const std::size_t at = r.offset();
    ChipImage::PrefixEntry p{r.num<U8>(), r.num<U32>(), {}};
    p.entry = getPrefixEntry(r);
    if (p.table >= c.prefixTableContext.size() || !c.prefixTableContext[p.table].valid ||
        p.offset >= c.prefixTableContext[p.table].depth)
      badInput(file, "byte " + std::to_string(at) + ": " + family + " prefix entry " + std::to_string(p.table) + "/" +
                         std::to_string(p.offset) + " is outside the chip's tables");
    image.prefix[v6].push_back(p);
  }
  for (U32 n = r.count(kNhiRecordBytes); n > 0; --n) {
    const std::size_t at = r.offset();
    ChipImage::NhiEntry e{r.num<U8>(), r.num<U32>(), {}};
    for (auto& pair : e.entry.pair) pair = {r.num<U32>(), r.num<U16>()};
    if (e.tile >= c.nhiTiles() || e.offset >= perTileOf(c))
      badInput(file, "byte " + std::to_string(at) + ": " + family + " NHI entry " + std::to_string(e.tile) + "/" +
                         std::to_string(e.offset) + " is outside the chip's NHI tiles");
    image.nhi[v6].push_back(e);
  }
}

}  // namespace

ChipImage decodeState(const std::string& file, std::string_view bytes, const XpXdk::xpChipProfile& profile) {
  const std::string_view body = checkedBody(file, bytes);
  Reader r(body, kHeaderBytes);
  ChipImage image;
  try {
    std::string name(r.num<U16>(), '\0');
    r.bytes(name.data(), name.size());
    std::string g(r.count(1), '\0');
    r.bytes(g.data(), g.size());
    if (g != geometryOf(profile))
      badInput(file, "saved for a chip of another geometry (profile '" + escaped(name) + "'), not for profile '" + profile.name + "'");
    decodeFamily(r, profile.ipv4, false, image, file);
    decodeFamily(r, profile.ipv6, true, image, file);
    for (U32 n = r.count(kNextHopRecordBytes); n > 0; --n) {
      const std::size_t at = r.offset();
      ChipImage::NextHopEntry e{r.num<U32>(), {r.num<U64>()}};
      if (e.index >= profile.nextHop.rowBlkInc)
        badInput(file, "byte " + std::to_string(at) + ": next-hop entry " + std::to_string(e.index) + " is outside the table");
      image.nextHop.push_back(e);
    }
  } catch (const Reader::Truncated& t) {
    badInput(file, "the body ends at byte " + std::to_string(t.at) + " in the middle of a record");
  }
  if (!r.done()) badInput(file, "byte " + std::to_string(r.offset()) + ": bytes after the last record");
  return image;
}

void saveState(const std::string& path, const XpXdk::xpChipProfile& profile, const ChipImage& image) {
  replaceFile(path, encodeState(profile, image));
}

ChipImage loadState(const std::string& path, const XpXdk::xpChipProfile& profile) {
  std::ifstream in(path, std::ios::binary);
  if (!in) badInput(path, std::string("cannot read the state file: ") + std::strerror(errno));
  const std::string bytes((std::istreambuf_iterator<char>(in)), {});
  if (in.bad()) badInput(path, std::string("cannot read the state file: ") + std::strerror(errno));
  return decodeState(path, bytes, profile);
}

}  // namespace xplpm
