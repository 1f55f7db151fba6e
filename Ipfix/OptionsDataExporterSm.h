// OptionsDataExporterSm: sends one tracker's options data to the collectors of one exporter.
//
// Three jobs:
//  - full transmission: every table, from a cache of finished messages that is rebuilt only when
//    a source's version (or the exporter's MTU) changes, to every usable collector, every active
//    interval of the tracker; the tracker's exporters with the same message size share the cache
//    (MsgCacheColl), and each stamps its own collectors' headers as it sends;
//  - catch-up: a collector becomes usable once its options templates have been sent to it, and
//    then receives the whole cache at once, ahead of the next periodic round;
//  - updates: single changed records posted by the sources are queued per set id and flushed
//    after updateDataCoalesceTime, or at once when they already fill a message. A full
//    transmission makes every queued update redundant and drops them.
// Each message advances each receiving collector's sequence number by its number of data records
// (the header carries the number before the message) and is counted in the statistics table.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <vector>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsDataExporter.h"
#include "Orbo/TaskScheduler.h"

namespace FlowTracking {

// How long single updates wait for company before they are sent: long enough to put a burst of
// interface changes (a line card coming up) into a few full messages, short enough that a
// collector learns a renamed interface promptly.
constexpr double defaultUpdateDataCoalesceTime() {
   return 1.0;
}

// Octets of an exporter's MTU left for the headers below IPFIX: an IPv6 header (40) and a UDP
// header (8), the larger of the two families, so one message size serves both.
constexpr std::uint32_t ipAndUdpHeaderLen() {
   return 48;
}

// The largest message for an exporter MTU of `ipfixMtu` octets: the MTU less the IP and UDP
// headers, taken as 16 bits like the message length field. So 1500 gives 1452, 65583 gives 65535;
// an MTU of 48 or less, or above 65583, wraps around (0 gives 65488, 48 and 65584 give 0).
constexpr std::uint16_t maxMsgSizeForMtu(std::uint32_t ipfixMtu) {
   return static_cast<std::uint16_t>(ipfixMtu - ipAndUdpHeaderLen());
}

// The smallest MTU whose messages carry one data record of `recordLen` octets: the IP and UDP
// headers, the message header, one set header and the record. A message size below that stops
// the process at the first record that does not fit an empty message ("consumed > 0").
constexpr std::uint32_t minIpfixMtuForRecord(std::uint32_t recordLen) {
   return ipAndUdpHeaderLen() + Pelto::IpfixConst::messageHeaderLen() +
          Pelto::IpfixConst::setHeaderLen() + recordLen;
}

class OptionsDataExporterSm;

// The data records of one set id in one message.
class SetRecord : public Kivo::Object {
 public:
   explicit SetRecord(TemplateId setId) : setId_(setId) {}
   TemplateId setId() const { return setId_; }
   std::uint64_t count() const { return count_; }
   void countInc(std::uint64_t n) { count_ += n; }
   void countIs(std::uint64_t n) { count_ = n; }

 private:
   TemplateId setId_;
   std::uint64_t count_ = 0;
};

// A finished message and how many records of each set id it holds.
class MessageWrapper : public Kivo::Object {
 public:
   Kivo::Ptr<Message> const& message() const { return message_; }
   void messageIs(Kivo::Ptr<Message> m) { message_ = std::move(m); }
   Kivo::Ptr<SetRecord> setRecordIs(TemplateId id) { return setRecord_.is(id); }
   void setRecordDel(TemplateId id) { setRecord_.del(id); }
   void setRecordDelAll() { setRecord_.delAll(); }
   Kivo::Coll<TemplateId, SetRecord> const& setRecord() const { return setRecord_; }

 private:
   Kivo::Ptr<Message> message_;
   Kivo::Coll<TemplateId, SetRecord> setRecord_;
};

// Builds a run of messages, counting records per set id.
class BuilderWrapper : public Kivo::Object {
 public:
   BuilderWrapper(std::uint16_t maxSize, std::uint32_t observationDomainId)
       : builder_(messageBuilderFactory(maxSize, observationDomainId)) {}
   void startMsg();
   // Octets consumed; 0 when the record does not fit in this message. Inline: once per record
   // of every table build.
   std::uint32_t addSetRecord(TemplateId setId, DataRecordPtr const& record) {
      std::uint32_t const consumed = builder_->addSetRecord(setId, record);
      if (consumed > 0) {
         if (runSetId_ != setId) {
            runFlush_p();
            runSetId_ = setId;
         }
         ++runCount_;
      }
      return consumed;
   }
   // REQUIRES: at least one record since startMsg().
   Kivo::Ptr<MessageWrapper> finalizeMsg();
   bool empty() const { return builder_->recordCount() == 0; }

 private:
   // Adds the run of records of one set id to the message's per-set counts.
   void runFlush_p();

   Kivo::Ptr<MessageBuilder> builder_;
   Kivo::Ptr<MessageWrapper> msgWrap_;
   // Records of one set id added in a row and not yet counted in msgWrap_: counting per run
   // rather than per record keeps the per-set map out of the per-record path.
   TemplateId runSetId_ = 0;
   std::uint64_t runCount_ = 0;
};

// The finished messages of one full transmission of a tracker's tables, for one message size and
// observation domain, and the versions of the sources they were built from. The exporters of one
// tracker with the same message size send the same messages (each stamps its collectors' export
// time and sequence number just before it sends), so they share one. Never changed once built:
// a rebuild makes a new one, and an exporter still sending from the old one keeps it.
class MsgCache : public Kivo::Object {
 public:
   MsgCache(std::uint16_t maxSize, std::uint32_t domain, OptionsDataContainer const& data);
   std::uint16_t maxSize() const { return maxSize_; }
   std::uint32_t domain() const { return domain_; }
   std::deque<Kivo::Ptr<MessageWrapper>>& msgs() { return msgs_; }
   std::deque<Kivo::Ptr<MessageWrapper>> const& msgs() const { return msgs_; }
   // Every source of `data` is still at the version it had when this was built.
   bool isCurrent(OptionsDataContainer const& data) const;

 private:
   std::uint16_t maxSize_;
   std::uint32_t domain_;
   std::vector<std::uint32_t> versions_;  // of every source, in the order the build walks them
   std::deque<Kivo::Ptr<MessageWrapper>> msgs_;
};

// The message caches of one tracker's exporters, one per message size and observation domain.
// A cache that no exporter holds any more is dropped at the next change.
class MsgCacheColl : public Kivo::Object {
 public:
   Kivo::Ptr<MsgCache> cache(std::uint16_t maxSize, std::uint32_t domain) const;
   void cacheIs(Kivo::Ptr<MsgCache> const& c);
   std::size_t caches() const { return cache_.size(); }

 private:
   std::map<std::pair<std::uint16_t, std::uint32_t>, Kivo::Ptr<MsgCache>> cache_;
};

// Queued update records of one set id, oldest first.
class UpdateSetQueue : public Kivo::Object {
 public:
   explicit UpdateSetQueue(TemplateId setId) : setId_(setId) {}
   TemplateId setId() const { return setId_; }
   void recordEnq(DataRecordPtr r) { record_.push_back(std::move(r)); }
   void recordDeq() { record_.pop_front(); }
   DataRecordPtr const& recordFront() const { return record_.front(); }
   DataRecordPtr const& recordBack() const { return record_.back(); }
   void recordDelAll() { record_.clear(); }
   std::size_t records() const { return record_.size(); }

 private:
   TemplateId setId_;
   std::deque<DataRecordPtr> record_;
};

// One usable collector: its options templates have been sent and it has a destination of one
// family; the destination of the other family is all zero.
class Collector : public Kivo::Object {
 public:
   Collector(Kivo::String name, Kivo::Ptr<CollectorInfo> collInfo, Pelto::IpAndPort dst4,
             Pelto::Ip6AndPort dst6, OptionsDataExporterSm* exporter);
   Kivo::String const& name() const { return name_; }
   Kivo::Ptr<CollectorInfo> const& collInfo() const { return collInfo_; }
   Pelto::IpAndPort const& dst4() const { return dst4_; }
   Pelto::Ip6AndPort const& dst6() const { return dst6_; }
   // A collector with an IPv4 port is an IPv4 collector; any other is an IPv6 one.
   Family family() const { return dst4_.port() != 0 ? Family::v4 : Family::v6; }

   // Stamps the message with this collector's sequence number, sends it from the configured
   // source of the collector's family, advances the sequence number and counts the message. The
   // send comes before the sequence number's observers hear of it, so nothing they do can restamp
   // a shared message before it leaves.
   void sendMessage(ExporterInfo const& expInfo, HwFlowTracking::ExporterConfig const& hwExpConfig,
                    MessageWrapper const& msgWrap);
   void updateStats(MessageWrapper const& msgWrap);

 private:
   template <Family f>
   auto const& dst_p() const {
      return familyPick<f>(dst4_, dst6_);
   }

   Kivo::String name_;
   Kivo::Ptr<CollectorInfo> collInfo_;
   Pelto::IpAndPort dst4_;
   Pelto::Ip6AndPort dst6_;
   OptionsDataExporterSm* exporter_;  // owns this collector
   // This collector's statistics entry, found once and then counted in place.
   Mirra::Ipfix::CollectorStatisticsPlace statsPlace_;
   Kivo::String txTrace_;  // "TX <family> <name> seqNo ", the head of each send's trace
};

class OptionsDataExporterSm : public Kivo::Object {
 public:
   using CollectorMap = std::map<Kivo::String, Kivo::Ptr<Collector>>;

   OptionsDataExporterSm(Kivo::String expName, Kivo::String ftName, FtId ftId,
                         Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
                         Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig,
                         Kivo::Ptr<ExporterInfo> expInfo,
                         Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                         Kivo::Ptr<OptionsDataContainer const> dataContainer,
                         Kivo::Ptr<Orbo::TaskScheduler> taskScheduler,
                         Kivo::Ptr<MsgCacheColl> msgCaches = nullptr);
   ~OptionsDataExporterSm() override;

   // Heads every trace line: tracker and exporter, as the other per-exporter state machines.
   Kivo::String const& traceId() const { return traceId_; }
   Kivo::String const& expName() const { return expName_; }
   Kivo::String const& ftName() const { return ftName_; }
   void updateDataCoalesceTimeIs(double seconds) { updateDataCoalesceTime_ = seconds; }

   void handleInitialized();
   void handleUpdateData(OptionsDataScope scope);
   void handleSourceChange();
   void handleCollector(Kivo::String const& name);
   bool handleCollector4(Kivo::String const& name);
   bool handleCollector6(Kivo::String const& name);
   void handleSrc4();
   void handleSrc6();
   void handleCollInfo(Kivo::String const& name);
   void handleSourceVersion();
   void handleIpfixMtu();
   void handleActiveInterval();
   void handleUdpPam4();
   void handleUdpPam6();

   // The cache build, a periodic transmission and the update flush on their own, for measuring
   // them.
   void maybeBuildMsgCache();
   void maybeBeginPeriodicTransmission();
   void flushUpdateQueue();
   std::size_t msgCacheCount() const { return msgCache().size(); }
   std::deque<Kivo::Ptr<MessageWrapper>> const& msgCache() const;
   Kivo::Ptr<Orbo::Task> const& updateTask() const { return updateTask_; }

 private:
   friend class Collector;
   friend struct OptionsDataExporterSmProbe;

   Mirra::Ipfix::CollectorStatistics& collStats() const { return *collStats_; }
   // Asserted by name.
   bool initialized() const { return initialized_; }
   bool processing() const { return processing_; }
   Kivo::Ptr<Collector> collector(Kivo::String const& name) const;
   // Largest message: maxMsgSizeForMtu() of the exporter's MTU (of 0 without a configuration).
   std::uint16_t maxMsgSize() const;
   bool v4Ready() const;
   bool v6Ready() const;
   bool txReady() const { return v4Ready() || v6Ready(); }
   // The cache this exporter holds is of its message size and domain and still current.
   bool msgCacheValid() const;

   void maybeSchedulePeriodic();
   void sendDataTables();
   void sendMessageToCollectors(MessageWrapper const& msgWrap);
   void abortUpdates();
   void processCollectorQueue();
   void watchCollInfo_p(Kivo::String const& name);
   void dropCollector_p(Kivo::String const& name, CollectorMap& family);
   // v4Ready() or v6Ready().
   bool ready_p(Family f) const;
   template <Family f>
   CollectorMap& collectors_p() {
      return familyPick<f>(collector4_, collector6_);
   }
   template <Family f>
   bool handleCollectorFamily_p(Kivo::String const& name);
   template <Family f>
   void handleSrc_p();

   Kivo::String expName_;
   Kivo::String ftName_;
   Kivo::String traceId_;
   FtId ftId_;
   Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig_;
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig_;
   Kivo::Ptr<ExporterInfo> expInfo_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   Kivo::Ptr<OptionsDataContainer const> dataContainer_;
   Kivo::Ptr<Orbo::TaskScheduler> taskScheduler_;
   Kivo::Ptr<MsgCacheColl> msgCaches_;  // shared with the tracker's other exporters

   bool initialized_ = false;
   bool processing_ = false;
   Kivo::Ptr<MsgCache> msgCache_;
   std::uint32_t msgCacheBuildCount_ = 0;  // builds this exporter needed and made
   std::map<TemplateId, Kivo::Ptr<UpdateSetQueue>> update_;
   std::uint32_t updateQueueBytes_ = 0;
   double updateDataCoalesceTime_ = defaultUpdateDataCoalesceTime();
   std::map<Kivo::String, Kivo::Ptr<Collector>> collector_;
   // The usable collectors of each family, also in collector_; sends walk these.
   CollectorMap collector4_;
   CollectorMap collector6_;
   std::set<Kivo::String> collectorUpdate_;
   std::map<Kivo::String, Kivo::Reactor> collInfo_;  // one per collector information
   Kivo::Ptr<Orbo::Task> txPeriodicTask_;
   Kivo::Ptr<Orbo::Task> updateTask_;
   Kivo::Ptr<Orbo::Task> collectorUpdateTask_;
   Kivo::Reactor reactor_;
};

Kivo::Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    Kivo::String const& expName, Kivo::String const& ftName, FtId ftId,
    Kivo::Ptr<HwFlowTracking::FtConfig const> const& hwFtConfig,
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> const& hwExpConfig,
    Kivo::Ptr<ExporterInfo> const& expInfo,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> const& collStats,
    Kivo::Ptr<OptionsDataContainer const> const& dataContainer,
    Kivo::Ptr<Orbo::TaskScheduler> const& taskScheduler,
    Kivo::Ptr<MsgCacheColl> const& msgCaches = nullptr);

}  // namespace FlowTracking
