#include <gtest/gtest.h>

#include "Ipfix/Ipfix.h"
#include "Ipfix/IpfixSm.h"
#include "Trace/Snaplog.h"

using Ipfix::ElementId;
using Ipfix::RecordType;

namespace {

Kivo::Ptr<Ipfix::ElementIdColl> filledTable() {
   auto t = Ipfix::elementIdCollFactory();
   t->doInitialize();
   return t;
}

}  // namespace

// Filled twice, the table has the same rows; deleting takes one row, or all.
TEST(IpfixElementTable, HasAllRowsStableWhenFilledTwiceAndDelReturnsTheEntry) {
   auto t = filledTable();
   EXPECT_EQ(t->elementIdColls(), 101u);
   std::vector<ElementId> before;
   for (auto const& [id, e] : *t) {
      before.push_back(e);
   }
   t->doInitialize();
   EXPECT_EQ(t->elementIdColls(), 101u);
   for (auto const& e : before) {
      EXPECT_EQ(t->elementIdColl(e.id()), e) << e;
   }
   EXPECT_FALSE(t->elementIdCollDel(RecordType{2016}));
   EXPECT_EQ(t->elementIdCollDel(Ipfix::element("VRFname")),
             ElementId(false, Ipfix::element("VRFname"), 65535, "VRFname"));
   EXPECT_EQ(t->elementIdColls(), 100u);
   t->elementIdCollDelAll();
   EXPECT_EQ(t->elementIdColls(), 0u);
}

// The rows whose values are deliberate choices of the system rather than the usual sizes.
TEST(IpfixElementTable, DeliberateRows) {
   struct Row {
      std::uint32_t id;
      char const* name;
      std::uint32_t len;
      bool enterprise;
   };
   Row const rows[] = {
       {1029, "innerSourceTransportPort", 2, false},  // IANA-flagged among enterprise ids
       {1030, "innerDestinationTransportPort", 2, false},
       {1024, "innerSrcIp", 4, true},
       {1028, "innerIpProtocol", 1, true},
       {6, "tcpControlBits", 2, false},
       {304, "selectorAlgorithm", 2, false},
       {173, "flowKeyIndicator", 8, false},
       {202, "mplsLabelStackDepth", 4, false},
       {368, "ingressInterfaceType", 4, false},
       {210, "paddingOctets", 65535, false},
       {82, "interfaceName", 65535, false},
       {236, "VRFname", 65535, false},
       {266, "opaqueOctets", 65535, false},
       {300, "observationDomainName", 65535, false},
       {1001, "flowTrackingType", 2, true},
       {2004, "inbandTelemetryPathNumberOfIntervals", 1, true},
   };
   auto t = filledTable();
   for (Row const& r : rows) {
      ElementId const e = t->elementIdColl(RecordType{r.id});
      EXPECT_EQ(e, ElementId(r.enterprise, RecordType{r.id}, r.len, r.name)) << r.id;
   }
   EXPECT_FALSE(t->elementIdCollHas(RecordType{2016}) || t->elementIdCollHas(RecordType{3}));
}

TEST(IpfixElementId, DefaultValueIsFalseAndAnyChangeIsTrue) {
   EXPECT_FALSE(ElementId());
   EXPECT_TRUE(ElementId(true, RecordType{1}, 0, "") && ElementId(false, RecordType{2}, 0, "") &&
               ElementId(false, RecordType{1}, 1, "") && ElementId(false, RecordType{1}, 0, "x"));
}

TEST(IpfixElementId, TextFormShowsVariableLengthAndParsesBack) {
   auto t = filledTable();
   ElementId const vrf = t->elementIdColl(Ipfix::element("VRFname"));
   std::string const text = vrf.toString();
   EXPECT_EQ(text,
             "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': VRFname, 'len': 65535, "
             "'str': 'VRFname'})");
   EXPECT_EQ(ElementId(text.begin(), text.end()), vrf);

   ElementId const odd(true, RecordType{4242}, 3, "it's \\odd");
   std::string const oddText = odd.toString();
   EXPECT_EQ(ElementId(oddText.begin(), oddText.end()), odd);
}

TEST(IpfixElementId, MalformedTextIsRefusedWithTheReason) {
   std::string const bad[] = {
       "",
       "Value('Ipfix::Other', ** {'enterpriseIe': False, 'id': 1, 'len': 8, 'str': 'a'})",
       "Value('Ipfix::ElementId', ** {'enterpriseIe': Maybe, 'id': 1, 'len': 8, 'str': 'a'})",
       "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': 1, 'len': 8})",
       "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': noSuchName, 'len': 8, 'str': "
       "'a'})",
       "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': 1, 'len': -8, 'str': 'a'})",
       "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': 1, 'len': 8, 'str': 'a})",
       "Value('Ipfix::ElementId', ** {'enterpriseIe': False, 'id': 1, 'len': 8, 'str': 'a'}) x",
   };
   for (auto const& s : bad) {
      EXPECT_THROW(ElementId(s.begin(), s.end()), Kivo::Exception) << s;
   }
}

TEST(IpfixRecordType, PrintsByNameOrNumberAndParsesBoth) {
   EXPECT_EQ(Ipfix::valueToStrep(Ipfix::element("octetDeltaCount")), "octetDeltaCount");
   EXPECT_EQ(Ipfix::valueToStrep(RecordType{2016}), "2016");
   EXPECT_EQ(Ipfix::recordTypeFromString("innerSrcIp"), RecordType{1024});
   EXPECT_EQ(Ipfix::recordTypeFromString("77777"), RecordType{77777});
   EXPECT_FALSE(Ipfix::recordTypeFromString("12x") || Ipfix::recordTypeFromString(""));
}

TEST(IpfixMsgSeqNo, PrintsUnsignedAndWrapsModulo2To32) {
   Ipfix::IpfixMsgSeqNo const max{0xffffffffu};
   EXPECT_EQ(max.toString(), "4294967295");
   EXPECT_EQ((max + Ipfix::IpfixMsgSeqNo{2}).value, 1u);
   EXPECT_EQ(Ipfix::IpfixMsgSeqNo::fromString("4294967295"), max);
   EXPECT_EQ(
       Ipfix::IpfixMsgSeqNo::fromString("Value('Ipfix::IpfixMsgSeqNo', ** {'value': 7})").value,
       7u);
   EXPECT_THROW(Ipfix::IpfixMsgSeqNo::fromString("4294967296"), Kivo::Exception);
   EXPECT_THROW(Ipfix::IpfixMsgSeqNo::fromString("-1"), Kivo::Exception);
}

TEST(IpfixInitSm, PublishesCompleteOutputsAtConstructionAndReplacesThemOnRerun) {
   Snaplog::clear();
   auto sm = Ipfix::ipfixInitSmFactory();
   ASSERT_TRUE(sm->initialized() && sm->elementIdCollection() && sm->agentInfo());
   EXPECT_EQ(sm->elementIdCollection()->elementIdColls(), 101u);
   EXPECT_FALSE(sm->agentInfo()->multiThreaded());
   EXPECT_EQ(Snaplog::lines(), (std::vector<std::string>{"IpfixInitSm::handleInitialized",
                                                         "ElementIdColl::doInitialize"}));

   Kivo::Ptr<Ipfix::ElementIdColl const> oldTable = sm->elementIdCollection();
   int tableChanges = 0;
   Kivo::Reactor r;
   r.watch(sm->onElementIdCollection(), [&] { ++tableChanges; });
   sm->handleInitialized();
   EXPECT_EQ(tableChanges, 1);
   EXPECT_NE(sm->elementIdCollection().get(), oldTable.get());
   EXPECT_EQ(oldTable->elementIdColls(), 101u);  // holders of the old table keep it whole
}
