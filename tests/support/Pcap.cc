#include "support/Pcap.h"

#include <arpa/inet.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace testsupport {

namespace {

constexpr uint32_t kPcapMagic = 0xa1b2c3d4;  // microsecond timestamps
constexpr uint32_t kLinktypeRaw = 101;
constexpr uint32_t kSnapLen = 262144;
constexpr uint8_t kProtoUdp = 17;

struct Address {
   int family = 0;
   std::vector<uint8_t> bytes;
};

Address parseAddress(std::string const& text) {
   Address a;
   uint8_t buf[16];
   if (inet_pton(AF_INET, text.c_str(), buf) == 1) {
      a.family = AF_INET;
      a.bytes.assign(buf, buf + 4);
   } else if (inet_pton(AF_INET6, text.c_str(), buf) == 1) {
      a.family = AF_INET6;
      a.bytes.assign(buf, buf + 16);
   } else {
      throw std::invalid_argument("not an IP address: '" + text + "'");
   }
   return a;
}

void put16(std::vector<uint8_t>& out, uint32_t v) {
   out.push_back(uint8_t(v >> 8));
   out.push_back(uint8_t(v));
}

void put32(std::vector<uint8_t>& out, uint32_t v) {
   put16(out, v >> 16);
   put16(out, v & 0xffff);
}

void putLe32(std::vector<uint8_t>& out, uint32_t v) {
   for (int i = 0; i < 4; ++i) {
      out.push_back(uint8_t(v >> (8 * i)));
   }
}

void putLe16(std::vector<uint8_t>& out, uint32_t v) {
   out.push_back(uint8_t(v));
   out.push_back(uint8_t(v >> 8));
}

void set16(std::vector<uint8_t>& out, std::size_t at, uint16_t v) {
   out[at] = uint8_t(v >> 8);
   out[at + 1] = uint8_t(v);
}

// Ones' complement sum of big-endian 16-bit words, odd tail padded with zero.
uint32_t sumWords(uint8_t const* data, std::size_t len, uint32_t sum = 0) {
   for (std::size_t i = 0; i + 1 < len; i += 2) {
      sum += uint32_t(data[i]) << 8 | data[i + 1];
   }
   if (len % 2) {
      sum += uint32_t(data[len - 1]) << 8;
   }
   return sum;
}

uint16_t foldChecksum(uint32_t sum) {
   while (sum >> 16) {
      sum = (sum & 0xffff) + (sum >> 16);
   }
   return uint16_t(~sum);
}

}  // namespace

std::vector<uint8_t> ipPacket(Datagram const& d) {
   Address const src = parseAddress(d.src);
   Address const dst = parseAddress(d.dst);
   if (src.family != dst.family) {
      throw std::invalid_argument("mixed address families: " + d.src + " -> " + d.dst);
   }
   bool const v4 = src.family == AF_INET;
   std::size_t const udpLen = 8 + d.payload.size();
   std::size_t const ipHeaderLen = v4 ? 20 : 40;
   if (udpLen + (v4 ? ipHeaderLen : 0) > 0xffff) {
      throw std::invalid_argument("payload too large for one UDP datagram");
   }

   // Pseudo header for the UDP checksum: addresses, protocol and UDP length.
   std::vector<uint8_t> pseudo = src.bytes;
   pseudo.insert(pseudo.end(), dst.bytes.begin(), dst.bytes.end());
   if (v4) {
      put16(pseudo, kProtoUdp);
      put16(pseudo, uint32_t(udpLen));
   } else {
      put32(pseudo, uint32_t(udpLen));
      put32(pseudo, kProtoUdp);
   }

   std::vector<uint8_t> udp;
   put16(udp, d.srcPort);
   put16(udp, d.dstPort);
   put16(udp, uint32_t(udpLen));
   put16(udp, 0);
   udp.insert(udp.end(), d.payload.begin(), d.payload.end());
   uint16_t csum =
       foldChecksum(sumWords(udp.data(), udp.size(), sumWords(pseudo.data(), pseudo.size())));
   set16(udp, 6, csum == 0 ? 0xffff : csum);  // zero means "no checksum"

   std::vector<uint8_t> pkt;
   if (v4) {
      static std::atomic<uint16_t> ident{0};
      put16(pkt, 0x4500);  // version 4, 5 words, no TOS
      put16(pkt, uint32_t(ipHeaderLen + udpLen));
      put16(pkt, ++ident);
      put16(pkt, 0x4000);  // don't fragment
      pkt.push_back(64);   // TTL
      pkt.push_back(kProtoUdp);
      put16(pkt, 0);
      pkt.insert(pkt.end(), src.bytes.begin(), src.bytes.end());
      pkt.insert(pkt.end(), dst.bytes.begin(), dst.bytes.end());
      set16(pkt, 10, foldChecksum(sumWords(pkt.data(), pkt.size())));
   } else {
      put32(pkt, 0x60000000);  // version 6, no traffic class or flow label
      put16(pkt, uint32_t(udpLen));
      pkt.push_back(kProtoUdp);  // next header
      pkt.push_back(64);         // hop limit
      pkt.insert(pkt.end(), src.bytes.begin(), src.bytes.end());
      pkt.insert(pkt.end(), dst.bytes.begin(), dst.bytes.end());
   }
   pkt.insert(pkt.end(), udp.begin(), udp.end());
   return pkt;
}

void writePcap(std::string const& path, std::vector<Datagram> const& datagrams) {
   // The file is written little-endian; readers detect byte order by the magic.
   std::vector<uint8_t> file;
   putLe32(file, kPcapMagic);
   putLe16(file, 2);  // version 2.4
   putLe16(file, 4);
   putLe32(file, 0);  // thiszone
   putLe32(file, 0);  // sigfigs
   putLe32(file, kSnapLen);
   putLe32(file, kLinktypeRaw);
   for (Datagram const& d : datagrams) {
      std::vector<uint8_t> const pkt = ipPacket(d);
      double const whole = std::floor(d.time);
      auto sec = uint32_t(whole);
      auto usec = uint32_t(std::llround((d.time - whole) * 1e6));
      if (usec >= 1000000) {
         ++sec;
         usec -= 1000000;
      }
      putLe32(file, sec);
      putLe32(file, usec);
      putLe32(file, uint32_t(pkt.size()));  // captured length
      putLe32(file, uint32_t(pkt.size()));  // original length
      file.insert(file.end(), pkt.begin(), pkt.end());
   }

   std::ofstream out(path, std::ios::binary | std::ios::trunc);
   if (!out) {
      throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
   }
   out.write(reinterpret_cast<char const*>(file.data()), std::streamsize(file.size()));
   out.close();
   if (!out) {
      throw std::runtime_error("cannot write " + path);
   }
}

}  // namespace testsupport
