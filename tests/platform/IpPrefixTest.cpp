// Parsing, printing and validity of the IP value types.
#include "platform/IpPrefix.h"

#include <gtest/gtest.h>

#include "platform/Exception.h"

namespace XpLib {
namespace {

TEST(IpPrefixTest, Ipv4TextRoundTripsAndRejectsBadInput) {
  for (const char* text : {"0.0.0.0/0", "10.1.0.0/16", "192.168.1.128/25", "255.255.255.255/32"}) {
    SCOPED_TRACE(text);
    auto p = Prefix::parse(text);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->str(), text);
  }
  struct Bad {
    const char* text;
    const char* why;
  } bad[] = {
      {"10.1.0.0", "missing '/length'"},
      {"10.1.0.0/33", "prefix length too long"},
      {"10.1.0.0/x", "prefix length is not a number"},
      {"10.1.0/16", "bad IPv4 address"},
      {"10.1.0.256/24", "bad IPv4 address"},
      {"10.1.0.0.1/24", "bad IPv4 address"},
      {"10.1.1.0/16", "address has bits set beyond the prefix length"},
  };
  for (const auto& b : bad) {
    SCOPED_TRACE(b.text);
    std::string why;
    EXPECT_FALSE(Prefix::parse(b.text, &why));
    EXPECT_EQ(why, b.why);
  }
}

TEST(IpPrefixTest, ConstructorRejectsBitsBeyondLength) {
  EXPECT_NO_THROW(Prefix(0x0A010000, 16));
  try {
    Prefix(0x0A010100, 16);
    FAIL() << "no exception";
  } catch (const RangeException& e) {
    EXPECT_STREQ(e.what(), "Prefix::validAsPrefix != true not allowed");
  }
  EXPECT_THROW(Prefix(0, 33), RangeException);
  Ip6Prefix::Bytes a{};
  a[15] = 1;
  EXPECT_THROW(Ip6Prefix(a, 120), RangeException);
  EXPECT_NO_THROW(Ip6Prefix(a, 128));
}

TEST(IpPrefixTest, Ipv6PrintsInCanonicalForm) {
  struct Case {
    const char* in;
    const char* out;
  } cases[] = {
      {"::/0", "::/0"},
      {"2001:DB8:0:0:0:0:0:0/32", "2001:db8::/32"},
      {"2001:db8:0:1:0:0:0:0/64", "2001:db8:0:1::/64"},
      {"2001:0:0:1:0:0:0:0/64", "2001:0:0:1::/64"},  // the first of two equal zero runs
      {"2001:db8:1:2:3:4:5:6/128", "2001:db8:1:2:3:4:5:6/128"},
      {"2001:db8:0:3:4:5:6:7/128", "2001:db8:0:3:4:5:6:7/128"},  // a single zero group stays
      {"::ffff:10.1.2.3/128", "::ffff:a01:203/128"},
      {"1::/16", "1::/16"},
      {"::1/128", "::1/128"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in);
    auto p = Ip6Prefix::parse(c.in);
    ASSERT_TRUE(p);
    EXPECT_EQ(p->str(), c.out);
    EXPECT_EQ(Ip6Prefix::parse(p->str()), p);
  }
  for (const char* bad : {"1:2:3:4:5:6:7/64", "1::2::3/64", ":1::/64", "1:2:3:4:5:6:7:8:9/128", "12345::/16",
                          "1:/16", "2001:db8::1/64", "::/129"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(Ip6Prefix::parse(bad));
  }
}

TEST(IpPrefixTest, OrderingIsByAddressThenLengthAndVrfFirst) {
  Prefix a = *Prefix::parse("10.0.0.0/8"), b = *Prefix::parse("10.0.0.0/16"), c = *Prefix::parse("11.0.0.0/8");
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT((VrfAndPrefix{1, c}), (VrfAndPrefix{2, a}));
  EXPECT_NE(a.hash(), b.hash());
  EXPECT_EQ((VrfAndPrefix{3, a}).hash(), (VrfAndPrefix{3, *Prefix::parse("10.0.0.0/8")}).hash());
}

}  // namespace
}  // namespace XpLib
