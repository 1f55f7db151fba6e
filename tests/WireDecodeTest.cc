// What the encoder writes, decoded by an independent IPFIX decoder (tshark).
#include <gtest/gtest.h>

#include <cstring>

#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsTemplate.h"
#include "Pelto/Endian.h"
#include "Pelto/IpfixWire.h"
#include "support/Pcap.h"
#include "support/Tshark.h"

using Ipfix::element;
using Values = testsupport::TsharkResult::Values;

namespace {

constexpr std::uint32_t domain = 42;
// Template messages carry the collector's current sequence number without advancing it; tshark
// checks that the data message continues from it.
constexpr std::uint32_t seqNo = 7;

Kivo::Ptr<Ipfix::ElementIdColl const> table() {
   auto t = Ipfix::elementIdCollFactory();
   t->doInitialize();
   return t;
}

// Puts a message header and a set header in front of the records already in `pkt`.
void wrapSet(Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint16_t setId) {
   auto const recordLen = static_cast<std::uint16_t>(pkt->bytes());
   pkt->headGrow(20);
   Pelto::MessageHeader hdr(pkt, 0);
   hdr.versionIs(10);
   hdr.lengthIs(static_cast<std::uint16_t>(pkt->bytes()));
   hdr.exportTimeIs(1'700'000'000);
   hdr.sequenceNumberIs(seqNo);
   hdr.observationDomainIdIs(domain);
   Pelto::SetHeader set(pkt, 16);
   set.setIdIs(setId);
   set.lengthIs(static_cast<std::uint16_t>(4 + recordLen));
}

// A data template (set id 2) with an enterprise element among IANA ones.
Kivo::Ptr<Pelto::Pkt> dataTemplateMessage(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic) {
   std::vector<Kivo::Ptr<HwFlowTracking::FtTemplateEntry>> entries;
   for (auto type : {element("sourceIPv4Address"), element("destinationIPv4Address"),
                     element("flowTrackingType"), element("octetDeltaCount")}) {
      entries.push_back(Kivo::make<HwFlowTracking::FtTemplateEntry>(entries.size(), type));
      FlowTracking::updateFieldInfo(eic, entries.back());
   }
   auto pkt = Kivo::make<Pelto::Pkt>(512, 0);
   pkt->tailGrow(4 + 4 * 3 + 8);
   Pelto::TemplateHeader th(pkt, 0);
   th.templateIdIs(FlowTracking::Constants::firstDynamicTemplateId());
   th.fieldCountIs(static_cast<std::uint16_t>(entries.size()));
   std::uint32_t offset = 4;
   for (auto const& e : entries) {
      offset = FlowTracking::writeFieldSpecifier(pkt, offset, *e);
   }
   EXPECT_EQ(offset, pkt->bytes());
   wrapSet(pkt, Pelto::IpfixConst::templateSetId());
   return pkt;
}

Kivo::Ptr<Pelto::Pkt> optionsTemplateMessage(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic) {
   auto intf = Kivo::make<FlowTracking::OptionsTemplate>("IntfTable", 257);
   FlowTracking::addScopeField(eic, intf, element("ingressInterface"));
   FlowTracking::addField(eic, intf, element("interfaceName"));
   auto tracker = Kivo::make<FlowTracking::OptionsTemplate>("FlowTrackerTable", 259);
   FlowTracking::addScopeField(eic, tracker, element("observationDomainId"));
   for (auto type :
        {element("observationDomainName"), element("flowActiveTimeout"), element("flowIdleTimeout"),
         element("selectorAlgorithm"), element("samplingSize"), element("samplingPopulation"),
         element("flowTrackingType")}) {
      FlowTracking::addField(eic, tracker, type);
   }
   auto pkt = Kivo::make<Pelto::Pkt>(512, 0);
   std::uint32_t const a = FlowTracking::getTemplateEntryLength(intf);
   std::uint32_t const b = FlowTracking::getTemplateEntryLength(tracker);
   pkt->tailGrow(a + b);
   EXPECT_EQ(FlowTracking::writeOptionsTemplateRecord(pkt, 0, *intf), a);
   EXPECT_EQ(FlowTracking::writeOptionsTemplateRecord(pkt, a, *tracker), a + b);
   wrapSet(pkt, Pelto::IpfixConst::optionsTemplateSetId());
   return pkt;
}

Kivo::Ptr<FlowTracking::Message> interfaceDataMessage() {
   auto builder = FlowTracking::messageBuilderFactory(1452, domain);
   builder->startMsg();
   for (auto [index, name] : {std::pair{5u, "Ethernet1"}, {0x3fffffffu, "CPU"}}) {
      std::uint8_t head[5];
      Pelto::storeBe32(head, index);
      head[4] = static_cast<std::uint8_t>(std::strlen(name));
      auto rec = FlowTracking::dataRecordFactory(std::string(reinterpret_cast<char*>(head), 5));
      rec->append(name, std::strlen(name));
      EXPECT_GT(builder->addSetRecord(257, rec), 0u);
   }
   return builder->finalizeMsg();
}

std::vector<std::uint8_t> bytesOf(Kivo::Ptr<Pelto::Pkt> const& pkt) {
   return {pkt->span().begin(), pkt->span().end()};
}

}  // namespace

TEST(WireDecode, TemplatesAndOptionsDataDecodeWithTshark) {
   if (!testsupport::tsharkAvailable()) {
      GTEST_SKIP() << "tshark is not installed (scripts/setup installs it)";
   }
   auto const eic = table();
   auto data = interfaceDataMessage();
   testsupport::TempFile capture("wire.pcap");
   testsupport::writePcap(capture.path(), {{.payload = bytesOf(dataTemplateMessage(eic))},
                                           {.payload = bytesOf(optionsTemplateMessage(eic))},
                                           {.payload = bytesOf(data->pkt(seqNo))}});
   auto const r = testsupport::runTshark(
       capture.path(),
       {"cflow.version", "cflow.len", "cflow.od_id", "cflow.sequence", "cflow.flowset_id",
        "cflow.template_id", "cflow.template_field_count", "cflow.template_ipfix_field_type",
        "cflow.template_ipfix_field_type_enterprise", "cflow.template_ipfix_field_pen",
        "cflow.template_field_length", "cflow.template_ipfix_total_field_count",
        "cflow.template_ipfix_scope_field_count", "cflow.inputint", "cflow.if_name",
        "_ws.malformed", "_ws.expert.message"});
   ASSERT_TRUE(r.ok()) << r.describe();
   ASSERT_EQ(r.rows.size(), 3u);
   EXPECT_EQ(r.all("cflow.version"), (Values{"10", "10", "10"}));
   EXPECT_EQ(r.all("cflow.od_id"), (Values{"42", "42", "42"}));
   EXPECT_TRUE(r.all("_ws.malformed").empty()) << r.describe();
   EXPECT_TRUE(r.all("_ws.expert.message").empty()) << r.describe();

   // Data template: four fields, the enterprise one with its number.
   EXPECT_EQ(r.at(0, "cflow.len"), Values{std::to_string(16 + 4 + 4 + 12 + 8)});
   EXPECT_EQ(r.at(0, "cflow.flowset_id"), Values{"2"});
   EXPECT_EQ(r.at(0, "cflow.template_id"), Values{"260"});
   EXPECT_EQ(r.at(0, "cflow.template_field_count"), Values{"4"});
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_field_type"), (Values{"8", "12", "1"}));
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_field_type_enterprise"), Values{"1001"});
   EXPECT_EQ(r.at(0, "cflow.template_ipfix_field_pen"), Values{"32473"});
   EXPECT_EQ(r.at(0, "cflow.template_field_length"), (Values{"4", "4", "2", "8"}));

   // Options templates: scope counts and fields in order, variable-length name.
   EXPECT_EQ(r.at(1, "cflow.flowset_id"), Values{"3"});
   EXPECT_EQ(r.at(1, "cflow.template_id"), (Values{"257", "259"}));
   EXPECT_EQ(r.at(1, "cflow.template_ipfix_total_field_count"), (Values{"2", "8"}));
   EXPECT_EQ(r.at(1, "cflow.template_ipfix_scope_field_count"), (Values{"1", "1"}));
   EXPECT_EQ(r.at(1, "cflow.template_ipfix_field_type"),
             (Values{"10", "82", "149", "300", "36", "37", "304", "309", "310"}));
   EXPECT_EQ(r.at(1, "cflow.template_ipfix_field_type_enterprise"), Values{"1001"});
   EXPECT_EQ(r.at(1, "cflow.template_field_length"),
             (Values{"4", "65535", "4", "65535", "2", "2", "2", "4", "4", "2"}));

   // Options data under template 257, stamped with sequence number 7.
   EXPECT_EQ(r.at(2, "cflow.sequence"), Values{"7"});
   EXPECT_EQ(r.at(2, "cflow.flowset_id"), Values{"257"});
   EXPECT_EQ(r.at(2, "cflow.inputint"), (Values{"5", std::to_string(0x3fffffff)}));
   EXPECT_EQ(r.at(2, "cflow.if_name"), (Values{"Ethernet1", "CPU"}));
}
