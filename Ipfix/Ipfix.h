// The IPFIX vocabulary of the exporter: the information elements it can put into a template, and
// the agent-wide value types the export code shares.
#pragma once

#include <array>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "HwFlowTracking/FtTemplateEntry.h"
#include "Kivo/Attr.h"
#include "Kivo/Kivo.h"

namespace Ipfix {

// One row of the element table: name, element id, encoded length (65535: variable length) and
// whether the element is enterprise-specific (its field specifier then carries the enterprise
// number). Some lengths differ from the usual IANA abstract-type sizes on purpose: they are the
// encodings the hardware uses (tcpControlBits 2, selectorAlgorithm 2, flowKeyIndicator 8,
// mplsLabelStackDepth 4, ingressInterfaceType 4). innerSourceTransportPort and
// innerDestinationTransportPort are IANA-flagged even though their ids sit among the
// enterprise inner-header elements.
struct ElementRow {
   std::string_view name;
   std::uint32_t id;
   std::uint16_t len;
   bool enterprise;
};

// The single source of element ids, names, lengths and enterprise flags.
inline constexpr std::array<ElementRow, 101> elementTable = {{
    {"octetDeltaCount", 1, 8, false},
    {"packetDeltaCount", 2, 8, false},
    {"protocolIdentifier", 4, 1, false},
    {"ipClassOfService", 5, 1, false},
    {"tcpControlBits", 6, 2, false},
    {"sourceTransportPort", 7, 2, false},
    {"innerSourceTransportPort", 1029, 2, false},
    {"sourceIPv4Address", 8, 4, false},
    {"sourceIPv4PrefixLength", 9, 1, false},
    {"ingressInterface", 10, 4, false},
    {"destinationTransportPort", 11, 2, false},
    {"innerDestinationTransportPort", 1030, 2, false},
    {"destinationIPv4Address", 12, 4, false},
    {"destinationIPv4PrefixLength", 13, 1, false},
    {"egressInterface", 14, 4, false},
    {"ipNextHopIPv4Address", 15, 4, false},
    {"bgpSourceAsNumber", 16, 4, false},
    {"bgpDestinationAsNumber", 17, 4, false},
    {"bgpNextHopIPv4Address", 18, 4, false},
    {"sourceIPv6Address", 27, 16, false},
    {"destinationIPv6Address", 28, 16, false},
    {"sourceIPv6PrefixLength", 29, 1, false},
    {"destinationIPv6PrefixLength", 30, 1, false},
    {"flowLabelIPv6", 31, 4, false},
    {"flowActiveTimeout", 36, 2, false},
    {"flowIdleTimeout", 37, 2, false},
    {"mplsTopLabelType", 46, 1, false},
    {"mplsTopLabelIPv4Address", 47, 4, false},
    {"sourceMacAddress", 56, 6, false},
    {"postDestinationMacAddress", 57, 6, false},
    {"vlanId", 58, 2, false},
    {"postVlanId", 59, 2, false},
    {"ipNextHopIPv6Address", 62, 16, false},
    {"bgpNextHopIPv6Address", 63, 16, false},
    {"mplsTopLabelStackSection", 70, 3, false},
    {"mplsLabelStackSection2", 71, 3, false},
    {"mplsLabelStackSection3", 72, 3, false},
    {"mplsLabelStackSection4", 73, 3, false},
    {"mplsLabelStackSection5", 74, 3, false},
    {"mplsLabelStackSection6", 75, 3, false},
    {"mplsLabelStackSection7", 76, 3, false},
    {"mplsLabelStackSection8", 77, 3, false},
    {"mplsLabelStackSection9", 78, 3, false},
    {"mplsLabelStackSection10", 79, 3, false},
    {"mplsLabelStackDepth", 202, 4, false},
    {"interfaceName", 82, 65535, false},
    {"mplsTopLabelPrefixLength", 91, 1, false},
    {"templateId", 145, 2, false},
    {"observationDomainId", 149, 4, false},
    {"flowStartMilliseconds", 152, 8, false},
    {"flowEndMilliseconds", 153, 8, false},
    {"flowEndReason", 136, 1, false},
    {"flowKeyIndicator", 173, 8, false},
    {"paddingOctets", 210, 65535, false},
    {"ingressVRFID", 234, 4, false},
    {"VRFname", 236, 65535, false},
    {"dot1qVlanId", 243, 2, false},
    {"opaqueOctets", 266, 65535, false},
    {"observationDomainName", 300, 65535, false},
    {"selectorAlgorithm", 304, 2, false},
    {"samplingSize", 309, 4, false},
    {"samplingPopulation", 310, 4, false},
    {"layer2SegmentId", 351, 8, false},
    {"ingressInterfaceType", 368, 4, false},
    {"flowTrackingType", 1001, 2, true},
    {"tunnelState", 1010, 1, true},
    {"innerSrcIp", 1024, 4, true},
    {"innerDstIp", 1025, 4, true},
    {"innerIpProtocol", 1028, 1, true},
    {"innerSrcIp6", 1026, 16, true},
    {"innerDstIp6", 1027, 16, true},
    {"corvixBscanExportReason", 1036, 2, true},
    {"corvixBscanExportFlags", 1037, 1, true},
    {"corvixBscanFlowStart", 1038, 6, true},
    {"corvixBscanFlowEnd", 1039, 6, true},
    {"corvixBscanNewLearn", 1040, 6, true},
    {"vxlanNetworkId", 1041, 3, true},
    {"corvixBscanTagControl", 1042, 2, true},
    {"corvixBscanFlowGroupId", 1043, 2, true},
    {"inbandTelemetryPathId", 2000, 4, true},
    {"inbandTelemetryPathNumberOfBytes", 2001, 8, true},
    {"inbandTelemetryPathNumberOfPackets", 2002, 8, true},
    {"inbandTelemetryPathNumberOfNodes", 2003, 1, true},
    {"inbandTelemetryPathOverflowed", 2005, 1, true},
    {"inbandTelemetryAggregationInterval", 2006, 4, true},
    {"inbandTelemetryLastIntervalExportedTimestamp", 2007, 8, true},
    {"inbandTelemetryPathNumberOfIntervals", 2004, 1, true},
    {"inbandTelemetryDeviceId", 2008, 4, true},
    {"inbandTelemetryNodeIngressPort", 2009, 2, true},
    {"inbandTelemetryNodeEgressPort", 2010, 2, true},
    {"inbandTelemetryNodeEgressQueueId", 2011, 4, true},
    {"inbandTelemetryTTL", 2012, 1, true},
    {"inbandTelemetryLastPacketCongestion", 2013, 1, true},
    {"inbandTelemetryLastPacketLatency", 2014, 4, true},
    {"inbandTelemetryIntervalStartTime", 2015, 8, true},
    {"inbandTelemetryIntervalNumberOfBytes", 2017, 8, true},
    {"inbandTelemetryIntervalNumberOfPackets", 2018, 8, true},
    {"inbandTelemetryNodeCongestion", 2019, 1, true},
    {"inbandTelemetryNodeAverageLatency", 2020, 4, true},
    {"inbandTelemetryNodeMaximumLatency", 2021, 4, true},
    {"inbandTelemetryNodeMinimumLatency", 2022, 4, true},
}};

// The row of the element of that name, resolved at compile time; a name outside the table does
// not compile.
consteval ElementRow elementRow(std::string_view name) {
   for (ElementRow const& r : elementTable) {
      if (r.name == name) {
         return r;
      }
   }
   throw "no such element in the element table";
}

// The element of that name, resolved at compile time; a name outside the table does not compile.
consteval RecordType element(std::string_view name) {
   return RecordType{elementRow(name).id};
}

// The row of an element id, or null when the table lacks it.
ElementRow const* elementRow(RecordType id);

// Textual form of a RecordType: the element's name, or its number when the table lacks it.
Kivo::String valueToStrep(RecordType id);
std::ostream& operator<<(std::ostream& os, RecordType id);
// Parses a name of the table or a decimal id.
std::optional<RecordType> recordTypeFromString(std::string_view s);

// Descriptor of one information element. The default value ({false, 1, 0, ""}) is what a failed
// look-up returns, and its truth value is false.
class ElementId {
 public:
   ElementId() = default;
   ElementId(bool enterpriseIe, RecordType id, std::uint32_t len, Kivo::String str)
       : enterpriseIe_(enterpriseIe), id_(id), len_(len), str_(std::move(str)) {}
   // Reads the four attributes of the text form. Throws Kivo::Exception on malformed text.
   ElementId(Kivo::String::const_iterator begin, Kivo::String::const_iterator end);

   bool enterpriseIe() const { return enterpriseIe_; }
   RecordType id() const { return id_; }
   std::uint32_t len() const { return len_; }
   Kivo::String const& str() const { return str_; }

   bool operator==(ElementId const&) const = default;
   explicit operator bool() const { return *this != ElementId(); }

   // "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': ..., 'len': 8, 'str': '...'})"
   Kivo::String toString() const;

 private:
   bool enterpriseIe_ = false;
   RecordType id_{1};
   std::uint32_t len_ = 0;
   Kivo::String str_;
};
std::ostream& operator<<(std::ostream& os, ElementId const& e);

// The element table as a keyed collection, shared read-only once filled.
class ElementIdColl : public Kivo::Object {
 public:
   // Inserts `e` under its id, replacing an entry with the same id.
   void elementIdCollIs(ElementId const& e) { coll_.is(e.id(), e); }
   // Removes and returns the entry; the default ElementId when there was none.
   ElementId elementIdCollDel(RecordType id);
   void elementIdCollDelAll() { coll_.delAll(); }
   bool elementIdCollHas(RecordType id) const { return coll_.has(id); }
   // The entry; the default ElementId when there is none.
   ElementId elementIdColl(RecordType id) const { return coll_.get(id); }
   std::size_t elementIdColls() const { return coll_.size(); }
   auto begin() const { return coll_.begin(); }
   auto end() const { return coll_.end(); }
   Kivo::Signal<RecordType> const& onElementIdColl() const { return coll_.signal(); }

   // Fills the collection from elementTable, row by row; nothing is removed first.
   void doInitialize();

 private:
   Kivo::ValueColl<RecordType, ElementId, Kivo::Hashed> coll_;
};
Kivo::Ptr<ElementIdColl> elementIdCollFactory();

// Agent-wide settings. `multiThreaded` stops the exporter readiness publication.
class AgentInfo : public Kivo::Object {
 public:
   bool multiThreaded() const { return multiThreaded_.get(); }
   void multiThreadedIs(bool v) { multiThreaded_.is(v); }
   Kivo::Signal<> const& onMultiThreaded() const { return multiThreaded_.signal(); }

 private:
   Kivo::Value<bool> multiThreaded_;
};
Kivo::Ptr<AgentInfo> agentInfoFactory();

// An IPFIX message sequence number. Arithmetic is modulo 2^32.
struct IpfixMsgSeqNo {
   std::uint32_t value = 0;

   bool operator==(IpfixMsgSeqNo const&) const = default;
   IpfixMsgSeqNo operator+(IpfixMsgSeqNo d) const {
      return {static_cast<std::uint32_t>(value + d.value)};
   }
   // The decimal number.
   Kivo::String toString() const { return std::to_string(value); }
   // Accepts the decimal number or "Value('Ipfix::IpfixMsgSeqNo', ** {'value': N})".
   // Throws Kivo::Exception on anything else.
   static IpfixMsgSeqNo fromString(std::string_view s);
};
std::ostream& operator<<(std::ostream& os, IpfixMsgSeqNo s);

}  // namespace Ipfix
