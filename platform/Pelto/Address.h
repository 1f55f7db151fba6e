// Network addresses and the small value types that travel with them: IPv4 and IPv6 addresses,
// an address of either family, address-and-port pairs, DSCP code points and interface names.
//
// All of them are plain values: copyable, compared with `==` and `<`, hashable (std::hash), and
// printed by `toString()` and `operator<<` in the form their `parse()` reads back. Every `parse()`
// returns std::nullopt on bad text and never throws; the `fromString()` variants throw
// Kivo::Exception saying what was wrong, for text that comes from an operator.
#pragma once

#include <netinet/in.h>

#include <array>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string_view>
#include <type_traits>

#include "Kivo/Kivo.h"

namespace Pelto {

// An IPv4 address, held as a number in host byte order: 1.2.3.4 is 0x01020304.
class IpAddr {
 public:
   constexpr IpAddr() = default;
   constexpr explicit IpAddr(std::uint32_t hostOrder) : value_(hostOrder) {}
   static constexpr IpAddr ipAddrZero() { return IpAddr(); }

   constexpr bool isZero() const { return value_ == 0; }
   constexpr std::uint32_t value() const { return value_; }

   // Dotted quad only: exactly four decimal octets of at most 255, no leading zeros (they read
   // as octal elsewhere), no signs, blanks or anything after the last octet.
   static std::optional<IpAddr> parse(std::string_view s);
   Kivo::String toString() const;

   in_addr toInAddr() const;
   static IpAddr fromInAddr(in_addr a);

   bool operator==(IpAddr const&) const = default;
   auto operator<=>(IpAddr const&) const = default;

 private:
   std::uint32_t value_ = 0;
};

// An IPv6 address, as its 16 octets in network order. Orders as a 128-bit number.
class Ip6Addr {
 public:
   using Bytes = std::array<std::uint8_t, 16>;

   constexpr Ip6Addr() = default;
   constexpr explicit Ip6Addr(Bytes const& b) : bytes_(b) {}
   static constexpr Ip6Addr zero() { return Ip6Addr(); }

   bool isZero() const { return bytes_ == Bytes{}; }
   Bytes const& bytes() const { return bytes_; }

   // The textual forms inet_pton(AF_INET6) accepts, IPv4-mapped ones such as "::ffff:1.2.3.4"
   // included. No zone ("%eth0"), no brackets, no blanks.
   static std::optional<Ip6Addr> parse(std::string_view s);
   // The canonical form: lower case, longest zero run compressed ("2001:db8::1", "::1").
   Kivo::String toString() const;

   in6_addr toIn6Addr() const;
   static Ip6Addr fromIn6Addr(in6_addr const& a);

   bool operator==(Ip6Addr const&) const = default;
   auto operator<=>(Ip6Addr const&) const = default;

 private:
   Bytes bytes_{};
};

// An address of either family, or none. The layout is fixed because records holding it are
// shared between processes: one family octet, then 16 address octets in network order (an IPv4
// address in the first four, the rest zero). The constructors keep unused octets zero, so the
// defaulted comparisons see only the address; `none` sorts first, then IPv4, then IPv6.
struct IpGenAddr {
   enum class Family : std::uint8_t { none = 0, ipv4 = 4, ipv6 = 6 };

   Family family = Family::none;
   std::uint8_t addr[16] = {};

   IpGenAddr() = default;
   IpGenAddr(IpAddr a);
   IpGenAddr(Ip6Addr const& a);

   bool isV4() const { return family == Family::ipv4; }
   bool isV6() const { return family == Family::ipv6; }
   // No family, or an all-zero address of either family.
   bool isZero() const;
   // REQUIRES: isV4().
   IpAddr v4() const;
   // REQUIRES: isV6().
   Ip6Addr v6() const;

   // Text containing ':' is read as IPv6, anything else as IPv4.
   static std::optional<IpGenAddr> parse(std::string_view s);
   static IpGenAddr fromString(std::string_view s);
   // The address in its family's form; "" for no family.
   Kivo::String toString() const;

   bool operator==(IpGenAddr const&) const = default;
   auto operator<=>(IpGenAddr const&) const = default;
};
static_assert(sizeof(IpGenAddr) == 17);
static_assert(std::is_trivially_copyable_v<IpGenAddr> && std::is_standard_layout_v<IpGenAddr>);

// An IPv4 transport endpoint, written "1.2.3.4:4739". Orders by address, then port.
class IpAndPort {
 public:
   constexpr IpAndPort() = default;
   constexpr IpAndPort(IpAddr a, std::uint16_t port) : ipAddr_(a), port_(port) {}

   IpAddr ipAddr() const { return ipAddr_; }
   std::uint16_t port() const { return port_; }
   bool isZero() const { return ipAddr_.isZero() && port_ == 0; }

   static std::optional<IpAndPort> parse(std::string_view s);
   static IpAndPort fromString(std::string_view s);
   Kivo::String toString() const;

   sockaddr_in toSockaddr() const;
   static IpAndPort fromSockaddr(sockaddr_in const& sa);

   bool operator==(IpAndPort const&) const = default;
   auto operator<=>(IpAndPort const&) const = default;

 private:
   IpAddr ipAddr_;
   std::uint16_t port_ = 0;
};

// An IPv6 transport endpoint, always written with brackets: "[2001:db8::1]:4739".
class Ip6AndPort {
 public:
   Ip6AndPort() = default;
   Ip6AndPort(Ip6Addr const& a, std::uint16_t port) : ip6Addr_(a), port_(port) {}

   Ip6Addr const& ipAddr() const { return ip6Addr_; }
   std::uint16_t port() const { return port_; }
   bool isZero() const { return ip6Addr_.isZero() && port_ == 0; }

   static std::optional<Ip6AndPort> parse(std::string_view s);
   static Ip6AndPort fromString(std::string_view s);
   Kivo::String toString() const;

   // Flow label and scope id are zero.
   sockaddr_in6 toSockaddr() const;
   static Ip6AndPort fromSockaddr(sockaddr_in6 const& sa);

   bool operator==(Ip6AndPort const&) const = default;
   auto operator<=>(Ip6AndPort const&) const = default;

 private:
   Ip6Addr ip6Addr_;
   std::uint16_t port_ = 0;
};

// A differentiated services code point: the upper six bits of the IPv4 TOS / IPv6 traffic class
// octet.
class DscpValue {
 public:
   static constexpr unsigned maxValue = 63;

   constexpr DscpValue() = default;
   // Throws Kivo::RangeException when `value` exceeds 63.
   constexpr explicit DscpValue(unsigned value) : value_(checked(value)) {}

   constexpr std::uint8_t value() const { return value_; }
   // The TOS / traffic class octet carrying this code point, ECN bits clear.
   constexpr std::uint8_t tos() const { return static_cast<std::uint8_t>((value_ << 2) & 0xff); }
   Kivo::String toString() const;

   bool operator==(DscpValue const&) const = default;
   auto operator<=>(DscpValue const&) const = default;

 private:
   [[noreturn]] static void throwTooLarge();
   static constexpr std::uint8_t checked(unsigned value) {
      if (value > maxValue) {
         throwTooLarge();
      }
      return static_cast<std::uint8_t>(value);
   }

   std::uint8_t value_ = 0;
};

// An interface, named as the switch names it: "Ethernet1", "Port-Channel5", "Ethernet3/1.100".
// Names are compared and ordered as strings. The default value names no interface and prints as
// "".
class IntfId {
 public:
   static constexpr std::size_t maxNameLen = 100;

   IntfId() = default;
   // Throws Kivo::RangeException when `name` is not a valid name (see validName).
   explicit IntfId(std::string_view name);

   // 1 to maxNameLen octets, none of them blank or a control character.
   static bool validName(std::string_view name);
   static std::optional<IntfId> parse(std::string_view s);

   Kivo::String const& stringValue() const { return name_; }
   Kivo::String toString() const { return name_; }

   bool operator==(IntfId const&) const = default;
   auto operator<=>(IntfId const&) const = default;

 private:
   Kivo::String name_;
};

// Every value type here prints as its toString().
template <class T>
concept PrintedByToString = std::same_as<T, IpAddr> || std::same_as<T, Ip6Addr> ||
    std::same_as<T, IpGenAddr> || std::same_as<T, IpAndPort> || std::same_as<T, Ip6AndPort> ||
    std::same_as<T, DscpValue> || std::same_as<T, IntfId>;
template <PrintedByToString T>
std::ostream& operator<<(std::ostream& os, T const& v) {
   return os << v.toString();
}

// Hash of an octet string; what the std::hash specialisations below are built on.
inline std::size_t hashBytes(void const* p, std::size_t n) {
   return std::hash<std::string_view>()(std::string_view(static_cast<char const*>(p), n));
}

}  // namespace Pelto

template <>
struct std::hash<Pelto::IpAddr> {
   std::size_t operator()(Pelto::IpAddr const& a) const noexcept {
      return std::hash<std::uint32_t>()(a.value());
   }
};

template <>
struct std::hash<Pelto::Ip6Addr> {
   std::size_t operator()(Pelto::Ip6Addr const& a) const noexcept {
      return Pelto::hashBytes(a.bytes().data(), a.bytes().size());
   }
};

template <>
struct std::hash<Pelto::IpGenAddr> {
   std::size_t operator()(Pelto::IpGenAddr const& a) const noexcept {
      return Pelto::hashBytes(&a, sizeof(a));
   }
};

template <>
struct std::hash<Pelto::IpAndPort> {
   std::size_t operator()(Pelto::IpAndPort const& a) const noexcept {
      return std::hash<std::uint64_t>()(std::uint64_t{a.ipAddr().value()} << 16 | a.port());
   }
};

template <>
struct std::hash<Pelto::Ip6AndPort> {
   std::size_t operator()(Pelto::Ip6AndPort const& a) const noexcept {
      return std::hash<Pelto::Ip6Addr>()(a.ipAddr()) * 31 + a.port();
   }
};

template <>
struct std::hash<Pelto::DscpValue> {
   std::size_t operator()(Pelto::DscpValue const& d) const noexcept { return d.value(); }
};

template <>
struct std::hash<Pelto::IntfId> {
   std::size_t operator()(Pelto::IntfId const& i) const noexcept {
      return std::hash<Kivo::String>()(i.stringValue());
   }
};
