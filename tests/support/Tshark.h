#pragma once

// Runs tshark over a capture file, so that tests can check exported bytes with a decoder that
// shares no code with the exporter.

#include <cstdint>
#include <string>
#include <vector>

#include "support/Command.h"

namespace testsupport {

struct TsharkResult : CommandResult {
   using Values = std::vector<std::string>;
   // rows[packet][column]: every occurrence of that field in that packet, in dissection order.
   std::vector<std::vector<Values>> rows;
   std::vector<std::string> fields;  // requested, one column each

   // Values of `field` over all packets, packet by packet; std::out_of_range for unrequested
   // fields.
   Values all(std::string const& field) const;
};

bool tsharkAvailable();  // a working tshark is on PATH (checked once per process)
// tshark -r <pcap> -d udp.port==<port>,cflow -T fields -e f1 -e f2 ..., killed after 60 s.
TsharkResult runTshark(std::string const& pcapPath, std::vector<std::string> const& fields,
                       std::uint16_t decodePort = 4739);
// Unique name in $IPFIX_TEST_TMPDIR (created) or /tmp: "a.pcap" gives "a-<unique>.pcap".
std::string tempPath(std::string const& stem);
// Removes the file when it goes out of scope.
struct TempFile {
   explicit TempFile(std::string const& stem) : path_(tempPath(stem)) {}
   ~TempFile();
   TempFile(TempFile const&) = delete;
   std::string const& path() const { return path_; }
   std::string const path_;
};

}  // namespace testsupport
