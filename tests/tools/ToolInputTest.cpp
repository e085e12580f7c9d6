// The tool's edges in process: route text, JSON profiles, the environment's
// geometry and the exit-status rule.
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "Environment.h"
#include "ProfileInput.h"
#include "Report.h"
#include "RouteInput.h"
#include "Session.h"

namespace {

using namespace xplpm;
using namespace std::literals;
using XpLib::Agent::Route;

// 2001:db8:ffff:...:ffff cut to `len` bits.
Route v6Route(int len) {
  XpLib::Ip6Prefix::Bytes a;
  a.fill(0xFF);
  a[0] = 0x20, a[1] = 0x01, a[2] = 0x0d, a[3] = 0xb8;
  for (int i = 0; i < 16; ++i) a[i] &= static_cast<XpLib::U8>(0xFF00 >> std::clamp(len - 8 * i, 0, 8));
  Route r;
  r.ipv6 = true;
  r.v6 = XpLib::Ip6Prefix(a, static_cast<XpLib::U8>(len));
  return r;
}

Route route(const std::string& prefix, XpLib::U64 nextHop = 1) {
  Route r;
  std::string why;
  EXPECT_EQ(XpLib::Agent::parseRouteLine(prefix + " " + std::to_string(nextHop), r, why), XpLib::Agent::LineKind::route) << why;
  return r;
}

// Every line is a route (kept, duplicate, other family), blank or bad: none is lost.
TEST(ToolInputTest, EveryRouteLineIsAccountedFor) {
  struct Case {
    const char* name;
    std::string text;
    std::size_t routes, bad;
  } cases[] = {
      {"CR line ends after a comment", "# header\r10.0.0.0/8 1\r10.1.0.0/16 2\r", 2, 0},
      {"CR LF line ends", "# header\r\n10.0.0.0/8 1\r\n\r\n10.1.0.0/16 2", 2, 0},
      {"NUL in a comment", "10.0.0.0/8 1\n# a\0b\n10.1.0.0/16 2\n"s, 2, 1},
      {"NUL in a route", "10.0.0.0/8 1\0 2\n10.1.0.0/16 2\n"s, 1, 1},
      {"empty bgpdump line", "TABLE_DUMP2||||||\nTABLE_DUMP2|1|B|192.0.2.1|64500|10.0.0.0/8|64500 15169|IGP\n", 1, 1},
      {"bgpdump path not ending in an AS", "TABLE_DUMP2|1|B|192.0.2.1|64500|10.0.0.0/8|64500 {}|IGP\n", 0, 1},
      {"bgpdump peer not an address", "TABLE_DUMP2|1|B|peer|64500|10.0.0.0/8|64500 15169|IGP\n", 0, 1},
      {"update line of no known type", "BGP4MP|1|X|192.0.2.1|64500|10.0.0.0/8\n", 0, 1},
      {"overlong line", std::string(kMaxLineBytes + 10, '1') + "\n10.0.0.0/8 1\n", 1, 1},
      {"byte-order mark", "\xEF\xBB\xBF" "10.0.0.0/8 1\n", 1, 0},
      {"duplicate and other family", "10.0.0.0/8 1\n10.0.0.0/8 2\n2001:db8::/32 1\n", 1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const RouteSet set = readRouteText("t", c.text, FamilyFilter::ipv4, true);
    EXPECT_EQ(set.routes.size(), c.routes);
    EXPECT_EQ(set.badLines.size(), c.bad);
    EXPECT_EQ(set.lines, set.accounted());
  }
}

// Several peers' lines for one prefix give one route by the documented rule, whatever their
// order; update lines replay as the changes of each prefix's route, in file order.
TEST(ToolInputTest, PeersPickOnePathAndUpdatesReplayInOrder) {
  const std::string rib = "TABLE_DUMP2|1|B|";
  struct Case {
    const char* name;
    std::vector<std::string> lines;
    std::string routes;  // "PREFIX NEXTHOP;" of the routes wanted at the end
    std::string ops;     // "+PREFIX NEXTHOP;" or "-PREFIX;" of the replay
    bool anyOrder = true;  // the RIB lines give the same routes in either order
  } cases[] = {
      {"shorter path", {rib + "192.0.2.1|1|10.0.0.0/8|1 2 3|IGP", rib + "192.0.2.2|1|10.0.0.0/8|1 4|IGP"}, "10.0.0.0/8 4;", ""},
      {"an AS set counts one", {rib + "192.0.2.1|1|10.0.0.0/8|1 2 {3,4,5}|IGP", rib + "192.0.2.2|1|10.0.0.0/8|1 2 6 7|IGP"},
       "10.0.0.0/8 3;", ""},
      {"lowest peer, by number not text", {rib + "192.0.2.10|1|10.0.0.0/8|1 10|IGP", rib + "192.0.2.9|1|10.0.0.0/8|1 9|IGP"},
       "10.0.0.0/8 9;", ""},
      {"an IPv4 peer before an IPv6 one", {rib + "2001:db8::1|1|10.0.0.0/8|1 6|IGP", rib + "192.0.2.200|1|10.0.0.0/8|1 4|IGP"},
       "10.0.0.0/8 4;", ""},
      {"a peer's later line replaces its own", {rib + "192.0.2.1|1|10.0.0.0/8|1 2|IGP", rib + "192.0.2.1|1|10.0.0.0/8|1 3 4|IGP"},
       "10.0.0.0/8 4;", "", false},
      {"updates replayed",
       {rib + "192.0.2.1|1|10.0.0.0/8|1 2|IGP", rib + "192.0.2.2|1|10.0.0.0/8|1 5 3|IGP", rib + "192.0.2.1|1|10.9.0.0/16|1 7|IGP",
        "BGP4MP|2|STATE|192.0.2.1|1|3|6", "BGP4MP|3|A|192.0.2.1|1|10.1.0.0/16|1 9|IGP|192.0.2.1|0|0||NAG||",
        "BGP4MP|4|W|192.0.2.1|1|10.0.0.0/8", "BGP4MP_ET|5|W|192.0.2.1|1|10.9.0.0/16", "BGP4MP|6|W|192.0.2.3|1|10.7.0.0/16",
        "BGP4MP|7|A|192.0.2.2|1|10.0.0.0/8|1 5 3|IGP|192.0.2.2|0|0||NAG||"},
       "10.0.0.0/8 3;10.1.0.0/16 9;", "+10.0.0.0/8 2;+10.9.0.0/16 7;+10.1.0.0/16 9;+10.0.0.0/8 3;-10.9.0.0/16;", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    for (bool reversed : {false, true}) {
      if (reversed && !c.anyOrder) continue;
      std::string text;
      for (std::size_t i = 0; i < c.lines.size(); ++i) text += c.lines[reversed ? c.lines.size() - 1 - i : i] + "\n";
      const RouteSet set = readRouteText("t", text, FamilyFilter::any, false);
      ASSERT_TRUE(set.badLines.empty()) << set.badLines.front().what;
      std::string routes, ops;
      for (const Route& r : set.routes) routes += r.prefixStr() + " " + std::to_string(r.nextHop) + ";";
      for (const RouteOp& op : set.ops) {
        ops += op.withdraw ? '-' : '+';
        ops += op.route.prefixStr();
        if (!op.withdraw) ops += ' ' + std::to_string(op.route.nextHop);
        ops += ';';
      }
      EXPECT_EQ(routes, c.routes);
      EXPECT_EQ(ops, c.ops);
      EXPECT_EQ(set.lines, set.accounted());
    }
  }
}

TEST(ToolInputTest, EscapedTextIsPrintable) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"plain 10.0.0.0/8", "plain 10.0.0.0/8"},
      {"\x1b[2J\r\t", "\\x1b[2J\\x0d\\x09"},
      {"a\0b"s, "a\\x00b"},
      {"caf\xC3\xA9 \xE2\x82\xAC", "caf\xC3\xA9 \xE2\x82\xAC"},                  // UTF-8 stays
      {"\xC2\x9B" "1m \xC3 \xED\xA0\x80", "\\xc2\\x9b1m \\xc3 \\xed\\xa0\\x80"},  // C1 control, cut, surrogate
      {"\\x41", "\\\\x41"},                                                    // no forged escapes
      {"\xF8\x88\x80", "\\xf8\\x88\\x80"},                                     // no lead byte above F4
  };
  for (const Case& c : cases) {
    EXPECT_EQ(escaped(c.in), c.out);
    EXPECT_NO_THROW(nlohmann::json(escaped(c.in)).dump());  // valid UTF-8
  }
}

// Each malformed field is named; the message starts with the file.
TEST(ToolInputTest, EveryMalformedProfileFieldIsNamed) {
  const std::string good = profileJson(*XpXdk::findChipProfile("reference"));
  struct Case {
    std::string from, to, field;  // field "": a syntax error, reported at its line
  } cases[] = {
      {"\"depth\": 32768", "\"depth\": 1e400", "ipv4.prefixTables[0].depth"},
      {"\"depth\": 32768", "\"depth\": 32768.5", "ipv4.prefixTables[0].depth"},
      {"\"depth\": 32768", "\"depth\": -1", "ipv4.prefixTables[0].depth"},
      {"\"depth\": 32768", "\"depth\": 99999999999999999999999", "ipv4.prefixTables[0].depth"},
      {"\"depth\": 32768", "\"depth\": null", "ipv4.prefixTables[0].depth"},
      {"\"hashSelector\": 0", "\"hashSelector\": 4", "ipv4.prefixTables[0].hashSelector"},
      {"\"id\": 0", "\"id\": 1", "ipv4.prefixTables[1].id"},
      {"\"id\": 0", "\"id\": 0, \"ids\": 0", "ipv4.prefixTables[0].ids"},
      {"\"sramWidth\": 256", "\"sramWidth\": 200", "ipv4.prefixTables[0].sramWidth"},
      {"\"keyLength\": 48,", "", "ipv4.keyLength"},
      {"\"nhiPairPerEntry\": 8", "\"nhiPairPerEntry\": 9", "ipv4.nhiPairPerEntry"},
      {"\"nhiBlockBaseWidth\": 14", "\"nhiBlockBaseWidth\": 17", "ipv4.nhiBlockBaseWidth"},
      {"\"nhiEntriesPerTile\": 16384", "\"nhiEntriesPerTile\": 2048", "ipv4.nhiEntriesPerTile"},
      {"\"nhiTiles\": 8", "\"nhiTiles\": true", "ipv4.nhiTiles"},
      {"\"rowBlkInc\": 16384", "\"rowBlkInc\": 32768", "nextHop.rowBlkInc"},
      {"\"name\": \"reference\"", "\"name\": 7", "name"},
      {"\"name\": \"reference\"", "\"name\": \"a\", \"name\": \"b\"", "name"},
      {"\"ipv4\": {", "\"ipv4\": [{", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.to);
    std::string text = good;
    text.replace(text.find(c.from), c.from.size(), c.to);
    try {
      readProfileText("f", text);
      ADD_FAILURE() << "accepted";
    } catch (const BadInput& e) {
      const std::string& where = e.errors().front().where;
      EXPECT_EQ(where.rfind(c.field.empty() ? "f:" : "f", 0), 0u) << where;
      EXPECT_TRUE(where.ends_with(c.field)) << where << ": " << e.errors().front().what;
    }
  }
  EXPECT_EQ(profileJson(readProfileText("f", good)), good);
}

// A sub-trie's first prefix is its whole branch, so a table must hold the longest key it
// may be given. IPv6 prefixes of 60 key bits and more may go to tables of tread 60 and up:
// a narrow table there stops the library on the first long prefix, one below does not.
TEST(ToolInputTest, NarrowIpv6TablesOnlyWhereNoLongPrefixGoes) {
  XpXdk::xpChipProfile narrow = *XpXdk::findChipProfile("small");
  for (auto& t : narrow.ipv6.prefixTableContext)
    if (t.valid && t.tread < 60) t.sramWidth = 128;
  const std::string text = profileJson(narrow);
  ASSERT_NO_THROW(readProfileText("below.json", text));
  auto agent = startAgent(narrow, {});
  for (int len = 0; len <= 128; ++len) {
    agent->routeIs(v6Route(len));
  }
  XpXdk::xpChipProfile wrong = *XpXdk::findChipProfile("small");
  for (auto& t : wrong.ipv6.prefixTableContext)
    if (t.valid && t.tread == 60) t.sramWidth = 128;
  EXPECT_THROW(readProfileText("wrong.json", profileJson(wrong)), BadInput);
  EXPECT_DEATH(
      {
        auto a = startAgent(wrong, {});
        a->routeIs(route("2001:db8::1/128"));
      },
      "entrySize");
}

class ScopedEnv {
 public:
  ScopedEnv(std::initializer_list<std::pair<const char*, const char*>> vars) {
    for (const auto& [name, value] : vars) {
      setenv(name, value, 1);
      names_.push_back(name);
    }
  }
  ~ScopedEnv() {
    for (const char* name : names_) unsetenv(name);
  }

 private:
  std::vector<const char*> names_;
};

// The variables change the geometry the library derives: a chip built as the profile says is
// refused (the agent's error is bad input, not a crash), one built with their geometry runs.
TEST(ToolInputTest, EnvironmentGeometryReachesTheChip) {
  const ScopedEnv env{{"MAX_LPM_PREFIXTABLE_SRAM_ENTRIES", "128"}, {"NHI_TABLE_SIZE", "4096"}, {"NUMBER_OF_NHI_TILES", "3"}};
  const XpXdk::xpChipProfile profile = *XpXdk::findChipProfile("reference");
  ASSERT_TRUE(environmentErrors(profile).empty());
  EXPECT_THROW(startAgent(profile, {}), BadInput);
  RunOptions options;
  options.probes = 2000;
  Session s(withEnvironmentGeometry(profile), options);
  std::vector<Route> routes;
  for (unsigned i = 0; i < 300; ++i) routes.push_back(route("10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0/24", i));
  s.program(routes);
  s.verify(routes);
  EXPECT_EQ(s.figures().programmed.failed(), 0u);
  EXPECT_EQ(s.figures().verifyMismatches, 0u);
  EXPECT_EQ(s.agent().family(false).sm->nhiAllocatorMap().size(), 3u);
  EXPECT_EQ(s.hardwareErrors(), 0u);
}

TEST(ToolInputTest, ExitStatusPutsCorruptionBeforeRoutesThatDidNotFit) {
  using nlohmann::json;
  struct Case {
    json doc;
    bool allowFailed;
    int status;
  } cases[] = {
      {{{"routes", {{"failed", 5}}}, {"hardware", {{"errors", 2}}}}, false, exitMismatch},
      {{{"routes", {{"failed", 5}}}, {"verify", {{"mismatches", 1}}}}, true, exitMismatch},
      {{{"restart", {{"model_equal", false}, {"failed", 0}}}}, false, exitMismatch},
      {{{"churn", {{"failed", 1}, {"mismatches", 0}}}}, false, exitNotFit},
  };
  for (const Case& c : cases) EXPECT_EQ(exitStatus(c.doc, c.allowFailed), c.status) << c.doc.dump();
}

}  // namespace
