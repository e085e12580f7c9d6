// Key construction, text forms and fanout bookkeeping of LPM prefixes.
#include "XpLpm/LpmPrefix.h"

#include <algorithm>
#include <memory>
#include <unordered_map>

#include "platform/Assert.h"
#include "platform/Exception.h"
#include "platform/Trace.h"

namespace XpLib {
namespace XpLpm {

namespace {

// Keeps the first `len` bits of a 64-bit left-aligned chunk.
constexpr U64 keepTop(U64 v, int len) { return len <= 0 ? 0 : len >= 64 ? v : v & (~U64(0) << (64 - len)); }

template <class A, class B>
int threeWay(const A& a, const B& b) {
  return a < b ? -1 : b < a ? 1 : 0;
}

}  // namespace

U8 LpmPrefix::len() const { throw NoImplementationException("method must be implemeted in the derived class"); }

SubTrieBranch LpmPrefix::branch(U8) const {
  throw NoImplementationException("method must be implemented in the derived class");
}

std::string LpmPrefix::stringValue() const {
  throw NoImplementationException("method must be implemented in the derived class");
}

std::ostream& operator<<(std::ostream& os, const LpmPrefix& p) { return os << p.stringValue(); }

// The key is laid out a 64-bit chunk at a time rather than a byte at a time:
// the prefix's address bits below its length are zero already, so masking the
// whole key to branchLen gives exactly the byte-wise construction.
SubTrieBranch LpmPrefixV4::branch(U8 branchLen) const {
  XP_ASSERT_TEXT(branchLen <= kVrfBits + 32, "branchLen <= vrfBits + 32");
  U64 key = (static_cast<U64>(vrfAndPrefix_.vrf & 0xFFFF) << 48) |
            (static_cast<U64>(vrfAndPrefix_.prefix.address()) << 16);
  key = keepTop(key, branchLen);
  return SubTrieBranch(static_cast<U32>(key >> 32), static_cast<U32>(key), 0, 0, 0);
}

std::string LpmPrefixV4::stringValue() const {
  return "vrf " + std::to_string(vrfAndPrefix_.vrf) + " prefix " + vrfAndPrefix_.prefix.str();
}

int LpmPrefixV4::keyCompare(const LpmPrefix& o) const {
  return threeWay(vrfAndPrefix_, static_cast<const LpmPrefixV4&>(o).vrfAndPrefix_);
}

const LpmPrefixV4::KeyMap& LpmPrefixV4::emptyKeyMap() {
  static const KeyMap empty;
  return empty;
}

struct LpmPrefixV4::FanoutTable : std::unordered_map<const LpmPrefixV4*, std::unique_ptr<Fanout>> {};

LpmPrefixV4::FanoutTable& LpmPrefixV4::fanoutTable() {
  // Never destroyed: prefixes may be dropped while other statics go away at exit.
  static FanoutTable* table = new FanoutTable;
  return *table;
}

LpmPrefixV4::~LpmPrefixV4() { dropFanout(); }

const LpmPrefixV4::Fanout* LpmPrefixV4::fanoutIfAny() const {
  const FanoutTable& table = fanoutTable();
  if (table.empty()) return nullptr;
  auto it = table.find(this);
  return it == table.end() ? nullptr : it->second.get();
}

LpmPrefixV4::Fanout& LpmPrefixV4::fanout() {
  std::unique_ptr<Fanout>& f = fanoutTable()[this];
  if (!f) f = std::make_unique<Fanout>();
  return *f;
}

void LpmPrefixV4::dropFanoutIfEmpty() {
  const Fanout* f = fanoutIfAny();
  if (f && !f->owner && f->nhBlock == NextHopBlock() && f->otherOwners.empty() && f->fanouts.empty()) dropFanout();
}

void LpmPrefixV4::dropFanout() {
  FanoutTable& table = fanoutTable();
  if (table.empty()) return;
  auto it = table.find(this);
  if (it == table.end()) return;
  // Out of the table before it goes: dropping its owner reference may drop another prefix,
  // whose destructor looks in the table too.
  std::unique_ptr<Fanout> f = std::move(it->second);
  table.erase(it);
}

// Setting a field back to its default on a prefix without fanout bookkeeping allocates nothing,
// and clearing the last field gives the bookkeeping back.
void LpmPrefixV4::ownerLpmPrefixIs(const Ptr<LpmPrefixV4>& owner) {
  if (!owner && !fanoutIfAny()) return;
  fanout().owner = owner;
  dropFanoutIfEmpty();
}

void LpmPrefixV4::nhBlockIs(const NextHopBlock& b) {
  if (b == NextHopBlock() && !fanoutIfAny()) return;
  fanout().nhBlock = b;
  dropFanoutIfEmpty();
}

void LpmPrefixV4::otherOwnerListDel(const VrfAndPrefix& key) {
  if (!fanoutIfAny()) return;
  fanout().otherOwners.erase(key);
  dropFanoutIfEmpty();
}

void LpmPrefixV4::otherOwnerListDelAll() {
  if (!fanoutIfAny()) return;
  fanout().otherOwners.clear();
  dropFanoutIfEmpty();
}

void LpmPrefixV4::prefixFanoutListDel(const VrfAndPrefix& key) {
  if (!fanoutIfAny()) return;
  fanout().fanouts.erase(key);
  dropFanoutIfEmpty();
}

void LpmPrefixV4::prefixFanoutListDelAll() {
  if (!fanoutIfAny()) return;
  fanout().fanouts.clear();
  dropFanoutIfEmpty();
}

void LpmPrefixV4::createFanoutPrefixV4(U32 targetTread) {
  XP_TRACE(3, "LpmPrefixV4::createFanoutPrefixV4 lpmPrefix " << stringValue());
  XP_ASSERT_TEXT(targetTread > len(), "targetTread > len()");
  if (targetTread > kVrfBits + 32u) throw RangeException("Prefix::validAsPrefix != true not allowed");
  const U8 newLen = static_cast<U8>(targetTread - kVrfBits);
  const U64 count = U64(1) << (targetTread - len());
  XP_TRACE(3, " fanout of " << stringValue() << " targetTread " << targetTread << " count " << count);
  const U32 source = vrfAndPrefix_.prefix.address();
  for (U64 i = 0; i < count; ++i) {
    // i fills the bits just below the source length; newLen > 0 here, so the shift is below 32.
    U32 address = source | static_cast<U32>(i << (32 - newLen));
    VrfAndPrefix key{vrfAndPrefix_.vrf, Prefix(address, newLen)};
    XP_TRACE(3, "  -- #" << i << " vrf " << key.vrf << " prefix " << key.prefix);
    prefixFanoutListIs(key, true);
  }
}

std::size_t LpmPrefixV4::heapBytes() const {
  const Fanout* f = fanoutIfAny();
  if (!f) return 0;
  return sizeof(Fanout) + f->otherOwners.heapBytes() + f->fanouts.heapBytes();
}

SubTrieBranch LpmPrefixV6::branch(U8 branchLen) const {
  XP_ASSERT_TEXT(branchLen <= kVrfBits + 128, "branchLen <= vrfBits + 128");
  const Ip6Prefix& p = vrfAndIp6Prefix_.prefix;
  U64 hi = p.high(), lo = p.low();
  // Chunks of the 144-bit key, left-aligned: VRF:addr[0..47], addr[48..111], addr[112..127].
  U64 c0 = (static_cast<U64>(vrfAndIp6Prefix_.vrf & 0xFFFF) << 48) | (hi >> 16);
  U64 c1 = (hi << 48) | (lo >> 16);
  U64 c2 = lo << 48;
  c0 = keepTop(c0, branchLen);
  c1 = keepTop(c1, branchLen - 64);
  c2 = keepTop(c2, branchLen - 128);
  return SubTrieBranch(static_cast<U32>(c0 >> 32), static_cast<U32>(c0), static_cast<U32>(c1 >> 32),
                       static_cast<U32>(c1), static_cast<U16>(c2 >> 48));
}

std::string LpmPrefixV6::stringValue() const {
  return "vrf " + std::to_string(vrfAndIp6Prefix_.vrf) + " prefix " + vrfAndIp6Prefix_.prefix.str();
}

int LpmPrefixV6::keyCompare(const LpmPrefix& o) const {
  return threeWay(vrfAndIp6Prefix_, static_cast<const LpmPrefixV6&>(o).vrfAndIp6Prefix_);
}

Ptr<LpmPrefixV4> lpmPrefixV4Factory(const VrfAndPrefix& key) {
  U32 handle;
  void* at = PoolOf<LpmPrefixV4>::allocate(handle);
  return Ptr<LpmPrefixV4>(::new (at) LpmPrefixV4(key, handle << 1));
}

Ptr<LpmPrefixV6> lpmPrefixV6Factory(const VrfAndIp6Prefix& key) {
  U32 handle;
  void* at = PoolOf<LpmPrefixV6>::allocate(handle);
  return Ptr<LpmPrefixV6>(::new (at) LpmPrefixV6(key, handle << 1 | 1));
}

bool LpmPrefixList::operator==(const LpmPrefixList& o) const {
  return std::equal(begin(), end(), o.begin(), o.end(), [](const auto& a, const auto& b) {
    return a.first == b.first && LpmPrefixEq()(a.second, b.second);
  });
}

}  // namespace XpLpm
}  // namespace XpLib
