#include <gtest/gtest.h>

#include "Ipfix/OptionsTemplate.h"
#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"
#include "support/DeathText.h"
#include "support/IpfixDecoder.h"

using FlowTracking::OptionsTemplate;
using Ipfix::element;
using Ipfix::RecordType;
using testsupport::FieldSpec;

namespace {

constexpr std::uint32_t pen = FlowTracking::Constants::enterpriseNumber();

Kivo::Ptr<Ipfix::ElementIdColl const> table() {
   static auto t = [] {
      auto c = Ipfix::elementIdCollFactory();
      c->doInitialize();
      return c;
   }();
   return t;
}

Kivo::Ptr<OptionsTemplate> makeTemplate(FlowTracking::TemplateId id,
                                        std::vector<RecordType> const& scope,
                                        std::vector<RecordType> const& fields) {
   auto ot = Kivo::make<OptionsTemplate>("t", id);
   for (RecordType r : scope) {
      FlowTracking::addScopeField(table(), ot, r);
   }
   for (RecordType r : fields) {
      FlowTracking::addField(table(), ot, r);
   }
   return ot;
}

// Encodes `ot` as the only record of an options template set and decodes it independently.
testsupport::TemplateRecord roundTrip(Kivo::Ptr<OptionsTemplate> const& ot) {
   std::uint32_t const len = FlowTracking::getTemplateEntryLength(ot);
   auto pkt = Kivo::make<Pelto::Pkt>(512, 20);
   pkt->tailGrow(len);
   EXPECT_EQ(FlowTracking::writeOptionsTemplateRecord(pkt, 0, *ot), len);
   pkt->headGrow(20);
   Pelto::MessageHeader(pkt, 0).versionIs(10);
   Pelto::MessageHeader(pkt, 0).lengthIs(static_cast<std::uint16_t>(pkt->bytes()));
   Pelto::SetHeader(pkt, 16).setIdIs(3);
   Pelto::SetHeader(pkt, 16).lengthIs(static_cast<std::uint16_t>(4 + len));
   testsupport::Decoder d;
   auto const templates = d.decode(pkt->span()).templates();
   EXPECT_EQ(templates.size(), 1u);
   return templates.at(0);
}

}  // namespace

TEST(OptionsTemplateEncoding, EnterpriseFieldAddsEightOctetsAndTheNumber) {
   auto ot = makeTemplate(259, {element("observationDomainId")},
                          {element("samplingSize"), element("corvixBscanFlowStart")});
   EXPECT_EQ(FlowTracking::getTemplateEntryLength(ot), 22u);
   auto const t = roundTrip(ot);
   EXPECT_EQ(std::tuple(t.id, t.scopeFieldCount), std::tuple(259, 1));
   EXPECT_EQ(t.fields, (std::vector<FieldSpec>{
                           {149, 4, false, 0}, {309, 4, false, 0}, {1038, 6, true, pen}}));
}

TEST(OptionsTemplateEncoding, LengthsAndFlagsComeFromTheElementTable) {
   struct Case {
      RecordType field;
      FieldSpec expected;
      std::uint32_t recordLen;
   };
   Case const cases[] = {
       {element("VRFname"), {236, 65535, false, 0}, 14},
       {element("innerSourceTransportPort"), {1029, 2, false, 0}, 14},  // IANA despite its id
       {element("innerSrcIp"), {1024, 4, true, pen}, 18},
       {element("flowKeyIndicator"), {173, 8, false, 0}, 14},
   };
   for (Case const& c : cases) {
      auto ot = makeTemplate(300, {element("ingressVRFID")}, {c.field});
      EXPECT_EQ(FlowTracking::getTemplateEntryLength(ot), c.recordLen) << c.field;
      EXPECT_EQ(roundTrip(ot).fields.at(1), c.expected) << c.field;
   }
}

TEST(OptionsTemplateEncoding, ScopeFieldsFirstEachInPositionOrder) {
   auto ot = Kivo::make<OptionsTemplate>("t", 260);
   // Inserted out of order; written by position, scope fields before fields.
   for (auto [pos, type] : {std::pair{1u, element("samplingSize")}, {0u, element("VRFname")}}) {
      FlowTracking::updateFieldInfo(table(), ot->fieldIs(pos, type));
   }
   for (auto [pos, type] : {std::pair{1u, element("templateId")}, {0u, element("ingressVRFID")}}) {
      FlowTracking::updateFieldInfo(table(), ot->scopeFieldIs(pos, type));
   }
   auto const t = roundTrip(ot);
   EXPECT_EQ(t.scopeFieldCount, 2);
   std::vector<std::uint16_t> ids;
   for (auto const& f : t.fields) {
      ids.push_back(f.id);
   }
   EXPECT_EQ(ids, (std::vector<std::uint16_t>{234, 145, 236, 309}));
}

// Each appended field is reported on the text trace of the default facility, at level 4: seen at
// level 4, not at 3, and not on the facility of the template machines.
TEST(OptionsTemplateEncoding, AddedFieldsAreTracedOnTheDefaultFacilityAtLevel4) {
   struct Case {
      int level;
      std::vector<std::string> expected;
   };
   Case const cases[] = {
       {3, {}},
       {4, {"default/4   Added field observationDomainId", "default/4   Added field VRFname"}},
   };
   for (Case const& c : cases) {
      testsupport::TextTrace capture(
          {{&Dualog::defaultFacility(), c.level}, {&Dualog::facility("FlowTrackerTemplateSm"), 9}});
      makeTemplate(300, {element("observationDomainId")}, {element("VRFname")});
      EXPECT_EQ(capture.lines, c.expected) << "default facility at level " << c.level;
   }
}

using OptionsTemplateDeathTest = ::testing::Test;

TEST_F(OptionsTemplateDeathTest, InvalidTemplatesStopWithTheConditionText) {
   auto noScope = makeTemplate(300, {}, {element("VRFname")});
   EXPECT_DEATH(FlowTracking::getTemplateEntryLength(noScope),
                testsupport::deathText("templateEntry->scopeFields() > 0"));
   // Two scope fields and one field is valid IPFIX, but refused here on purpose.
   auto fewFields =
       makeTemplate(300, {element("ingressVRFID"), element("templateId")}, {element("VRFname")});
   EXPECT_DEATH(FlowTracking::getTemplateEntryLength(fewFields),
                testsupport::deathText("templateEntry->fields() >= templateEntry->scopeFields()"));

   auto unknown = Kivo::make<HwFlowTracking::FtTemplateEntry>(0, RecordType{2016});
   EXPECT_DEATH(FlowTracking::updateFieldInfo(table(), unknown),
                testsupport::deathText("eic->elementIdCollHas( field->fieldId() )") +
                    ".*Missing fieldId in elementIdColl: 2016");

   auto ot = makeTemplate(300, {element("ingressVRFID")}, {element("VRFname")});
   EXPECT_DEATH(ot->fieldIs(0, element("interfaceName")),
                testsupport::deathText("entry->fieldId() == type"));
}
