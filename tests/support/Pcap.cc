#include "support/Pcap.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace testsupport {

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint8_t kProtoUdp = 17;

// Appends the low `n` bytes of `v`, big-endian unless `le`.
void put(Bytes& out, uint32_t v, int n = 2, bool le = false) {
   for (int i = 0; i < n; ++i) {
      out.push_back(uint8_t(v >> 8 * (le ? i : n - 1 - i)));
   }
}

Bytes address(std::string const& text) {
   uint8_t buf[16];
   for (int family : {AF_INET, AF_INET6}) {
      if (inet_pton(family, text.c_str(), buf) == 1) {
         return Bytes(buf, buf + (family == AF_INET ? 4 : 16));
      }
   }
   throw std::invalid_argument("not an IP address: '" + text + "'");
}

// Internet checksum of big-endian 16-bit words, odd tail padded with zero.
uint16_t checksum(Bytes const& b) {
   uint32_t sum = 0;
   for (std::size_t i = 0; i < b.size(); i += 2) {
      sum += uint32_t(b[i]) << 8 | (i + 1 < b.size() ? b[i + 1] : 0);
   }
   while (sum >> 16) {
      sum = (sum & 0xffff) + (sum >> 16);
   }
   return uint16_t(~sum);
}

// The raw IP packet (IPv4 or IPv6 header, UDP header with checksum, payload) of the datagram.
Bytes ipPacket(Datagram const& d) {
   Bytes const src = address(d.src), dst = address(d.dst);
   if (src.size() != dst.size()) {
      throw std::invalid_argument("mixed address families: " + d.src + " -> " + d.dst);
   }
   bool const v4 = src.size() == 4;
   std::size_t const udpLen = 8 + d.payload.size();
   if (udpLen + (v4 ? 20 : 0) > 0xffff) {
      throw std::invalid_argument("payload too large for one UDP datagram");
   }
   // The UDP checksum covers a pseudo header: addresses, protocol and UDP length.
   Bytes udp = src;
   udp.insert(udp.end(), dst.begin(), dst.end());
   put(udp, v4 ? kProtoUdp : uint32_t(udpLen), v4 ? 2 : 4);
   put(udp, v4 ? uint32_t(udpLen) : kProtoUdp, v4 ? 2 : 4);
   std::size_t const start = udp.size();
   for (uint32_t v : {uint32_t(d.srcPort), uint32_t(d.dstPort), uint32_t(udpLen), 0u}) {
      put(udp, v);
   }
   udp.insert(udp.end(), d.payload.begin(), d.payload.end());
   uint16_t const csum = checksum(udp);
   udp[start + 6] = csum ? uint8_t(csum >> 8) : 0xff;  // zero would mean "no checksum"
   udp[start + 7] = csum ? uint8_t(csum) : 0xff;

   Bytes pkt;
   if (v4) {
      // Version 4, 5 words; total length; ident 0; don't fragment; TTL 64; checksum 0 for now.
      for (uint32_t v : {0x4500u, uint32_t(20 + udpLen), 0u, 0x4000u, 64u << 8 | kProtoUdp, 0u}) {
         put(pkt, v);
      }
   } else {
      put(pkt, 0x60000000, 4);  // version 6, no traffic class or flow label
      put(pkt, uint32_t(udpLen));
      put(pkt, kProtoUdp << 8 | 64);  // next header, hop limit
   }
   pkt.insert(pkt.end(), src.begin(), src.end());
   pkt.insert(pkt.end(), dst.begin(), dst.end());
   if (v4) {
      uint16_t const hc = checksum(pkt);
      pkt[10] = uint8_t(hc >> 8), pkt[11] = uint8_t(hc);
   }
   pkt.insert(pkt.end(), udp.begin() + long(start), udp.end());
   return pkt;
}

}  // namespace

void writePcap(std::string const& path, std::vector<Datagram> const& datagrams) {
   // Little-endian; readers detect the byte order by the magic (microsecond timestamps).
   Bytes file;
   for (uint32_t v : {0xa1b2c3d4u, 2u | 4u << 16 /* version 2.4 */, 0u, 0u, 262144u /* snaplen */,
                      101u /* LINKTYPE_RAW */}) {
      put(file, v, 4, true);
   }
   for (Datagram const& d : datagrams) {
      Bytes const pkt = ipPacket(d);
      auto const usecs = uint64_t(std::llround(d.time * 1e6));
      for (uint64_t v :
           {usecs / 1000000, usecs % 1000000, uint64_t(pkt.size()), uint64_t(pkt.size())}) {
         put(file, uint32_t(v), 4, true);
      }
      file.insert(file.end(), pkt.begin(), pkt.end());
   }
   std::ofstream out(path, std::ios::binary | std::ios::trunc);
   if (!out.write(reinterpret_cast<char const*>(file.data()), std::streamsize(file.size()))
            .flush()) {
      throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
   }
}

}  // namespace testsupport
