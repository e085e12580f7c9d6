// `xplpm lookup`: program, then answer for addresses and prefixes what the chip and the
// reference say.
#include <algorithm>
#include <optional>

#include "Commands.h"
#include "Lookup.h"
#include "Report.h"

namespace xplpm {

int cmdLookup(const Options& c) {
  std::vector<Query> queries;  // all checked before anything is programmed
  for (const std::string& text : c.queries) queries.push_back(parseQuery(c.vrf, text));
  Programmed p = programmed(c, c.verify);
  Session& s = *p.session;
  nlohmann::json j = runJson(s, p.set, c);
  if (c.verify) j["verify"] = verifyJson(s.figures());
  // The reference holds every installed route: built only when an address asks for it.
  std::optional<XpLib::Agent::Forwarding> check;
  if (std::any_of(queries.begin(), queries.end(), [](const Query& q) { return !q.prefix; })) check.emplace(s.agent());
  nlohmann::json answers = nlohmann::json::array();
  U64 mismatches = 0;
  for (const Query& q : queries) {
    answers.push_back(lookupJson(s.agent(), check ? &*check : nullptr, q));
    mismatches += !answers.back().value("agree", true);
  }
  j["lookup"] = {{"queries", queries.size()}, {"mismatches", mismatches}, {"answers", answers}};
  return finish(j, c);
}

}  // namespace xplpm
