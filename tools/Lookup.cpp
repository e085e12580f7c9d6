// Address and prefix lookups.
#include "Lookup.h"

#include <stdexcept>

#include "Errors.h"
#include "ModelJson.h"
#include "Resources.h"

namespace xplpm {

using nlohmann::json;
using XpLib::U32;
using XpLib::U64;
using XpLib::Agent::XpLpmAgent;

namespace {

// The prefix of `len` bits an address falls in, as text.
std::string coveringPrefix(U32 address, U32 len) {
  return XpLib::Prefix(address & XpLib::Prefix::mask(static_cast<XpLib::U8>(len)), static_cast<XpLib::U8>(len)).str();
}

std::string coveringPrefix(const XpLib::Ip6Prefix::Bytes& address, U32 len) {
  XpLib::Ip6Prefix::Bytes a = address;
  for (U32 i = 0; i < 16; ++i) {
    const int keep = std::clamp(static_cast<int>(len) - static_cast<int>(8 * i), 0, 8);
    a[i] &= static_cast<XpLib::U8>(0xFF00 >> keep);
  }
  return XpLib::Ip6Prefix(a, static_cast<XpLib::U8>(len)).str();
}

// Where the chip's lookup went: the entry, the slot's NHI pair, the block and its member.
template <class Address>
json chipJson(XpLpmAgent& agent, bool v6, const Address& address, U64 selector,
              const XpXdk::xpLpmLookupResult& hit) {
  if (!hit.hit) return {{"hit", false}};
  const XpXdk::xpLpmTableContext& ctx = v6 ? agent.profile().ipv6 : agent.profile().ipv4;
  XpXdk::xpLpmPrefixEntry entry;
  XpLib::Agent::ChipPort& chip = agent.chip();
  chip.lpmMgr(v6).readPrefixEntry(0, hit.tableId, hit.position, &entry, 0);
  const U32 pairs = std::max<U32>(1, ctx.nhiPairPerEntry);
  const U32 size = hit.nextHopBlock.size;
  json j{{"hit", true},
         {"prefix", coveringPrefix(address, hit.matchLength - XpLib::XpLpm::kVrfBits)},
         {"table", hit.tableId},
         {"tread", ctx.prefixTableContext[hit.tableId].tread},
         {"index", hit.position},
         {"slot", hit.slot},
         {"nhi", {{"tile", entry.nhiTile}, {"entry", entry.nhiOffset + hit.slot / pairs}, {"pair", hit.slot % pairs}}},
         {"next_hop_block", {{"base", hit.nextHopBlock.base}, {"size", size}}},
         {"member", size ? selector % size : 0}};
  const auto owner = agent.nextHopSm()->baseIdxToSwId(XpLib::XpLpmNextHop::NextHopTableIdx(hit.nextHopBlock.base));
  j["group"] = owner != XpLib::Agent::SwId() ? json(owner.value()) : json(nullptr);
  if (const auto nh = chip.resolve(hit, selector))
    j["next_hop_entry"] = {{"group", XpLpmAgent::groupOfEntry(*nh).value()}, {"member", XpLpmAgent::memberOfEntry(*nh)}};
  return j;
}

template <class Address>
json addressJson(XpLpmAgent& agent, const XpLib::Agent::Forwarding& check, U32 vrf, const Address& address,
                 bool v6, U64 selector) {
  const auto want = check.reference().lookup(vrf, address);
  json reference{{"hit", want.has_value()}};
  if (want)
    reference.update({{"prefix", coveringPrefix(address, want->len)}, {"length", want->len}, {"next_hop_block", blockJson(want->block)}});
  return {{"kind", "address"},
          {"chip", chipJson(agent, v6, address, selector, agent.lookup(vrf, address))},
          {"reference", reference},
          {"agree", check.correct(vrf, address)}};
}

json prefixJson(const XpLpmAgent& agent, const XpLib::Agent::Route& r) {
  const auto& family = agent.family(r.ipv6);
  const XpLib::Ptr<XpLib::XpLpm::LpmPrefix> prefix = agent.findPrefix(r);
  json j{{"kind", "prefix"}};
  if (!prefix) {
    j["state"] = "not requested";
    return j;
  }
  j["state"] = agent.routeState(r).code();
  j["requested_block"] = blockJson(family.sm->requestedBlock(prefix));
  const auto owner = agent.nextHopSm()->baseIdxToSwId(family.sm->requestedBlock(prefix).base());
  j["group"] = owner != XpLib::Agent::SwId() ? json(owner.value()) : json(nullptr);
  const XpLib::Ptr<XpLib::XpLpm::SubTrie> st = family.sm->prefixToSubTrie(prefix);
  if (st) {
    j["subtrie"] = subTrieJson(*family.sm, *st->table(), *st);
    j["slot"] = st->prefixToSlot(prefix).value_or(0);
    return j;
  }
  json candidates = json::array();
  for (const auto& [id, tread] : candidateTables(agent, r.ipv6, r.ipv6 ? r.v6.len() : r.v4.len()))
    candidates.push_back({{"table", id}, {"tread", tread}});
  j["candidates"] = candidates;
  return j;
}

}  // namespace

Query parseQuery(U32 vrf, const std::string& query) {
  Query q{query, {}, query.find('/') != std::string::npos};
  const bool v6 = query.find(':') != std::string::npos;
  const std::string text = q.prefix ? query : query + (v6 ? "/128" : "/32");
  const std::string kind = std::string(v6 ? "not an IPv6 " : "not an IPv4 ") + (q.prefix ? "prefix: " : "address: ");
  std::string why;
  q.route.ipv6 = v6;
  q.route.vrf = vrf;
  if (v6) {
    const auto p = XpLib::Ip6Prefix::parse(text, &why);
    if (!p) badInput(query, kind + why);
    q.route.v6 = *p;
  } else {
    const auto p = XpLib::Prefix::parse(text, &why);
    if (!p) badInput(query, kind + why);
    q.route.v4 = *p;
  }
  return q;
}

json lookupJson(XpLpmAgent& agent, const XpLib::Agent::Forwarding* check, const Query& q) {
  const XpLib::Agent::Route& r = q.route;
  if (!q.prefix && !check) throw std::logic_error("an address lookup needs the reference");
  json j = q.prefix ? prefixJson(agent, r)
           : r.ipv6 ? addressJson(agent, *check, r.vrf, r.v6.address(), true, r.v6.address()[15])
                    : addressJson(agent, *check, r.vrf, r.v4.address(), false, r.v4.address());
  j.update({{"query", q.text}, {"vrf", r.vrf}, {"family", familyKey(r.ipv6)}});
  return j;
}

}  // namespace xplpm
