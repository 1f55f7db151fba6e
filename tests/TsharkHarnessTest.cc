// Checks the capture writer and the tshark runner against hand-built IPFIX
// messages, so that wire tests built on them can trust what tshark reports.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Pcap.h"
#include "support/Tshark.h"

namespace {

using testsupport::Datagram;
using testsupport::TempFile;
using testsupport::TsharkOptions;
using testsupport::TsharkResult;
using Bytes = std::vector<uint8_t>;
using Strings = std::vector<std::string>;

constexpr uint32_t kExportTime = 1700000000;
constexpr uint32_t kSequence = 7;
constexpr uint32_t kDomain = 12345;

void put16(Bytes& b, uint16_t v) {
   b.push_back(uint8_t(v >> 8));
   b.push_back(uint8_t(v));
}

void put32(Bytes& b, uint32_t v) {
   put16(b, uint16_t(v >> 16));
   put16(b, uint16_t(v));
}

Bytes set(uint16_t id, Bytes const& body) {
   Bytes b;
   put16(b, id);
   put16(b, uint16_t(4 + body.size()));
   b.insert(b.end(), body.begin(), body.end());
   return b;
}

Bytes message(std::vector<Bytes> const& sets) {
   Bytes b;
   put16(b, 10);
   put16(b, 0);  // length, filled in below
   put32(b, kExportTime);
   put32(b, kSequence);
   put32(b, kDomain);
   for (Bytes const& s : sets) {
      b.insert(b.end(), s.begin(), s.end());
   }
   b[2] = uint8_t(b.size() >> 8);
   b[3] = uint8_t(b.size());
   return b;
}

// Template 256 (two addresses and one enterprise element) and options
// template 257 (ingressInterface scope, variable-length interfaceName).
Bytes templateMessage() {
   Bytes t;
   put16(t, 256);
   put16(t, 3);
   put16(t, 8);
   put16(t, 4);
   put16(t, 12);
   put16(t, 4);
   put16(t, 0x8000 | 1001);
   put16(t, 2);
   put32(t, 32473);
   Bytes o;
   put16(o, 257);
   put16(o, 2);  // total field count
   put16(o, 1);  // scope field count
   put16(o, 10);
   put16(o, 4);
   put16(o, 82);
   put16(o, 65535);
   return message({set(2, t), set(3, o)});
}

// One record of options template 257: ifIndex 5, name "Ethernet1".
Bytes dataMessage() {
   Bytes r;
   put32(r, 5);
   std::string const name = "Ethernet1";
   r.push_back(uint8_t(name.size()));
   r.insert(r.end(), name.begin(), name.end());
   return message({set(257, r)});
}

class TsharkHarness : public ::testing::Test {
 protected:
   void SetUp() override {
      if (!testsupport::tsharkAvailable()) {
         GTEST_SKIP() << "tshark is not installed (scripts/setup installs it); "
                         "skipping the independent decoder checks";
      }
   }

   TsharkResult decode(std::vector<Datagram> const& datagrams, Strings const& fields,
                       TsharkOptions const& options = {}) {
      testsupport::writePcap(pcap_.path(), datagrams);
      TsharkResult r = testsupport::runTshark(pcap_.path(), fields, options);
      EXPECT_TRUE(r.ok()) << r.describe();
      EXPECT_EQ(r.rows.size(), datagrams.size()) << r.stdoutText;
      r.rows.resize(datagrams.size());
      return r;
   }

   static std::vector<Datagram> capture(std::vector<Bytes> const& messages) {
      std::vector<Datagram> d;
      for (Bytes const& m : messages) {
         d.push_back({.payload = m, .time = kExportTime + double(d.size())});
      }
      return d;
   }

   TempFile pcap_{"tshark-harness.pcap"};
};

TEST_F(TsharkHarness, DecodesTemplatesAndOptionsData) {
   Strings const fields = {"cflow.version",
                           "cflow.len",
                           "cflow.od_id",
                           "cflow.sequence",
                           "cflow.exporttime",
                           "cflow.flowset_id",
                           "cflow.flowset_length",
                           "cflow.template_id",
                           "cflow.template_field_count",
                           "cflow.template_ipfix_total_field_count",
                           "cflow.template_ipfix_scope_field_count",
                           "cflow.template_ipfix_field_type",
                           "cflow.template_ipfix_field_type_enterprise",
                           "cflow.template_ipfix_pen_provided",
                           "cflow.template_ipfix_field_pen",
                           "cflow.template_field_length",
                           "cflow.inputint",
                           "cflow.if_name",
                           "cflow.string_len_short",
                           "_ws.expert.message"};
   TsharkResult r = decode(capture({templateMessage(), dataMessage()}), fields);

   for (std::size_t pkt = 0; pkt < 2; ++pkt) {
      SCOPED_TRACE("packet " + std::to_string(pkt));
      EXPECT_EQ(r.at(pkt, "cflow.version"), Strings{"10"});
      EXPECT_EQ(r.at(pkt, "cflow.od_id"), Strings{"12345"});
      EXPECT_EQ(r.at(pkt, "cflow.sequence"), Strings{"7"});
      EXPECT_EQ(r.at(pkt, "cflow.exporttime"), Strings{"1700000000"});
      EXPECT_EQ(r.at(pkt, "_ws.expert.message"), Strings{});  // no expert info at all
   }
   EXPECT_EQ(r.at(0, "cflow.len"), Strings{"58"});
   EXPECT_EQ(r.at(1, "cflow.len"), Strings{"34"});

   // Templates.
   EXPECT_EQ(r.at(0, "cflow.flowset_id"), (Strings{"2", "3"}));
   EXPECT_EQ(r.at(0, "cflow.flowset_length"), (Strings{"24", "18"}));
   EXPECT_EQ(r.at(0, "cflow.template_id"), (Strings{"256", "257"}));
   EXPECT_EQ(r.at(0, "cflow.template_field_count"), Strings{"3"});
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_total_field_count"), Strings{"2"});
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_scope_field_count"), Strings{"1"});
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_field_type"), (Strings{"8", "12", "10", "82"}));
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_field_type_enterprise"), Strings{"1001"});
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_pen_provided"), (Strings{"0", "0", "1", "0", "0"}));
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_field_pen"), Strings{"32473"});
   EXPECT_EQ(r.at(0, "cflow.template_field_length"), (Strings{"4", "4", "2", "4", "65535"}));

   // The options data record, decoded through template 257 of packet 0.
   EXPECT_EQ(r.at(1, "cflow.flowset_id"), Strings{"257"});
   EXPECT_EQ(r.at(1, "cflow.flowset_length"), Strings{"18"});
   EXPECT_EQ(r.at(1, "cflow.inputint"), Strings{"5"});
   EXPECT_EQ(r.at(1, "cflow.if_name"), Strings{"Ethernet1"});
   EXPECT_EQ(r.at(1, "cflow.string_len_short"), Strings{"9"});
   EXPECT_EQ(r.all("cflow.if_name"), Strings{"Ethernet1"});

   std::string const text = testsupport::runTsharkVerbose(pcap_.path());
   EXPECT_NE(text.find("Pen provided: Yes"), std::string::npos) << text;
   EXPECT_NE(text.find("(32473)"), std::string::npos) << text;
   EXPECT_NE(text.find("IfName: Ethernet1"), std::string::npos) << text;
}

TEST_F(TsharkHarness, WritesValidIpv4AndIpv6Packets) {
   Bytes const msg = templateMessage();
   std::vector<Datagram> d(2);
   d[0] = {.payload = msg, .srcPort = 40001, .dstPort = 9995, .time = 1700000000.25};
   d[1] = {.payload = msg,
           .src = "2001:db8::1",
           .dst = "2001:db8::2",
           .srcPort = 40002,
           .dstPort = 9995,
           .time = 1700000001.5};
   TsharkOptions opts;
   opts.decodePort = 9995;
   opts.extraArgs = {"-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE"};
   TsharkResult r =
       decode(d,
              {"frame.time_epoch", "ip.src", "ipv6.dst", "udp.srcport", "ip.checksum.status",
               "udp.checksum.status", "cflow.template_id", "_ws.malformed"},
              opts);
   EXPECT_EQ(r.at(0, "frame.time_epoch"), Strings{"1700000000.250000000"});
   EXPECT_EQ(r.at(1, "frame.time_epoch"), Strings{"1700000001.500000000"});
   EXPECT_EQ(r.at(0, "ip.src"), Strings{"192.0.2.1"});
   EXPECT_EQ(r.at(1, "ipv6.dst"), Strings{"2001:db8::2"});
   EXPECT_EQ(r.all("udp.srcport"), (Strings{"40001", "40002"}));
   // 1 is "good"; only the IPv4 packet has a header checksum.
   EXPECT_EQ(r.all("ip.checksum.status"), Strings{"1"});
   EXPECT_EQ(r.all("udp.checksum.status"), (Strings{"1", "1"}));
   // Decoded as IPFIX on the non-default port.
   EXPECT_EQ(r.all("cflow.template_id"), (Strings{"256", "257", "256", "257"}));
   EXPECT_EQ(r.all("_ws.malformed"), Strings{});
}

TEST_F(TsharkHarness, TellsCorruptedSetLengthFromGood) {
   Strings const fields = {"cflow.template_id", "cflow.if_name", "_ws.malformed",
                           "_ws.expert.message"};
   for (uint16_t badLength : {3, 200}) {
      SCOPED_TRACE("template set length " + std::to_string(badLength));
      Bytes bad = templateMessage();
      bad[18] = uint8_t(badLength >> 8);  // first set header follows the 16-byte message header
      bad[19] = uint8_t(badLength);
      TsharkResult r = decode(capture({bad, dataMessage()}), fields);
      EXPECT_EQ(r.all("cflow.template_id"), Strings{});  // neither template survives
      EXPECT_EQ(r.all("cflow.if_name"), Strings{});      // so the record cannot be decoded
      EXPECT_EQ(r.at(1, "_ws.malformed").size(), 1u);
      EXPECT_EQ(r.at(1, "_ws.expert.message"), Strings{"Data (14 bytes), no template found"});
      if (badLength < 4) {
         EXPECT_EQ(r.at(0, "_ws.expert.message"), Strings{"Flowset Length (3) too short"});
      }
   }
}

TEST_F(TsharkHarness, ReportsFailuresAndTimeouts) {
   std::string const missing = pcap_.path() + ".missing";
   TsharkResult r = testsupport::runTshark(missing, {"cflow.version"});
   EXPECT_FALSE(r.ok());
   EXPECT_GT(r.exitCode, 0);
   EXPECT_NE(r.stderrText.find(missing), std::string::npos) << r.stderrText;
   EXPECT_THROW(testsupport::runTsharkVerbose(missing), std::runtime_error);

   testsupport::writePcap(pcap_.path(), capture({templateMessage()}));
   TsharkOptions hurried;
   hurried.timeout = std::chrono::milliseconds(1);  // far less than tshark needs to start
   r = testsupport::runTshark(pcap_.path(), {"cflow.version"}, hurried);
   EXPECT_TRUE(r.timedOut);
   EXPECT_EQ(r.exitCode, -1);
}

}  // namespace
