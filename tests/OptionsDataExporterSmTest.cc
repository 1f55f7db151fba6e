// Options data from hand-made sources to real loopback collectors whose options templates were
// really sent first.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Pelto/Endian.h"
#include "Trace/Trace.h"
#include "support/DeathText.h"
#include "support/ExportFixture.h"
#include "support/Probes.h"

using namespace FlowTracking;
using Ipfix::element;
using Probe = FlowTracking::OptionsDataExporterSmProbe;

namespace {

constexpr TemplateId intfSet = Constants::reservedTemplateId(StaticTemplateId::intfTable);

DataRecordPtr intfRecord(std::uint32_t index, std::string const& name) {
   std::uint8_t head[5];
   Pelto::storeBe32(head, index);
   head[4] = static_cast<std::uint8_t>(name.size());
   return dataRecordFactory(std::string(reinterpret_cast<char*>(head), 5) + name);
}

using Names = std::vector<std::string>;
Names const table{"Ethernet1", "Ethernet2", "Ethernet3"};

// What the data messages brought: each one's sequence number, record count and length, and the
// names of their interface records.
struct Received {
   std::vector<std::uint32_t> seqNos;
   std::vector<std::size_t> recordCounts;
   std::vector<std::uint16_t> lengths;
   Names names;
   Names sorted() const {
      Names n = names;
      std::sort(n.begin(), n.end());
      return n;
   }
};

Received receive(testsupport::LoopbackCollector& c) {
   Received r;
   // Loopback delivery is immediate; the wait only bounds a missing message.
   for (testsupport::Message const& m : c.messages(100)) {
      if (m.dataRecordCount() == 0) {
         continue;  // templates
      }
      r.seqNos.push_back(m.sequenceNumber);
      r.recordCounts.push_back(m.dataRecordCount());
      r.lengths.push_back(m.length);
      for (auto const& s : m.sets) {
         for (auto const& rec : s.records) {
            r.names.push_back(testsupport::fieldText(rec.fields.at(1)));
         }
      }
   }
   return r;
}

// Names of the interface records in the data sets of raw datagrams, read without templates: each
// record is a 4-octet index, a length octet and the name.
Names rawIntfNames(std::vector<testsupport::Received> const& datagrams) {
   Names names;
   testsupport::Decoder d;
   for (auto const& r : datagrams) {
      for (auto const& s : d.decode(r.payload).sets) {
         for (std::size_t pos = 0; s.id == intfSet && pos + 5 <= s.body.size();) {
            std::size_t const len = s.body[pos + 4];
            names.emplace_back(s.body.begin() + static_cast<long>(pos) + 5,
                               s.body.begin() + static_cast<long>(pos + 5 + len));
            pos += 5 + len;
         }
      }
   }
   return names;
}

bool traced(std::string const& line) {
   auto const lines = Snaplog::lines();
   return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class OptionsDataExport : public testsupport::ExportFixture {
 protected:
   void SetUp() override {
      start();
      // Decoded, so that each collector's decoder knows the options templates.
      for (auto* c : {&a, &v6, &b}) {
         c->messages(1000);
      }
      for (std::uint32_t i = 1; i <= 3; ++i) {
         source->dataRecordIs(intfRecord(i, "Ethernet" + std::to_string(i)));
      }
      source->versionInc(1);
      container->dataIs(global);
      container->updateIs(update);
      exp = optionsDataExporterSmFactory("e1", "t1", 7, hwConfig->ftConfig("t1"), exporter("e1"),
                                         info->ftInfo("t1")->expInfo("e1"), collStats, container,
                                         scheduler);
      ASSERT_TRUE(scheduler->runUntilIdle());  // the catch-up at once
   }
   void TearDown() override { exp = nullptr; }

   Kivo::Ptr<OptionsDataSourceColl> global =
       Kivo::make<OptionsDataSourceColl>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<OptionsDataSource> source = global->sourceIs("InterfaceTable", intfSet);
   Kivo::Ptr<OptionsDataUpdate> update =
       Kivo::make<OptionsDataUpdate>(OptionsDataScope::scopeGlobal);
   Kivo::Ptr<OptionsDataContainer> container = Kivo::make<OptionsDataContainer>("t1");
   Kivo::Ptr<OptionsDataExporterSm> exp;
};

}  // namespace

TEST_F(OptionsDataExport, UsableCollectorsGetTheWholeTableAtOnceAndEveryActiveIntervalCounted) {
   for (auto* c : {&a, &v6}) {
      EXPECT_EQ(receive(*c).sorted(), table);
   }
   EXPECT_TRUE(receive(b).names.empty());  // another exporter's collector
   EXPECT_EQ(Probe::msgCacheBuildCount(*exp), 1u);

   ASSERT_TRUE(scheduler->runFor(*clock, 59.5));
   EXPECT_TRUE(receive(a).names.empty());
   ASSERT_TRUE(scheduler->runFor(*clock, 0.5));
   EXPECT_EQ(receive(a).names.size(), 3u);
   EXPECT_EQ(Probe::msgCacheBuildCount(*exp), 1u);  // nothing changed: the cache was reused

   source->dataRecordIs(intfRecord(4, "Ethernet4"));
   source->versionInc(1);
   ASSERT_TRUE(scheduler->runFor(*clock, 60));
   EXPECT_EQ(receive(a).names.size(), 4u);
   EXPECT_EQ(Probe::msgCacheBuildCount(*exp), 2u);
   // Template messages in between (every 30 s) took no sequence numbers.
   EXPECT_EQ(info->ftInfo("t1")->expInfo("e1")->collInfo("a")->ipfixMsgSeqNo().value, 10u);
   auto const stats = statsOf("e1", a);
   ASSERT_TRUE(stats);
   EXPECT_EQ(std::tuple(stats->setEntry(Mirra::Ipfix::SetId(intfSet)).exportedFlowRecordCount,
                        stats->exportedFlowRecordTotalCount, stats->lastOptionsDataSentTime),
             std::tuple(10u, 10u, clock->now()));
}

// With an MTU of 1500 a message holds 1452 octets. Queued updates wait for company unless their
// octets plus the headers of their sets reach a full message: 16 + 4 + 7 * 179 + 179 = 1452.
TEST_F(OptionsDataExport, UpdatesCoalesceBelowAFullMessageAndGoAtOnceAtIt) {
   EXPECT_EQ(Probe::maxMsgSize(*exp), 1452);
   for (auto [lastLen, immediate] : {std::pair{178u, false}, {179u, true}}) {
      receive(a);
      for (std::uint32_t i = 0; i < 7; ++i) {
         update->addUpdate(intfSet, intfRecord(i, std::string(179 - 5, 'x')));
      }
      EXPECT_EQ(exp->updateTask()->dueTime(), clock->now() + defaultUpdateDataCoalesceTime());
      update->addUpdate(intfSet, intfRecord(7, std::string(lastLen - 5, 'y')));
      EXPECT_EQ(exp->updateTask()->dueTime(),
                clock->now() + (immediate ? 0 : defaultUpdateDataCoalesceTime()))
          << lastLen;
      ASSERT_TRUE(scheduler->runUntilIdle());
      EXPECT_EQ(receive(a).names.size(), immediate ? 8u : 0u) << lastLen;
      ASSERT_TRUE(scheduler->runFor(*clock, defaultUpdateDataCoalesceTime()));
      EXPECT_EQ(Probe::updateQueueBytes(*exp), 0u);
   }
}

TEST_F(OptionsDataExport, ManyChangesAtOnceGoPromptlyInFullMessagesAndPeriodicRunsDropQueuedOnes) {
   a.drain(1000);
   for (std::uint32_t i = 0; i < 2000; ++i) {
      update->addUpdate(intfSet, intfRecord(100 + i, "Ethernet" + std::to_string(100 + i)));
   }
   ASSERT_TRUE(scheduler->runUntilIdle());  // no coalescing wait: the queue filled messages
   Received const r = receive(a);
   ASSERT_EQ(r.names.size(), 2000u);
   EXPECT_EQ(std::tuple(r.names.front(), r.names.back()),
             std::tuple(std::string("Ethernet100"), std::string("Ethernet2099")));
   for (std::size_t i = 1; i < r.seqNos.size(); ++i) {
      EXPECT_EQ(r.seqNos[i], r.seqNos[i - 1] + r.recordCounts[i - 1]);
   }
   EXPECT_EQ(Probe::updateQueueBytes(*exp), 0u);

   // A periodic transmission drops what is still queued.
   update->addUpdate(intfSet, intfRecord(9, "x"));
   EXPECT_GT(Probe::updateQueueBytes(*exp), 0u);
   Probe::maybeBeginPeriodicTransmission(*exp);
   EXPECT_TRUE(Probe::updateQueueBytes(*exp) == 0 && !exp->updateTask()->scheduled());
}

TEST_F(OptionsDataExport, CollectorGetsNothingUntilItsOptionsTemplatesAreSent) {
   // Without the options template exporter, a new collector never gets its options templates.
   templateSm->ftTemplateSm("t1")->optTemplateExporterSmDel("e1");
   testsupport::LoopbackCollector c;
   exporter("e1")->collector4Is("late", c.ipAndPort());
   ASSERT_TRUE(scheduler->runFor(*clock, 61));
   EXPECT_FALSE(Probe::collector(*exp, "late"));
   // Its decoder never sees the options templates, so read the interface records undecoded.
   EXPECT_TRUE(rawIntfNames(c.drain(1000)).empty());  // "a" got the table twice; "late" nothing
   info->ftInfo("t1")->expInfo("e1")->collInfo("late")->optTemplateSentIs(true);
   ASSERT_TRUE(scheduler->runUntilIdle());  // ahead of the next periodic round
   EXPECT_EQ(rawIntfNames(c.drain(1000)).size(), 3u);
}

// The message size is the MTU less 48, taken as 16 bits. Records of one length, the longest an
// empty message holds (at most 259, the longest interface record), one more than a message
// takes: the first message is as full as that length allows, the second holds the last record.
// A size too small for the record stops the process: the agent refuses such an MTU.
TEST_F(OptionsDataExport, EveryMtuGivesMessagesOfTheSizeTheRuleAllows) {
   struct Case {
      std::uint32_t mtu;
      std::uint16_t maxSize;
   } const cases[] = {{0, 65488},   {1, 65489},     {48, 0},        {49, 1},    {100, 52},
                      {1500, 1452}, {65535, 65487}, {65583, 65535}, {65584, 0}, {100000, 34416}};
   std::uint32_t const hdrs = MessageBuilder::calcOverhead(1);
   std::uint32_t const shortest = 6;  // index, length octet, one-octet name
   for (auto const& c : cases) {
      SCOPED_TRACE("ipfixMtu " + std::to_string(c.mtu));
      EXPECT_EQ(maxMsgSizeForMtu(c.mtu), c.maxSize);
      exporter("e1")->ipfixMtuIs(c.mtu);
      EXPECT_FALSE(Probe::msgCacheValid(*exp));  // rebuilt by the next transmission
      EXPECT_EQ(Probe::maxMsgSize(*exp), c.maxSize);
      if (c.maxSize < hdrs + shortest) {
         EXPECT_DEATH(Probe::maybeBeginPeriodicTransmission(*exp), "consumed > 0");
         continue;
      }
      std::uint32_t const len = std::min<std::uint32_t>(259, c.maxSize - hdrs);
      std::uint32_t const perMsg = (c.maxSize - hdrs) / len;
      auto nameOf = [len](std::uint32_t i) {
         std::string n = std::to_string(i);
         return n + std::string(len - 5 - n.size(), 'x');
      };
      Names expected;
      source->dataRecordDelAll();
      for (std::uint32_t i = 0; i <= perMsg; ++i) {
         source->dataRecordIs(intfRecord(i, nameOf(i)));
         expected.push_back(nameOf(i));
      }
      source->versionInc(1);
      std::sort(expected.begin(), expected.end());
      receive(a), receive(v6);
      Probe::maybeBeginPeriodicTransmission(*exp);
      EXPECT_TRUE(Probe::msgCacheValid(*exp));
      for (auto* col : {&a, &v6}) {
         Received const r = receive(*col);
         EXPECT_EQ(r.sorted(), expected);
         EXPECT_EQ(r.lengths,
                   (std::vector<std::uint16_t>{static_cast<std::uint16_t>(hdrs + perMsg * len),
                                               static_cast<std::uint16_t>(hdrs + len)}));
         EXPECT_LE(hdrs + perMsg * len, c.maxSize);
         EXPECT_GT(hdrs + (perMsg + 1) * len, c.maxSize);
      }
      // An update of the longest record fits its message too.
      update->addUpdate(intfSet, intfRecord(9999, nameOf(9999)));
      ASSERT_TRUE(scheduler->runFor(*clock, defaultUpdateDataCoalesceTime()));
      EXPECT_EQ(receive(a).names, Names{nameOf(9999)});
   }
}

TEST_F(OptionsDataExport, HandlersTraceOnEntryWithTrackerAndExporter) {
   auto const ft = hwConfig->ftConfig("t1");
   struct Case {
      char const* handler;
      std::function<void()> event;
   } const cases[] = {
       {"handleUpdateData", [&] { update->addUpdate(intfSet, intfRecord(9, "x")); }},
       {"handleSourceVersion", [&] { source->versionInc(1); }},
       {"handleIpfixMtu", [&] { exporter("e1")->ipfixMtuIs(1400); }},
       {"handleActiveInterval", [&] { ft->activeIntervalIs({30000}); }},
       {"handleSrc4", [&] { exporter("e1")->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.2")); }},
       {"handleSrc6", [&] { exporter("e1")->srcIp6Is(Pelto::Ip6Addr()); }},
       {"handleCollector", [&] { exporter("e1")->collector4Del("a"); }},
       {"handleCollector4", [&] { exporter("e1")->collector4Is("a", a.ipAndPort()); }},
       {"handleCollector6", [&] { exporter("e1")->collector6Del("v6"); }},
       {"handleCollInfo", [&] { exporter("e1")->collector4Is("n", b.ipAndPort()); }},
       {"handleInitialized",
        [&] {
           exp = nullptr;
           exp = optionsDataExporterSmFactory("e1", "t1", 7, ft, exporter("e1"),
                                              info->ftInfo("t1")->expInfo("e1"), collStats,
                                              container, scheduler);
        }},
   };
   for (auto const& c : cases) {
      Snaplog::clear();
      c.event();
      EXPECT_TRUE(traced(std::string("OptionsDataExporterSm::") + c.handler + " for t1 for e1"))
          << c.handler;
   }
   // Changing the set of sources after init stops the process.
   EXPECT_DEATH(global->sourceIs("Other", 300),
                testsupport::assertText(R"(!"data source changed after init!")") +
                    ".*OptionsDataExporterSm::handleSourceChange for t1 for e1");
}

// A full transmission is synchronous; a start asked for while it runs (here by a reaction to a
// collector's sequence number) is skipped, and the round still sends everything once.
TEST_F(OptionsDataExport, PeriodicRunWhileProcessingIsSkipped) {
   receive(a), receive(v6);
   bool asked = false;
   Kivo::Reactor reentry;
   reentry.watch(info->ftInfo("t1")->expInfo("e1")->collInfo("a")->onIpfixMsgSeqNo(), [&] {
      if (!asked) {
         asked = true;
         EXPECT_TRUE(Probe::processing(*exp));
         Probe::maybeBeginPeriodicTransmission(*exp);
      }
   });
   Snaplog::clear();
   ASSERT_TRUE(scheduler->runFor(*clock, 60));
   EXPECT_TRUE(asked && !Probe::processing(*exp));
   EXPECT_TRUE(
       traced("OptionsDataExporterSm t1 for e1: processing, do not start new periodic "
              "transmission"));
   for (auto* c : {&a, &v6}) {
      EXPECT_EQ(receive(*c).sorted(), table);
   }
   EXPECT_EQ(Probe::txPeriodicTask(*exp)->dueTime(), clock->now() + 60);
}

// Without a tracker configuration the table goes out every 300000 ms.
TEST_F(OptionsDataExport, NoTrackerConfigurationMeansTheDefaultInterval) {
   receive(b);
   Snaplog::clear();
   auto const noFt = optionsDataExporterSmFactory("e2", "t1", 7, nullptr, exporter("e2"),
                                                  info->ftInfo("t1")->expInfo("e2"), collStats,
                                                  container, scheduler);
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_EQ(receive(b).names.size(), 3u);  // catch-up at once
   EXPECT_TRUE(traced("OptionsDataExporterSm t1 for e2: schedule periodic transmission 300"));
   EXPECT_EQ(Probe::txPeriodicTask(*noFt)->dueTime(), clock->now() + 300);
   ASSERT_TRUE(scheduler->runFor(*clock, 299.5));
   EXPECT_TRUE(receive(b).names.empty());
   ASSERT_TRUE(scheduler->runFor(*clock, 0.5));
   EXPECT_EQ(receive(b).names.size(), 3u);
}

// A new source address: every collector of that family gets the whole table again at once, from
// the new address, continuing its sequence numbers; the other family gets nothing.
TEST_F(OptionsDataExport, SourceAddressChangeSendsTheWholeTableAgain) {
   receive(a), receive(v6);
   auto const ci = info->ftInfo("t1")->expInfo("e1")->collInfo("a");
   std::uint32_t const seqNo = ci->ipfixMsgSeqNo().value;
   exporter("e1")->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.2"));
   ASSERT_TRUE(scheduler->runUntilIdle());  // well before the next periodic round
   auto const datagrams = a.drain(1000);
   auto names = rawIntfNames(datagrams);
   std::sort(names.begin(), names.end());
   EXPECT_EQ(names, table);
   for (auto const& d : datagrams) {
      EXPECT_EQ(d.srcAddr, "127.0.0.2");
   }
   EXPECT_EQ(ci->ipfixMsgSeqNo().value, seqNo + 3);
   EXPECT_TRUE(receive(v6).names.empty());
}
