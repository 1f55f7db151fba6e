// The whole options data path: interface, VRF and hardware inputs, through the sources and the
// managers, to real loopback collectors.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "support/ExportFixture.h"
#include "support/Pcap.h"
#include "support/Probes.h"
#include "support/Tshark.h"

using namespace FlowTracking;
using Ipfix::element;
using testsupport::fieldText;
using testsupport::fieldValue;
using Probe = OptionsDataManagerSmProbe;

namespace {

constexpr TemplateId vrfSet = Constants::reservedTemplateId(StaticTemplateId::vrfTable);
constexpr TemplateId intfSet = Constants::reservedTemplateId(StaticTemplateId::intfTable);
constexpr TemplateId flowKeySet = Constants::reservedTemplateId(StaticTemplateId::flowKey);
constexpr TemplateId trackerSet = Constants::reservedTemplateId(StaticTemplateId::flowTrackerTable);

// Every data record a collector decoded, by set id.
using Tables = std::map<std::uint16_t, std::vector<testsupport::DataRecord>>;

Tables tables(std::vector<testsupport::Message> const& msgs) {
   Tables t;
   for (auto const& m : msgs) {
      for (auto const& s : m.sets) {
         t[s.id].insert(t[s.id].end(), s.records.begin(), s.records.end());
      }
   }
   return t;
}

class OptionsDataPath : public testsupport::ExportFixture {
 protected:
   void SetUp() override {
      intfIndexMap->intfIndexIs(Pelto::IntfId("Ethernet1"), 5);
      intfIndexMap->intfIndexIs(Pelto::IntfId("Ethernet2"), 6);
      vrfs->vrfNameIs(1, "red"), vrfs->vrfNameIs(2, "blue");
      auto ftStatus = hwStatus->ftStatus("t1");
      ftStatus->activeIntervalIs({300000}), ftStatus->inactiveTimeoutIs({15000});
      hwStatus->sampleRateIs(1000);
      auto t300 = addTemplate(300, {element("sourceIPv4Address"), element("destinationIPv4Address"),
                                    element("octetDeltaCount")});
      t300->entries().get(0)->flowKeyIs(true);
      t300->entries().get(1)->flowKeyIs(true);
      addTemplate(260, {element("sourceIPv6Address"), element("packetDeltaCount")});
      start();
      manager = optionsDataManagerSmFactory(hwConfig, hwStatus, info, intfIndexMap, vrfs, collStats,
                                            scheduler);
      ASSERT_TRUE(scheduler->runUntilIdle());
   }
   void TearDown() override { manager = nullptr; }
   // Exporter "e9" of `ft`, resolved for IPv4, sending from 127.0.0.1 to collector `c`.
   void exporterTo(Kivo::Ptr<HwFlowTracking::FtConfig> const& ft,
                   testsupport::LoopbackCollector const& c, std::uint32_t mtu = 1500) {
      auto e = ft->expConfigIs("e9");
      e->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1")), e->ipfixMtuIs(mtu);
      e->templateIntervalIs(30000), e->exporter4ResolvedIs(true);
      e->collector4Is("c", c.ipAndPort());
      ASSERT_TRUE(scheduler->runUntilIdle());
   }

   Kivo::Ptr<IntfIndexMap> intfIndexMap = intfIndexMapFactory();
   Kivo::Ptr<Vrf::VrfIdMap::Status> vrfs = Vrf::VrfIdMap::statusFactory();
   Kivo::Ptr<OptionsDataManagerSm> manager;
};

}  // namespace

TEST_F(OptionsDataPath, EveryTableReachesEveryCollector) {
   for (auto* c : {&a, &b, &v6}) {
      Tables t = tables(c->messages(1000));
      // Each table as its first field, a number, and its second, as text or a number.
      std::map<std::uint64_t, std::string> intfs, vrfNames;
      std::map<std::uint64_t, std::uint64_t> keys;
      for (auto const& r : t[intfSet]) {
         intfs[fieldValue(r.fields[0])] = fieldText(r.fields[1]);
      }
      for (auto const& r : t[vrfSet]) {
         vrfNames[fieldValue(r.fields[0])] = fieldText(r.fields[1]);
      }
      for (auto const& r : t[flowKeySet]) {
         keys[fieldValue(r.fields[0])] = fieldValue(r.fields[1]);
      }
      EXPECT_EQ(intfs, (decltype(intfs){{0, "unknown"},
                                        {5, "Ethernet1"},
                                        {6, "Ethernet2"},
                                        {0x3fffffff, "CPU"},
                                        {0x40000000, "discard"},
                                        {0x80000000, "multicast"}}));
      EXPECT_EQ(vrfNames, (decltype(vrfNames){{1, "red"}, {2, "blue"}, {0xffffff, ""}}));
      EXPECT_EQ(keys, (decltype(keys){{260, 0}, {300, 0x3}}));
      ASSERT_EQ(t[trackerSet].size(), 1u);
      auto const& row = t[trackerSet][0].fields;
      EXPECT_EQ(fieldText(row[1]), "t1");
      // Id, then after the name: active and inactive timeouts, algorithm, sampling size,
      // population.
      for (auto [i, value] :
           {std::pair{0, 7u}, {2, 300u}, {3, 15u}, {4, 3u}, {5, 1u}, {6, 1000u}}) {
         EXPECT_EQ(fieldValue(row[i]), value) << "field " << i;
      }
   }
}

TEST_F(OptionsDataPath, InterfaceRenameIsOneCoalescedUpdate) {
   a.messages(1000);
   intfIndexMap->intfIndexDel(Pelto::IntfId("Ethernet2"));
   intfIndexMap->intfIndexIs(Pelto::IntfId("Ethernet2-renamed"), 6);
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_TRUE(a.drain().empty());  // coalescing
   ASSERT_TRUE(scheduler->runFor(*clock, defaultUpdateDataCoalesceTime()));
   auto const msgs = a.messages(1000);
   ASSERT_EQ(msgs.size(), 1u);
   Tables t = tables(msgs);
   ASSERT_EQ(t[intfSet].size(), 1u);
   EXPECT_EQ(fieldValue(t[intfSet][0].fields[0]), 6u);
   EXPECT_EQ(fieldText(t[intfSet][0].fields[1]), "Ethernet2-renamed");
}

TEST_F(OptionsDataPath, RemovedTrackerLeavesNoTasksStatisticsOrData) {
   EXPECT_GT(collStats->statsCount(), 0u);
   hwConfig->ftConfigDel("t1");
   EXPECT_FALSE(Probe::ftManagerSm(*manager, "t1") || Probe::dataContainer(*manager, "t1") ||
                Probe::dataAll(*manager)->trackerData("t1"));
   EXPECT_EQ(std::tuple(collStats->statsCount(), scheduler->pendingTasks()), std::tuple(0u, 0u));
   // Configured again, it is served again from scratch.
   auto ft = hwConfig->ftConfigIs("t1");
   ft->ftIdIs(7);
   a.drain(1000);
   exporterTo(ft, a);  // no active interval: the default, not every pass
   ASSERT_TRUE(Probe::ftManagerSm(*manager, "t1"));
   EXPECT_TRUE(Probe::exporterSm(*Probe::ftManagerSm(*manager, "t1"), "e9"));
   EXPECT_FALSE(tables(a.messages(1000))[intfSet].empty());
}

TEST_F(OptionsDataPath, TsharkReadsTheOptionsData) {
   ASSERT_TRUE(testsupport::tsharkAvailable()) << "tshark is required (scripts/setup installs it)";
   // From the start again, so that the capture holds the templates before the data.
   testsupport::LoopbackCollector c;
   exporter("e2")->collector4Is("c", c.ipAndPort());
   ASSERT_TRUE(scheduler->runUntilIdle());
   std::vector<testsupport::Datagram> datagrams;
   for (auto const& r : c.drain(1000)) {
      datagrams.push_back({.payload = r.payload, .srcPort = r.srcPort});
   }
   ASSERT_GE(datagrams.size(), 3u);
   testsupport::TempFile capture("options-data.pcap");
   testsupport::writePcap(capture.path(), datagrams);
   auto const r = testsupport::runTshark(
       capture.path(), {"cflow.if_name", "cflow.vrfname", "cflow.observation_domain_name",
                        "cflow.sampling_population", "_ws.malformed", "_ws.expert.message"});
   ASSERT_TRUE(r.ok()) << r.describe();
   auto names = r.all("cflow.if_name");
   std::sort(names.begin(), names.end());
   EXPECT_EQ(names, (testsupport::TsharkResult::Values{"CPU", "Ethernet1", "Ethernet2", "discard",
                                                       "multicast", "unknown"}));
   auto vrfNames = r.all("cflow.vrfname");
   std::sort(vrfNames.begin(), vrfNames.end());
   // The fixed record's empty name is decoded but not printed.
   EXPECT_EQ(vrfNames, (testsupport::TsharkResult::Values{"blue", "red"}));
   EXPECT_EQ(r.all("cflow.observation_domain_name"), testsupport::TsharkResult::Values{"t1"});
   EXPECT_EQ(r.all("cflow.sampling_population"), testsupport::TsharkResult::Values{"1000"});
   EXPECT_TRUE(r.all("_ws.malformed").empty()) << r.describe();
   EXPECT_TRUE(r.all("_ws.expert.message").empty()) << r.describe();
}

// A writer makes a tracker's configuration before it sets the id, so the tracker is served while
// its id is still 0. Its exporters' options data must still go out in the observation domain its
// options templates went to, or a collector cannot read it.
TEST_F(OptionsDataPath, TrackerIdSetAfterTheTrackerAppearsIsTheOptionsDataDomain) {
   hwConfig->ftConfigDel("t1");
   auto ft = hwConfig->ftConfigIs("t1");
   ASSERT_TRUE(Probe::ftManagerSm(*manager, "t1"));  // served before the id is set
   ft->ftIdIs(9);
   testsupport::LoopbackCollector c;
   exporterTo(ft, c);
   auto const msgs = c.messages(1000);
   std::set<std::uint32_t> domains;
   for (auto const& m : msgs) {
      domains.insert(m.observationDomainId);
   }
   EXPECT_EQ(domains, std::set<std::uint32_t>{9});
   Tables t = tables(msgs);
   EXPECT_EQ(t[intfSet].size(), 6u);  // decoded: the options templates are in the same domain
   EXPECT_EQ(t[vrfSet].size(), 3u);
}

// The longest record is the row of a tracker with a 128-octet name: an exporter MTU of
// minIpfixMtu() carries it in a message of exactly its size, one octet less cannot.
TEST_F(OptionsDataPath, SmallestMtuCarriesTheLongestRecord) {
   std::string const name(128, 'T');
   auto const addTracker = [&](std::uint32_t mtu, testsupport::LoopbackCollector& c) {
      hwStatus->ftStatusIs(name)->activeIntervalIs({300000});
      auto ft = hwConfig->ftConfigIs(name);
      ft->ftIdIs(8);
      exporterTo(ft, c, mtu);
   };
   EXPECT_EQ(minIpfixMtu(), 217u);
   testsupport::LoopbackCollector c;
   EXPECT_DEATH(addTracker(minIpfixMtu() - 1, c), "consumed > 0");
   addTracker(minIpfixMtu(), c);
   bool found = false;
   for (auto const& m : c.messages(1000)) {
      EXPECT_LE(m.length, minIpfixMtu() - ipAndUdpHeaderLen());
      for (auto const& s : m.sets) {
         if (s.id == trackerSet) {
            ASSERT_EQ(s.records.size(), 1u);
            EXPECT_EQ(fieldText(s.records[0].fields[1]), name);
            EXPECT_EQ(m.length, minIpfixMtu() - ipAndUdpHeaderLen());
            found = true;
         }
      }
   }
   EXPECT_TRUE(found);
}

// The exporters of one tracker with one message size build the table's messages once between them
// and an exporter of another size builds its own; a changed source makes every one stale, so each
// size is built once more and every collector gets the new table in full.
TEST_F(OptionsDataPath, ExportersOfOneMessageSizeShareOneBuildOfTheMessages) {
   using ExpProbe = OptionsDataExporterSmProbe;
   testsupport::LoopbackCollector c;
   exporterTo(hwConfig->ftConfig("t1"), c, 1400);
   auto const ftm = Probe::ftManagerSm(*manager, "t1");
   auto exp = [&](char const* e) { return Probe::exporterSm(*ftm, e); };
   auto builds = [&] {
      return std::pair(
          ExpProbe::msgCacheBuildCount(*exp("e1")) + ExpProbe::msgCacheBuildCount(*exp("e2")),
          ExpProbe::msgCacheBuildCount(*exp("e9")));
   };
   EXPECT_EQ(builds(), std::pair(1u, 1u));
   EXPECT_EQ(&exp("e1")->msgCache(), &exp("e2")->msgCache());
   EXPECT_NE(&exp("e1")->msgCache(), &exp("e9")->msgCache());
   for (auto* col : {&a, &b, &c}) {
      col->drain(1000);
   }
   intfIndexMap->intfIndexDel(Pelto::IntfId("Ethernet2"));  // leaves the full table only
   ASSERT_TRUE(scheduler->runFor(*clock, 60));
   EXPECT_EQ(builds(), std::pair(2u, 2u));
   for (auto* col : {&a, &b, &c}) {
      EXPECT_EQ(tables(col->messages(1000))[intfSet].size(), 5u);
   }
}
