#include "Pelto/Address.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace Pelto {

namespace {

// Reads a decimal number of digits only (no sign, no blanks) that is at most `max`.
std::optional<std::uint32_t> decimal(std::string_view s, std::uint32_t max) {
   if (s.empty()) {
      return std::nullopt;
   }
   std::uint32_t v = 0;
   for (char c : s) {
      if (c < '0' || c > '9') {
         return std::nullopt;
      }
      v = v * 10 + static_cast<std::uint32_t>(c - '0');
      if (v > max) {
         return std::nullopt;
      }
   }
   return v;
}

// Reads the port after the address; on failure says why in `why`.
std::optional<std::uint16_t> port(std::string_view s, char const** why) {
   if (s.empty()) {
      *why = "missing port";
      return std::nullopt;
   }
   for (char c : s) {
      if (c < '0' || c > '9') {
         *why = "port is not a decimal number";
         return std::nullopt;
      }
   }
   auto const v = decimal(s, Kivo::maxU16());
   if (!v) {
      *why = "port > 65535";
      return std::nullopt;
   }
   return static_cast<std::uint16_t>(*v);
}

std::optional<IpAndPort> parseIpAndPort(std::string_view s, char const** why) {
   if (s.empty()) {
      *why = "empty";
      return std::nullopt;
   }
   auto const colon = s.rfind(':');
   if (colon == std::string_view::npos) {
      *why = "missing ':' before the port";
      return std::nullopt;
   }
   auto const a = IpAddr::parse(s.substr(0, colon));
   if (!a) {
      *why = "bad IPv4 address";
      return std::nullopt;
   }
   auto const p = port(s.substr(colon + 1), why);
   if (!p) {
      return std::nullopt;
   }
   return IpAndPort(*a, *p);
}

std::optional<Ip6AndPort> parseIp6AndPort(std::string_view s, char const** why) {
   if (s.empty()) {
      *why = "empty";
      return std::nullopt;
   }
   if (s.front() != '[') {
      *why = "missing '['";
      return std::nullopt;
   }
   auto const close = s.find(']');
   if (close == std::string_view::npos) {
      *why = "missing ']'";
      return std::nullopt;
   }
   auto const a = Ip6Addr::parse(s.substr(1, close - 1));
   if (!a) {
      *why = "bad IPv6 address";
      return std::nullopt;
   }
   auto const rest = s.substr(close + 1);
   if (rest.empty() || rest.front() != ':') {
      *why = "missing ':' after ']'";
      return std::nullopt;
   }
   auto const p = port(rest.substr(1), why);
   if (!p) {
      return std::nullopt;
   }
   return Ip6AndPort(*a, *p);
}

[[noreturn]] void throwBad(char const* what, std::string_view s, char const* why) {
   throw Kivo::Exception(Kivo::String("bad ") + what + " " + Kivo::quotedForMessage(s) + ": " +
                         why);
}

// What `parse` reads from `s`, or the exception naming `what` was wrong and why.
template <class T>
T parsedOrThrow(std::optional<T> (*parse)(std::string_view, char const**), char const* what,
                std::string_view s) {
   char const* why = nullptr;
   std::optional<T> a = parse(s, &why);
   if (!a) {
      throwBad(what, s, why);
   }
   return *a;
}

}  // namespace

// --- IpAddr

std::optional<IpAddr> IpAddr::parse(std::string_view s) {
   std::uint32_t v = 0;
   for (int i = 0; i < 4; ++i) {
      // The first three octets end at a dot, the last at the end of the text.
      auto const end = i < 3 ? s.find('.') : s.size();
      if (end == std::string_view::npos) {
         return std::nullopt;
      }
      auto const part = s.substr(0, end);
      if (part.size() > 1 && part.front() == '0') {
         return std::nullopt;
      }
      auto const octet = decimal(part, 255);
      if (!octet) {
         return std::nullopt;
      }
      v = v << 8 | *octet;
      s.remove_prefix(i < 3 ? end + 1 : end);
   }
   return IpAddr(v);
}

Kivo::String IpAddr::toString() const {
   char buf[16];
   char* p = buf;
   for (int shift = 24; shift >= 0; shift -= 8) {
      p = std::to_chars(p, buf + sizeof(buf), (value_ >> shift) & 0xff).ptr;
      if (shift) {
         *p++ = '.';
      }
   }
   return Kivo::String(buf, p);
}

in_addr IpAddr::toInAddr() const {
   in_addr a{};
   a.s_addr = htonl(value_);
   return a;
}

IpAddr IpAddr::fromInAddr(in_addr a) {
   return IpAddr(ntohl(a.s_addr));
}

// --- Ip6Addr

std::optional<Ip6Addr> Ip6Addr::parse(std::string_view s) {
   // inet_pton wants a terminated string: an embedded NUL would hide what follows it.
   char buf[INET6_ADDRSTRLEN];
   if (s.size() >= sizeof(buf) || s.find('\0') != std::string_view::npos) {
      return std::nullopt;
   }
   std::memcpy(buf, s.data(), s.size());
   buf[s.size()] = '\0';
   in6_addr a;
   if (inet_pton(AF_INET6, buf, &a) != 1) {
      return std::nullopt;
   }
   return fromIn6Addr(a);
}

Kivo::String Ip6Addr::toString() const {
   char buf[INET6_ADDRSTRLEN];
   in6_addr const a = toIn6Addr();
   char const* text = inet_ntop(AF_INET6, &a, buf, sizeof(buf));
   KIVO_ASSERT(text != nullptr);
   return text;
}

in6_addr Ip6Addr::toIn6Addr() const {
   in6_addr a;
   std::memcpy(a.s6_addr, bytes_.data(), bytes_.size());
   return a;
}

Ip6Addr Ip6Addr::fromIn6Addr(in6_addr const& a) {
   Bytes b;
   std::memcpy(b.data(), a.s6_addr, b.size());
   return Ip6Addr(b);
}

// --- IpGenAddr

IpGenAddr::IpGenAddr(IpAddr a) : family(Family::ipv4) {
   std::uint32_t const v = a.value();
   addr[0] = static_cast<std::uint8_t>(v >> 24);
   addr[1] = static_cast<std::uint8_t>(v >> 16);
   addr[2] = static_cast<std::uint8_t>(v >> 8);
   addr[3] = static_cast<std::uint8_t>(v);
}

IpGenAddr::IpGenAddr(Ip6Addr const& a) : family(Family::ipv6) {
   std::memcpy(addr, a.bytes().data(), sizeof(addr));
}

bool IpGenAddr::isZero() const {
   for (std::uint8_t b : addr) {
      if (b) {
         return false;
      }
   }
   return true;
}

IpAddr IpGenAddr::v4() const {
   KIVO_ASSERT(isV4());
   return IpAddr(std::uint32_t{addr[0]} << 24 | std::uint32_t{addr[1]} << 16 |
                 std::uint32_t{addr[2]} << 8 | addr[3]);
}

Ip6Addr IpGenAddr::v6() const {
   KIVO_ASSERT(isV6());
   Ip6Addr::Bytes b;
   std::memcpy(b.data(), addr, b.size());
   return Ip6Addr(b);
}

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view s) {
   if (s.find(':') != std::string_view::npos) {
      if (auto a = Ip6Addr::parse(s)) {
         return IpGenAddr(*a);
      }
   } else if (auto a = IpAddr::parse(s)) {
      return IpGenAddr(*a);
   }
   return std::nullopt;
}

IpGenAddr IpGenAddr::fromString(std::string_view s) {
   auto a = parse(s);
   if (!a) {
      throwBad("IP address", s, s.empty() ? "empty" : "not an IPv4 or IPv6 address");
   }
   return *a;
}

Kivo::String IpGenAddr::toString() const {
   switch (family) {
      case Family::ipv4:
         return v4().toString();
      case Family::ipv6:
         return v6().toString();
      case Family::none:
         break;
   }
   return "";
}

// --- IpAndPort, Ip6AndPort

std::optional<IpAndPort> IpAndPort::parse(std::string_view s) {
   char const* why = nullptr;
   return parseIpAndPort(s, &why);
}

IpAndPort IpAndPort::fromString(std::string_view s) {
   return parsedOrThrow(parseIpAndPort, "IPv4 address and port", s);
}

Kivo::String IpAndPort::toString() const {
   return ipAddr_.toString() + ":" + std::to_string(port_);
}

sockaddr_in IpAndPort::toSockaddr() const {
   sockaddr_in sa{};
   sa.sin_family = AF_INET;
   sa.sin_port = htons(port_);
   sa.sin_addr = ipAddr_.toInAddr();
   return sa;
}

IpAndPort IpAndPort::fromSockaddr(sockaddr_in const& sa) {
   return IpAndPort(IpAddr::fromInAddr(sa.sin_addr), ntohs(sa.sin_port));
}

std::optional<Ip6AndPort> Ip6AndPort::parse(std::string_view s) {
   char const* why = nullptr;
   return parseIp6AndPort(s, &why);
}

Ip6AndPort Ip6AndPort::fromString(std::string_view s) {
   return parsedOrThrow(parseIp6AndPort, "IPv6 address and port", s);
}

Kivo::String Ip6AndPort::toString() const {
   return "[" + ip6Addr_.toString() + "]:" + std::to_string(port_);
}

sockaddr_in6 Ip6AndPort::toSockaddr() const {
   sockaddr_in6 sa{};
   sa.sin6_family = AF_INET6;
   sa.sin6_port = htons(port_);
   sa.sin6_addr = ip6Addr_.toIn6Addr();
   return sa;
}

Ip6AndPort Ip6AndPort::fromSockaddr(sockaddr_in6 const& sa) {
   return Ip6AndPort(Ip6Addr::fromIn6Addr(sa.sin6_addr), ntohs(sa.sin6_port));
}

// --- DscpValue, IntfId

void DscpValue::throwTooLarge() {
   throw Kivo::RangeException("Pelto::DscpValue::value > 63 not allowed");
}

Kivo::String DscpValue::toString() const {
   return std::to_string(value_);
}

IntfId::IntfId(std::string_view name) : name_(name) {
   if (!validName(name)) {
      throw Kivo::RangeException("Pelto::IntfId name " + Kivo::quotedForMessage(name) +
                                 " not allowed");
   }
}

bool IntfId::validName(std::string_view name) {
   if (name.empty() || name.size() > maxNameLen) {
      return false;
   }
   for (char c : name) {
      auto const u = static_cast<unsigned char>(c);
      if (u <= 0x20 || u == 0x7f) {
         return false;
      }
   }
   return true;
}

std::optional<IntfId> IntfId::parse(std::string_view s) {
   if (!validName(s)) {
      return std::nullopt;
   }
   return IntfId(s);
}

}  // namespace Pelto
