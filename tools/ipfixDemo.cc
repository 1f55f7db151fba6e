// Builds the interface table's options template message and one options data message for two
// interfaces, and prints both as hex. A quick way to look at what the encoder puts on the wire.
#include <cstdio>

#include "Ipfix/IpfixSm.h"
#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsTemplate.h"
#include "Pelto/Endian.h"
#include "Pelto/IpfixWire.h"

namespace {

constexpr FlowTracking::FtId demoDomain = 1;

Kivo::Ptr<Pelto::Pkt> optionsTemplateMessage(Kivo::Ptr<Ipfix::ElementIdColl const> const& eic) {
   auto ot = Kivo::make<FlowTracking::OptionsTemplate>(
       "IntfTable",
       FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::intfTable));
   FlowTracking::addScopeField(eic, ot, Ipfix::element("ingressInterface"));
   FlowTracking::addField(eic, ot, Ipfix::element("interfaceName"));

   std::uint32_t const recordLen = FlowTracking::getTemplateEntryLength(ot);
   auto const headerLen = Pelto::IpfixConst::messageHeaderLen() + Pelto::IpfixConst::setHeaderLen();
   auto pkt = Kivo::make<Pelto::Pkt>(512, headerLen);
   pkt->tailGrow(recordLen);
   FlowTracking::writeOptionsTemplateRecord(pkt, 0, *ot);
   pkt->headGrow(headerLen);
   Pelto::MessageHeader msg(pkt, 0);
   msg.versionIs(Pelto::IpfixConst::version());
   msg.lengthIs(static_cast<std::uint16_t>(pkt->bytes()));
   msg.observationDomainIdIs(demoDomain);
   Pelto::SetHeader set(pkt, Pelto::IpfixConst::messageHeaderLen());
   set.setIdIs(Pelto::IpfixConst::optionsTemplateSetId());
   set.lengthIs(static_cast<std::uint16_t>(Pelto::IpfixConst::setHeaderLen() + recordLen));
   return pkt;
}

Kivo::Ptr<FlowTracking::DataRecord> interfaceRecord(std::uint32_t index, std::string const& name) {
   std::uint8_t head[5];
   Pelto::storeBe32(head, index);
   head[4] = static_cast<std::uint8_t>(name.size());
   return FlowTracking::dataRecordFactory(std::string(reinterpret_cast<char*>(head), 5) + name);
}

}  // namespace

int main() {
   auto init = Ipfix::ipfixInitSmFactory();
   auto eic = init->elementIdCollection();

   std::printf("options template message:\n%s\n\n", optionsTemplateMessage(eic)->hexdump().c_str());

   auto builder = FlowTracking::messageBuilderFactory(1452, demoDomain);
   builder->startMsg();
   auto const setId =
       FlowTracking::Constants::reservedTemplateId(FlowTracking::StaticTemplateId::intfTable);
   builder->addSetRecord(setId, interfaceRecord(5, "Ethernet1"));
   builder->addSetRecord(setId, interfaceRecord(6, "Ethernet2"));
   auto msg = builder->finalizeMsg();
   std::printf("options data message (%u records, sequence number 0):\n%s\n", msg->recordCount(),
               msg->pkt(0)->hexdump().c_str());
   return 0;
}
