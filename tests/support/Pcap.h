#pragma once

// Writes classic libpcap capture files holding UDP datagrams, so that tests can
// hand the bytes the exporter produced to an independent decoder.

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

struct Datagram {
   std::vector<uint8_t> payload;
   // Both addresses must be of the same family, IPv4 or IPv6 (textual form).
   std::string src = "192.0.2.1";
   std::string dst = "192.0.2.2";
   uint16_t srcPort = 50000;
   uint16_t dstPort = 4739;
   // Capture timestamp in seconds since the epoch.
   double time = 0;
};

// Builds the raw IP packet (IPv4 or IPv6 header, UDP header with checksum,
// payload) that carries the datagram. Throws std::invalid_argument on bad
// addresses or an oversized payload.
std::vector<uint8_t> ipPacket(Datagram const& datagram);

// Writes a pcap file (microsecond timestamps, LINKTYPE_RAW) with one packet
// per datagram. Throws std::runtime_error on I/O errors.
void writePcap(std::string const& path, std::vector<Datagram> const& datagrams);

}  // namespace testsupport
