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

std::uint32_t BuilderWrapper::addSetRecord(TemplateId setId, DataRecordPtr const& record) {
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

Kivo::Ptr<MessageWrapper> BuilderWrapper::finalizeMsg() {
   runFlush_p();
   msgWrap_->messageIs(builder_->finalizeMsg());
   return std::move(msgWrap_);
}

// ---------------------------------------------------------------------------------------------
// Collector

void Collector::sendMessage(ExporterInfo const& expInfo,
                            HwFlowTracking::ExporterConfig const& hwExpConfig,
                            MessageWrapper const& msgWrap) {
   Message& msg = *msgWrap.message();
   // The header carries the count of data records sent before this message.
   Ipfix::IpfixMsgSeqNo const seqNo = collInfo_->ipfixMsgSeqNo();
   Kivo::Ptr<Pelto::Pkt> const pkt = msg.pkt(seqNo.value);
   collInfo_->ipfixMsgSeqNoInc({msg.recordCount()});
   withFamily(family(), [&]<class F>(F) {
      auto const& src = F::srcIp(hwExpConfig);
      // Each family keeps the assertion text operators know it by.
      if constexpr (F::family == Family::v4) {
         KIVO_ASSERT(src != IpAddr::ipAddrZero());
      } else {
         KIVO_ASSERT(!src.isZero());
      }
      KTRACE(8, "TX " << F::text << " " << name_ << " seqNo " << seqNo.value);
      F::send(pkt, F::udpPam(expInfo), src, dst_p<F::family>(), hwExpConfig.dscp());
   });
   updateStats(msgWrap);
}

void Collector::updateStats(MessageWrapper const& msgWrap) {
   auto const info = withFamily(family(), [this]<class F>(F) {
      auto const& dst = dst_p<F::family>();
      return Mirra::Ipfix::CollectorInfo{dst.ipAddr(), dst.port()};
   });
   Mirra::Ipfix::CollectorStatisticsKey const key(exporter_->ftName(), exporter_->expName(), info);
   auto& stats = exporter_->collStats();
   Mirra::Ipfix::CollectorStatisticsEntry e =
       stats.stats(key).value_or(Mirra::Ipfix::CollectorStatisticsEntry(key));
   Message const& msg = *msgWrap.message();
   double const now = Kivo::currentTime();
   e.exportedMessageTotalCount += 1;
   e.exportedFlowRecordTotalCount += msg.recordCount();
   e.exportedOctetTotalCount += msg.pkt()->bytes();
   e.lastSentTime = now;
   e.lastOptionsDataSentTime = now;
   for (auto const& [setId, rec] : msgWrap.setRecord()) {
      Mirra::Ipfix::SetId const id(setId);
      Mirra::Ipfix::CollectorSetStatisticsEntry set = e.setEntry(id);
      set.setId = id.value();
      set.exportedFlowRecordCount += rec->count();
      e.setEntryIs(set);
   }
   KTRACE_TEXT(9, "Collector::updateStats stats: " << e.mirraString());
   stats.statsIs(e);
}

// ---------------------------------------------------------------------------------------------
// OptionsDataExporterSm

OptionsDataExporterSm::OptionsDataExporterSm(
    Kivo::String expName, Kivo::String ftName, FtId ftId,
    Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig, Kivo::Ptr<ExporterInfo> expInfo,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
    Kivo::Ptr<OptionsDataContainer const> dataContainer,
    Kivo::Ptr<Orbo::TaskScheduler> taskScheduler)
    : expName_(std::move(expName)),
      ftName_(std::move(ftName)),
      ftId_(ftId),
      hwFtConfig_(std::move(hwFtConfig)),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      taskScheduler_(std::move(taskScheduler)) {
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

void OptionsDataExporterSm::handleSourceVersion() {
   TRACE_HANDLER("handleSourceVersion");
   msgCacheValid_ = false;
}

// Messages of the new size from the next full transmission on.
void OptionsDataExporterSm::handleIpfixMtu() {
   TRACE_HANDLER("handleIpfixMtu");
   msgCacheValid_ = false;
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

void OptionsDataExporterSm::maybeBuildMsgCache() {
   KIVO_ASSERT(initialized());
   KIVO_ASSERT(!processing());
   TRACE_ODE(7, "msgCacheValid: " << msgCacheValid_ << ", entries: " << msgCache_.size());
   if (msgCacheValid_) {
      return;
   }
   msgCache_.clear();
   ++msgCacheBuildCount_;
   BuilderWrapper builder(maxMsgSize(), ftId_);
   builder.startMsg();
   for (auto const& [scope, coll] : dataContainer_->data()) {
      for (auto const& [name, source] : coll->sources()) {
         for (DataRecordPtr const& record : source->dataRecord()) {
            std::uint32_t consumed = builder.addSetRecord(source->dataSetId(), record);
            if (consumed == 0 && !builder.empty()) {
               msgCache_.push_back(builder.finalizeMsg());
               builder.startMsg();
               consumed = builder.addSetRecord(source->dataSetId(), record);
            }
            // Not even an empty message holds it: the MTU is below minIpfixMtuForRecord().
            KIVO_ASSERT(consumed > 0);
         }
      }
   }
   if (!builder.empty()) {
      msgCache_.push_back(builder.finalizeMsg());
   }
   msgCacheValid_ = true;
}

void OptionsDataExporterSm::sendDataTables() {
   if (!initialized_ || !processing_) {
      return;
   }
   TRACE_ODE(6, "msgCache count: " << msgCache_.size());
   for (auto const& msg : msgCache_) {
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
      for (auto const& name : collectors_p<F::family>()) {
         collector_.at(name)->sendMessage(*expInfo_, *hwExpConfig_, msgWrap);
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

void OptionsDataExporterSm::dropCollector_p(Kivo::String const& name,
                                            std::set<Kivo::String>& family) {
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
   std::set<Kivo::String>& family = collectors_p<f>();
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
   collector_[name] = Kivo::make<Collector>(name, ci, dst4, dst6, this);
   family.insert(name);
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
      for (auto const& msg : msgCache_) {
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
    Kivo::Ptr<Orbo::TaskScheduler> const& taskScheduler) {
   return Kivo::make<OptionsDataExporterSm>(expName, ftName, ftId, hwFtConfig, hwExpConfig, expInfo,
                                            collStats, dataContainer, taskScheduler);
}

}  // namespace FlowTracking
