// The yardsticks the export code is measured against, each producing the same IPFIX messages as
// the component from the same rows: the reference IPFIX library (libfixbuf) encoding the options
// tables, a bare memcpy packer of pre-encoded records, and a bare sendto loop.
//
// Messages are whole IPFIX messages (header, one data set per message) of at most `maxMsgSize`
// octets, with the options template ids the component uses, observation domain `domain`, export
// time 0 and sequence numbers counted in data records from 0.
#pragma once

#include <benchmark/benchmark.h>
#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Bench {

using Message = std::string;

// The sizes every comparison uses.
constexpr std::uint16_t maxMsgSize = 1452;  // an MTU of 1500 less IPv6 and UDP headers
constexpr std::uint32_t domain = 7;
constexpr std::uint16_t intfTableId = 257;
constexpr std::uint16_t flowKeyTableId = 258;
constexpr std::uint32_t interfaces = 100000;
constexpr std::uint32_t flowKeys = 10000;
constexpr std::uint32_t templates = 680;
constexpr std::uint32_t templateFields = 20;
constexpr std::size_t collectors = 8;
// The fields of every data template in the template benchmarks, in order.
constexpr std::array<char const*, templateFields> templateFieldNames = {
    "sourceIPv4Address",
    "destinationIPv4Address",
    "sourceTransportPort",
    "destinationTransportPort",
    "protocolIdentifier",
    "ipClassOfService",
    "tcpControlBits",
    "ingressInterface",
    "egressInterface",
    "octetDeltaCount",
    "packetDeltaCount",
    "flowStartMilliseconds",
    "flowEndMilliseconds",
    "ipNextHopIPv4Address",
    "bgpSourceAsNumber",
    "bgpDestinationAsNumber",
    "sourceIPv4PrefixLength",
    "destinationIPv4PrefixLength",
    "vlanId",
    "flowEndReason"};

struct IntfRow {
   std::uint32_t index;
   std::string name;
};
struct FlowKeyRow {
   std::uint16_t templateId;
   std::uint64_t flowKeyIndicator;
};

// "Ethernet1" .. "Ethernet<n>", with indexes 1 .. n.
std::vector<IntfRow> intfRows(std::uint32_t n);
// Template ids 260 .. 260 + n - 1, each with a different key bitmap.
std::vector<FlowKeyRow> flowKeyRows(std::uint32_t n);
// The interface rows as encoded records: index, then the name with its one-octet length.
std::vector<std::string> encodedIntfRecords(std::uint32_t n);

// Items (records) per second and messages per pass.
void countRecords(benchmark::State& state, std::size_t records, std::vector<Message> const& out);

// A loopback UDP socket nobody reads (the kernel drops what does not fit, which costs the sender
// nothing) and a socket that sends to it with a bare sendto.
class Sink {
 public:
   Sink();
   ~Sink();
   Sink(Sink&& o) noexcept;
   Sink(Sink const&) = delete;
   Sink& operator=(Sink const&) = delete;
   void send(std::string const& datagram) const;
   std::uint16_t port() const { return ntohs(addr_.sin_port); }

 private:
   int rx_ = -1;
   int tx_ = -1;
   sockaddr_in addr_{};
};

// One libfixbuf session, buffer and memory exporter, kept across encodes so that a benchmark
// times the encoding and not the set-up.
class FixbufEncoder {
 public:
   FixbufEncoder(std::uint16_t maxMsgSize, std::uint32_t domain);
   ~FixbufEncoder();
   FixbufEncoder(FixbufEncoder const&) = delete;
   FixbufEncoder& operator=(FixbufEncoder const&) = delete;

   // Encodes the rows into finished messages, appended to `out` (cleared first).
   void intfTable(std::vector<IntfRow> const& rows, std::vector<Message>& out);
   void flowKeyTable(std::vector<FlowKeyRow> const& rows, std::vector<Message>& out);

   // One message holding the interface and flow key options templates.
   Message templatesMessage();

   // Builds `count` data templates of the templateFieldNames, as template records in a message
   // (what a template exporter does before sending); returns the octets written.
   std::size_t buildTemplates(std::uint32_t count);

 private:
   struct Impl;
   std::unique_ptr<Impl> impl_;
};

// Packs pre-encoded records (each the exact bytes of one data record) into messages under set id
// `setId`: the least work any packer can do.
void memcpyPack(std::vector<std::string> const& records, std::uint16_t setId,
                std::uint16_t maxMsgSize, std::uint32_t domain, std::vector<Message>& out);

// Runs ipfixDump on `templates` followed by `messages`, written as one IPFIX file, and returns
// its record lines: message headers (export time, sequence number, length) and set boundaries are
// left out, so two encoders' outputs compare equal exactly when they carry the same records.
std::string ipfixDumpRecords(Message const& templates, std::vector<Message> const& messages);

}  // namespace Bench
