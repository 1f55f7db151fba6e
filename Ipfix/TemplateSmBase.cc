#include "Ipfix/TemplateSmBase.h"

#include <cmath>

#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("TemplateExporterSmBase"))

namespace FlowTracking {

using Pelto::IpfixConst;

namespace {

constexpr std::uint32_t headersLen = IpfixConst::messageHeaderLen() + IpfixConst::setHeaderLen();

std::uint32_t nowU32() {
   return static_cast<std::uint32_t>(std::trunc(Kivo::currentTime()));
}

// The statistics key of a collector address of either family.
template <class Dst>
Mirra::Ipfix::CollectorInfo statsKey(Dst const& dst) {
   return {dst.ipAddr(), dst.port()};
}

}  // namespace

#define TRACE_BASE(level, what) \
   KTRACE(level, "TemplateExporterSmBase::" << what << " for " << traceId())

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
   forEachFamily([this]<class F>(F) {
      // A new socket has no port until it sends: send now, so the exporter is ready again at
      // once rather than a template interval later.
      reactor_.watch(F::onUdpPam(*expInfo_), [this] { maybeTxTemplate_p<F::family>(); });
      auto const& configured = F::collectors(*hwExpConfig_);
      collectorAddr_p<F::family>().insert(configured.begin(), configured.end());
   });
   reactor_.watch(hwExpConfig_->onCollector4(),
                  [this](Kivo::String const& name) { handleCollectorIpAndPort(name); });
   reactor_.watch(hwExpConfig_->onCollector6(),
                  [this](Kivo::String const& name) { handleCollectorIp6AndPort(name); });
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
   KTRACE_TEXT(9, "Template pkt->hexdump:\n" << templatePkt_->hexdump());
   templatePktMsgLen_ = static_cast<std::uint16_t>(msgLen);
   if (!templateReady()) {
      templateReadyIs(true);
   }
}

template <Family f>
auto& TemplateExporterSmBase::collectorAddr_p() {
   return familyPick<f>(collectorIpAndPort_, collectorIp6AndPort_);
}

template <Family f>
bool& TemplateExporterSmBase::sending_p() {
   return familyPick<f>(sending4_p, sending6_p);
}

// Whether the family that is not `f` sent in its last pass.
template <Family f>
bool TemplateExporterSmBase::otherSending_p() const {
   return f == Family::v4 ? sending6_p : sending4_p;
}

void TemplateExporterSmBase::maybeTxTemplate_p() {
   TRACE_BASE(6, "maybeTxTemplate_p");
   maybeTxTemplate_p<Family::v4>();
   maybeTxTemplate_p<Family::v6>();
}

// A family can send once the template is built and it has a source and a socket.
template <Family f>
bool TemplateExporterSmBase::canSend_p() const {
   using F = FamilyTraits<f>;
   return templateReady() && !F::srcIp(*hwExpConfig_).isZero() && F::udpPam(*expInfo_);
}

template <Family f>
void TemplateExporterSmBase::maybeTxTemplate_p() {
   using F = FamilyTraits<f>;
   bool sent = false;
   if (canSend_p<f>()) {
      auto const& seen = collectorAddr_p<f>();
      for (auto const& [name, configured] : F::collectors(*hwExpConfig_)) {
         auto it = seen.find(name);
         doTxTemplate_p<f>(it == seen.end() ? typename F::AddrAndPort() : it->second, name);
         KTRACE(6, "Template sent to " << name);
         sent = true;
      }
   }
   sending_p<f>() = sent;
   if (sent) {
      schedulePeriodicTemplateTx_p();
   } else if (!otherSending_p<f>()) {
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

template <Family f>
void TemplateExporterSmBase::doTxTemplate_p(typename FamilyTraits<f>::AddrAndPort const& dst,
                                            Kivo::String const& collector) {
   using F = FamilyTraits<f>;
   updateMsgHeader_p(collector);
   Kivo::Ptr<Pelto::UdpPam> const pam = F::udpPam(*expInfo_);
   F::send(templatePkt_, pam, F::srcIp(*hwExpConfig_), dst, hwExpConfig_->dscp());
   ++templateTxCount_;
   updateStats(statsKey(dst));
   F::rxPortIs(*expInfo_, pam->rxPort());
   updateCollectorOnTx(collector);
   // The IPv4 trace keeps its historical double blank before "dst ip".
   char const* const dstText = f == Family::v4 ? ",  dst ip: " : ", dst ip: ";
   KTRACE(7, "Template sent to " << collector << dstText << dst.ipAddr() << ", dst port: "
                                 << dst.port() << ", src: " << F::srcIp(*hwExpConfig_)
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
      KTRACE(8, "Periodic template Tx task already scheduled");
      return;
   }
   // Whole seconds: an interval under one second repeats on every pass. Kept on purpose.
   std::uint32_t const interval = hwExpConfig_->templateInterval() / 1000;
   KTRACE(6, "Periodic template Tx task scheduled with interval:" << interval);
   periodicTemplateTxTask_->scheduleTaskLowestDelay(interval);
}

void TemplateExporterSmBase::stopPeriodicTemplateTx_p() {
   KTRACE(7, "stopPeriodicTemplateTx_p");
   if (periodicTemplateTxTask_) {
      periodicTemplateTxTask_->stopTimerTask();
   }
}

void TemplateExporterSmBase::handlePeriodicTemplateTx() {
   if (!periodicTemplateTxTask_->running()) {
      KTRACE(5, "Returning because periodicTemplateTxTask not running.");
      return;
   }
   maybeTxTemplate_p();
}

void TemplateExporterSmBase::handleTemplateInterval() {
   TRACE_BASE(5, "handleTemplateInterval");
   stopPeriodicTemplateTx_p();
   maybeTxTemplate_p();
}

template <Family f>
void TemplateExporterSmBase::mirrorCollector_p(Kivo::String const& name) {
   auto& seen = collectorAddr_p<f>();
   auto it = seen.find(name);
   auto const* now = FamilyTraits<f>::collector(*hwExpConfig_, name);
   if (it != seen.end() && (!now || *now != it->second)) {
      // The old address is no longer a collector: its statistics go with it.
      collStats_->statsDel({ftName_, expName_, statsKey(it->second)});
      seen.erase(it);
   }
   if (now) {
      seen[name] = *now;
   }
}

// A collector with an address gets the template at once rather than at the next interval. Once
// the family has no collector left it is not sending, and with neither family sending the
// periodic task stops now rather than after one more empty pass.
template <Family f>
void TemplateExporterSmBase::handleCollector_p(Kivo::String const& name) {
   mirrorCollector_p<f>(name);
   auto const& seen = collectorAddr_p<f>();
   auto it = seen.find(name);
   if (it == seen.end()) {
      if (FamilyTraits<f>::collectors(*hwExpConfig_).empty()) {
         sending_p<f>() = false;
         if (!otherSending_p<f>()) {
            stopPeriodicTemplateTx_p();
         }
      }
      return;
   }
   if (!canSend_p<f>()) {
      return;
   }
   doTxTemplate_p<f>(it->second, name);
   sending_p<f>() = true;
   schedulePeriodicTemplateTx_p();
}

void TemplateExporterSmBase::handleCollectorIpAndPort(Kivo::String const& name) {
   KTRACE(5, "TemplateExporterSmBase::handleCollectorIpAndPort for "
                 << traceId() << ", for collector: " << name);
   handleCollector_p<Family::v4>(name);
}

void TemplateExporterSmBase::handleCollectorIp6AndPort(Kivo::String const& name) {
   KTRACE(5, "TemplateExporterSmBase::handleCollectorIp6AndPort for "
                 << traceId() << ", for collector: " << name);
   handleCollector_p<Family::v6>(name);
}

void TemplateExporterSmBase::handleDel() {
   TRACE_BASE(5, "handleDel");
   forEachFamily([this]<class F>(F) {
      for (auto const& [name, addr] : collectorAddr_p<F::family>()) {
         collStats_->statsDel({ftName_, expName_, statsKey(addr)});
      }
   });
}

}  // namespace FlowTracking
