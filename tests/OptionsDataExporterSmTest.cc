// Options data from hand-made sources to real loopback collectors whose options templates were
// really sent first.
#include <gtest/gtest.h>

#include "Ipfix/OptionsDataExporterSm.h"
#include "Pelto/Endian.h"
#include "support/ExportFixture.h"

using namespace FlowTracking;
using Ipfix::element;

namespace {

constexpr TemplateId intfSet = Constants::reservedTemplateId(StaticTemplateId::intfTable);

DataRecordPtr intfRecord(std::uint32_t index, std::string const& name) {
   std::uint8_t head[5];
   Pelto::storeBe32(head, index);
   head[4] = static_cast<std::uint8_t>(name.size());
   auto r = dataRecordFactory(std::string(reinterpret_cast<char*>(head), 5));
   r->append(name.data(), name.size());
   return r;
}

// Interface records of every data message, as (sequence number, [names]).
struct Received {
   std::vector<std::uint32_t> seqNos;
   std::vector<std::size_t> recordCounts;
   std::vector<std::string> names;
   std::size_t templateMessages = 0;
};

Received receive(testsupport::LoopbackCollector& c) {
   Received r;
   // Loopback delivery is immediate; the wait only bounds a missing message.
   for (testsupport::Message const& m : c.messages(100)) {
      if (m.dataRecordCount() == 0) {
         ++r.templateMessages;
         continue;
      }
      r.seqNos.push_back(m.sequenceNumber);
      r.recordCounts.push_back(m.dataRecordCount());
      for (auto const& s : m.sets) {
         for (auto const& rec : s.records) {
            r.names.push_back(testsupport::fieldText(rec.fields.at(1)));
         }
      }
   }
   return r;
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

TEST_F(OptionsDataExport, UsableCollectorsGetTheWholeTableAtOnceAndEveryActiveInterval) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   for (auto* c : {&a, &v6}) {
      auto r = receive(*c);
      std::sort(r.names.begin(), r.names.end());
      EXPECT_EQ(r.names, (std::vector<std::string>{"Ethernet1", "Ethernet2", "Ethernet3"}));
   }
   EXPECT_TRUE(receive(b).names.empty());  // another exporter's collector
   EXPECT_EQ(exp->msgCacheBuildCount(), 1u);

   ASSERT_TRUE(scheduler->runFor(*clock, 59.5));
   EXPECT_TRUE(receive(a).names.empty());
   ASSERT_TRUE(scheduler->runFor(*clock, 0.5));
   EXPECT_EQ(receive(a).names.size(), 3u);
   EXPECT_EQ(exp->msgCacheBuildCount(), 1u);  // nothing changed: the cache was reused

   source->dataRecordIs(intfRecord(4, "Ethernet4"));
   source->versionInc(1);
   ASSERT_TRUE(scheduler->runFor(*clock, 60));
   EXPECT_EQ(receive(a).names.size(), 4u);
   EXPECT_EQ(exp->msgCacheBuildCount(), 2u);
}

TEST_F(OptionsDataExport, SequenceNumbersAdvanceByDataRecordsOnly) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   ASSERT_TRUE(scheduler->runFor(*clock, 60));  // options templates again at 30 s and 60 s
   Received const r = receive(a);
   ASSERT_EQ(r.seqNos.size(), 2u);
   EXPECT_EQ(r.seqNos[0], 0u);
   EXPECT_EQ(r.seqNos[1], r.recordCounts[0]);
   EXPECT_GE(r.templateMessages, 2u);
   auto const ci = info->ftInfo("t1")->expInfo("e1")->collInfo("a");
   EXPECT_EQ(ci->ipfixMsgSeqNo().value, r.recordCounts[0] + r.recordCounts[1]);

   auto const stats = statsOf("e1", Mirra::Ipfix::CollectorInfo::fromIpAndPort(a.ipAndPort()));
   ASSERT_TRUE(stats);
   EXPECT_EQ(stats->setEntry(Mirra::Ipfix::SetId(intfSet)).exportedFlowRecordCount, 6u);
   EXPECT_EQ(stats->exportedFlowRecordTotalCount, 6u);
   EXPECT_EQ(stats->lastOptionsDataSentTime, clock->now());
}

// With an MTU of 1500 a message holds 1452 octets. Queued updates wait for company unless their
// octets plus the headers of their sets reach a full message: 16 + 4 + 7 * 179 + 179 = 1452.
TEST_F(OptionsDataExport, UpdatesCoalesceBelowAFullMessageAndGoAtOnceAtIt) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_EQ(exp->maxMsgSize(), 1452);
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
      EXPECT_EQ(exp->updateQueueBytes(), 0u);
   }
}

TEST_F(OptionsDataExport, ManyChangesAtOnceGoPromptlyInFullMessages) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   a.drain(1000);
   for (std::uint32_t i = 0; i < 2000; ++i) {
      update->addUpdate(intfSet, intfRecord(100 + i, "Ethernet" + std::to_string(100 + i)));
   }
   ASSERT_TRUE(scheduler->runUntilIdle());  // no coalescing wait: the queue filled messages
   Received const r = receive(a);
   EXPECT_EQ(r.names.size(), 2000u);
   EXPECT_EQ(r.names.front(), "Ethernet100");
   EXPECT_EQ(r.names.back(), "Ethernet2099");
   for (std::size_t i = 1; i < r.seqNos.size(); ++i) {
      EXPECT_EQ(r.seqNos[i], r.seqNos[i - 1] + r.recordCounts[i - 1]);
   }
   EXPECT_EQ(exp->updateQueueBytes(), 0u);
}

TEST_F(OptionsDataExport, PeriodicTransmissionDropsQueuedUpdates) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   update->addUpdate(intfSet, intfRecord(9, "x"));
   EXPECT_GT(exp->updateQueueBytes(), 0u);
   exp->maybeBeginPeriodicTransmission();
   EXPECT_EQ(exp->updateQueueBytes(), 0u);
   EXPECT_FALSE(exp->updateTask()->scheduled());
}

TEST_F(OptionsDataExport, CollectorGetsNothingUntilItsOptionsTemplatesAreSent) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   // Without the options template exporter, a new collector never gets its options templates.
   templateSm->ftTemplateSm("t1")->optTemplateExporterSmDel("e1");
   testsupport::LoopbackCollector c;
   exporter("e1")->collector4Is("late", c.ipAndPort());
   ASSERT_TRUE(scheduler->runFor(*clock, 61));
   EXPECT_FALSE(exp->collector("late"));
   EXPECT_TRUE(receive(c).names.empty());
   info->ftInfo("t1")->expInfo("e1")->collInfo("late")->optTemplateSentIs(true);
   ASSERT_TRUE(scheduler->runUntilIdle());  // ahead of the next periodic round
   // Its decoder never saw the options templates: count the interface sets undecoded.
   std::size_t sets = 0;
   for (auto const& m : c.messages(1000)) {
      for (auto const& s : m.sets) {
         sets += s.id == intfSet ? 1 : 0;
      }
   }
   EXPECT_EQ(sets, 1u);
}

TEST_F(OptionsDataExport, MtuChangeRebuildsTheCache) {
   ASSERT_TRUE(scheduler->runUntilIdle());
   EXPECT_TRUE(exp->msgCacheValid());
   exporter("e1")->ipfixMtuIs(1400);
   EXPECT_FALSE(exp->msgCacheValid());
   EXPECT_EQ(exp->maxMsgSize(), 1352);
}

using OptionsDataExporterDeathTest = OptionsDataExport;

TEST_F(OptionsDataExporterDeathTest, ChangingTheSetOfSourcesAfterInitStops) {
   EXPECT_DEATH(global->sourceIs("Other", 300), "data source changed after init!");
}
