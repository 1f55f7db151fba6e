// Address value types: text forms at their boundaries, byte layouts, ordering and hashing.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "Pelto/Address.h"
#include "support/DeathText.h"

using namespace Pelto;
using namespace std::string_literals;
using testsupport::errorOf;

namespace {

using Strings = std::vector<std::string>;
using Octets = std::vector<std::uint8_t>;

template <class T>
std::string streamed(T const& v) {
   std::ostringstream os;
   os << v;
   return os.str();
}

// Each `good` text parses and prints unchanged, or as what follows " -> " in it. Each `bad[i]` is
// refused, and where T has fromString() that throws a message containing `why[i]`.
template <class T>
void checkText(Strings const& good, Strings const& bad, Strings const& why = {}) {
   constexpr bool throwing = requires {
      T::fromString("");
   };
   for (auto const& g : good) {
      auto const arrow = g.find(" -> ");
      std::string const in = g.substr(0, arrow), out = arrow != g.npos ? g.substr(arrow + 4) : in;
      auto a = T::parse(in);
      ASSERT_TRUE(a) << in;
      EXPECT_EQ(streamed(*a), out);
      if constexpr (throwing) {
         EXPECT_EQ(errorOf([&] { T::fromString(in); }), "") << in;
      }
   }
   ASSERT_EQ(why.size(), throwing ? bad.size() : 0);
   for (std::size_t i = 0; i < bad.size(); ++i) {
      EXPECT_FALSE(T::parse(bad[i])) << '"' << bad[i] << '"';
      if constexpr (throwing) {
         auto const error = errorOf([&] { T::fromString(bad[i]); });
         EXPECT_NE(error.find(why[i]), std::string::npos) << bad[i] << ": " << error;
      }
   }
}

// `sorted` must be strictly increasing; `same` holds equal values parsed from text ("" for T()).
template <class T>
void expectOrderedAndHashed(std::vector<T> const& sorted, Strings const& same) {
   ASSERT_EQ(sorted.size(), same.size());
   std::unordered_set<T> set(sorted.begin(), sorted.end());
   for (std::size_t i = 0; i < sorted.size(); ++i) {
      T const other = same[i].empty() ? T() : *T::parse(same[i]);
      set.insert(other);
      EXPECT_EQ(sorted[i], other) << i;
      EXPECT_EQ(std::hash<T>()(sorted[i]), std::hash<T>()(other)) << i;
      for (std::size_t j = i + 1; j < sorted.size(); ++j) {
         EXPECT_TRUE(sorted[i] < sorted[j] && !(sorted[j] < sorted[i]) && sorted[i] != sorted[j])
             << i << " < " << j;
      }
   }
   EXPECT_EQ(set.size(), sorted.size());
}

}  // namespace

TEST(PeltoAddress, AddressTextBoundariesAndJunk) {
   checkText<IpAddr>(
       {"0.0.0.0", "255.255.255.255", "10.0.255.9"},
       {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.256", "1..3.4", "1.2.3.", " 1.2.3.4",
        "1.2.3.4x", "01.2.3.4", "+1.2.3.4", "1.2.3.4\0"s, "1.2\0.3.4"s, "4294967296.1.1.1"});
   EXPECT_EQ(IpAddr::parse("10.0.255.9")->value(), 0x0a00ff09u);
   EXPECT_TRUE(IpAddr::ipAddrZero().isZero() && !IpAddr(1).isZero());
   checkText<Ip6Addr>(
       {"::", "::ffff:1.2.3.4", "0:0:0:0:0:0:0:1 -> ::1", "2001:DB8:0:0:0:0:0:1 -> 2001:db8::1",
        "2001:db8:0:1:0:0:0:1 -> 2001:db8:0:1::1",
        "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255 -> "
        "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
       {"", ":::", "1::2::3", "12345::", "::1 ", "[::1]", "::1%eth0", "::1\0"s, "::\0:1"s,
        "1.2.3.4", "::ffff:1.2.3.256", std::string(1000, '1')});
   Ip6Addr::Bytes const mapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 1, 2, 3, 4};
   EXPECT_EQ(Ip6Addr::parse("::ffff:1.2.3.4")->bytes(), mapped);
   EXPECT_TRUE(Ip6Addr::parse("::")->isZero() && !Ip6Addr::parse("::1")->isZero());
}

TEST(PeltoAddress, EndpointTextBoundariesAndErrors) {
   checkText<IpAndPort>(
       {"1.2.3.4:4739", "0.0.0.0:0", "255.255.255.255:65535"},
       {"1.2.3.4:65536", "1.2.3.4:99999999999", "1.2.3.4:", "1.2.3.4", "", "1.2.3.256:80",
        "[1.2.3.4]:80", "1.2.3.4:-1", "1.2.3.4:80\0"s},
       {"port > 65535", "port > 65535", "missing port", "missing ':' before the port", "empty",
        "bad IPv4 address", "bad IPv4 address", "port is not a decimal number",
        "port is not a decimal number"});
   IpAndPort const p = *IpAndPort::parse("10.1.2.3:4739");
   EXPECT_TRUE(p.ipAddr() == IpAddr(0x0a010203) && p.port() == 4739);
   EXPECT_TRUE(IpAndPort().isZero() && !IpAndPort(IpAddr(), 1).isZero());
   // Quotes and unprintable octets of the input are escaped in the message.
   EXPECT_EQ(errorOf([] { IpAndPort::fromString("\"\x01"); }),
             "bad IPv4 address and port \"\\\"\\x01\": missing ':' before the port");
   checkText<Ip6AndPort>(
       {"[::1]:4739", "[2001:db8::1]:65535", "[::ffff:1.2.3.4]:0", "[0:0::1]:80 -> [::1]:80"},
       {"::1:4739", "[::1:4739", "[::1]", "[::1]]:80", "[::1]:", "[::1]:65536", "[]:80",
        "[::1\0]:80"s, "[::1]:80 ", ""},
       {"missing '['", "missing ']'", "missing ':' after ']'", "missing ':' after ']'",
        "missing port", "port > 65535", "bad IPv6 address", "bad IPv6 address",
        "port is not a decimal number", "empty"});
   EXPECT_EQ(Ip6AndPort::parse("[0:0::1]:80")->toString(), "[::1]:80");
   EXPECT_EQ(errorOf([] { Ip6AndPort::fromString("[::1:4739"); }),
             "bad IPv6 address and port \"[::1:4739\": missing ']'");
}

TEST(PeltoAddress, IpGenAddrLayoutIsFamilyThenNetworkOrder) {
   auto raw = [](IpGenAddr const& a) {
      Octets v(sizeof(a));
      std::memcpy(v.data(), &a, sizeof(a));
      return v;
   };
   EXPECT_EQ(raw(IpGenAddr()), Octets(17, 0));
   IpGenAddr const v4 = *IpGenAddr::parse("1.2.3.4"), v6 = *IpGenAddr::parse("2001:db8::7");
   EXPECT_EQ(raw(v4), (Octets{4, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
   EXPECT_EQ(raw(v6), (Octets{6, 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}));
   EXPECT_TRUE(v4.isV4() && !v4.isV6() && v6.isV6() && !v6.isV4());
   EXPECT_TRUE(v4.v4() == IpAddr(0x01020304) && v6.v6() == *Ip6Addr::parse("2001:db8::7"));
   EXPECT_EQ(streamed(IpGenAddr()), "");
   checkText<IpGenAddr>({"1.2.3.4", "2001:db8::7"}, {"", "1.2.3", "::1::", "[::1]", "1.2.3.4\0"s},
                        Strings(5, "bad IP address \""));
   EXPECT_EQ(errorOf([] { IpGenAddr::fromString("1.2.3"); }),
             "bad IP address \"1.2.3\": not an IPv4 or IPv6 address");
   EXPECT_TRUE(IpGenAddr(IpAddr()).isZero() && IpGenAddr(Ip6Addr()).isZero());
   EXPECT_FALSE(IpGenAddr::parse("::1")->isZero());
}

TEST(PeltoAddress, OrderingAndHashAgreeWithEquality) {
   // IPv4 orders numerically, not as text: 9.x before 10.x.
   expectOrderedAndHashed<IpAddr>({IpAddr(), IpAddr(0x09ffffff), IpAddr(0x0a000000)},
                                  {"0.0.0.0", "9.255.255.255", "10.0.0.0"});
   expectOrderedAndHashed<Ip6Addr>(
       {Ip6Addr(), *Ip6Addr::parse("::1"), *Ip6Addr::parse("::1:0"), *Ip6Addr::parse("1::")},
       {"0::0", "0::01", "0:0::1:0", "1:0::0"});
   // No family first, then IPv4, then IPv6.
   expectOrderedAndHashed<IpGenAddr>(
       {IpGenAddr(), IpGenAddr(IpAddr(0xffffffff)), IpGenAddr(Ip6Addr())},
       {"", "255.255.255.255", "::"});
   // Address first, port second.
   expectOrderedAndHashed<IpAndPort>(
       {IpAndPort(IpAddr(1), 65535), IpAndPort(IpAddr(2), 0), IpAndPort(IpAddr(2), 1)},
       {"0.0.0.1:65535", "0.0.0.2:0", "0.0.0.2:1"});
   expectOrderedAndHashed<Ip6AndPort>(
       {Ip6AndPort(*Ip6Addr::parse("::1"), 65535), Ip6AndPort(*Ip6Addr::parse("::2"), 0)},
       {"[::1]:65535", "[::2]:0"});
   expectOrderedAndHashed<IntfId>({IntfId("Ethernet10"), IntfId("Ethernet2")},
                                  {"Ethernet10", "Ethernet2"});
}

TEST(PeltoAddress, DscpRangeAndTos) {
   for (auto [value, tos] : {std::pair{0u, 0}, {1u, 4}, {46u, 184}, {63u, 252}}) {
      EXPECT_EQ(DscpValue(value).tos(), tos) << value;
      EXPECT_EQ(streamed(DscpValue(value)), std::to_string(value));
   }
   EXPECT_TRUE(DscpValue() == DscpValue(0) && DscpValue(0) < DscpValue(46) &&
               !(DscpValue(46) < DscpValue(0)));
   EXPECT_EQ(std::hash<DscpValue>()(DscpValue()), std::hash<DscpValue>()(DscpValue(0u)));
   // 256 would wrap to 0 if narrowed before the check.
   for (unsigned bad : {64u, 256u, 0xffffffffu}) {
      EXPECT_EQ(errorOf([&] { DscpValue{bad}; }), "Pelto::DscpValue::value > 63 not allowed");
      EXPECT_THROW(DscpValue{bad}, Kivo::RangeException) << bad;
   }
}

TEST(PeltoAddress, IntfIdNameLimits) {
   checkText<IntfId>({"Port-Channel5", "Ethernet3/1.100", std::string(100, 'e')}, {});
   for (auto const& s : {""s, std::string(101, 'e'), "Eth 1"s, "Eth\t1"s, "Eth\x7f"s, "Eth1\0"s}) {
      EXPECT_FALSE(IntfId::parse(s)) << s;
      EXPECT_THROW(IntfId{s}, Kivo::RangeException) << s;
   }
   EXPECT_EQ(IntfId("Ethernet3/1.100").stringValue(), "Ethernet3/1.100");
}
