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
   // A new socket has no port until it sends: send now, so the exporter is ready again at once
   // rather than a template interval later.
   reactor_.watch(expInfo_->onUdpPam4(), [this] { maybeTxTemplate_p<V4>(); });
   reactor_.watch(expInfo_->onUdpPam6(), [this] { maybeTxTemplate_p<V6>(); });
   reactor_.watch(hwExpConfig_->onCollector4(),
                  [this](Kivo::String const& name) { handleCollectorIpAndPort(name); });
   reactor_.watch(hwExpConfig_->onCollector6(),
                  [this](Kivo::String const& name) { handleCollectorIp6AndPort(name); });
   collectorIpAndPort_.insert(hwExpConfig_->collector4Coll().begin(),
                              hwExpConfig_->collector4Coll().end());
   collectorIp6AndPort_.insert(hwExpConfig_->collector6Coll().begin(),
                               hwExpConfig_->collector6Coll().end());
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
   KTRACE_TEXT(9, "Template pkt->hexdump:\n" << templatePkt_->hexdump());
   templatePktMsgLen_ = static_cast<std::uint16_t>(msgLen);
   if (!templateReady()) {
      templateReadyIs(true);
   }
}

// What an address family is made of: its collectors as configured and as last seen, its source,
// socket, learned port, statistics key and whether it is sending. The IPv4 trace keeps its
// historical double blank before "dst ip".
struct TemplateExporterSmBase::V4 {
   using Dst = Pelto::IpAndPort;
   static constexpr char const* dstText = ",  dst ip: ";
   static auto& seen(TemplateExporterSmBase& b) { return b.collectorIpAndPort_; }
   static bool& sending(TemplateExporterSmBase& b) { return b.sending4_p; }
   static bool otherSending(TemplateExporterSmBase const& b) { return b.sending6_p; }
   static auto const& configured(HwFlowTracking::ExporterConfig const& c) {
      return c.collector4Coll();
   }
   static auto src(HwFlowTracking::ExporterConfig const& c) { return c.srcIp4(); }
   static Kivo::Ptr<Pelto::UdpPam> pam(ExporterInfo const& e) { return e.udpPam4(); }
   static void rxPortIs(ExporterInfo& e, std::uint16_t p) { e.rxPort4Is(p); }
   static void send(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,
                    HwFlowTracking::ExporterConfig const& c, Dst const& dst) {
      sendPkt4(pkt, pam, c.srcIp4(), dst, c.dscp());
   }
   static Mirra::Ipfix::CollectorInfo key(Dst const& d) {
      return Mirra::Ipfix::CollectorInfo::fromIpAndPort(d);
   }
};

struct TemplateExporterSmBase::V6 {
   using Dst = Pelto::Ip6AndPort;
   static constexpr char const* dstText = ", dst ip: ";
   static auto& seen(TemplateExporterSmBase& b) { return b.collectorIp6AndPort_; }
   static bool& sending(TemplateExporterSmBase& b) { return b.sending6_p; }
   static bool otherSending(TemplateExporterSmBase const& b) { return b.sending4_p; }
   static auto const& configured(HwFlowTracking::ExporterConfig const& c) {
      return c.collector6Coll();
   }
   static auto src(HwFlowTracking::ExporterConfig const& c) { return c.srcIp6(); }
   static Kivo::Ptr<Pelto::UdpPam> pam(ExporterInfo const& e) { return e.udpPam6(); }
   static void rxPortIs(ExporterInfo& e, std::uint16_t p) { e.rxPort6Is(p); }
   static void send(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,
                    HwFlowTracking::ExporterConfig const& c, Dst const& dst) {
      sendPkt6(pkt, pam, c.srcIp6(), dst, c.dscp());
   }
   static Mirra::Ipfix::CollectorInfo key(Dst const& d) {
      return Mirra::Ipfix::CollectorInfo::fromIp6AndPort(d);
   }
};

void TemplateExporterSmBase::maybeTxTemplate_p() {
   TRACE_BASE(6, "maybeTxTemplate_p");
   maybeTxTemplate_p<V4>();
   maybeTxTemplate_p<V6>();
}

// A family can send once the template is built and it has a source and a socket.
template <class F>
bool TemplateExporterSmBase::canSend_p() const {
   return templateReady() && !F::src(*hwExpConfig_).isZero() && F::pam(*expInfo_);
}

template <class F>
void TemplateExporterSmBase::maybeTxTemplate_p() {
   bool sent = false;
   if (canSend_p<F>()) {
      auto const& seen = F::seen(*this);
      for (auto const& [name, configured] : F::configured(*hwExpConfig_)) {
         auto it = seen.find(name);
         doTxTemplate_p<F>(it == seen.end() ? typename F::Dst() : it->second, name);
         KTRACE(6, "Template sent to " << name);
         sent = true;
      }
   }
   F::sending(*this) = sent;
   if (sent) {
      schedulePeriodicTemplateTx_p();
   } else if (!F::otherSending(*this)) {
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

template <class F>
void TemplateExporterSmBase::doTxTemplate_p(typename F::Dst const& dst,
                                            Kivo::String const& collector) {
   updateMsgHeader_p(collector);
   Kivo::Ptr<Pelto::UdpPam> const pam = F::pam(*expInfo_);
   F::send(templatePkt_, pam, *hwExpConfig_, dst);
   ++templateTxCount_;
   updateStats(F::key(dst));
   F::rxPortIs(*expInfo_, pam->rxPort());
   updateCollectorOnTx(collector);
   KTRACE(7, "Template sent to " << collector << F::dstText << dst.ipAddr() << ", dst port: "
                                 << dst.port() << ", src: " << F::src(*hwExpConfig_)
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

template <class F>
void TemplateExporterSmBase::mirrorCollector_p(Kivo::String const& name) {
   auto& seen = F::seen(*this);
   auto it = seen.find(name);
   auto const& configured = F::configured(*hwExpConfig_);
   typename F::Dst const* now = configured.find(name);
   if (it != seen.end() && (!now || *now != it->second)) {
      // The old address is no longer a collector: its statistics go with it.
      collStats_->statsDel({ftName_, expName_, F::key(it->second)});
      seen.erase(it);
   }
   if (now) {
      seen[name] = *now;
   }
}

// A collector with an address gets the template at once rather than at the next interval. Once
// the family has no collector left it is not sending, and with neither family sending the
// periodic task stops now rather than after one more empty pass.
template <class F>
void TemplateExporterSmBase::handleCollector_p(Kivo::String const& name) {
   mirrorCollector_p<F>(name);
   auto const& seen = F::seen(*this);
   auto it = seen.find(name);
   if (it == seen.end()) {
      if (F::configured(*hwExpConfig_).empty()) {
         F::sending(*this) = false;
         if (!F::otherSending(*this)) {
            stopPeriodicTemplateTx_p();
         }
      }
      return;
   }
   if (!canSend_p<F>()) {
      return;
   }
   doTxTemplate_p<F>(it->second, name);
   F::sending(*this) = true;
   schedulePeriodicTemplateTx_p();
}

void TemplateExporterSmBase::handleCollectorIpAndPort(Kivo::String const& name) {
   KTRACE(5, "TemplateExporterSmBase::handleCollectorIpAndPort for "
                 << traceId() << ", for collector: " << name);
   handleCollector_p<V4>(name);
}

void TemplateExporterSmBase::handleCollectorIp6AndPort(Kivo::String const& name) {
   KTRACE(5, "TemplateExporterSmBase::handleCollectorIp6AndPort for "
                 << traceId() << ", for collector: " << name);
   handleCollector_p<V6>(name);
}

void TemplateExporterSmBase::handleDel() {
   TRACE_BASE(5, "handleDel");
   for (auto const& [name, addr] : collectorIpAndPort_) {
      collStats_->statsDel({ftName_, expName_, V4::key(addr)});
   }
   for (auto const& [name, addr] : collectorIp6AndPort_) {
      collStats_->statsDel({ftName_, expName_, V6::key(addr)});
   }
}

}  // namespace FlowTracking
