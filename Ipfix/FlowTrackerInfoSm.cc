#include "Ipfix/FlowTrackerInfoSm.h"

#include <cstdio>
#include <sstream>

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("FlowTrackerInfoSm"))

namespace FlowTracking {

// ---------------------------------------------------------------------------------------------
// ExporterInfoSm

ExporterInfoSm::ExporterInfoSm(FlowTrackingType ftrType, Kivo::String ftName, Kivo::String expName,
                               Kivo::Ptr<HwFlowTracking::ExporterConfig> hwExpConfig,
                               Kivo::Ptr<ExporterInfo> expInfo,
                               Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                               Kivo::Ptr<Ipfix::AgentInfo const> agentInfo)
    : ftrType_(ftrType),
      ftName_(std::move(ftName)),
      expName_(std::move(expName)),
      hwExpConfig_(std::move(hwExpConfig)),
      expInfo_(std::move(expInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)) {
   auto collector = [this](Kivo::String const& name) { handleCollector(name); };
   auto pam = [this] { handlePam(); };
   forEachFamily([&]<class F>(F) {
      reactor_.watch(F::onCollector(*hwExpConfig_), collector);
      reactor_.watch(F::onResolved(*hwExpConfig_), [this] { handlePamManagement_p<F::family>(); });
      reactor_.watch(F::onUdpPam(*expInfo_), pam);
      reactor_.watch(F::onRxPort(*expInfo_), pam);
   });
   reactor_.watch(hwExpConfig_->onVrfName(), [this] { handleVrfName(); });
   handleInitialized();
}

ExporterInfoSm::~ExporterInfoSm() {
   handleDestroyed();
}

void ExporterInfoSm::handleInitialized() {
   KTRACE(5, "ExporterInfoSm::handleInitialized for " << traceId());
   handlePam4Management();
   handlePam6Management();
   initialized_ = true;
}

void ExporterInfoSm::handleCollector(Kivo::String const& name) {
   KTRACE(5, "ExporterInfoSm::handleCollector for " << traceId());
   if (hwExpConfig_->collector4(name) || hwExpConfig_->collector6(name)) {
      if (Kivo::Ptr<CollectorInfo> ci = expInfo_->collInfo(name)) {
         KTRACE(5,
                "Using existing collectorInfo for " << name << ", seqNo: " << ci->ipfixMsgSeqNo());
      } else {
         KTRACE(5, "Initiated sequence number for " << name);
         expInfo_->collInfoIs(name);
      }
      return;
   }
   KTRACE(5, "Deleted sequence number for " << name);
   expInfo_->collInfoDel(name);
}

template <Family f>
void ExporterInfoSm::handleCollectors_p() {
   for (auto const& name : FamilyTraits<f>::collectors(*hwExpConfig_).keys()) {
      handleCollector(name);
   }
}

// A module that cannot be opened (a missing namespace, a VRF name that cannot name one, no
// socket) leaves the family without a module, so not ready; that affects this exporter only. It
// is tried again on the next change of the resolved flag or of the VRF; nothing retries it
// before.
template <Family f>
void ExporterInfoSm::handlePamManagement_p() {
   using F = FamilyTraits<f>;
   KTRACE(5, "ExporterInfoSm::handlePam" << F::digit << "Management for " << traceId());
   if (F::resolved(*hwExpConfig_)) {
      handleCollectors_p<f>();
      try {
         createPam_p<f>();
      } catch (Kivo::Exception const&) {
         deletePam_p<f>();  // traced by createPam_p; a module opened before must not stay in use
      }
   } else {
      deletePam_p<f>();
   }
}

// A socket stays in the namespace it was opened in: the open families are opened again in the
// VRF's new namespace.
void ExporterInfoSm::handleVrfName() {
   KTRACE(5, "ExporterInfoSm::handleVrfName for " << traceId());
   forEachFamily([this]<class F>(F) {
      if (F::resolved(*hwExpConfig_)) {
         handlePamManagement_p<F::family>();
      }
   });
}

// A learned port belongs to the socket it was learned from: it is forgotten before that socket
// is replaced or closed, so the exporter is never published ready with another socket's port.
template <Family f>
void ExporterInfoSm::createPam_p() {
   using F = FamilyTraits<f>;
   Kivo::String const name = "udpPam" + Kivo::String(F::digit) + "-" + ftName_ + "-" + expName_;
   auto pam = Kivo::make<Pelto::UdpPam>(name);
   try {
      Kivo::String const ns = netNsForVrf(hwExpConfig_->vrfName());
      if (!ns.empty()) {
         pam->netNsIs(ns);
      }
      pam->ipv6EnIs(F::ipv6);
      pam->txPrioIs(Pelto::IpTrafficControl::bulk);
      pam->modeIs(Pelto::UdpPam::Mode::open);
   } catch (Kivo::ErrnoException const& e) {
      KTRACE(1, "Caught ErrnoException: " << e.what());
      throw;
   } catch (Kivo::RangeException const& e) {
      KTRACE(1, "Caught RangeException: " << e.what());
      throw;
   }
   KTRACE(3, "Created Pam: " << name << ", txPrio: " << static_cast<int>(pam->txPrio())
                             << ", fd: " << pam->fd());
   F::rxPortIs(*expInfo_, 0);
   F::udpPamIs(*expInfo_, pam);
}

template <Family f>
void ExporterInfoSm::deletePam_p() {
   using F = FamilyTraits<f>;
   if (Kivo::Ptr<Pelto::UdpPam> pam = F::udpPam(*expInfo_)) {
      F::rxPortIs(*expInfo_, 0);
      pam->modeIs(Pelto::UdpPam::Mode::closed);
      F::udpPamIs(*expInfo_, nullptr);
   }
}

// A family is ready with an open module whose port is known. The port is published before
// "ready" and withdrawn after it.
template <Family f>
void ExporterInfoSm::publishReady_p() {
   using F = FamilyTraits<f>;
   if (F::udpPam(*expInfo_) && F::rxPort(*expInfo_) != 0) {
      F::rxPortIs(*hwExpConfig_, F::rxPort(*expInfo_));
      F::readyIs(*hwExpConfig_, true);
   } else {
      F::readyIs(*hwExpConfig_, false);
      F::rxPortIs(*hwExpConfig_, 0);
   }
}

void ExporterInfoSm::handlePam() {
   bool const multiThreaded = agentInfo_ && agentInfo_->multiThreaded();
   KTRACE(5, "ExporterInfoSm::handlePam for "
                 << traceId() << ": exporter4Resolved: " << hwExpConfig_->exporter4Resolved()
                 << ", rxPort4: " << expInfo_->rxPort4() << ", pam4 exists: "
                 << static_cast<bool>(expInfo_->udpPam4()) << ", rxPort6: " << expInfo_->rxPort6()
                 << ", pam6 exists: " << static_cast<bool>(expInfo_->udpPam6())
                 << ", multiThreaded: " << multiThreaded);
   if (multiThreaded) {
      return;
   }
   publishReady_p<Family::v4>();
   publishReady_p<Family::v6>();
}

void ExporterInfoSm::handleDestroyed() {
   KTRACE(5, "ExporterInfoSm::handleDestroyed for " << traceId());
   deletePam4();
   deletePam6();
   expInfo_->collInfoDelAll();
   forEachFamily([this]<class F>(F) {
      F::rxPortIs(*hwExpConfig_, 0);
      F::readyIs(*hwExpConfig_, false);
   });
}

// The family steps the public handlers of the header run.
template void ExporterInfoSm::handleCollectors_p<Family::v4>();
template void ExporterInfoSm::handleCollectors_p<Family::v6>();
template void ExporterInfoSm::handlePamManagement_p<Family::v4>();
template void ExporterInfoSm::handlePamManagement_p<Family::v6>();

// ---------------------------------------------------------------------------------------------
// FlowTrackerInfoSm

FlowTrackerInfoSm::FlowTrackerInfoSm(FlowTrackingType ftrType, Kivo::String ftName,
                                     Kivo::Ptr<HwFlowTracking::FtConfig> hwFtConfig,
                                     Kivo::Ptr<FlowTrackerInfo> ftInfo,
                                     Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                                     Kivo::Ptr<Ipfix::AgentInfo const> agentInfo)
    : ftrType_(ftrType),
      ftName_(std::move(ftName)),
      hwFtConfig_(std::move(hwFtConfig)),
      ftInfo_(std::move(ftInfo)),
      scheduler_(std::move(scheduler)),
      agentInfo_(std::move(agentInfo)) {
   reactor_.watch(hwFtConfig_->onExpConfig(),
                  [this](Kivo::String const& name) { handleHwExpConfig(name); });
   handleInitialized();
}

void FlowTrackerInfoSm::handleInitialized() {
   KTRACE(5, "FlowTrackerInfoSm::handleInitialized for " << ftName_);
   for (auto const& name : hwFtConfig_->expConfigColl().keys()) {
      handleHwExpConfig(name);
   }
   initialized_ = true;
}

Kivo::Ptr<ExporterInfoSm> FlowTrackerInfoSm::expInfoSmIs(
    Kivo::String const& expName, Kivo::Ptr<HwFlowTracking::ExporterConfig> const& cfg,
    Kivo::Ptr<ExporterInfo> const& info) {
   if (Kivo::Ptr<ExporterInfoSm> sm = expInfoSm_.get(expName)) {
      return sm;
   }
   return expInfoSm_.put(expName, Kivo::make<ExporterInfoSm>(ftrType_, ftName_, expName, cfg, info,
                                                             scheduler_, agentInfo_));
}

void FlowTrackerInfoSm::handleHwExpConfig(Kivo::String const& expName) {
   KTRACE(5, "FlowTrackerInfoSm::handleHwExpConfig for " << ftName_);
   if (Kivo::Ptr<HwFlowTracking::ExporterConfig> cfg = hwFtConfig_->expConfig(expName)) {
      expInfoSmIs(expName, cfg, ftInfo_->expInfoIs(expName));
      KTRACE(4, "Created ExporterInfoSm for " << expName);
      return;
   }
   expInfoSmDel(expName);
   ftInfo_->expInfoDel(expName);
   KTRACE(4, "Deleted ExporterInfoSm for " << expName);
}

// ---------------------------------------------------------------------------------------------
// FlowTrackingInfoSm

FlowTrackingInfoSm::FlowTrackingInfoSm(Kivo::Ptr<Orbo::TaskSchedulerRoot> scheduler,
                                       Kivo::Ptr<HwFlowTracking::Config> hwConfig,
                                       Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo,
                                       Kivo::Ptr<Ipfix::AgentInfo const> agentInfo)
    : scheduler_(std::move(scheduler)),
      hwConfig_(std::move(hwConfig)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      agentInfo_(std::move(agentInfo)) {
   reactor_.watch(hwConfig_->onFtConfig(),
                  [this](Kivo::String const& name) { handleHwFtConfig(name); });
   handleInitialized();
}

FlowTrackingInfoSm::~FlowTrackingInfoSm() {
   // Trackers go before the records they maintain, as when they are unconfigured.
   reactor_.reset();
   for (auto const& name : ftInfoSm_.keys()) {
      ftInfoSmDel(name);
      flowTrackingInfo_->ftInfoDel(name);
   }
}

void FlowTrackingInfoSm::handleInitialized() {
   KTRACE(5, "FlowTrackingInfoSm::handleInitialized");
   for (auto const& name : hwConfig_->ftConfigColl().keys()) {
      handleHwFtConfig(name);
   }
   initialized_ = true;
}

void FlowTrackingInfoSm::handleHwFtConfig(Kivo::String const& ftName) {
   KTRACE(5, "FlowTrackingInfoSm::handleHwFtConfig for " << ftName);
   if (Kivo::Ptr<HwFlowTracking::FtConfig> cfg = hwConfig_->ftConfig(ftName)) {
      Kivo::Ptr<FlowTrackerInfo> info = flowTrackingInfo_->ftInfoIs(ftName);
      if (!ftInfoSm_.has(ftName)) {
         ftInfoSm_.put(ftName, Kivo::make<FlowTrackerInfoSm>(flowTrackingInfo_->ftrType(), ftName,
                                                             cfg, info, scheduler_, agentInfo_));
      }
      KTRACE(4, "Created FlowTrackerInfoSm for " << ftName);
      return;
   }
   ftInfoSmDel(ftName);
   flowTrackingInfo_->ftInfoDel(ftName);
   KTRACE(4, "Deleted FlowTrackerInfoSm for " << ftName);
}

Kivo::String formatLogMessage(LogMessage const& msg, std::string_view family, std::string_view exp,
                              std::string_view vrf, std::string_view ftrType,
                              std::string_view tracker) {
   // The formats hold exactly five "%s" and nothing else that printf would read.
   std::string_view const args[] = {family, exp, vrf, ftrType, tracker};
   Kivo::String out;
   std::size_t next = 0;
   for (std::size_t i = 0; i < msg.format.size(); ++i) {
      if (msg.format[i] == '%' && i + 1 < msg.format.size() && msg.format[i + 1] == 's' &&
          next < std::size(args)) {
         out += args[next++];
         ++i;
      } else {
         out += msg.format[i];
      }
   }
   return out;
}

}  // namespace FlowTracking
