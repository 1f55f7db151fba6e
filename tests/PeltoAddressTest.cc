// Address value types: text forms at their boundaries, byte layouts, ordering and hashing.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Pelto/Address.h"

using namespace Pelto;
using namespace std::string_literals;

namespace {

// `sorted` must be strictly increasing; `same` holds equal values built another way.
template <class T>
void expectOrderedAndHashed(std::vector<T> const& sorted, std::vector<T> const& same) {
   ASSERT_EQ(sorted.size(), same.size());
   for (std::size_t i = 0; i < sorted.size(); ++i) {
      EXPECT_EQ(sorted[i], same[i]) << i;
      EXPECT_EQ(std::hash<T>()(sorted[i]), std::hash<T>()(same[i])) << i;
      for (std::size_t j = i + 1; j < sorted.size(); ++j) {
         EXPECT_TRUE(sorted[i] < sorted[j] && !(sorted[j] < sorted[i])) << i << " < " << j;
         EXPECT_NE(sorted[i], sorted[j]) << i << " != " << j;
      }
   }
   std::unordered_set<T> set(sorted.begin(), sorted.end());
   set.insert(same.begin(), same.end());
   EXPECT_EQ(set.size(), sorted.size());
}

// The message of the Kivo::Exception `fn` throws; "" when it throws none.
template <class Fn>
std::string errorOf(Fn fn) {
   try {
      fn();
   } catch (Kivo::Exception const& e) {
      return e.what();
   }
   return "";
}

template <class T>
std::string streamed(T const& v) {
   std::ostringstream os;
   os << v;
   return os.str();
}

// An endpoint text that must print back unchanged (`why` empty), or be refused for `why`.
struct EndpointCase {
   std::string text;
   char const* why;
};

template <class T>
void checkEndpoints(std::vector<EndpointCase> const& cases) {
   for (auto const& c : cases) {
      auto a = T::parse(c.text);
      auto const error = errorOf([&] { T::fromString(c.text); });
      if (!*c.why) {
         ASSERT_TRUE(a) << c.text;
         EXPECT_EQ(streamed(*a), c.text);
         EXPECT_EQ(error, "");
      } else {
         EXPECT_FALSE(a) << c.text;
         EXPECT_NE(error.find(c.why), std::string::npos) << c.text << ": " << error;
      }
   }
}

}  // namespace

TEST(PeltoAddress, Ip4OctetBoundariesAndJunk) {
   struct Case {
      char const* text;
      std::uint32_t value;
   } const good[] = {{"0.0.0.0", 0}, {"255.255.255.255", 0xffffffff}, {"10.0.255.9", 0x0a00ff09}};
   for (auto const& c : good) {
      auto a = IpAddr::parse(c.text);
      ASSERT_TRUE(a) << c.text;
      EXPECT_EQ(a->value(), c.value) << c.text;
      EXPECT_EQ(streamed(*a), c.text);
   }
   std::string const bad[] = {"",           "1.2.3",           "1.2.3.4.5", "256.1.1.1",
                              "1.2.3.256",  "1..3.4",          "1.2.3.",    " 1.2.3.4",
                              "1.2.3.4x",   "01.2.3.4",        "+1.2.3.4",  "1.2.3.4\0"s,
                              "1.2\0.3.4"s, "4294967296.1.1.1"};
   for (auto const& s : bad) {
      EXPECT_FALSE(IpAddr::parse(s)) << '"' << s << '"';
   }
   EXPECT_TRUE(IpAddr::ipAddrZero().isZero());
   EXPECT_FALSE(IpAddr(1).isZero());
}

TEST(PeltoAddress, Ip6PrintsCanonicalAndRejectsJunk) {
   struct Case {
      char const* text;
      char const* canonical;
   } const good[] = {{"::", "::"},
                     {"0:0:0:0:0:0:0:1", "::1"},
                     {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
                     {"2001:db8:0:1:0:0:0:1", "2001:db8:0:1::1"},
                     {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
                     {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255",
                      "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
   for (auto const& c : good) {
      auto a = Ip6Addr::parse(c.text);
      ASSERT_TRUE(a) << c.text;
      EXPECT_EQ(streamed(*a), c.canonical);
   }
   Ip6Addr::Bytes const mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 1, 2, 3, 4};
   EXPECT_EQ(Ip6Addr::parse("::ffff:1.2.3.4")->bytes(), mapped);
   EXPECT_TRUE(Ip6Addr::parse("::")->isZero());
   EXPECT_FALSE(Ip6Addr::parse("::1")->isZero());

   std::string const bad[] = {"",        ":::",     "1::2::3",          "12345::",
                              "::1 ",    "[::1]",   "::1%eth0",         "::1\0"s,
                              "::\0:1"s, "1.2.3.4", "::ffff:1.2.3.256", std::string(1000, '1')};
   for (auto const& s : bad) {
      EXPECT_FALSE(Ip6Addr::parse(s)) << '"' << s << '"';
   }
}

TEST(PeltoAddress, IpAndPortPortBoundsAndErrors) {
   checkEndpoints<IpAndPort>({{"1.2.3.4:4739", ""},
                              {"0.0.0.0:0", ""},
                              {"255.255.255.255:65535", ""},
                              {"1.2.3.4:65536", "port > 65535"},
                              {"1.2.3.4:99999999999", "port > 65535"},
                              {"1.2.3.4:", "missing port"},
                              {"1.2.3.4", "missing ':' before the port"},
                              {"", "empty"},
                              {"1.2.3.256:80", "bad IPv4 address"},
                              {"[1.2.3.4]:80", "bad IPv4 address"},
                              {"1.2.3.4:-1", "port is not a decimal number"},
                              {"1.2.3.4:80\0"s, "port is not a decimal number"}});
   IpAndPort const p = *IpAndPort::parse("10.1.2.3:4739");
   EXPECT_EQ(p.ipAddr(), IpAddr(0x0a010203));
   EXPECT_EQ(p.port(), 4739);
   EXPECT_TRUE(IpAndPort().isZero());
   EXPECT_FALSE(IpAndPort(IpAddr(), 1).isZero());
   // Quotes and unprintable octets of the input are escaped in the message.
   EXPECT_EQ(errorOf([] { IpAndPort::fromString("\"\x01"); }),
             "bad IPv4 address and port \"\\\"\\x01\": missing ':' before the port");
}

TEST(PeltoAddress, Ip6AndPortBracketsAndErrors) {
   checkEndpoints<Ip6AndPort>({{"[::1]:4739", ""},
                               {"[2001:db8::1]:65535", ""},
                               {"[::ffff:1.2.3.4]:0", ""},
                               {"::1:4739", "missing '['"},
                               {"[::1:4739", "missing ']'"},
                               {"[::1]", "missing ':' after ']'"},
                               {"[::1]]:80", "missing ':' after ']'"},
                               {"[::1]:", "missing port"},
                               {"[::1]:65536", "port > 65535"},
                               {"[]:80", "bad IPv6 address"},
                               {"[::1\0]:80"s, "bad IPv6 address"},
                               {"[::1]:80 ", "port is not a decimal number"},
                               {"", "empty"}});
   EXPECT_EQ(Ip6AndPort::parse("[0:0::1]:80")->toString(), "[::1]:80");
   EXPECT_EQ(errorOf([] { Ip6AndPort::fromString("[::1:4739"); }),
             "bad IPv6 address and port \"[::1:4739\": missing ']'");
}

TEST(PeltoAddress, IpGenAddrLayoutIsFamilyThenNetworkOrder) {
   auto raw = [](IpGenAddr const& a) {
      std::vector<std::uint8_t> v(sizeof(a));
      std::memcpy(v.data(), &a, sizeof(a));
      return v;
   };
   std::vector<std::uint8_t> expected(17, 0);
   EXPECT_EQ(raw(IpGenAddr()), expected);

   IpGenAddr const v4 = *IpGenAddr::parse("1.2.3.4");
   expected = {4, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
   EXPECT_EQ(raw(v4), expected);
   EXPECT_TRUE(v4.isV4() && !v4.isV6());
   EXPECT_EQ(v4.v4(), IpAddr(0x01020304));

   IpGenAddr const v6 = *IpGenAddr::parse("2001:db8::7");
   expected = {6, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
   EXPECT_EQ(raw(v6), expected);
   EXPECT_TRUE(v6.isV6() && !v6.isV4());
   EXPECT_EQ(streamed(v6.v6()), "2001:db8::7");
   EXPECT_EQ(streamed(IpGenAddr()), "");

   for (auto s : {""s, "1.2.3"s, "::1::"s, "[::1]"s, "1.2.3.4\0"s}) {
      EXPECT_FALSE(IpGenAddr::parse(s)) << s;
   }
   EXPECT_EQ(errorOf([] { IpGenAddr::fromString("1.2.3"); }),
             "bad IP address \"1.2.3\": not an IPv4 or IPv6 address");
   EXPECT_TRUE(IpGenAddr(IpAddr()).isZero());
   EXPECT_TRUE(IpGenAddr(Ip6Addr()).isZero());
   EXPECT_FALSE(IpGenAddr::parse("::1")->isZero());
}

TEST(PeltoAddress, OrderingAndHashAgreeWithEquality) {
   // IPv4 orders numerically, not as text: 9.x before 10.x.
   expectOrderedAndHashed<IpAddr>(
       {IpAddr(), IpAddr(0x09ffffff), IpAddr(0x0a000000)},
       {*IpAddr::parse("0.0.0.0"), *IpAddr::parse("9.255.255.255"), *IpAddr::parse("10.0.0.0")});
   expectOrderedAndHashed<Ip6Addr>(
       {Ip6Addr(), *Ip6Addr::parse("::1"), *Ip6Addr::parse("::1:0"), *Ip6Addr::parse("1::")},
       {*Ip6Addr::parse("0::0"), *Ip6Addr::parse("0::01"), *Ip6Addr::parse("0:0::1:0"),
        *Ip6Addr::parse("1:0::0")});
   // No family first, then IPv4, then IPv6.
   expectOrderedAndHashed<IpGenAddr>(
       {IpGenAddr(), IpGenAddr(IpAddr(0xffffffff)), IpGenAddr(Ip6Addr())},
       {IpGenAddr{}, *IpGenAddr::parse("255.255.255.255"), *IpGenAddr::parse("::")});
   // Address first, port second.
   expectOrderedAndHashed<IpAndPort>(
       {IpAndPort(IpAddr(1), 65535), IpAndPort(IpAddr(2), 0), IpAndPort(IpAddr(2), 1)},
       {*IpAndPort::parse("0.0.0.1:65535"), *IpAndPort::parse("0.0.0.2:0"),
        *IpAndPort::parse("0.0.0.2:1")});
   expectOrderedAndHashed<Ip6AndPort>(
       {Ip6AndPort(*Ip6Addr::parse("::1"), 65535), Ip6AndPort(*Ip6Addr::parse("::2"), 0)},
       {*Ip6AndPort::parse("[::1]:65535"), *Ip6AndPort::parse("[::2]:0")});
   expectOrderedAndHashed<IntfId>({IntfId("Ethernet10"), IntfId("Ethernet2")},
                                  {*IntfId::parse("Ethernet10"), *IntfId::parse("Ethernet2")});
   expectOrderedAndHashed<DscpValue>({DscpValue(0), DscpValue(46)}, {DscpValue(), DscpValue(46u)});
}

TEST(PeltoAddress, DscpRangeAndTos) {
   struct Case {
      unsigned value;
      std::uint8_t tos;
   } const cases[] = {{0, 0}, {1, 4}, {46, 184}, {63, 252}};
   for (auto const& c : cases) {
      DscpValue const d(c.value);
      EXPECT_EQ(d.tos(), c.tos) << c.value;
      EXPECT_EQ(streamed(d), std::to_string(c.value));
   }
   // 256 would wrap to 0 if narrowed before the check.
   for (unsigned bad : {64u, 256u, 0xffffffffu}) {
      EXPECT_THROW(DscpValue{bad}, Kivo::RangeException) << bad;
      EXPECT_EQ(errorOf([&] { DscpValue{bad}; }), "Pelto::DscpValue::value > 63 not allowed");
   }
}

TEST(PeltoAddress, SockaddrRoundTripsInNetworkOrder) {
   IpAndPort const p4(IpAddr(0x01020304), 4739);
   sockaddr_in const sa = p4.toSockaddr();
   std::uint8_t const net4[] = {1, 2, 3, 4};
   EXPECT_EQ(sa.sin_family, AF_INET);
   EXPECT_EQ(sa.sin_port, htons(4739));
   EXPECT_EQ(std::memcmp(&sa.sin_addr, net4, 4), 0);
   EXPECT_EQ(IpAndPort::fromSockaddr(sa), p4);

   Ip6AndPort const p6(*Ip6Addr::parse("2001:db8::1"), 65535);
   sockaddr_in6 const sa6 = p6.toSockaddr();
   EXPECT_EQ(sa6.sin6_family, AF_INET6);
   EXPECT_EQ(sa6.sin6_port, htons(65535));
   EXPECT_EQ(std::memcmp(&sa6.sin6_addr, p6.ipAddr().bytes().data(), 16), 0);
   EXPECT_EQ(Ip6AndPort::fromSockaddr(sa6), p6);
}

TEST(PeltoAddress, IntfIdNameLimits) {
   for (auto const& s : {"Port-Channel5"s, "Ethernet3/1.100"s, std::string(100, 'e')}) {
      auto i = IntfId::parse(s);
      ASSERT_TRUE(i) << s;
      EXPECT_EQ(i->stringValue(), s);
   }
   for (auto const& s : {""s, std::string(101, 'e'), "Eth 1"s, "Eth\t1"s, "Eth\x7f"s, "Eth1\0"s}) {
      EXPECT_FALSE(IntfId::parse(s)) << s;
      EXPECT_THROW(IntfId{s}, Kivo::RangeException) << s;
   }
}
