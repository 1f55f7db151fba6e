#include "Ipfix/TemplateSmBase.h"

#include <cmath>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

namespace FlowTracking {

using Pelto::IpfixConst;

namespace {

constexpr std::uint32_t headersLen = IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen();

Dualog::Facility& facility() {
   static Dualog::Facility& f = Dualog::facility("TemplateExporterSmBase");
   return f;
}

std::uint32_t nowU32() {
   return static_cast<std::uint32_t>(std::trunc(Kivo::currentTime()));
}

}  // namespace

#define TRACE_BASE(level, what) \
   KTRACE(facility(), level, "TemplateExporterSmBase::" << what << " for " << traceId())

TemplateExporterSmBase::TemplateExporterSmBase(
    Kivo::String expName, Kivo::String ftName, FtId ftId,
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig, Kivo::Ptr<ExporterInfo> expInfo,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
    Kivo::Ptr<Orbo::TaskScheduler> taskScheduler)
    : expName_(std::move(expName)),
      ftName_(std::move(ftName)),
      ftId_(ftId),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      collStats_(std::move(collStats)),
      taskScheduler_(std::move(taskScheduler)) {
   reactor_.watch(onTemplateReady(), [this] { handleTemplateReady(); });
   reactor_.watch(hwExpConfig_->onTemplateInterval(), [this] { handleTemplateInterval(); });
   // A new socket has no port until it sends: send now, so the exporter is ready again at once
   // rather than a template interval later.
   reactor_.watch(expInfo_->onUdpPam4(), [this] {
      if (expInfo_->udpPam4()) {
         maybeTxTemplate4_p();
      }
   });
   reactor_.watch(expInfo_->onUdpPam6(), [this] {
      if (expInfo_->udpPam6()) {
         maybeTxTemplate6_p();
      }
   });
   reactor_.watch(hwExpConfig_->onCollector4(),
                  [this](Kivo::String const& name) { mirrorCollector4_p(name); });
   reactor_.watch(hwExpConfig_->onCollector6(),
                  [this](Kivo::String const& name) { mirrorCollector6_p(name); });
   for (auto const& [name, addr] : hwExpConfig_->collector4Coll()) {
      collectorIpAndPort_[name] = addr;
   }
   for (auto const& [name, addr] : hwExpConfig_->collector6Coll()) {
      collectorIp6AndPort_[name] = addr;
   }
}

TemplateExporterSmBase::~TemplateExporterSmBase() {
   handleDel();
}

Kivo::String TemplateExporterSmBase::taskPrefix() const {
   KIVO_ABSTRACT("taskPrefix");
}

std::uint16_t TemplateExporterSmBase::headerSetId() const {
   KIVO_ABSTRACT("headerSetId");
}

void TemplateExporterSmBase::updateCollectorOnTx(Kivo::String const&) {}

std::uint32_t TemplateExporterSmBase::exportTimeU32(Kivo::String const& collector) const {
   auto it = exportTimeU32_.find(collector);
   return it == exportTimeU32_.end() ? 0 : it->second;
}

Kivo::Ptr<Pelto::Pkt> TemplateExporterSmBase::getPkt() const {
   return Kivo::make<Pelto::Pkt>(Kivo::maxU16(), headersLen);
}

void TemplateExporterSmBase::handleStartup() {
   TRACE_BASE(5, "handleStartup");
   if (templateReady()) {
      templateReadyIs(false);
   }
   templateTxCount_ = 0;
   periodicTemplateTxTask_ = Kivo::make<Orbo::Task>(
       taskScheduler_, 3, taskPrefix() + "-" + "PeriodicTxTask" + "-" + expName_ + "-" + ftName_,
       [this] { handlePeriodicTemplateTx(); });
}

void TemplateExporterSmBase::handleTemplateReady() {
   TRACE_BASE(5, "handleTemplateReady");
   if (!templateReady()) {
      templatePktMsgLen_ = 0;
      templatePktTemplateCount_ = 0;
      stopPeriodicTemplateTx_p();
   }
}

void TemplateExporterSmBase::finishMessage() {
   addIpfixHeaders_p();
   maybeTxTemplate_p();
}

void TemplateExporterSmBase::addIpfixHeaders_p() {
   std::uint32_t recordsLen = 0;
   for (auto const& [id, len] : templateLen_) {
      recordsLen += len;
   }
   KIVO_ASSERT(templatePkt_ && templatePkt_->bytes() == recordsLen);
   templatePkt_->headGrow(headersLen);
   std::uint32_t const setLen = IpfixConst::setHeaderLen() + recordsLen;
   Pelto::SetHeader set(templatePkt_, IpfixConst::messageHeaderLen());
   set.setIdIs(headerSetId() & 0xff);
   set.lengthIs(static_cast<std::uint16_t>(setLen));
   std::uint32_t const msgLen = IpfixConst::messageHeaderLen() + setLen;
   Pelto::MessageHeader msg(templatePkt_, 0);
   msg.versionIs(IpfixConst::version());
   msg.lengthIs(static_cast<std::uint16_t>(msgLen));
   msg.exportTimeIs(nowU32());
   msg.observationDomainIdIs(ftId_);
   KTRACE(facility(), 9, "Template pkt->hexdump:\n" << templatePkt_->hexdump());
   templatePktMsgLen_ = static_cast<std::uint16_t>(msgLen);
   if (!templateReady()) {
      templateReadyIs(true);
   }
}

void TemplateExporterSmBase::maybeTxTemplate_p() {
   TRACE_BASE(6, "maybeTxTemplate_p");
   maybeTxTemplate4_p();
   maybeTxTemplate6_p();
}

void TemplateExporterSmBase::maybeTxTemplate4_p() {
   if (templateReady() && !hwExpConfig_->srcIp4().isZero() &&
       !hwExpConfig_->collector4Coll().empty() && expInfo_->udpPam4()) {
      bool sent = false;
      for (auto const& [name, configured] : hwExpConfig_->collector4Coll()) {
         auto it = collectorIpAndPort_.find(name);
         Pelto::IpAndPort const addr =
             it == collectorIpAndPort_.end() ? Pelto::IpAndPort() : it->second;
         doTxTemplate4_p(addr, name);
         KTRACE(facility(), 6, "Template sent to " << name);
         sent = true;
      }
      sending4_p = sent;
      if (sent) {
         schedulePeriodicTemplateTx_p();
         return;
      }
   }
   sending4_p = false;
   if (!sending6_p) {
      stopPeriodicTemplateTx_p();
   }
}

void TemplateExporterSmBase::maybeTxTemplate6_p() {
   if (templateReady() && !hwExpConfig_->srcIp6().isZero() &&
       !hwExpConfig_->collector6Coll().empty() && expInfo_->udpPam6()) {
      bool sent = false;
      for (auto const& [name, configured] : hwExpConfig_->collector6Coll()) {
         auto it = collectorIp6AndPort_.find(name);
         Pelto::Ip6AndPort const addr =
             it == collectorIp6AndPort_.end() ? Pelto::Ip6AndPort() : it->second;
         doTxTemplate6_p(addr, name);
         KTRACE(facility(), 6, "Template sent to " << name);
         sent = true;
      }
      sending6_p = sent;
      if (sent) {
         schedulePeriodicTemplateTx_p();
         return;
      }
   }
   sending6_p = false;
   if (!sending4_p) {
      stopPeriodicTemplateTx_p();
   }
}

void TemplateExporterSmBase::updateMsgHeader_p(Kivo::String const& collector) {
   std::uint32_t const now = nowU32();
   exportTimeU32_[collector] = now;
   Pelto::MessageHeader msg(templatePkt_, 0);
   msg.exportTimeIs(now);
   Kivo::Ptr<CollectorInfo> ci = expInfo_->collInfo(collector);
   msg.sequenceNumberIs(ci ? ci->ipfixMsgSeqNo().value : 0);
}

void TemplateExporterSmBase::doTxTemplate4_p(Pelto::IpAndPort const& dst,
                                             Kivo::String const& collector) {
   updateMsgHeader_p(collector);
   Kivo::Ptr<Pelto::UdpPam> const pam = expInfo_->udpPam4();
   sendPkt4(templatePkt_, pam, hwExpConfig_->srcIp4(), dst, hwExpConfig_->dscp());
   ++templateTxCount_;
   updateStats(Mirra::Ipfix::CollectorInfo::fromIpAndPort(dst));
   expInfo_->rxPort4Is(pam->rxPort());
   updateCollectorOnTx(collector);
   KTRACE(facility(), 7,
          "Template sent to " << collector << ",  dst ip: " << dst.ipAddr()
                              << ", dst port: " << dst.port() << ", src: " << hwExpConfig_->srcIp4()
                              << ", tos :" << static_cast<int>(pam->txTos()));
}

void TemplateExporterSmBase::doTxTemplate6_p(Pelto::Ip6AndPort const& dst,
                                             Kivo::String const& collector) {
   updateMsgHeader_p(collector);
   Kivo::Ptr<Pelto::UdpPam> const pam = expInfo_->udpPam6();
   sendPkt6(templatePkt_, pam, hwExpConfig_->srcIp6(), dst, hwExpConfig_->dscp());
   ++templateTxCount_;
   updateStats(Mirra::Ipfix::CollectorInfo::fromIp6AndPort(dst));
   expInfo_->rxPort6Is(pam->rxPort());
   updateCollectorOnTx(collector);
   KTRACE(facility(), 7,
          "Template sent to " << collector << ", dst ip: " << dst.ipAddr()
                              << ", dst port: " << dst.port() << ", src: " << hwExpConfig_->srcIp6()
                              << ", tos :" << static_cast<int>(pam->txTos()));
}

void TemplateExporterSmBase::updateStats(Mirra::Ipfix::CollectorInfo const& collector) {
   Mirra::Ipfix::CollectorStatisticsKey const key(ftName_, expName_, collector);
   Mirra::Ipfix::CollectorStatisticsEntry e =
       collStats_->stats(key).value_or(Mirra::Ipfix::CollectorStatisticsEntry(key));
   double const now = Kivo::currentTime();
   e.exportedMessageTotalCount += 1;
   e.exportedOctetTotalCount += templatePktMsgLen_;
   e.lastSentTime = now;
   e.lastTemplateSentTime = now;
   Mirra::Ipfix::SetId const setId(headerSetId());
   Mirra::Ipfix::CollectorSetStatisticsEntry set = e.setEntry(setId);
   set.setId = setId.value();
   set.exportedTemplateCount += templatePktTemplateCount_;
   e.setEntryIs(set);
   collStats_->statsIs(e);
}

void TemplateExporterSmBase::schedulePeriodicTemplateTx_p() {
   if (periodicTemplateTxTask_->scheduled()) {
      KTRACE(facility(), 8, "Periodic template Tx task already scheduled");
      return;
   }
   // Whole seconds: an interval under one second repeats on every pass. Kept on purpose.
   std::uint32_t const interval = hwExpConfig_->templateInterval() / 1000;
   KTRACE(facility(), 6, "Periodic template Tx task scheduled with interval:" << interval);
   periodicTemplateTxTask_->scheduleTaskLowestDelay(interval);
}

void TemplateExporterSmBase::stopPeriodicTemplateTx_p() {
   KTRACE(facility(), 7, "stopPeriodicTemplateTx_p");
   if (periodicTemplateTxTask_) {
      periodicTemplateTxTask_->stopTimerTask();
   }
}

void TemplateExporterSmBase::handlePeriodicTemplateTx() {
   if (!periodicTemplateTxTask_->running()) {
      KTRACE(facility(), 5, "Returning because periodicTemplateTxTask not running.");
      return;
   }
   maybeTxTemplate_p();
}

void TemplateExporterSmBase::handleTemplateInterval() {
   TRACE_BASE(5, "handleTemplateInterval");
   stopPeriodicTemplateTx_p();
   maybeTxTemplate_p();
}

void TemplateExporterSmBase::mirrorCollector4_p(Kivo::String const& name) {
   auto it = collectorIpAndPort_.find(name);
   Pelto::IpAndPort const* now = hwExpConfig_->collector4(name);
   if (it != collectorIpAndPort_.end() && (!now || *now != it->second)) {
      // The old address is no longer a collector: its statistics go with it.
      collStats_->statsDel(
          {ftName_, expName_, Mirra::Ipfix::CollectorInfo::fromIpAndPort(it->second)});
      collectorIpAndPort_.erase(it);
   }
   if (now) {
      collectorIpAndPort_[name] = *now;
   }
   handleCollectorIpAndPort(name);
}

void TemplateExporterSmBase::mirrorCollector6_p(Kivo::String const& name) {
   auto it = collectorIp6AndPort_.find(name);
   Pelto::Ip6AndPort const* now = hwExpConfig_->collector6(name);
   if (it != collectorIp6AndPort_.end() && (!now || *now != it->second)) {
      collStats_->statsDel(
          {ftName_, expName_, Mirra::Ipfix::CollectorInfo::fromIp6AndPort(it->second)});
      collectorIp6AndPort_.erase(it);
   }
   if (now) {
      collectorIp6AndPort_[name] = *now;
   }
   handleCollectorIp6AndPort(name);
}

void TemplateExporterSmBase::handleCollectorIpAndPort(Kivo::String const& name) {
   KTRACE(facility(), 5,
          "TemplateExporterSmBase::handleCollectorIpAndPort for " << traceId()
                                                                  << ", for collector: " << name);
   auto it = collectorIpAndPort_.find(name);
   if (!templateReady() || it == collectorIpAndPort_.end() || !expInfo_->udpPam4() ||
       hwExpConfig_->srcIp4().isZero()) {
      return;
   }
   doTxTemplate4_p(it->second, name);
   sending4_p = true;
   schedulePeriodicTemplateTx_p();
}

void TemplateExporterSmBase::handleCollectorIp6AndPort(Kivo::String const& name) {
   KTRACE(facility(), 5,
          "TemplateExporterSmBase::handleCollectorIp6AndPort for " << traceId()
                                                                   << ", for collector: " << name);
   auto it = collectorIp6AndPort_.find(name);
   if (!templateReady() || it == collectorIp6AndPort_.end() || !expInfo_->udpPam6() ||
       hwExpConfig_->srcIp6().isZero()) {
      return;
   }
   doTxTemplate6_p(it->second, name);
   sending6_p = true;
   schedulePeriodicTemplateTx_p();
}

void TemplateExporterSmBase::handleDel() {
   TRACE_BASE(5, "handleDel");
   for (auto const& [name, addr] : collectorIpAndPort_) {
      collStats_->statsDel({ftName_, expName_, Mirra::Ipfix::CollectorInfo::fromIpAndPort(addr)});
   }
   for (auto const& [name, addr] : collectorIp6AndPort_) {
      collStats_->statsDel({ftName_, expName_, Mirra::Ipfix::CollectorInfo::fromIp6AndPort(addr)});
   }
}

}  // namespace FlowTracking
