// The capture writer and tshark runner on hand-built IPFIX, so wire tests can trust tshark.
#include <gtest/gtest.h>

#include "support/Pcap.h"
#include "support/Tshark.h"

namespace {

using namespace testsupport;
using Strings = std::vector<std::string>;

// Header (export time 1700000000, sequence 7, domain 12345), then sets as 16-bit words, then tail.
std::vector<uint8_t> message(uint16_t length, std::vector<uint32_t> words, std::string tail = "") {
   words.insert(words.begin(), {10, length, 0x6553, 0xf100, 0, 7, 0, 12345});
   std::string b = tail;
   for (uint32_t w : words) {
      b.insert(b.end() - long(tail.size()), {char(w >> 8), char(w)});
   }
   return {b.begin(), b.end()};
}

// Template 256 (2 addresses, element 1001 of PEN 32473), options template 257 (ifIndex, ifName).
auto const kTemplates = message(58, {2, 24, 256, 3, 8, 4,  12, 4,  0x8000 | 1001, 2, 0, 32473,  //
                                     3, 18, 257, 2, 1, 10, 4,  82, 65535});
auto const kData = message(34, {257, 18, 0, 5}, "\tEthernet1");  // \t: the length, 9

struct TsharkHarness : ::testing::Test {
   void SetUp() override {
      if (!tsharkAvailable()) {
         GTEST_SKIP() << "tshark is not installed (scripts/setup installs it)";
      }
   }
   TsharkResult decode(std::vector<uint8_t> const& first, Strings const& fields) {
      writePcap(pcap.path(), {{.payload = first, .time = 1700000000.25}, {.payload = kData}});
      TsharkResult r = runTshark(
          pcap.path(), fields,
          {.extraArgs = {"-o", "ip.check_checksum:TRUE", "-o", "udp.check_checksum:TRUE"}});
      EXPECT_TRUE(r.ok() && r.rows.size() == 2) << r.describe() << r.stdoutText;
      return r;
   }
   TempFile pcap{"tshark-harness.pcap"};
};

TEST_F(TsharkHarness, DecodesAHandMadeCapture) {
   // clang-format off
   Strings const want = {"frame.time_epoch: 0=1700000000.250000000 1=0.000000000",
       "ip.checksum.status: 0=1 1=1", "udp.checksum.status: 0=1 1=1", "cflow.len: 0=58 1=34",
       "cflow.od_id: 0=12345 1=12345", "cflow.sequence: 0=7 1=7",
       "cflow.exporttime: 0=1700000000 1=1700000000", "cflow.flowset_length: 0=24 0=18 1=18",
       "cflow.template_id: 0=256 0=257", "cflow.template_ipfix_field_pen: 0=32473",
       "cflow.template_ipfix_field_type: 0=8 0=12 0=10 0=82", "cflow.inputint: 1=5",
       "cflow.template_ipfix_field_type_enterprise: 0=1001", "cflow.if_name: 1=Ethernet1",
       "cflow.template_field_length: 0=4 0=4 0=2 0=4 0=65535", "_ws.expert.message:"};
   // clang-format on
   Strings fields;
   for (std::string const& w : want) {
      fields.push_back(w.substr(0, w.find(':')));
   }
   TsharkResult const r = decode(kTemplates, fields);
   for (std::size_t i = 0; i < want.size(); ++i) {
      std::string got = fields[i] + ":";
      for (std::size_t pkt = 0; pkt < 2; ++pkt) {
         for (std::string const& v : r.at(pkt, fields[i])) {
            got += " " + std::to_string(pkt) + "=" + v;
         }
      }
      EXPECT_EQ(got, want[i]);
   }
   EXPECT_NE(runTsharkVerbose(pcap.path()).find("IfName: Ethernet1"), std::string::npos);
}

TEST_F(TsharkHarness, FlagsACorruptedSetLength) {
   for (uint16_t bad : {3, 200}) {
      SCOPED_TRACE("template set length " + std::to_string(bad));
      auto corrupt = kTemplates;
      corrupt[18] = uint8_t(bad >> 8), corrupt[19] = uint8_t(bad);
      TsharkResult const r = decode(
          corrupt, {"cflow.template_id", "cflow.if_name", "_ws.malformed", "_ws.expert.message"});
      EXPECT_EQ(r.all("cflow.template_id"), Strings{});  // neither template survives
      EXPECT_EQ(r.all("cflow.if_name"), Strings{});      // so the record cannot be decoded
      EXPECT_EQ(r.at(1, "_ws.malformed").size(), 1u);
      EXPECT_EQ(r.at(1, "_ws.expert.message"), Strings{"Data (14 bytes), no template found"});
      if (bad < 4) {
         EXPECT_EQ(r.at(0, "_ws.expert.message"), Strings{"Flowset Length (3) too short"});
      }
   }
}

}  // namespace
