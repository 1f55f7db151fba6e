#include "Ipfix/OptionsDataExporterSm.h"

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("OptionsDataExporterSm"))

namespace FlowTracking {

using Pelto::IpAddr;

namespace {

constexpr std::uint32_t defaultActiveIntervalMs = 300000;

}  // namespace

#define TRACE_ODE(level, expr) KTRACE(level, "OptionsDataExporterSm " << traceId() << ": " << expr)
// The line every handler traces on entry.
#define TRACE_HANDLER(handler) KTRACE(5, "OptionsDataExporterSm::" handler " for " << traceId())

// ---------------------------------------------------------------------------------------------
// Message building

void BuilderWrapper::startMsg() {
   builder_->startMsg();
   msgWrap_ = Kivo::make<MessageWrapper>();
   runCount_ = 0;
}

void BuilderWrapper::runFlush_p() {
   if (runCount_ > 0) {
      msgWrap_->setRecordIs(runSetId_)->countInc(runCount_);
      runCount_ = 0;
   }
}

Kivo::Ptr<MessageWrapper> BuilderWrapper::finalizeMsg() {
   runFlush_p();
   msgWrap_->messageIs(builder_->finalizeMsg());
   return std::move(msgWrap_);
}

// ---------------------------------------------------------------------------------------------
// Shared message caches

MsgCache::MsgCache(std::uint16_t maxSize, std::uint32_t domain, OptionsDataContainer const& data)
    : maxSize_(maxSize), domain_(domain) {
   for (auto const& [scope, coll] : data.data()) {
      for (auto const& [name, source] : coll->sources()) {
         versions_.push_back(source->version());
      }
   }
}

bool MsgCache::isCurrent(OptionsDataContainer const& data) const {
   std::size_t i = 0;
   for (auto const& [scope, coll] : data.data()) {
      for (auto const& [name, source] : coll->sources()) {
         if (i == versions_.size() || versions_[i++] != source->version()) {
            return false;
         }
      }
   }
   return i == versions_.size();
}

Kivo::Ptr<MsgCache> MsgCacheColl::cache(std::uint16_t maxSize, std::uint32_t domain) const {
   auto const it = cache_.find({maxSize, domain});
   return it == cache_.end() ? nullptr : it->second;
}

void MsgCacheColl::cacheIs(Kivo::Ptr<MsgCache> const& c) {
   std::erase_if(cache_, [](auto const& entry) { return entry.second->refCount() == 1; });
   cache_[{c->maxSize(), c->domain()}] = c;
}

// ---------------------------------------------------------------------------------------------
// Collector

Collector::Collector(Kivo::String name, Kivo::Ptr<CollectorInfo> collInfo, Pelto::IpAndPort dst4,
                     Pelto::Ip6AndPort dst6, OptionsDataExporterSm* exporter)
    : name_(std::move(name)),
      collInfo_(std::move(collInfo)),
      dst4_(dst4),
      dst6_(dst6),
      exporter_(exporter),
      statsPlace_({exporter->ftName(), exporter->expName(),
                   family() == Family::v4 ? Mirra::Ipfix::CollectorInfo::fromIpAndPort(dst4_)
                                          : Mirra::Ipfix::CollectorInfo::fromIp6AndPort(dst6_)}) {
   withFamily(family(), [this]<class F>(F) {
      txTrace_ = Kivo::String("TX ") + F::text + " " + name_ + " seqNo ";
   });
}

void Collector::sendMessage(ExporterInfo const& expInfo,
                            HwFlowTracking::ExporterConfig const& hwExpConfig,
                            MessageWrapper const& msgWrap) {
   Message& msg = *msgWrap.message();
   // The header carries the count of data records sent before this message.
   Ipfix::IpfixMsgSeqNo const seqNo = collInfo_->ipfixMsgSeqNo();
   Kivo::Ptr<Pelto::Pkt> const& pkt = msg.pkt(seqNo.value);
   withFamily(family(), [&]<class F>(F) {
      auto const& src = F::srcIp(hwExpConfig);
      // Each family keeps the assertion text operators know it by.
      if constexpr (F::family == Family::v4) {
         KIVO_ASSERT(src != IpAddr::ipAddrZero());
      } else {
         KIVO_ASSERT(!src.isZero());
      }
      KTRACE(8, txTrace_ << seqNo.value);
      F::send(pkt, F::udpPam(expInfo), src, dst_p<F::family>(), hwExpConfig.dscp());
   });
   collInfo_->ipfixMsgSeqNoInc({msg.recordCount()});
   updateStats(msgWrap);
}

// One write of the entry, in place, for the whole message: its totals and every set it holds.
void Collector::updateStats(MessageWrapper const& msgWrap) {
   Message const& msg = *msgWrap.message();
   double const now = Kivo::currentTime();
   exporter_->collStats().statsModify(statsPlace_, [&](Mirra::Ipfix::CollectorStatisticsEntry& e) {
      for (auto const& [setId, rec] : msgWrap.setRecord()) {
         e.flowRecordCountInc(Mirra::Ipfix::SetId(setId), rec->count());
      }
      e.exportedMessageTotalCount += 1;
      e.exportedFlowRecordTotalCount += msg.recordCount();
      e.exportedOctetTotalCount += msg.pkt()->bytes();
      e.lastSentTime = now;
      e.lastOptionsDataSentTime = now;
      KTRACE_TEXT(9, "Collector::updateStats stats: " << e.mirraString());
   });
}

// ---------------------------------------------------------------------------------------------
// OptionsDataExporterSm

OptionsDataExporterSm::OptionsDataExporterSm(
    Kivo::String expName, Kivo::String ftName, FtId ftId,
    Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig, Kivo::Ptr<ExporterInfo> expInfo,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
    Kivo::Ptr<OptionsDataContainer const> dataContainer,
    Kivo::Ptr<Orbo::TaskScheduler> taskScheduler, Kivo::Ptr<MsgCacheColl> msgCaches)
    : expName_(std::move(expName)),
      ftName_(std::move(ftName)),
      traceId_(ftName_ + " for " + expName_),
      ftId_(ftId),
      hwFtConfig_(std::move(hwFtConfig)),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      taskScheduler_(std::move(taskScheduler)),
      msgCaches_(msgCaches ? std::move(msgCaches) : Kivo::make<MsgCacheColl>()) {
   handleInitialized();
}

OptionsDataExporterSm::~OptionsDataExporterSm() {
   reactor_.reset();
   collInfo_.clear();
   txPeriodicTask_ = nullptr;
   updateTask_ = nullptr;
   collectorUpdateTask_ = nullptr;
}

Kivo::Ptr<Collector> OptionsDataExporterSm::collector(Kivo::String const& name) const {
   auto it = collector_.find(name);
   return it == collector_.end() ? nullptr : it->second;
}

std::uint16_t OptionsDataExporterSm::maxMsgSize() const {
   return maxMsgSizeForMtu(hwExpConfig_ ? hwExpConfig_->ipfixMtu() : 0);
}

bool OptionsDataExporterSm::v4Ready() const {
   return expInfo_->udpPam4() && hwExpConfig_ && !hwExpConfig_->srcIp4().isZero() &&
          !collector4_.empty();
}

// Unlike IPv4, a missing exporter configuration does not make IPv6 unready; only a present one
// with no IPv6 source does. Kept as it is on purpose, so the two tests are written apart.
bool OptionsDataExporterSm::v6Ready() const {
   return expInfo_->udpPam6() && !collector6_.empty() &&
          !(hwExpConfig_ && hwExpConfig_->srcIp6().isZero());
}

bool OptionsDataExporterSm::ready_p(Family f) const {
   return f == Family::v4 ? v4Ready() : v6Ready();
}

void OptionsDataExporterSm::handleInitialized() {
   TRACE_HANDLER("handleInitialized");
   collectorUpdateTask_ = Kivo::make<Orbo::Task>(
       taskScheduler_, 3, "optionsDataExporterCollectorUpdate-" + expName_ + "-" + ftName_,
       [this] { processCollectorQueue(); });
   updateTask_ = Kivo::make<Orbo::Task>(taskScheduler_, 3,
                                        "optionsDataExporterUpdate-" + expName_ + "-" + ftName_,
                                        [this] { flushUpdateQueue(); });
   txPeriodicTask_ = Kivo::make<Orbo::Task>(
       taskScheduler_, 3, "optionsDataExporterPeriodicTx-" + expName_ + "-" + ftName_,
       [this] { maybeBeginPeriodicTransmission(); });

   for (auto const& [scope, update] : dataContainer_->update()) {
      reactor_.watch(update->onVersion(), [this, s = scope] { handleUpdateData(s); });
   }
   for (auto const& [scope, coll] : dataContainer_->data()) {
      reactor_.watch(coll->onSource(), [this](Kivo::String const&) { handleSourceChange(); });
      for (auto const& [name, source] : coll->sources()) {
         reactor_.watch(source->onVersion(), [this] { handleSourceVersion(); });
      }
   }
   reactor_.watch(expInfo_->onCollInfo(),
                  [this](Kivo::String const& name) { handleCollInfo(name); });
   for (auto const& name : expInfo_->collInfoColl().keys()) {
      watchCollInfo_p(name);
   }
   reactor_.watch(expInfo_->onUdpPam4(), [this] { handleUdpPam4(); });
   reactor_.watch(expInfo_->onUdpPam6(), [this] { handleUdpPam6(); });
   if (hwExpConfig_) {
      reactor_.watch(hwExpConfig_->onIpfixMtu(), [this] { handleIpfixMtu(); });
      reactor_.watch(hwExpConfig_->onSrcIp4(), [this] { handleSrc4(); });
      reactor_.watch(hwExpConfig_->onSrcIp6(), [this] { handleSrc6(); });
      auto coll = [this](Kivo::String const& name) { handleCollector(name); };
      reactor_.watch(hwExpConfig_->onCollector4(), coll);
      reactor_.watch(hwExpConfig_->onCollector6(), coll);
   }
   if (hwFtConfig_) {
      reactor_.watch(hwFtConfig_->onActiveInterval(), [this] { handleActiveInterval(); });
   }
   initialized_ = true;
   for (auto const& name : expInfo_->collInfoColl().keys()) {
      handleCollector(name);
   }
   if (v4Ready() || v6Ready()) {
      maybeBeginPeriodicTransmission();
   }
}

void OptionsDataExporterSm::watchCollInfo_p(Kivo::String const& name) {
   collInfo_.erase(name);
   if (Kivo::Ptr<CollectorInfo> ci = expInfo_->collInfo(name)) {
      collInfo_[name].watch(ci->onOptTemplateSent(), [this, name] { handleCollector(name); });
   }
}

void OptionsDataExporterSm::handleCollInfo(Kivo::String const& name) {
   TRACE_HANDLER("handleCollInfo");
   watchCollInfo_p(name);
   handleCollector(name);
}

// The cache knows the versions it was built from: the next full transmission sees it is stale.
void OptionsDataExporterSm::handleSourceVersion() {
   TRACE_HANDLER("handleSourceVersion");
}

// Messages of the new size from the next full transmission on.
void OptionsDataExporterSm::handleIpfixMtu() {
   TRACE_HANDLER("handleIpfixMtu");
}

void OptionsDataExporterSm::handleActiveInterval() {
   TRACE_HANDLER("handleActiveInterval");
   maybeSchedulePeriodic();
}

// Readiness follows the modules: a new module may make a family ready, a closed one unready.
void OptionsDataExporterSm::handleUdpPam4() {
   TRACE_HANDLER("handleUdpPam4");
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::handleUdpPam6() {
   TRACE_HANDLER("handleUdpPam6");
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::handleSourceChange() {
   TRACE_HANDLER("handleSourceChange");
   if (initialized_) {
      KIVO_ASSERT(!"data source changed after init!");
   }
}

void OptionsDataExporterSm::maybeSchedulePeriodic() {
   if (!v4Ready() && !v6Ready()) {
      TRACE_ODE(6, "unschedule periodic transmission");
      txPeriodicTask_->stopTimerTask();
      return;
   }
   // No tracker configuration, or no interval in it, means the default interval: an interval of
   // zero would resend every table on every pass of the scheduler.
   ActiveInterval interval = hwFtConfig_ ? hwFtConfig_->activeInterval() : ActiveInterval{};
   if (interval.ms == 0) {
      interval = ActiveInterval{defaultActiveIntervalMs};
   }
   double const seconds = interval.seconds();
   TRACE_ODE(6, "schedule periodic transmission " << seconds);
   txPeriodicTask_->scheduleTaskLowestDelay(seconds);
}

void OptionsDataExporterSm::maybeBeginPeriodicTransmission() {
   if (!initialized_) {
      return;
   }
   if (processing_) {
      TRACE_ODE(5, "processing, do not start new periodic transmission");
      return;
   }
   if (!v4Ready() && !v6Ready()) {
      TRACE_ODE(5, "tx not ready, do not start new periodic transmission");
      return;
   }
   TRACE_ODE(5, "starting new periodic transmission");
   maybeBuildMsgCache();
   abortUpdates();
   processing_ = true;
   sendDataTables();
}

std::deque<Kivo::Ptr<MessageWrapper>> const& OptionsDataExporterSm::msgCache() const {
   static std::deque<Kivo::Ptr<MessageWrapper>> const none;
   return msgCache_ ? msgCache_->msgs() : none;
}

bool OptionsDataExporterSm::msgCacheValid() const {
   return msgCache_ && msgCache_->maxSize() == maxMsgSize() && msgCache_->domain() == ftId_ &&
          msgCache_->isCurrent(*dataContainer_);
}

// Takes the tracker's shared cache for this exporter's message size when it is current, and
// builds it (for every exporter of that size) when it is not.
void OptionsDataExporterSm::maybeBuildMsgCache() {
   KIVO_ASSERT(initialized());
   KIVO_ASSERT(!processing());
   TRACE_ODE(7, "msgCacheValid: " << msgCacheValid() << ", entries: " << msgCacheCount());
   if (msgCacheValid()) {
      return;
   }
   if (Kivo::Ptr<MsgCache> shared = msgCaches_->cache(maxMsgSize(), ftId_);
       shared && shared->isCurrent(*dataContainer_)) {
      msgCache_ = std::move(shared);
      return;
   }
   msgCache_ = nullptr;  // the stale messages go before the new ones are made
   ++msgCacheBuildCount_;
   auto const cache = Kivo::make<MsgCache>(maxMsgSize(), ftId_, *dataContainer_);
   std::deque<Kivo::Ptr<MessageWrapper>>& msgs = cache->msgs();
   BuilderWrapper builder(maxMsgSize(), ftId_);
   builder.startMsg();
   for (auto const& [scope, coll] : dataContainer_->data()) {
      for (auto const& [name, source] : coll->sources()) {
         for (DataRecordPtr const& record : source->dataRecord()) {
            std::uint32_t consumed = builder.addSetRecord(source->dataSetId(), record);
            if (consumed == 0 && !builder.empty()) {
               msgs.push_back(builder.finalizeMsg());
               builder.startMsg();
               consumed = builder.addSetRecord(source->dataSetId(), record);
            }
            // Not even an empty message holds it: the MTU is below minIpfixMtuForRecord().
            KIVO_ASSERT(consumed > 0);
         }
      }
   }
   if (!builder.empty()) {
      msgs.push_back(builder.finalizeMsg());
   }
   msgCaches_->cacheIs(cache);
   msgCache_ = cache;
}

void OptionsDataExporterSm::sendDataTables() {
   if (!initialized_ || !processing_) {
      return;
   }
   TRACE_ODE(6, "msgCache count: " << msgCacheCount());
   Kivo::Ptr<MsgCache const> const cache = msgCache_;  // held while it is sent
   for (auto const& msg : cache->msgs()) {
      sendMessageToCollectors(*msg);
   }
   // Collectors waiting for a catch-up of their own have just had everything.
   std::erase_if(collectorUpdate_, [this](Kivo::String const& name) {
      auto const c = collector(name);
      return c && ready_p(c->family());
   });
   processing_ = false;
   maybeSchedulePeriodic();
}

void OptionsDataExporterSm::sendMessageToCollectors(MessageWrapper const& msgWrap) {
   TRACE_ODE(7, "collectors:" << collector_.size() << "(IPv4:" << collector4_.size()
                              << ", IPv6:" << collector6_.size() << ")");
   // Readiness of both families is taken before either sends.
   bool const ready4 = v4Ready();
   bool const ready6 = v6Ready();
   forEachFamily([&]<class F>(F) {
      if (!familyPick<F::family>(ready4, ready6) || !hwExpConfig_) {
         return;
      }
      for (auto const& [name, c] : collectors_p<F::family>()) {
         c->sendMessage(*expInfo_, *hwExpConfig_, msgWrap);
      }
   });
}

void OptionsDataExporterSm::handleUpdateData(OptionsDataScope scope) {
   TRACE_HANDLER("handleUpdateData");
   KIVO_ASSERT(initialized());
   Kivo::Ptr<OptionsDataUpdate> const u = dataContainer_->update().get(scope);
   if (!u || !u->record()) {
      return;
   }
   updateQueueBytes_ += u->record()->dataLen();
   auto& queue = update_[u->setId()];
   if (!queue) {
      queue = Kivo::make<UpdateSetQueue>(u->setId());
   }
   queue->recordEnq(u->record());
   std::uint32_t const hdrLen =
       MessageBuilder::calcOverhead(static_cast<std::uint32_t>(update_.size()));
   if (hdrLen + updateQueueBytes_ < maxMsgSize()) {
      TRACE_ODE(7, "coalescing, updateQueueBytes: " << updateQueueBytes_);
      updateTask_->scheduleTaskLowestDelay(updateDataCoalesceTime_);
   } else {
      TRACE_ODE(
          6, "schedule immediate, updateQueueBytes: " << updateQueueBytes_ << ", hdrLen: " << hdrLen
                                                      << ", IPFIX max msg size: " << maxMsgSize());
      updateTask_->scheduleTask();
   }
}

void OptionsDataExporterSm::flushUpdateQueue() {
   if (!initialized_ || updateQueueBytes_ == 0) {
      return;
   }
   TRACE_ODE(6, "queue bytes: " << updateQueueBytes_);
   BuilderWrapper builder(maxMsgSize(), ftId_);
   builder.startMsg();
   bool yielded = false;
   while (!update_.empty() && !yielded) {
      auto it = update_.begin();
      UpdateSetQueue& queue = *it->second;
      while (queue.records() > 0) {
         DataRecordPtr const record = queue.recordFront();
         std::uint32_t consumed = builder.addSetRecord(queue.setId(), record);
         if (consumed == 0 && !builder.empty()) {
            sendMessageToCollectors(*builder.finalizeMsg());
            builder.startMsg();
            consumed = builder.addSetRecord(queue.setId(), record);
         }
         KIVO_ASSERT(consumed > 0);
         queue.recordDeq();
         updateQueueBytes_ -= record->dataLen();
         if (taskScheduler_->taskShouldYield()) {
            yielded = true;
            break;
         }
      }
      if (queue.records() == 0) {
         update_.erase(it);
      }
   }
   if (!builder.empty()) {
      sendMessageToCollectors(*builder.finalizeMsg());
   }
   if (updateQueueBytes_ != 0) {
      updateTask_->scheduleTask();
   }
}

void OptionsDataExporterSm::abortUpdates() {
   TRACE_ODE(6, "queue bytes: " << updateQueueBytes_);
   updateTask_->stopTimerTask();
   update_.clear();
   updateQueueBytes_ = 0;
}

void OptionsDataExporterSm::dropCollector_p(Kivo::String const& name, CollectorMap& family) {
   if (family.erase(name)) {
      collector_.erase(name);
   }
}

// A collector is usable in one family once it has a destination of that family and its options
// templates were sent. A collector is in one family at a time: a new destination replaces it.
template <Family f>
bool OptionsDataExporterSm::handleCollectorFamily_p(Kivo::String const& name) {
   using F = FamilyTraits<f>;
   Kivo::Ptr<CollectorInfo> const ci = expInfo_->collInfo(name);
   auto const* dst = hwExpConfig_ ? F::collector(*hwExpConfig_, name) : nullptr;
   Kivo::Ptr<Collector> const existing = collector(name);
   CollectorMap& family = collectors_p<f>();
   TRACE_ODE(6, name << ", exists:" << static_cast<bool>(existing) << ", collInfo:"
                     << static_cast<bool>(ci) << ", dst:" << (dst ? dst->toString() : "none")
                     << ", templateSent:" << (ci && ci->optTemplateSent()));
   if (!dst || dst->isZero() || !ci || !ci->optTemplateSent()) {
      dropCollector_p(name, family);
      return false;
   }
   Pelto::IpAndPort dst4;
   Pelto::Ip6AndPort dst6;
   familyPick<f>(dst4, dst6) = *dst;
   if (existing && existing->collInfo() == ci && existing->dst4() == dst4 &&
       existing->dst6() == dst6) {
      return false;
   }
   if (existing) {
      TRACE_ODE(6, "stale v" << F::digit << " collector " << name);
   }
   dropCollector_p(name, collector4_);
   dropCollector_p(name, collector6_);
   family[name] = collector_[name] = Kivo::make<Collector>(name, ci, dst4, dst6, this);
   return true;
}

bool OptionsDataExporterSm::handleCollector4(Kivo::String const& name) {
   TRACE_HANDLER("handleCollector4");
   return handleCollectorFamily_p<Family::v4>(name);
}

bool OptionsDataExporterSm::handleCollector6(Kivo::String const& name) {
   TRACE_HANDLER("handleCollector6");
   return handleCollectorFamily_p<Family::v6>(name);
}

void OptionsDataExporterSm::handleCollector(Kivo::String const& name) {
   TRACE_HANDLER("handleCollector");
   if (!initialized_) {
      return;
   }
   bool const fresh4 = handleCollector4(name);
   bool const fresh6 = handleCollector6(name);
   if (fresh4 || fresh6) {
      collectorUpdate_.insert(name);
      collectorUpdateTask_->scheduleTask();
   }
   if (!v4Ready() && !v6Ready()) {
      maybeSchedulePeriodic();  // nobody left: stop the periodic transmission
   }
}

void OptionsDataExporterSm::processCollectorQueue() {
   if (!initialized_ || collectorUpdate_.empty()) {
      return;
   }
   for (auto const& name : collectorUpdate_) {
      Kivo::Ptr<Collector> const c = collector(name);
      if (!c || !ready_p(c->family())) {
         continue;
      }
      maybeBuildMsgCache();
      Kivo::Ptr<MsgCache const> const cache = msgCache_;  // held while it is sent
      for (auto const& msg : cache->msgs()) {
         c->sendMessage(*expInfo_, *hwExpConfig_, *msg);
      }
   }
   collectorUpdate_.clear();
   maybeSchedulePeriodic();
}

// Every collector of the family gets a full catch-up transmission from the new source.
template <Family f>
void OptionsDataExporterSm::handleSrc_p() {
   using F = FamilyTraits<f>;
   TRACE_ODE(5, "src: " << F::srcIp(*hwExpConfig_));
   maybeSchedulePeriodic();
   for (auto const& name : F::collectors(*hwExpConfig_).keys()) {
      dropCollector_p(name, collectors_p<f>());
      handleCollector(name);
   }
}

void OptionsDataExporterSm::handleSrc4() {
   TRACE_HANDLER("handleSrc4");
   handleSrc_p<Family::v4>();
}

void OptionsDataExporterSm::handleSrc6() {
   TRACE_HANDLER("handleSrc6");
   handleSrc_p<Family::v6>();
}

Kivo::Ptr<OptionsDataExporterSm> optionsDataExporterSmFactory(
    Kivo::String const& expName, Kivo::String const& ftName, FtId ftId,
    Kivo::Ptr<HwFlowTracking::FtConfig const> const& hwFtConfig,
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> const& hwExpConfig,
    Kivo::Ptr<ExporterInfo> const& expInfo,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> const& collStats,
    Kivo::Ptr<OptionsDataContainer const> const& dataContainer,
    Kivo::Ptr<Orbo::TaskScheduler> const& taskScheduler, Kivo::Ptr<MsgCacheColl> const& msgCaches) {
   return Kivo::make<OptionsDataExporterSm>(expName, ftName, ftId, hwFtConfig, hwExpConfig, expInfo,
                                            collStats, dataContainer, taskScheduler, msgCaches);
}

}  // namespace FlowTracking
