// Templates and options templates from the hardware status to real loopback collectors.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "support/DeathText.h"
#include "support/ExportFixture.h"
#include "support/Probes.h"

using Ipfix::element;
using testsupport::FieldSpec;
using testsupport::Message;
using testsupport::traced;
using Probe = FlowTracking::TemplateExporterSmBaseProbe;

namespace {

constexpr std::uint32_t pen = FlowTracking::Constants::enterpriseNumber();
using Ids = std::vector<std::uint16_t>;
Ids const bothSets{2, 3};  // data templates, then options templates

Ids setIds(std::vector<Message> const& msgs) {
   Ids ids;
   for (auto const& m : msgs) {
      for (auto const& s : m.sets) {
         ids.push_back(s.id);
      }
   }
   return ids;
}

class TemplateExport : public testsupport::ExportFixture {
 protected:
   void SetUp() override {
      addTemplate(300, {element("sourceIPv4Address"), element("destinationIPv4Address"),
                        element("octetDeltaCount"), element("flowTrackingType")});
      addTemplate(260, {element("sourceIPv6Address"), element("packetDeltaCount")});
      start();
   }
};

}  // namespace

TEST_F(TemplateExport, EveryCollectorGetsBothTemplateSetsAtStartCountedPerSet) {
   std::size_t sizes = 0;  // of what `a` got
   for (auto* c : {&a, &b, &v6}) {
      auto const msgs = c->messages(1000);
      ASSERT_EQ(msgs.size(), 2u) << c->port();
      sizes = c == &a ? msgs[0].length + msgs[1].length : sizes;
      // Data templates first: their exporter is created first.
      EXPECT_EQ(setIds(msgs), bothSets);
      for (auto const& m : msgs) {
         EXPECT_EQ(std::tuple(m.observationDomainId, m.sequenceNumber, m.exportTime),
                   std::tuple(7u, 0u, static_cast<std::uint32_t>(clock->now())));
      }
      // Data templates in ascending id, the enterprise element with its number.
      auto const data = msgs[0].templates();
      ASSERT_EQ(data.size(), 2u);
      EXPECT_EQ(std::tuple(data[0].id, data[1].id), std::tuple(260, 300));
      EXPECT_EQ(data[1].fields,
                (std::vector<FieldSpec>{
                    {8, 4, false, 0}, {12, 4, false, 0}, {1, 8, false, 0}, {1001, 2, true, pen}}));
   }
   auto const e1 = templateSm->ftTemplateSm("t1")->ftExporterSm("e1");
   EXPECT_EQ(Probe::templateLen(*e1), (std::map<FlowTracking::TemplateId, std::uint32_t>{
                                          {260, 4 + 2 * 4}, {300, 4 + 3 * 4 + 8}}));
   // Each send is counted per set id.
   auto e = statsOf("e1", a);
   ASSERT_TRUE(e);
   EXPECT_TRUE(e->exportedMessageTotalCount == 2u && e->exportedFlowRecordTotalCount == 0u);
   EXPECT_EQ(e->exportedOctetTotalCount, sizes);
   EXPECT_EQ(std::tuple(e->setEntry(Mirra::Ipfix::SetId(2)).exportedTemplateCount,
                        e->setEntry(Mirra::Ipfix::SetId(3)).exportedTemplateCount),
             std::tuple(2u, 4u));
   EXPECT_TRUE(e->lastTemplateSentTime == clock->now() && e->lastSentTime == clock->now());
}

TEST_F(TemplateExport, OptionsTemplatesAreTheFourTables) {
   auto const t = a.messages(1000).at(1).templates();
   ASSERT_EQ(t.size(), 4u);
   struct Expected {
      std::uint16_t id;
      std::vector<std::uint16_t> elements;
   };
   // Written in name order: FlowKey, FlowTrackerTable, IntfTable, VrfTable.
   Expected const expected[] = {
       {258, {145, 173}},
       {259, {149, 300, 36, 37, 304, 309, 310, 1001}},
       {257, {10, 82}},
       {256, {234, 236}},
   };
   for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(std::tuple(t[i].id, t[i].scopeFieldCount),
                std::tuple(expected[i].id, std::uint16_t(1)));
      std::vector<std::uint16_t> ids;
      for (auto const& f : t[i].fields) {
         ids.push_back(f.id);
         EXPECT_EQ(f.enterprise, f.id == 1001);
         EXPECT_EQ(f.enterpriseNumber, f.id == 1001 ? pen : 0u);
      }
      EXPECT_EQ(ids, expected[i].elements) << t[i].id;
   }
   EXPECT_TRUE(info->ftInfo("t1")->expInfo("e1")->collInfo("a")->optTemplateSent());
}

TEST_F(TemplateExport, ReadyPortsAreTheSourcePortsCollectorsSawAndANewSocketSendsAtOnce) {
   auto const fromA = a.drain(1000);
   auto const fromV6 = v6.drain(1000);
   ASSERT_FALSE(fromA.empty() || fromV6.empty());
   EXPECT_TRUE(exporter("e1")->exporter4Ready() && exporter("e1")->exporter6Ready());
   EXPECT_EQ(std::tuple(exporter("e1")->rxPort4(), exporter("e1")->rxPort6()),
             std::tuple(fromA[0].srcPort, fromV6[0].srcPort));
   EXPECT_EQ(std::tuple(fromA[0].srcAddr, fromA[0].tos),
             std::tuple(std::string("127.0.0.1"), 10 << 2));
   // e2 has no IPv6 collector: nothing has been sent on its IPv6 module yet.
   EXPECT_FALSE(exporter("e2")->exporter6Ready());

   // A new socket sends at once and is ready with its own port.
   exporter("e1")->exporter4ResolvedIs(false);
   EXPECT_FALSE(exporter("e1")->exporter4Ready());
   exporter("e1")->exporter4ResolvedIs(true);
   auto const got = a.drain(1000);
   ASSERT_EQ(got.size(), 2u);  // both template sets, without waiting for the interval
   EXPECT_TRUE(exporter("e1")->exporter4Ready());
   EXPECT_EQ(exporter("e1")->rxPort4(), got[0].srcPort);
}

TEST_F(TemplateExport, SentAgainEveryTemplateInterval) {
   a.drain(1000);
   ASSERT_TRUE(scheduler->runFor(*clock, 29.5));
   EXPECT_TRUE(a.drain().empty());
   ASSERT_TRUE(scheduler->runFor(*clock, 0.5));
   EXPECT_EQ(setIds(a.messages(1000)), bothSets);

   // 1500 ms truncates to 1 s; 999 ms truncates to 0 s, which repeats on every pass.
   b.drain(1000);
   exporter("e2")->templateIntervalIs(1500);
   EXPECT_EQ(b.messages(1000).size(), 2u);  // a new interval sends at once
   ASSERT_TRUE(scheduler->runFor(*clock, 1.0));
   EXPECT_EQ(b.messages(1000).size(), 2u);
   exporter("e2")->templateIntervalIs(999);
   b.drain(1000);
   for (int pass = 0; pass < 3; ++pass) {
      scheduler->runPass();
   }
   EXPECT_EQ(b.messages(1000).size(), 3u * 2);
}

TEST_F(TemplateExport, TemplateAndOptionsTemplateChangesCoalesceIntoOneResendEach) {
   a.drain(1000);
   auto t300 = hwStatus->ftStatus("t1")->templateStatus(300);
   t300->entryIs(4, element("ingressInterface"));
   FlowTracking::updateFieldInfo(init->elementIdCollection(), t300->entries().get(4));
   t300->genIdIs(2);
   hwStatus->ftStatus("t1")->templateStatus(260)->genIdIs(5);
   ASSERT_TRUE(scheduler->runUntilIdle());
   auto const msgs = a.messages(1000);
   ASSERT_EQ(msgs.size(), 1u);
   EXPECT_EQ(std::tuple(msgs[0].sets.at(0).id, msgs[0].templates().at(1).fields.size()),
             std::tuple(2, 5u));

   auto cfg = templateSm->optTemplateConfig();
   cfg->versionInc(1), cfg->versionInc(1), cfg->versionInc(1);
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_EQ(setIds(a.messages(1000)), Ids{3});
}

TEST_F(TemplateExport, NoTemplateInUseStopsDataTemplates) {
   hwStatus->ftStatus("t1")->templateStatus(300)->inUseIs(false);
   hwStatus->ftStatus("t1")->templateStatus(260)->inUseIs(false);
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_FALSE(templateSm->ftTemplateSm("t1")->ftExporterSm("e1")->templateReady());
   a.drain(1000);
   ASSERT_TRUE(scheduler->runFor(*clock, 31));
   EXPECT_EQ(setIds(a.messages(1000)), Ids{3});
}

TEST_F(TemplateExport, RemovedExporterStopsSendingAndLeavesNoStatistics) {
   ASSERT_TRUE(statsOf("e1", a) && statsOf("e1", v6, true));
   std::size_t const tasksBefore = scheduler->pendingTasks();
   hwConfig->ftConfig("t1")->expConfigDel("e1");
   EXPECT_FALSE(templateSm->ftTemplateSm("t1")->ftExporterSm("e1") ||
                templateSm->ftTemplateSm("t1")->optTemplateExporterSm("e1"));
   EXPECT_FALSE(statsOf("e1", a) || statsOf("e1", v6, true));
   EXPECT_LT(scheduler->pendingTasks(), tasksBefore);
   a.drain(1000), v6.drain(1000);
   ASSERT_TRUE(scheduler->runFor(*clock, 120));
   EXPECT_TRUE(a.drain().empty() && v6.drain().empty());
   EXPECT_FALSE(b.drain(1000).empty());  // the other exporter carries on
}

TEST_F(TemplateExport, ClearCountersMatchesNamesAndSkipsTheClearTimeEntry) {
   // `reset` counts the entries reset. The 'clear time' entry exists from the first request with
   // a time on, and every later request passes it by, even one that names every entry.
   struct Case {
      char const *tracker, *exporter;
      double time;
      bool clearsA, clearsB;
      std::size_t reset, clearTimeSkipped;
   };
   Case const cases[] = {
       {"t1", "e1", 0, false, false, 0, 0},  // a request without a time is ignored
       {"t1", "e2", 1, false, true, 1, 0},
       {"other", "", 2, false, false, 0, 1},
       {"", "", 3, true, true, 3, 1},
   };
   for (Case const& c : cases) {
      ASSERT_TRUE(scheduler->runFor(*clock, 31));  // counts go up again
      clock->advance(1);
      Snaplog::clear();
      configReq->clearCountersReqIs({c.tracker, c.exporter, {}, 0, c.time});
      EXPECT_EQ(traced("TemplateSm::clearCounters clear counters "), c.reset) << c.time;
      EXPECT_EQ(traced("TemplateSm::clearCounters skip 'clear time' entry "), c.clearTimeSkipped)
          << c.time;
      auto ea = statsOf("e1", a);
      auto eb = statsOf("e2", b);
      ASSERT_TRUE(ea && eb);
      EXPECT_EQ(ea->exportedMessageTotalCount == 0, c.clearsA) << c.tracker << "/" << c.exporter;
      EXPECT_EQ(eb->exportedMessageTotalCount == 0, c.clearsB) << c.tracker << "/" << c.exporter;
      EXPECT_EQ(ea->lastClearedTime == clock->now(), c.clearsA);
      // Written by the first request with a time, never reset by later ones.
      EXPECT_EQ(collStats->stats({"", "", {}}).has_value(), &c != &cases[0]);
   }
   // The 'clear time' entry survives a clear of everything, stamped with the last clearing.
   auto clearTime = collStats->stats({"", "", {}});
   ASSERT_TRUE(clearTime);
   EXPECT_EQ(clearTime->lastClearedTime, clock->now());
}

// Names in a statistics key are at most 128 bytes, so a request naming a longer tracker or
// exporter could never match anything: it is refused, saying which name, and clears nothing.
TEST_F(TemplateExport, ClearCountersRefusesNamesLongerThanAKeyHolds) {
   std::string const longest(128, 'n');
   std::string const tooLong(129, 'n');
   struct Case {
      std::string tracker, exporter;
      bool refused;
   };
   Case const cases[] = {
       {tooLong, "", true},
       {"t1", tooLong, true},
       {tooLong + "x", tooLong, true},  // the tracker is looked at first
       {longest, longest, false},       // fits, and simply matches nothing
   };
   double time = 0;
   for (Case const& c : cases) {
      SCOPED_TRACE(std::to_string(c.tracker.size()) + "/" + std::to_string(c.exporter.size()));
      // The refusal leaves the handler as an exception, which the notification traces and
      // contains: the writer of the request and every other observer carry on.
      Snaplog::clear();
      configReq->clearCountersReqIs({c.tracker, c.exporter, {}, 0, ++time});
      auto const& req = configReq->clearCountersReq();
      std::string const& name = req.ftName.size() > 128 ? req.ftName : req.expName;
      std::ostringstream address;
      address << static_cast<void const*>(name.data());  // the name as the request holds it
      EXPECT_EQ(traced("Caught exception in observer of clearCountersReq: expected size <= 128, "
                       "instead got " +
                       std::to_string(name.size()) + ". Buffer is at address: " + address.str() +
                       " with contents: " + name.substr(0, 16)),  // the fast trace cuts lines
                c.refused ? 1u : 0u);
      auto const ea = statsOf("e1", a);
      ASSERT_TRUE(ea);
      EXPECT_EQ(ea->exportedMessageTotalCount, 2u);
      // A refused request did not get as far as stamping the clearing.
      EXPECT_EQ(collStats->stats({"", "", {}}).has_value(), !c.refused);
   }
}

// Collectors added, moved or removed on either family reach the exporters' collector handlers
// (both the data and the options template exporter): each reports the collector, and a
// collector with an address gets both template sets at once.
TEST_F(TemplateExport, CollectorChangesOfEitherFamilyRunTheCollectorHandlers) {
   testsupport::LoopbackCollector c4;
   testsupport::LoopbackCollector c6{true};
   testsupport::LoopbackCollector movedA;
   char const* const v4 = "TemplateExporterSmBase::handleCollectorIpAndPort for t1 for e1";
   char const* const v6 = "TemplateExporterSmBase::handleCollectorIp6AndPort for t1 for e1";
   struct Case {
      char const* what;
      std::function<void()> event;
      char const *handler, *collector;
      testsupport::LoopbackCollector* rx;
      bool getsTemplates;
   };
   Case const cases[] = {
       {"IPv4 added", [&] { exporter("e1")->collector4Is("c4", c4.ipAndPort()); }, v4, "c4", &c4,
        true},
       {"IPv6 added", [&] { exporter("e1")->collector6Is("c6", c6.ip6AndPort()); }, v6, "c6", &c6,
        true},
       {"IPv4 moved", [&] { exporter("e1")->collector4Is("a", movedA.ipAndPort()); }, v4, "a",
        &movedA, true},
       {"IPv4 removed", [&] { exporter("e1")->collector4Del("c4"); }, v4, "c4", &c4, false},
       {"IPv6 removed", [&] { exporter("e1")->collector6Del("c6"); }, v6, "c6", &c6, false},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.what);
      Snaplog::clear();
      c.event();
      EXPECT_EQ(traced(std::string(c.handler) + ", for collector: " + c.collector), 2u);
      if (c.getsTemplates) {
         EXPECT_EQ(setIds(c.rx->messages(1000)), bothSets);
      } else {
         EXPECT_TRUE(c.rx->drain().empty());
      }
   }
   // The moved collector's statistics went with its old address.
   EXPECT_FALSE(statsOf("e1", a));
   EXPECT_TRUE(statsOf("e1", movedA));
}

// The one template message of an exporter goes to each collector restamped with that collector's
// sequence number: the bytes differ in the sequence number only, whatever the family, and a
// template send leaves every sequence number where it was.
TEST_F(TemplateExport, CollectorsOfOneExporterGetTheSameBytesWithTheirOwnSequenceNumbers) {
   testsupport::LoopbackCollector c;
   exporter("e1")->collector4Is("c", c.ipAndPort());
   auto const e1 = info->ftInfo("t1")->expInfo("e1");
   struct Rx {
      char const* name;
      testsupport::LoopbackCollector* rx;
      std::uint32_t seqNo;
   };
   Rx const rxs[] = {{"a", &a, 1000}, {"c", &c, 0xfffffffeu}, {"v6", &v6, 7}};
   for (Rx const& r : rxs) {
      e1->collInfo(r.name)->ipfixMsgSeqNoIs({r.seqNo});
      r.rx->drain(1000);
   }
   ASSERT_TRUE(scheduler->runFor(*clock, 30));
   std::map<std::uint16_t, testsupport::Bytes> first;  // by set id, sequence number zeroed
   for (Rx const& r : rxs) {
      SCOPED_TRACE(r.name);
      auto const got = r.rx->drain(1000);
      ASSERT_EQ(got.size(), 2u);
      for (auto const& g : got) {
         auto const m = testsupport::Decoder().decode(g.payload);
         EXPECT_EQ(std::tuple(m.sequenceNumber, m.exportTime),
                   std::tuple(r.seqNo, static_cast<std::uint32_t>(clock->now())));
         testsupport::Bytes unstamped = g.payload;
         std::fill(unstamped.begin() + 8, unstamped.begin() + 12, 0);
         auto const [it, isFirst] = first.try_emplace(m.sets.at(0).id, unstamped);
         if (!isFirst) {
            EXPECT_EQ(unstamped, it->second) << "set " << m.sets.at(0).id;
         }
      }
      EXPECT_EQ(e1->collInfo(r.name)->ipfixMsgSeqNo().value, r.seqNo);
   }
   EXPECT_EQ(first.size(), 2u);
}

// The periodic resend runs while either family has a collector: it stops, with no further sends
// or timers, when the last one goes, and starts again with the next one.
TEST_F(TemplateExport, PeriodicResendStopsWithTheLastCollectorAndResumesWithTheNext) {
   auto const ft = templateSm->ftTemplateSm("t1");
   Kivo::Ptr<FlowTracking::TemplateExporterSmBase> const sms[] = {ft->ftExporterSm("e1"),
                                                                  ft->optTemplateExporterSm("e1")};
   auto scheduled = [&](bool on = true) {
      return Probe::periodicTemplateTxTask(*sms[0])->scheduled() == on &&
             Probe::periodicTemplateTxTask(*sms[1])->scheduled() == on;
   };
   auto sends = [&] { return Probe::templateTxCount(*sms[0]) + Probe::templateTxCount(*sms[1]); };
   a.drain(1000), v6.drain(1000);

   exporter("e1")->collector4Del("a");  // IPv6 still has a collector
   EXPECT_TRUE(scheduled());
   ASSERT_TRUE(scheduler->runFor(*clock, 30));
   EXPECT_EQ(setIds(v6.messages(1000)), bothSets);
   EXPECT_TRUE(a.drain().empty());

   exporter("e1")->collector6Del("v6");  // the last one
   EXPECT_TRUE(scheduled(false));
   std::uint32_t const sent = sends();
   ASSERT_TRUE(scheduler->runFor(*clock, 120));
   EXPECT_EQ(sends(), sent);
   EXPECT_TRUE(scheduled(false) && v6.drain().empty());

   exporter("e1")->collector4Is("a", a.ipAndPort());  // back: at once, then every interval
   EXPECT_EQ(setIds(a.messages(1000)), bothSets);
   EXPECT_TRUE(scheduled());
   ASSERT_TRUE(scheduler->runFor(*clock, 30));
   EXPECT_EQ(setIds(a.messages(1000)), bothSets);
   EXPECT_EQ(sends(), sent + 4);
   EXPECT_TRUE(v6.drain().empty());
}

// The base of both template exporters has no task prefix or set id of its own.
TEST(TemplateExporterDeathTest, BaseWithoutSubclassOperationsStops) {
   auto stats = Kivo::make<Mirra::Ipfix::CollectorStatistics>("/ipfix-test-death-" +
                                                              std::to_string(getpid()));
   auto base = Kivo::make<FlowTracking::TemplateExporterSmBase>(
       "e", "t", 1, Kivo::make<HwFlowTracking::ExporterConfig>("e"),
       Kivo::make<FlowTracking::ExporterInfo>("e"), stats, Kivo::make<Orbo::TaskScheduler>());
   EXPECT_DEATH(Probe::taskPrefix(*base), testsupport::deathText("(!(\"taskPrefix\"))"));
   EXPECT_DEATH(Probe::headerSetId(*base), testsupport::deathText("(!(\"headerSetId\"))"));
}

namespace {

// The template machines start before the info tree has any tracker.
class TemplateExportBeforeInfo : public testsupport::ExportFixture {
 protected:
   void SetUp() override {
      addTemplate(300, {element("sourceIPv4Address"), element("octetDeltaCount")});
      templateSm =
          FlowTracking::templateSmFactory(scheduler, ftConfig, configReq, hwStatus, hwConfig,
                                          collStats, info, init->elementIdCollection());
      ASSERT_TRUE(scheduler->runUntilIdle());
   }
};

}  // namespace

// A tracker the hardware reports before its info record exists has no template machine and sends
// nothing; the info record appearing creates it and the templates go out at once. A tracker only
// in the hardware status stays without one.
TEST_F(TemplateExportBeforeInfo, TrackerGetsTemplatesOnceItsInfoAppears) {
   hwStatus->ftStatusIs("t2");
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_FALSE(templateSm->ftTemplateSm("t1") || templateSm->ftTemplateSm("t2"));
   for (auto* c : {&a, &b, &v6}) {
      EXPECT_TRUE(c->drain().empty()) << c->port();
   }

   infoSm =
       Kivo::make<FlowTracking::FlowTrackingInfoSm>(scheduler, hwConfig, info, init->agentInfo());
   ASSERT_TRUE(scheduler->runUntilIdle());
   ASSERT_TRUE(templateSm->ftTemplateSm("t1"));
   EXPECT_FALSE(templateSm->ftTemplateSm("t2"));
   for (auto* c : {&a, &b, &v6}) {
      auto const msgs = c->messages(1000);
      ASSERT_EQ(setIds(msgs), bothSets) << c->port();
      EXPECT_EQ(std::tuple(msgs[0].templates().at(0).id, msgs[0].observationDomainId),
                std::tuple(300, 7u));
   }
   EXPECT_TRUE(exporter("e1")->exporter4Ready());

   hwStatus->ftStatusDel("t2");
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_TRUE(templateSm->ftTemplateSm("t1"));
}
