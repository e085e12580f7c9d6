// Encoding of write commands into the chip's entry records.
#include "agent/EntryCodec.h"

namespace XpLib {
namespace Agent {

namespace {

// Key bits [from, from + n) of a branch, as an integer (n <= 64), first bit most significant.
U64 keyBits(const XpLpm::SubTrieBranch& key, U32 from, U32 n) {
  U64 v = 0;
  for (U32 done = 0; done < n;) {
    const U32 bit = from + done;
    const U32 chunk = bit / 64, inChunk = bit % 64;
    const U32 take = std::min(n - done, 64 - inChunk);
    const U64 word = key.u64(chunk) << inChunk;  // bit `bit` now at the top
    v = (take == 64 ? 0 : v << take) | (word >> (64 - take));
    done += take;
  }
  return v;
}

}  // namespace

XpXdk::xpLpmLeaf encodeLeaf(const XpLpm::LpmPrefix& prefix, U8 branchLen) {
  const U32 p = prefix.len() - branchLen;
  const XpLpm::SubTrieBranch key = prefix.branch(prefix.len());
  XpXdk::xpLpmLeaf leaf;
  if (p < 64) {
    leaf.leafVal = (U64(1) << p) | keyBits(key, branchLen, p);
  } else {
    // The marker and the first p - 64 bits go to the high word, the last 64 to the low one.
    leaf.leafValHigh = (U64(1) << (p - 64)) | keyBits(key, branchLen, p - 64);
    leaf.leafVal = keyBits(key, branchLen + (p - 64), 64);
  }
  return leaf;
}

XpXdk::xpLpmPrefixEntry encodePrefixEntry(const XpLpm::PrefixCommand& cmd, XpLpm::KeyType keyType) {
  XpXdk::xpLpmPrefixEntry e;
  encodePrefixEntry(cmd, keyType, e);
  return e;
}

void encodePrefixEntry(const XpLpm::PrefixCommand& cmd, XpLpm::KeyType keyType, XpXdk::xpLpmPrefixEntry& e) {
  e = XpXdk::xpLpmPrefixEntry();
  e.keySize = keyType == XpLpm::keyShort48b ? XpXdk::xpLpmPrefixEntry::kKeySizeShort
                                            : XpXdk::xpLpmPrefixEntry::kKeySizeLong;
  e.mode = cmd.mode() == XpLpm::modeSparse ? XpXdk::xpLpmPrefixEntry::kModeSparse : U8(cmd.mode() + 1);
  e.branchLen = cmd.branchLen();
  e.stride = cmd.stride();
  // Right-aligned, least significant byte first: entry bit i is branch bit branchLen - 1 - i, so the
  // entry holds the branch's bits as one number. A byte at a time: entry byte j is cut from the two
  // branch bytes that end 8j bits before the branch does.
  const U32 bytes = (cmd.branchLen() + 7u) / 8u, shift = bytes * 8 - cmd.branchLen();
  for (U32 j = 0; j < bytes; ++j) {
    const U32 lo = cmd.branch().byteAt(bytes - 1 - j);
    const U32 hi = j + 1 < bytes ? cmd.branch().byteAt(bytes - 2 - j) : 0;
    e.branch[j] = static_cast<U8>(((hi << 8) | lo) >> shift);
  }
  e.nhiTile = cmd.nhiBaseIdx().tile().value();
  e.nhiOffset = cmd.nhiBaseIdx().offset();
  const auto& list = cmd.prefixList();
  e.numSlots = static_cast<U8>(list.prefixs());
  for (const auto& [slot, prefix] : list) {
    if (prefix && slot < XpXdk::xpLpmPrefixEntry::kMaxSlots) e.slots[slot] = encodeLeaf(*prefix, cmd.branchLen());
  }
}

XpXdk::xpLpmNhiEntry encodeNhiEntry(const XpLpm::NhiCommand& cmd) {
  XpXdk::xpLpmNhiEntry e;
  U32 k = 0;
  for (const auto& [index, block] : cmd.nextHopBlockList()) {
    if (k == XpXdk::xpLpmNhiEntry::kMaxPairs) break;
    e.pair[k++] = XpXdk::xpLpmNhiPair{block.base().value(), block.size().value()};
  }
  return e;
}

}  // namespace Agent
}  // namespace XpLib
