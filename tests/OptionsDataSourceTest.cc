#include <gtest/gtest.h>

#include <algorithm>

#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Pelto/Endian.h"
#include "Trace/Snaplog.h"
#include "support/DeathText.h"
#include "support/IpfixDecoder.h"

using namespace FlowTracking;
using Ipfix::element;
using testsupport::Bytes;
using testsupport::deathText;
using testsupport::fieldText;
using testsupport::fieldValue;

namespace {

Bytes bytes(DataRecordPtr const& r) {
   return Bytes(r->data().begin(), r->data().end());
}
Bytes bytes(std::initializer_list<int> head, std::string const& tail = {},
            std::initializer_list<int> rest = {}) {
   Bytes b(head.begin(), head.end());
   b.insert(b.end(), tail.begin(), tail.end());
   b.insert(b.end(), rest.begin(), rest.end());
   return b;
}

std::vector<DataRecordPtr> rows(Kivo::Ptr<OptionsDataSource> const& s) {
   return {s->dataRecord().begin(), s->dataRecord().end()};
}

bool traced(std::string_view text) {
   auto const lines = Snaplog::lines();
   return std::any_of(lines.begin(), lines.end(),
                      [&](std::string const& l) { return l.find(text) != std::string::npos; });
}

// The options template that collectors receive for a table, and `records` as its data set, in one
// message for the independent decoder; returns the decoded records.
std::vector<testsupport::DataRecord> decodeTable(StaticTemplateId table,
                                                 std::vector<DataRecordPtr> const& records) {
   static auto const eic = [] {
      auto c = Ipfix::elementIdCollFactory();
      c->doInitialize();
      return c;
   }();
   std::map<StaticTemplateId, std::vector<Ipfix::RecordType>> const fields = {
       {StaticTemplateId::intfTable, {element("ingressInterface"), element("interfaceName")}},
       {StaticTemplateId::vrfTable, {element("ingressVRFID"), element("VRFname")}},
       {StaticTemplateId::flowKey, {element("templateId"), element("flowKeyIndicator")}},
       {StaticTemplateId::flowTrackerTable,
        {element("observationDomainId"), element("observationDomainName"),
         element("flowActiveTimeout"), element("flowIdleTimeout"), element("selectorAlgorithm"),
         element("samplingSize"), element("samplingPopulation"), element("flowTrackingType")}},
   };
   TemplateId const id = Constants::reservedTemplateId(table);
   auto ot = Kivo::make<OptionsTemplate>("t", id);
   addScopeField(eic, ot, fields.at(table).front());
   for (std::size_t i = 1; i < fields.at(table).size(); ++i) {
      addField(eic, ot, fields.at(table)[i]);
   }
   auto pkt = Kivo::make<Pelto::Pkt>(1024);
   pkt->tailGrow(getTemplateEntryLength(ot));
   writeOptionsTemplateRecord(pkt, 0, *ot);

   Bytes msg(16);
   auto set = [&](std::uint16_t setId, Bytes const& body) {
      std::size_t const at = msg.size();
      msg.resize(at + 4);
      Pelto::storeBe16(&msg[at], setId);
      Pelto::storeBe16(&msg[at + 2], static_cast<std::uint16_t>(4 + body.size()));
      msg.insert(msg.end(), body.begin(), body.end());
   };
   set(3, Bytes(pkt->span().begin(), pkt->span().end()));
   Bytes data;
   for (auto const& r : records) {
      data.insert(data.end(), r->data().begin(), r->data().end());
   }
   set(id, data);
   Pelto::storeBe16(&msg[0], 10);
   Pelto::storeBe16(&msg[2], static_cast<std::uint16_t>(msg.size()));
   testsupport::Decoder d;
   auto const m = d.decode(msg);
   EXPECT_EQ(m.sets.size(), 2u);
   return m.sets.at(1).records;
}

// ---------------------------------------------------------------------------------------------
// Interface table

struct OptionsDataSourceIntfTable : ::testing::Test {
   Kivo::Ptr<OptionsDataSource> source = Kivo::make<OptionsDataSource>("InterfaceTable", 257);
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<IntfIndexMap> map = intfIndexMapFactory();
   Kivo::Ptr<InterfaceTableSm> make() { return interfaceTableSmFactory(source, update, map); }
};

TEST_F(OptionsDataSourceIntfTable, RecordCarriesIndexAndShortVariableLengthName) {
   auto sm = make();
   struct Case {
      std::string name;
      std::uint32_t index;
      std::size_t len;
   };
   for (Case const& c :
        {Case{"Ethernet1", 5, 14}, Case{"E", 0xFFFFFFFF, 6}, Case{std::string(254, 'n'), 9, 259}}) {
      auto r = sm->makeDataRecord(c.name, c.index);
      ASSERT_EQ(r->dataLen(), c.len) << c.name;
      auto const decoded = decodeTable(StaticTemplateId::intfTable, {r});
      ASSERT_EQ(decoded.size(), 1u);
      EXPECT_EQ(fieldValue(decoded[0].fields.at(0)), c.index);
      EXPECT_EQ(fieldText(decoded[0].fields.at(1)), c.name);
   }
   EXPECT_EQ(bytes(sm->makeDataRecord("Ethernet1", 5)), bytes({0, 0, 0, 5, 9}, "Ethernet1"));
}

TEST_F(OptionsDataSourceIntfTable, EmptyOrOverlongNameAborts) {
   auto sm = make();
   EXPECT_DEATH(sm->makeDataRecord("", 1), deathText("pos + sizeof( U8 ) < max"));
   EXPECT_DEATH(sm->makeDataRecord(std::string(255, 'n'), 1), deathText("intfNameLen < 255"));
}

TEST_F(OptionsDataSourceIntfTable, EmptyMapPublishesTheReservedRecordsInOrderWithOneVersionBump) {
   std::vector<DataRecordPtr> added;
   Kivo::Reactor r;
   r.watch(source->onDataRecord(), [&](DataRecordPtr const& rec) { added.push_back(rec); });
   auto sm = make();
   auto const decoded = decodeTable(StaticTemplateId::intfTable, added);
   std::vector<std::pair<std::uint64_t, std::string>> got;
   for (auto const& d : decoded) {
      got.emplace_back(fieldValue(d.fields.at(0)), fieldText(d.fields.at(1)));
   }
   std::vector<std::pair<std::uint64_t, std::string>> const want = {
       {0x80000000, "multicast"}, {0x40000000, "discard"}, {0x3FFFFFFF, "CPU"}, {0, "unknown"}};
   EXPECT_EQ(got, want);
   EXPECT_EQ(source->dataRecords(), 4u);
   EXPECT_EQ(source->version(), 1u);
   EXPECT_EQ(update->version(), 0u);  // the full table is not posted record by record
   EXPECT_EQ(sm->dataRecords(), 0u);
}

TEST_F(OptionsDataSourceIntfTable, ScriptOfIndexChanges) {
   Pelto::IntfId const e1("Ethernet1"), e2("Ethernet2");
   map->intfIndexIs(e1, 1);
   auto sm = make();
   EXPECT_EQ(source->dataRecords(), 5u);
   EXPECT_EQ(source->version(), 1u);

   map->intfIndexIs(e2, 2);  // added: posted
   EXPECT_EQ(update->version(), 1u);
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::intfTable));
   EXPECT_EQ(update->record(), sm->dataRecord(e2));
   EXPECT_EQ(bytes(update->record()), bytes({0, 0, 0, 2, 9}, "Ethernet2"));
   EXPECT_EQ(source->version(), 2u);

   DataRecordPtr const old = sm->dataRecord(e1);
   map->intfIndexIs(e1, 7);  // changed: replaced and posted
   EXPECT_FALSE(source->dataRecord().has(old));
   EXPECT_TRUE(source->dataRecord().has(sm->dataRecord(e1)));
   EXPECT_EQ(bytes(update->record()), bytes({0, 0, 0, 7, 9}, "Ethernet1"));
   EXPECT_EQ(update->version(), 2u);
   EXPECT_EQ(source->dataRecords(), 6u);

   Snaplog::clear();
   DataRecordPtr const gone = sm->dataRecord(e2);
   map->intfIndexDel(e2);  // removed: not posted
   EXPECT_TRUE(traced("intfId: Ethernet2, index not present. "));
   EXPECT_EQ(update->version(), 2u);
   EXPECT_FALSE(source->dataRecord().has(gone));
   EXPECT_FALSE(sm->dataRecord(e2));
   EXPECT_EQ(source->dataRecords(), 5u);
   EXPECT_EQ(source->version(), 4u);
}

TEST_F(OptionsDataSourceIntfTable, BrokenInvariantsAbort) {
   auto sm = make();
   source->dataRecordIs(dataRecordFactory("stray"));
   EXPECT_DEATH(map->intfIndexIs(Pelto::IntfId("Ethernet1"), 1),
                deathText("( dataRecords() + intfIndexMap()->numReservedIntfs() ) == "
                          "dataSource()->dataRecords()"));
   sm->initializedIs(false);
   EXPECT_DEATH(sm->handleIntfId(Pelto::IntfId("Ethernet1")), deathText("initialized()"));
}

// ---------------------------------------------------------------------------------------------
// VRF table

struct OptionsDataSourceVrfTable : ::testing::Test {
   Kivo::Ptr<OptionsDataSource> source = Kivo::make<OptionsDataSource>("VrfTable", 256);
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<Vrf::VrfIdMap::Status> status = Vrf::VrfIdMap::statusFactory();
   Kivo::Ptr<VrfTableSm> make() { return vrfTableSmFactory(source, update, status); }
};

TEST_F(OptionsDataSourceVrfTable, RecordLayoutAllowsAnEmptyName) {
   auto sm = make();
   struct Case {
      std::uint32_t id;
      std::string name;
      Bytes want;
   };
   for (Case const& c :
        {Case{2, "red", bytes({0, 0, 0, 2, 3}, "red")},
         Case{0xFFFFFF, "", bytes({0, 0xFF, 0xFF, 0xFF, 0})},
         Case{7, std::string(254, 'v'), bytes({0, 0, 0, 7, 254}, std::string(254, 'v'))}}) {
      auto r = sm->makeDataRecord(c.id, c.name);
      EXPECT_EQ(bytes(r), c.want) << c.name;
      auto const decoded = decodeTable(StaticTemplateId::vrfTable, {r});
      ASSERT_EQ(decoded.size(), 1u);
      EXPECT_EQ(fieldValue(decoded[0].fields.at(0)), c.id);
      EXPECT_EQ(fieldText(decoded[0].fields.at(1)), c.name);
   }
   EXPECT_DEATH(sm->makeDataRecord(1, std::string(255, 'v')), deathText("vrfName.bytes() < 255"));
}

TEST_F(OptionsDataSourceVrfTable, NoVrfsLeavesOnlyTheFixedRecord) {
   auto sm = make();
   ASSERT_EQ(source->dataRecords(), 1u);
   EXPECT_EQ(bytes(rows(source)[0]), bytes({0, 0xFF, 0xFF, 0xFF, 0}));
   EXPECT_EQ(source->version(), 1u);
   EXPECT_EQ(update->version(), 0u);
}

TEST_F(OptionsDataSourceVrfTable, ScriptOfVrfChanges) {
   status->vrfNameIs(1, "blue");
   status->vrfNameIs(2, "");
   auto sm = make();
   EXPECT_EQ(source->dataRecords(), 3u);
   EXPECT_EQ(bytes(sm->dataRecord(2)), bytes({0, 0, 0, 2, 0}));

   DataRecordPtr const old = sm->dataRecord(1);
   status->vrfNameIs(1, "green");  // renamed: replaced and posted
   EXPECT_FALSE(source->dataRecord().has(old));
   EXPECT_EQ(update->record(), sm->dataRecord(1));
   EXPECT_EQ(bytes(update->record()), bytes({0, 0, 0, 1, 5}, "green"));
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::vrfTable));
   EXPECT_EQ(update->version(), 1u);
   EXPECT_EQ(source->dataRecords(), 3u);
   EXPECT_EQ(source->version(), 2u);

   Snaplog::clear();
   status->vrfNameDel(1);  // removed: not posted
   EXPECT_TRUE(traced("vrfIndex: 1, name not present. "));
   EXPECT_EQ(update->version(), 1u);
   EXPECT_EQ(source->dataRecords(), 2u);
   EXPECT_EQ(source->version(), 3u);
}

TEST_F(OptionsDataSourceVrfTable, OverlongVrfNameIsRefusedByTheMap) {
   auto sm = make();
   status->vrfNameIs(3, std::string(100, 'v'));
   EXPECT_EQ(sm->dataRecord(3)->dataLen(), 105u);
   try {
      status->vrfNameIs(3, std::string(101, 'v'));
      FAIL() << "a 101-byte VRF name was accepted";
   } catch (Kivo::RangeException const& e) {
      EXPECT_STREQ(e.what(), "L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed");
   }
   EXPECT_EQ(status->vrfName(3)->bytes(), 100u);
   EXPECT_EQ(update->version(), 1u);
}

TEST_F(OptionsDataSourceVrfTable, CountMismatchAborts) {
   auto sm = make();
   source->dataRecordIs(dataRecordFactory("stray"));
   EXPECT_DEATH(status->vrfNameIs(4, "x"),
                deathText("( dataRecords() + 1 ) == dataSource()->dataRecords()"));
}

// ---------------------------------------------------------------------------------------------
// Flow tracker table

struct OptionsDataSourceFtTable : ::testing::Test {
   void SetUp() override {
      hwStatus->sampleRateIs(1000);
      ftConfig->ftIdIs(7);
      ftStatus->activeIntervalIs({300'000});
      ftStatus->inactiveTimeoutIs({15'000});
   }
   Kivo::Ptr<FlowTrackerTableSm> make() {
      return flowTrackerTableSmFactory(source, update, hwStatus, ftConfig, ftStatus,
                                       FlowTrackingType::sampled, scheduler);
   }
   Kivo::ScopedManualClock clock;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<OptionsDataSource> source = Kivo::make<OptionsDataSource>("FlowTrackerTable", 259);
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeTracker);
   Kivo::Ptr<HwFlowTracking::Status> hwStatus = Kivo::make<HwFlowTracking::Status>();
   Kivo::Ptr<HwFlowTracking::FtConfig> ftConfig = Kivo::make<HwFlowTracking::FtConfig>("ftr1");
   Kivo::Ptr<HwFlowTracking::FtStatus> ftStatus = Kivo::make<HwFlowTracking::FtStatus>("ftr1");
};

TEST_F(OptionsDataSourceFtTable, RecordDescribesTheTracker) {
   auto sm = make();
   ASSERT_EQ(source->dataRecords(), 1u);
   auto const r = rows(source)[0];
   EXPECT_EQ(bytes(r),
             bytes({0, 0, 0, 7, 4}, "ftr1",
                   {0x01, 0x2C, 0x00, 0x0F, 0x00, 0x03, 0, 0, 0, 1, 0, 0, 0x03, 0xE8, 0x00, 0x01}));
   auto const d = decodeTable(StaticTemplateId::flowTrackerTable, {r});
   ASSERT_EQ(d.size(), 1u);
   EXPECT_EQ(fieldText(d[0].fields.at(1)), "ftr1");
   EXPECT_EQ(fieldValue(d[0].fields.at(7)), 1u);
   EXPECT_EQ(source->version(), 1u);
   EXPECT_EQ(update->version(), 0u);
   EXPECT_EQ(sm->updateTask()->name(), "FlowTrackerTableSmUpdate");
   EXPECT_EQ(sm->updateTask()->priority(), 3);
}

TEST_F(OptionsDataSourceFtTable, TimeoutsAreWholeSecondsBelow65535) {
   auto sm = make();
   ftStatus->activeIntervalIs({65'534'999});  // truncated to 65534 s
   ftStatus->inactiveTimeoutIs({1'999});
   Bytes const b = bytes(sm->makeDataRecord());
   EXPECT_EQ(Pelto::loadBe16(&b[9]), 0xFFFE);
   EXPECT_EQ(Pelto::loadBe16(&b[11]), 1);
   ftStatus->activeIntervalIs({65'535'000});
   EXPECT_DEATH(sm->makeDataRecord(), deathText("active.seconds() < Kivo::maxU16()"));
   ftStatus->activeIntervalIs({0});
   ftStatus->inactiveTimeoutIs({70'000'000});
   EXPECT_DEATH(sm->makeDataRecord(), deathText("inactive.seconds() < Kivo::maxU16()"));
}

// Three changes inside the delay: one rebuild when the first change's delay runs out.
TEST_F(OptionsDataSourceFtTable, ParameterChangesCoalesceIntoOneUpdate) {
   auto sm = make();
   ftStatus->activeIntervalIs({60'000});
   scheduler->runFor(*clock, 0.5);
   ftStatus->inactiveTimeoutIs({30'000});
   scheduler->runFor(*clock, 1.0);
   hwStatus->sampleRateIs(64);
   scheduler->runFor(*clock, 0.4);
   EXPECT_EQ(update->version(), 0u);
   EXPECT_EQ(source->version(), 1u);
   scheduler->runFor(*clock, 0.1);  // 2.0 s after the first change
   EXPECT_EQ(update->version(), 1u);
   EXPECT_EQ(source->version(), 2u);
   ASSERT_EQ(source->dataRecords(), 1u);
   EXPECT_EQ(rows(source)[0], update->record());
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable));
   auto const d = decodeTable(StaticTemplateId::flowTrackerTable, {update->record()});
   ASSERT_EQ(d.size(), 1u);
   EXPECT_EQ(fieldValue(d[0].fields.at(2)), 60u);
   EXPECT_EQ(fieldValue(d[0].fields.at(3)), 30u);
   EXPECT_EQ(fieldValue(d[0].fields.at(6)), 64u);
   scheduler->runFor(*clock, 10.0);
   EXPECT_EQ(update->version(), 1u);

   ftConfig->ftIdIs(9);  // not watched
   scheduler->runFor(*clock, 10.0);
   EXPECT_EQ(update->version(), 1u);
}

TEST_F(OptionsDataSourceFtTable, NoUpdateBeforeInitializationOrAfterDestruction) {
   auto sm = make();
   sm->initializedIs(false);
   sm->doUpdate();
   EXPECT_EQ(update->version(), 0u);
   sm->initializedIs(true);
   hwStatus->sampleRateIs(10);
   sm = nullptr;  // the pending rebuild goes with the state machine
   scheduler->runFor(*clock, 5.0);
   EXPECT_EQ(update->version(), 0u);
   EXPECT_EQ(source->version(), 1u);
}

TEST(OptionsDataSourceFtTableAddElement, WritersStayInsideTheRecord) {
   std::uint8_t buf[8] = {};
   std::uint8_t* pos = buf;
   addElement(&pos, buf + 8, std::uint16_t{0x0102});
   addElement(&pos, buf + 8, std::uint8_t{3});
   addElement(&pos, buf + 8, Kivo::String("ab"));
   EXPECT_EQ(Bytes(buf, pos), bytes({1, 2, 3, 2, 'a', 'b'}));
   EXPECT_DEATH(addElement(&pos, buf + 8, std::uint32_t{1}),
                deathText("*pos + sizeof( BaseType ) <= max"));
   EXPECT_DEATH(addElement(&pos, buf + 8, Kivo::String("xy")),
                deathText("*pos + elementLen <= max"));
   std::uint8_t big[300];
   std::uint8_t* p = big;
   EXPECT_DEATH(addElement(&p, big + 300, Kivo::String(255, 'x')), deathText("elementLen < 255"));
}

// ---------------------------------------------------------------------------------------------
// Flow key

struct Field {
   std::uint32_t position;
   std::uint32_t element;
   bool flowKey;
};

struct OptionsDataSourceFlowKey : ::testing::Test {
   // Creates or refills a template and bumps its generation, as the hardware layer does.
   void templateIs(TemplateId id, std::vector<Field> const& fields) {
      auto t = ftStatus->templateStatusIs(id);
      t->entryDelAll();
      for (Field const& f : fields) {
         t->entryIs(f.position, Ipfix::RecordType(f.element))->flowKeyIs(f.flowKey);
      }
      t->genIdIs(t->genId() + 1);
   }
   Kivo::Ptr<FlowKeySm> make() { return flowKeySmFactory(source, update, ftStatus); }
   Kivo::Ptr<OptionsDataSource> source = Kivo::make<OptionsDataSource>("FlowKey", 258);
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeTracker);
   Kivo::Ptr<HwFlowTracking::FtStatus> ftStatus = Kivo::make<HwFlowTracking::FtStatus>("ftr1");
};

TEST_F(OptionsDataSourceFlowKey, BitmapOfFlowKeyPositions) {
   struct Case {
      std::vector<std::uint32_t> keys;
      std::uint64_t bitmap;
   };
   Case const cases[] = {
       {{}, 0},
       {{0, 1, 4}, 0x13},
       {{30}, 0x40000000},
       {{31}, 0xFFFFFFFF80000000},  // the 32-bit sign bit, sign-extended
       {{32}, 0x1},                 // positions wrap at 32
       {{33}, 0x2},
       {{63}, 0xFFFFFFFF80000000},
   };
   auto sm = make();
   for (Case const& c : cases) {
      std::vector<Field> fields;
      for (std::uint32_t p = 0; p < 64; ++p) {
         fields.push_back({p, 1, std::count(c.keys.begin(), c.keys.end(), p) > 0});
      }
      templateIs(300, fields);
      auto r = sm->makeDataRecord(300);
      ASSERT_TRUE(r);
      auto const d = decodeTable(StaticTemplateId::flowKey, {r});
      ASSERT_EQ(d.size(), 1u);
      EXPECT_EQ(fieldValue(d[0].fields.at(0)), 300u);
      EXPECT_EQ(fieldValue(d[0].fields.at(1)), c.bitmap) << c.keys.size();
   }
   templateIs(301, {{0, 7, true}, {1, 0, true}, {4, 11, true}});
   EXPECT_EQ(bytes(sm->makeDataRecord(301)), bytes({0x01, 0x2D, 0, 0, 0, 0, 0, 0, 0, 0x13}));
}

TEST_F(OptionsDataSourceFlowKey, MixedAddressFamiliesGiveNoRecord) {
   auto sm = make();
   struct Case {
      std::vector<Field> fields;
      bool record;
   };
   Case const cases[] = {
       {{{0, 8, true}, {1, 12, true}}, true},   // IPv4 source and destination
       {{{0, 27, true}, {1, 28, true}}, true},  // IPv6 source and destination
       {{{0, 8, true}, {1, 4, true}, {2, 28, false}}, false},
       {{{0, 27, false}, {5, 12, false}}, false},
   };
   for (Case const& c : cases) {
      Snaplog::clear();
      templateIs(400, c.fields);
      EXPECT_EQ(bool(sm->makeDataRecord(400)), c.record);
      EXPECT_EQ(traced("AF mismatch at field:"), !c.record);
      EXPECT_EQ(bool(sm->dataRecord(400)), c.record);
   }
   EXPECT_TRUE(traced(", NO record (incomplete template)"));
   EXPECT_EQ(source->dataRecords(), 0u);
}

TEST_F(OptionsDataSourceFlowKey, ScriptOfTemplateChanges) {
   templateIs(300, {{0, 8, true}, {1, 12, true}});
   templateIs(301, {{0, 8, true}, {1, 27, true}});  // mixed: no record
   auto sm = make();
   EXPECT_EQ(source->dataRecords(), 1u);
   EXPECT_EQ(source->version(), 1u);
   EXPECT_EQ(update->version(), 0u);
   EXPECT_EQ(bytes(sm->dataRecord(300)), bytes({0x01, 0x2C, 0, 0, 0, 0, 0, 0, 0, 3}));

   templateIs(302, {{2, 7, true}});  // added (empty), then filled: each posted
   EXPECT_EQ(update->version(), 2u);
   EXPECT_EQ(update->record(), sm->dataRecord(302));
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::flowKey));
   EXPECT_EQ(bytes(update->record()), bytes({0x01, 0x2E, 0, 0, 0, 0, 0, 0, 0, 4}));
   EXPECT_EQ(source->dataRecords(), 2u);

   DataRecordPtr const old = sm->dataRecord(300);
   templateIs(300, {{0, 8, false}, {1, 12, true}});  // regenerated: replaced and posted
   EXPECT_FALSE(source->dataRecord().has(old));
   EXPECT_EQ(bytes(update->record()), bytes({0x01, 0x2C, 0, 0, 0, 0, 0, 0, 0, 2}));
   EXPECT_EQ(update->version(), 3u);

   Snaplog::clear();
   std::uint32_t const version = source->version();
   auto removed = ftStatus->templateStatus(300);
   ftStatus->templateStatusDel(300);  // removed: not posted
   EXPECT_TRUE(traced("templateId:300, not present"));
   EXPECT_FALSE(sm->dataRecord(300));
   EXPECT_FALSE(sm->templateStatus(300));
   EXPECT_EQ(source->dataRecords(), 1u);
   EXPECT_EQ(source->version(), version + 1);
   EXPECT_EQ(update->version(), 3u);
   removed->genIdIs(99);  // no longer followed
   EXPECT_EQ(source->version(), version + 1);
}

TEST_F(OptionsDataSourceFlowKey, CountMismatchAborts) {
   auto sm = make();
   source->dataRecordIs(dataRecordFactory("stray"));
   EXPECT_DEATH(templateIs(300, {}), deathText("dataRecords() == dataSource()->dataRecords()"));
}

}  // namespace
