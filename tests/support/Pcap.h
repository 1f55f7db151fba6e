#pragma once

// Writes pcap files of UDP datagrams through text2pcap (installed with tshark), so that tests can
// hand the bytes the exporter produced to an independent decoder.

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

struct Datagram {
   std::vector<uint8_t> payload;
   std::string src = "192.0.2.1";  // both IPv4 or both IPv6, textual form
   std::string dst = "192.0.2.2";
   uint16_t srcPort = 50000;
   uint16_t dstPort = 4739;
};

// Writes a pcap file, one UDP packet per datagram, with the addresses and ports of the first
// datagram for all of them. Throws std::runtime_error when text2pcap fails.
void writePcap(std::string const& path, std::vector<Datagram> const& datagrams);

}  // namespace testsupport
