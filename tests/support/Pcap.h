#pragma once

// Writes classic libpcap files of UDP datagrams, so that tests can hand the bytes the exporter
// produced to an independent decoder.

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
   double time = 0;  // capture time, seconds since the epoch
};

// Writes a pcap file (microsecond timestamps, LINKTYPE_RAW), one packet per datagram: its raw IP
// packet, UDP checksum included. Throws std::invalid_argument on bad addresses or an oversized
// payload, std::runtime_error on I/O errors.
void writePcap(std::string const& path, std::vector<Datagram> const& datagrams);

}  // namespace testsupport
