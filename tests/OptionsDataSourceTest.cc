#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "Pelto/Endian.h"
#include "support/DeathText.h"
#include "support/Probes.h"

using namespace FlowTracking;
using testsupport::deathText;
using testsupport::traced;
using IntfProbe = InterfaceTableSmProbe;
using VrfProbe = VrfTableSmProbe;
using FtProbe = FlowTrackerTableSmProbe;
using KeyProbe = FlowKeySmProbe;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Counts = std::vector<std::uint64_t>;  // records in the source, its version, update version

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

// One source and update, and the inputs of every table; each test makes one state machine.
struct OptionsDataSourceTables : ::testing::Test {
   OptionsDataSourceTables() {
      hwStatus->sampleRateIs(1000);
      ftConfig->ftIdIs(7);
      ftStatus->activeIntervalIs({300'000}), ftStatus->inactiveTimeoutIs({15'000});
   }
   Counts counts() const { return {source->dataRecords(), source->version(), update->version()}; }
   std::vector<DataRecordPtr> rows() const {
      return {source->dataRecord().begin(), source->dataRecord().end()};
   }
   Kivo::Ptr<InterfaceTableSm> intfSm() { return interfaceTableSmFactory(source, update, map); }
   Kivo::Ptr<VrfTableSm> vrfSm() { return vrfTableSmFactory(source, update, status); }
   Kivo::Ptr<FlowKeySm> keySm() { return flowKeySmFactory(source, update, ftStatus); }
   Kivo::Ptr<FlowTrackerTableSm> ftSm() {
      return flowTrackerTableSmFactory(source, update, hwStatus, ftConfig, ftStatus,
                                       FlowTrackingType::sampled, scheduler);
   }
   // Creates or refills a flow key template and bumps its generation, as the hardware layer does.
   void templateIs(TemplateId id,
                   std::vector<std::tuple<std::uint32_t, std::uint32_t, bool>> const& fields) {
      auto t = ftStatus->templateStatusIs(id);
      t->entryDelAll();
      for (auto const& [position, element, flowKey] : fields) {
         t->entryIs(position, Ipfix::RecordType(element))->flowKeyIs(flowKey);
      }
      t->genIdIs(t->genId() + 1);
   }
   Kivo::ScopedManualClock clock;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<OptionsDataSource> source = Kivo::make<OptionsDataSource>("Table", 256);
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<IntfIndexMap> map = intfIndexMapFactory();
   Kivo::Ptr<Vrf::VrfIdMap::Status> status = Vrf::VrfIdMap::statusFactory();
   Kivo::Ptr<HwFlowTracking::Status> hwStatus = Kivo::make<HwFlowTracking::Status>();
   Kivo::Ptr<HwFlowTracking::FtConfig> ftConfig = Kivo::make<HwFlowTracking::FtConfig>("ftr1");
   Kivo::Ptr<HwFlowTracking::FtStatus> ftStatus = Kivo::make<HwFlowTracking::FtStatus>("ftr1");
};
using OptionsDataSourceIntfTable = OptionsDataSourceTables;
using OptionsDataSourceVrfTable = OptionsDataSourceTables;
using OptionsDataSourceFtTable = OptionsDataSourceTables;
using OptionsDataSourceFlowKey = OptionsDataSourceTables;

TEST_F(OptionsDataSourceIntfTable, RecordCarriesIndexAndShortVariableLengthName) {
   auto sm = intfSm();
   std::string const longest(254, 'n');
   EXPECT_EQ(bytes(IntfProbe::makeDataRecord(*sm, "Ethernet1", 5)),
             bytes({0, 0, 0, 5, 9}, "Ethernet1"));
   EXPECT_EQ(bytes(IntfProbe::makeDataRecord(*sm, "E", 0xFFFFFFFF)),
             bytes({255, 255, 255, 255, 1}, "E"));
   EXPECT_EQ(bytes(IntfProbe::makeDataRecord(*sm, longest, 9)), bytes({0, 0, 0, 9, 254}, longest));
   EXPECT_DEATH(IntfProbe::makeDataRecord(*sm, "", 1), deathText("pos + sizeof( U8 ) < max"));
   EXPECT_DEATH(IntfProbe::makeDataRecord(*sm, longest + "n", 1), deathText("intfNameLen < 255"));
}

TEST_F(OptionsDataSourceIntfTable, EmptyMapPublishesTheReservedRecordsInOrderWithOneVersionBump) {
   std::vector<Bytes> added;
   Kivo::Reactor r;
   r.watch(source->onDataRecord(), [&](DataRecordPtr const& rec) { added.push_back(bytes(rec)); });
   auto sm = intfSm();
   EXPECT_EQ(added,
             (std::vector<Bytes>{
                 bytes({0x80, 0, 0, 0, 9}, "multicast"), bytes({0x40, 0, 0, 0, 7}, "discard"),
                 bytes({0x3F, 0xFF, 0xFF, 0xFF, 3}, "CPU"), bytes({0, 0, 0, 0, 7}, "unknown")}));
   EXPECT_EQ(counts(), (Counts{4, 1, 0}));  // the full table is not posted record by record
   EXPECT_EQ(IntfProbe::dataRecords(*sm), 0u);
}

TEST_F(OptionsDataSourceIntfTable, ScriptOfIndexChanges) {
   Pelto::IntfId const e1("Ethernet1"), e2("Ethernet2");
   map->intfIndexIs(e1, 1);
   auto sm = intfSm();
   EXPECT_EQ(counts(), (Counts{5, 1, 0}));

   map->intfIndexIs(e2, 2);  // added: posted
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::intfTable));
   EXPECT_EQ(update->record(), IntfProbe::dataRecord(*sm, e2));
   EXPECT_EQ(bytes(update->record()), bytes({0, 0, 0, 2, 9}, "Ethernet2"));
   EXPECT_EQ(counts(), (Counts{6, 2, 1}));

   DataRecordPtr const old = IntfProbe::dataRecord(*sm, e1);
   map->intfIndexIs(e1, 7);  // changed: replaced and posted
   EXPECT_TRUE(!source->dataRecord().has(old) &&
               source->dataRecord().has(IntfProbe::dataRecord(*sm, e1)));
   EXPECT_EQ(bytes(update->record()), bytes({0, 0, 0, 7, 9}, "Ethernet1"));
   EXPECT_EQ(counts(), (Counts{6, 3, 2}));

   Snaplog::clear();
   DataRecordPtr const gone = IntfProbe::dataRecord(*sm, e2);
   map->intfIndexDel(e2);  // removed: not posted
   EXPECT_EQ(traced("intfId: Ethernet2, index not present. "), 1u);
   EXPECT_FALSE(source->dataRecord().has(gone) || IntfProbe::dataRecord(*sm, e2));
   EXPECT_EQ(counts(), (Counts{5, 4, 2}));
}

// The name index against a map as model: it is filled as a table build fills it, then random
// inserts, replacements and removals over few names keep a small table crowded, so probe runs
// wrap round its end and removals shift followers back across it. Name i is i octets long, so
// every length the hash reads differently (none, under 4, under 8, one or two words, more) is
// there. Every name is looked up after every step, and every record's references are given back
// when the index goes.
std::string_view wholeRecord(DataRecord const& r) {
   return r.data();
}

TEST(DataRecordIndex, CrowdedTableAgreesWithAMapAndGivesBackEveryReference) {
   constexpr int names = 40;
   auto const name = [](std::uint32_t i) { return std::string(i, char('a' + i % 26)); };
   std::map<std::string, DataRecordPtr> model;
   std::vector<DataRecordPtr> made;
   auto const make = [&](std::string const& n) {
      made.push_back(DataRecord::dataRecordNew(n));
      model[n] = made.back();
      return made.back();
   };
   {
      DataRecordIndex<&wholeRecord> index;
      {
         DataRecordIndex<&wholeRecord>::Filler filler(index, names / 2);
         for (std::uint32_t i = 0; i < names; i += 2) {
            filler.add(*make(name(i)));
         }
      }
      std::mt19937 rng(7);
      for (int step = 0; step < 20000; ++step) {
         std::string const n = name(rng() % names);
         if (step > 0 && rng() % 3 == 0) {
            index.erase(n);
            model.erase(n);
         } else if (step > 0) {
            index.insert(*make(n));
         }
         ASSERT_EQ(index.size(), model.size()) << "step " << step;
         for (std::uint32_t i = 0; i < names; ++i) {
            auto const it = model.find(name(i));
            ASSERT_EQ(index.find(name(i)), it == model.end() ? nullptr : it->second.get())
                << "step " << step << " name " << i;
         }
      }
   }
   model.clear();
   EXPECT_TRUE(std::all_of(made.begin(), made.end(),
                           [](DataRecordPtr const& r) { return r->refCount() == 1; }));
}

// Each table checks its record count against the source's on every change.
TEST_F(OptionsDataSourceTables, BrokenInvariantsAbort) {
   auto stray = [&] { source->dataRecordIs(dataRecordFactory("stray")); };
   EXPECT_DEATH((intfSm(), stray(), map->intfIndexIs(Pelto::IntfId("Ethernet1"), 1)),
                deathText("( dataRecords() + intfIndexMap()->numReservedIntfs() ) == "
                          "dataSource()->dataRecords()"));
   EXPECT_DEATH((vrfSm(), stray(), status->vrfNameIs(4, "x")),
                deathText("( dataRecords() + 1 ) == dataSource()->dataRecords()"));
   EXPECT_DEATH((keySm(), stray(), templateIs(300, {})),
                deathText("dataRecords() == dataSource()->dataRecords()"));
   auto intf = intfSm();
   IntfProbe::initializedIs(*intf, false);
   EXPECT_DEATH(intf->handleIntfId(Pelto::IntfId("Ethernet1")), deathText("initialized()"));
}

// With no VRFs the table holds only the fixed record (0xFFFFFF, empty name).
TEST_F(OptionsDataSourceVrfTable, RecordLayoutAllowsAnEmptyName) {
   auto sm = vrfSm();
   ASSERT_EQ(counts(), (Counts{1, 1, 0}));
   EXPECT_EQ(bytes(rows()[0]), bytes({0, 0xFF, 0xFF, 0xFF, 0}));
   std::string const longest(254, 'v');
   EXPECT_EQ(bytes(VrfProbe::makeDataRecord(*sm, 2, "red")), bytes({0, 0, 0, 2, 3}, "red"));
   EXPECT_EQ(bytes(VrfProbe::makeDataRecord(*sm, 7, longest)), bytes({0, 0, 0, 7, 254}, longest));
   EXPECT_DEATH(VrfProbe::makeDataRecord(*sm, 1, longest + "v"),
                deathText("vrfName.bytes() < 255"));
}

TEST_F(OptionsDataSourceVrfTable, ScriptOfVrfChanges) {
   status->vrfNameIs(1, "blue"), status->vrfNameIs(2, "");
   auto sm = vrfSm();
   EXPECT_EQ(source->dataRecords(), 3u);
   EXPECT_EQ(bytes(VrfProbe::dataRecord(*sm, 2)), bytes({0, 0, 0, 2, 0}));

   DataRecordPtr const old = VrfProbe::dataRecord(*sm, 1);
   status->vrfNameIs(1, "green");  // renamed: replaced and posted
   EXPECT_FALSE(source->dataRecord().has(old));
   EXPECT_EQ(update->record(), VrfProbe::dataRecord(*sm, 1));
   EXPECT_EQ(bytes(update->record()), bytes({0, 0, 0, 1, 5}, "green"));
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::vrfTable));
   EXPECT_EQ(counts(), (Counts{3, 2, 1}));

   Snaplog::clear();
   status->vrfNameDel(1);  // removed: not posted
   EXPECT_EQ(traced("vrfIndex: 1, name not present. "), 1u);
   EXPECT_EQ(counts(), (Counts{2, 3, 1}));

   status->vrfNameIs(3, std::string(100, 'v'));  // the map refuses longer names
   EXPECT_EQ(VrfProbe::dataRecord(*sm, 3)->dataLen(), 105u);
   EXPECT_THROW(status->vrfNameIs(3, std::string(101, 'v')), Kivo::RangeException);
   EXPECT_EQ(status->vrfName(3)->bytes(), 100u);
   EXPECT_EQ(update->version(), 2u);
}

// The one record describes the tracker, its timeouts in whole seconds below 65535.
TEST_F(OptionsDataSourceFtTable, RecordDescribesTheTrackerWithTimeoutsInWholeSecondsBelow65535) {
   auto sm = ftSm();
   ASSERT_EQ(counts(), (Counts{1, 1, 0}));
   EXPECT_EQ(bytes(rows()[0]),
             bytes({0, 0, 0, 7, 4}, "ftr1",
                   {0x01, 0x2C, 0x00, 0x0F, 0x00, 0x03, 0, 0, 0, 1, 0, 0, 0x03, 0xE8, 0x00, 0x01}));
   ftStatus->activeIntervalIs({65'534'999});  // truncated to 65534 s
   ftStatus->inactiveTimeoutIs({1'999});
   Bytes const b = bytes(FtProbe::makeDataRecord(*sm));
   EXPECT_EQ(std::tuple(Pelto::loadBe16(&b[9]), Pelto::loadBe16(&b[11])), std::tuple(0xFFFE, 1));
   ftStatus->activeIntervalIs({65'535'000});
   EXPECT_DEATH(FtProbe::makeDataRecord(*sm), deathText("active.seconds() < Kivo::maxU16()"));
   ftStatus->activeIntervalIs({0}), ftStatus->inactiveTimeoutIs({70'000'000});
   EXPECT_DEATH(FtProbe::makeDataRecord(*sm), deathText("inactive.seconds() < Kivo::maxU16()"));
}

// Three changes inside the delay: one rebuild when the first change's delay runs out; none
// before initialization or after destruction.
TEST_F(OptionsDataSourceFtTable, ParameterChangesCoalesceIntoOneUpdateWhileTheTableLives) {
   auto sm = ftSm();
   ftStatus->activeIntervalIs({60'000});
   scheduler->runFor(*clock, 0.5);
   ftStatus->inactiveTimeoutIs({30'000});
   scheduler->runFor(*clock, 1.0);
   hwStatus->sampleRateIs(64);
   scheduler->runFor(*clock, 0.4);
   EXPECT_EQ(counts(), (Counts{1, 1, 0}));
   scheduler->runFor(*clock, 0.1);  // 2.0 s after the first change
   EXPECT_EQ(counts(), (Counts{1, 2, 1}));
   EXPECT_EQ(rows()[0], update->record());
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable));
   EXPECT_EQ(bytes(update->record()),
             bytes({0, 0, 0, 7, 4}, "ftr1", {0, 60, 0, 30, 0, 3, 0, 0, 0, 1, 0, 0, 0, 64, 0, 1}));
   ftConfig->ftIdIs(9);  // not watched
   scheduler->runFor(*clock, 10.0);
   EXPECT_EQ(update->version(), 1u);

   FtProbe::initializedIs(*sm, false);  // no update before initialization
   FtProbe::doUpdate(*sm);
   EXPECT_EQ(update->version(), 1u);
   FtProbe::initializedIs(*sm, true);
   hwStatus->sampleRateIs(10);
   sm = nullptr;  // the pending rebuild goes with the state machine
   scheduler->runFor(*clock, 5.0);
   EXPECT_EQ(counts(), (Counts{1, 2, 1}));
}

TEST(OptionsDataSourceFtTableAddElement, WritersStayInsideTheRecord) {
   std::uint8_t buf[8] = {};
   std::uint8_t* pos = buf;
   addElement(&pos, std::end(buf), std::uint16_t{0x0102});
   addElement(&pos, std::end(buf), std::uint8_t{3});
   addElement(&pos, std::end(buf), Kivo::String("ab"));
   EXPECT_EQ(Bytes(buf, pos), bytes({1, 2, 3, 2, 'a', 'b'}));
   EXPECT_DEATH(addElement(&pos, std::end(buf), std::uint32_t{1}),
                deathText("*pos + sizeof( BaseType ) <= max"));
   // The bounds of a name are those of RecordWriter::add, checked with its misuses.
}

// The indicator is a 32-bit mask of key positions modulo 32, sign-extended to 64 bits.
TEST_F(OptionsDataSourceFlowKey, BitmapOfFlowKeyPositions) {
   std::pair<std::vector<std::uint32_t>, std::uint64_t> const cases[] = {
       {{}, 0},     {{0, 1, 4}, 0x13}, {{30}, 0x40000000},         {{31}, 0xFFFFFFFF80000000},
       {{32}, 0x1}, {{33}, 0x2},       {{63}, 0xFFFFFFFF80000000},
   };
   auto sm = keySm();
   for (auto const& [keys, bitmap] : cases) {
      std::vector<std::tuple<std::uint32_t, std::uint32_t, bool>> fields;
      for (std::uint32_t p = 0; p < 64; ++p) {
         fields.emplace_back(p, 1, std::count(keys.begin(), keys.end(), p) > 0);
      }
      templateIs(300, fields);
      auto r = KeyProbe::makeDataRecord(*sm, 300);
      ASSERT_TRUE(r && r->dataLen() == 10);
      Bytes const b = bytes(r);
      EXPECT_EQ(std::tuple(Pelto::loadBe16(&b[0]), Pelto::loadBe64(&b[2])), std::tuple(300, bitmap))
          << keys.size();
   }
   templateIs(301, {{0, 7, true}, {1, 0, true}, {4, 11, true}});
   EXPECT_EQ(bytes(KeyProbe::makeDataRecord(*sm, 301)),
             bytes({0x01, 0x2D, 0, 0, 0, 0, 0, 0, 0, 0x13}));
}

TEST_F(OptionsDataSourceFlowKey, MixedAddressFamiliesGiveNoRecord) {
   auto sm = keySm();
   std::pair<std::vector<std::tuple<std::uint32_t, std::uint32_t, bool>>, bool> const cases[] = {
       {{{0, 8, true}, {1, 12, true}}, true},   // IPv4 source and destination
       {{{0, 27, true}, {1, 28, true}}, true},  // IPv6 source and destination
       {{{0, 8, true}, {1, 4, true}, {2, 28, false}}, false},
       {{{0, 27, false}, {5, 12, false}}, false},
   };
   for (auto const& [fields, record] : cases) {
      Snaplog::clear();
      templateIs(400, fields);
      EXPECT_EQ(bool(KeyProbe::makeDataRecord(*sm, 400)), record);
      EXPECT_EQ(traced("AF mismatch at field:") > 0, !record);
      EXPECT_EQ(bool(KeyProbe::dataRecord(*sm, 400)), record);
   }
   EXPECT_TRUE(traced("templateId:400, NO record (incomplete template)"));
   EXPECT_EQ(source->dataRecords(), 0u);
}

TEST_F(OptionsDataSourceFlowKey, ScriptOfTemplateChanges) {
   templateIs(300, {{0, 8, true}, {1, 12, true}});
   templateIs(301, {{0, 8, true}, {1, 27, true}});  // mixed: no record
   auto sm = keySm();
   EXPECT_EQ(counts(), (Counts{1, 1, 0}));
   EXPECT_EQ(bytes(KeyProbe::dataRecord(*sm, 300)), bytes({0x01, 0x2C, 0, 0, 0, 0, 0, 0, 0, 3}));

   templateIs(302, {{2, 7, true}});  // added (empty), then filled: each posted
   EXPECT_EQ(update->version(), 2u);
   EXPECT_EQ(update->record(), KeyProbe::dataRecord(*sm, 302));
   EXPECT_EQ(update->setId(), Constants::reservedTemplateId(StaticTemplateId::flowKey));
   EXPECT_EQ(bytes(update->record()), bytes({0x01, 0x2E, 0, 0, 0, 0, 0, 0, 0, 4}));
   EXPECT_EQ(source->dataRecords(), 2u);

   DataRecordPtr const old = KeyProbe::dataRecord(*sm, 300);
   templateIs(300, {{0, 8, false}, {1, 12, true}});  // regenerated: replaced and posted
   EXPECT_FALSE(source->dataRecord().has(old));
   EXPECT_EQ(bytes(update->record()), bytes({0x01, 0x2C, 0, 0, 0, 0, 0, 0, 0, 2}));
   EXPECT_EQ(update->version(), 3u);

   Snaplog::clear();
   std::uint64_t const version = source->version();
   auto removed = ftStatus->templateStatus(300);
   ftStatus->templateStatusDel(300);  // removed: not posted
   EXPECT_EQ(traced("templateId:300, not present"), 1u);
   EXPECT_FALSE(KeyProbe::dataRecord(*sm, 300) || KeyProbe::templateStatus(*sm, 300));
   EXPECT_EQ(counts(), (Counts{1, version + 1, 3}));
   removed->genIdIs(99);  // no longer followed
   EXPECT_EQ(source->version(), version + 1);

   // The mixed template is followed without a record until it is regenerated whole, then removed.
   EXPECT_TRUE(KeyProbe::templateStatus(*sm, 301) && !KeyProbe::dataRecord(*sm, 301));
   templateIs(301, {{0, 27, true}, {1, 28, false}});
   EXPECT_EQ(bytes(KeyProbe::dataRecord(*sm, 301)), bytes({0x01, 0x2D, 0, 0, 0, 0, 0, 0, 0, 1}));
   EXPECT_EQ(source->dataRecords(), 2u);
   ftStatus->templateStatusDel(301);
   EXPECT_FALSE(KeyProbe::dataRecord(*sm, 301) || KeyProbe::templateStatus(*sm, 301));
   EXPECT_EQ(std::tuple(source->dataRecords(), bool(KeyProbe::dataRecord(*sm, 302))),
             std::tuple(1u, true));
}

}  // namespace
