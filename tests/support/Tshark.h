#pragma once

// Runs tshark over a capture file so that tests can check exported bytes with
// a decoder that shares no code with the exporter. tshark is run directly
// (no shell), with stdout and stderr captured and a bounded wait.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

struct TsharkOptions {
   // UDP port decoded as IPFIX ("-d udp.port==N,cflow").
   uint16_t decodePort = 4739;
   // The process is killed when it runs longer than this.
   std::chrono::milliseconds timeout{60000};
   // Appended to the command line before the output options, e.g. {"-Y", "cflow"}.
   std::vector<std::string> extraArgs;
};

struct TsharkResult {
   // rows[packet][field] holds every occurrence of that field in that packet,
   // in the order tshark dissected them; empty when the field is absent.
   using Values = std::vector<std::string>;
   std::vector<std::vector<Values>> rows;
   std::vector<std::string> fields;  // as requested, one column each
   std::string stdoutText;
   std::string stderrText;
   int exitCode = -1;  // -1 when killed or not run
   bool timedOut = false;
   std::vector<std::string> argv;  // the command that was run

   bool ok() const { return exitCode == 0 && !timedOut; }
   // Values of `field` in packet `packet` (0-based); empty when the packet has
   // none. Throws std::out_of_range if `field` was not requested.
   Values at(std::size_t packet, std::string const& field) const;
   // Every value of `field` over all packets, packet by packet.
   Values all(std::string const& field) const;
   // Command line, exit code and stderr, for failure messages.
   std::string describe() const;
   // Index of `field` in `fields`; throws std::out_of_range if absent.
   std::size_t column(std::string const& field) const;
};

// True when a working tshark binary is on PATH (checked once per process).
bool tsharkAvailable();

// tshark -r <pcap> -d udp.port==<port>,cflow -T fields -e f1 -e f2 ...
// Multiple occurrences of one field in a packet are split into separate values.
TsharkResult runTshark(std::string const& pcapPath, std::vector<std::string> const& fields,
                       TsharkOptions const& options = {});

// Full packet details ("-V"). Throws std::runtime_error if tshark fails.
std::string runTsharkVerbose(std::string const& pcapPath, TsharkOptions const& options = {});

// A fresh, unique file name under $IPFIX_TEST_TMPDIR (created if needed), or
// under /tmp when that is unset. "capture.pcap" gives "capture-<unique>.pcap".
std::string tempPath(std::string const& stem);

// Removes the file when it goes out of scope.
class TempFile {
 public:
   explicit TempFile(std::string const& stem) : path_(tempPath(stem)) {}
   ~TempFile();
   TempFile(TempFile const&) = delete;
   TempFile& operator=(TempFile const&) = delete;
   std::string const& path() const { return path_; }

 private:
   std::string path_;
};

}  // namespace testsupport
