#include "Ipfix/LocalCollectorConfigSm.h"

#include <cerrno>

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("LocalCollectorConfigSm"))

namespace FlowTracking {

namespace {

constexpr Orbo::TaskPriority taskPriority = 3;

}  // namespace

// ---------------------------------------------------------------------------------------------
// LocalCollectorExporterReactor

LocalCollectorExporterReactor::LocalCollectorExporterReactor(
    Kivo::String name, Kivo::Ptr<HwFlowTracking::ExporterConfig const> expConfig,
    LocalCollectorConfigSm* sm)
    : name_(std::move(name)), expConfig_(std::move(expConfig)), sm_(sm) {
   reactor_.watch(expConfig_->onSrcIp4(), [this] { handleSrcIp4(); });
   reactor_.watch(expConfig_->onSrcIp6(), [this] { handleSrcIp6(); });
   reactor_.watch(expConfig_->onVrfName(), [this] { handleVrfName(); });
   reactor_.watch(expConfig_->onDscp(), [this] { handleDscp(); });
   reactor_.watch(expConfig_->onExporter4Ready(), [this] { handleExporterReady(); });
   reactor_.watch(expConfig_->onExporter6Ready(), [this] { handleExporterReady(); });
}

void LocalCollectorExporterReactor::handleSrcIp4() {
   KTRACE(5, "LocalCollectorExporterReactor::handleSrcIp4 for " << sm_->name() << " for " << name_);
   sm_->addToPamReviewList(name_);
}

void LocalCollectorExporterReactor::handleSrcIp6() {
   KTRACE(5, "LocalCollectorExporterReactor::handleSrcIp6 for " << sm_->name() << " for " << name_);
   sm_->addToPamReviewList(name_);
}

void LocalCollectorExporterReactor::handleVrfName() {
   KTRACE(5,
          "LocalCollectorExporterReactor::handleVrfName for " << sm_->name() << " for " << name_);
   sm_->addToPamReviewList(name_);
}

void LocalCollectorExporterReactor::handleDscp() {
   KTRACE(5, "LocalCollectorExporterReactor::handleDscp for " << sm_->name() << " for " << name_);
   sm_->addToPamReviewList(name_);
}

void LocalCollectorExporterReactor::handleExporterReady() {
   KTRACE(5, "LocalCollectorExporterReactor::handleExporterReady for "
                 << sm_->name() << " for " << name_ << ": exporter4Ready "
                 << expConfig_->exporter4Ready() << ", exporter6Ready "
                 << expConfig_->exporter6Ready());
   sm_->addToPamReviewList(name_);
}

// ---------------------------------------------------------------------------------------------
// LocalCollectorConfigSm

LocalCollectorConfigSm::LocalCollectorConfigSm(Kivo::String name,
                                               Kivo::PtrConst<FlowTracking::Config> config,
                                               Kivo::Ptr<HwFlowTracking::FtConfig> ftHwConfig,
                                               Kivo::Ptr<LocalCollectorPams> localCollectorPams,
                                               Kivo::PtrConst<Ip::AllVrfStatusLocal> allVrfStatus,
                                               Kivo::Ptr<Orbo::TaskScheduler> scheduler)
    : name_(std::move(name)),
      config_(std::move(config)),
      ftHwConfig_(std::move(ftHwConfig)),
      localCollectorPams_(std::move(localCollectorPams)),
      allVrfStatus_(std::move(allVrfStatus)),
      scheduler_(std::move(scheduler)),
      pamRetryTask_(Kivo::make<Orbo::TimerTask>(scheduler_, taskPriority, "ipfixLocalCollectorTask",
                                                [this] { reviewPamCreation(); })) {
   reactor_.watch(ftHwConfig_->onExpConfig(),
                  [this](Kivo::String const& expName) { handleExpConfig(expName); });
   handleInitialized();
}

LocalCollectorConfigSm::~LocalCollectorConfigSm() {
   KTRACE(5, "LocalCollectorConfigSm::~LocalCollectorConfigSm for " << name_);
   reactor_.reset();
   exporterConfig_.delAll();
   pamRetryTask_->stopTimerTask();
   cleanup();
}

void LocalCollectorConfigSm::handleInitialized() {
   KTRACE(5, "LocalCollectorConfigSm::handleInitialized for " << name_);
   KIVO_ASSERT(config()->swExport());
   for (auto const& expName : ftHwConfig_->expConfigColl().keys()) {
      handleExpConfig(expName);
   }
   initialized_ = true;
}

Kivo::Ptr<LocalCollectorExporterReactor> LocalCollectorConfigSm::exporterConfigIs(
    Kivo::String const& expName) {
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> expConfig = ftHwConfig_->expConfig(expName);
   KIVO_ASSERT(expConfig);
   Kivo::Ptr<LocalCollectorExporterReactor> reactor = exporterConfig_.get(expName);
   if (reactor && reactor->expConfig() == expConfig) {
      return reactor;
   }
   return exporterConfig_.put(expName,
                              Kivo::make<LocalCollectorExporterReactor>(expName, expConfig, this));
}

void LocalCollectorConfigSm::handleExpConfig(Kivo::String const& expName) {
   KTRACE(5, "LocalCollectorConfigSm::handleExpConfig for " << name_ << " for " << expName);
   if (ftHwConfig_->expConfig(expName)) {
      exporterConfigIs(expName);
   } else {
      exporterConfigDel(expName);
   }
   addToPamReviewList(expName);
}

void LocalCollectorConfigSm::addToPamReviewList(Kivo::String const& expName) {
   exporterReviewListIs(expName, true);
   KTRACE(5, "scheduling review:: " << expName);
   pamRetryTask_->scheduleTaskLowestDelay(pamCreateRetryInterval_);
}

void LocalCollectorConfigSm::reviewPamCreation() {
   KTRACE(5, "LocalCollectorConfigSm::reviewPamCreation for " << name_);
   if (exporterReviewList_.empty()) {
      KTRACE(5, "nothing to review ::");
      return;
   }
   KTRACE(5, "processing review::");
   try {
      for (auto const& expName : exporterReviewList_.keys()) {
         bool const* pending = exporterReviewList(expName);
         if (pending && *pending) {
            exporterReviewListDel(expName);
            handleExporterConfig(expName);
         }
         if (scheduler_->taskShouldYield()) {
            KTRACE(5, "YIELDING::");
            pamRetryTask_->scheduleTaskLowestDelay(pamCreateRetryInterval_);
            return;
         }
      }
   } catch (...) {
      // The failure goes to whoever runs the task; the exporters not reviewed yet still are,
      // later.
      if (!exporterReviewList_.empty()) {
         pamRetryTask_->scheduleTaskLowestDelay(pamCreateRetryInterval_);
      }
      throw;
   }
   KTRACE(5, "review done ::");
}

// The local collector uses an exporter once its module is open and the configuration says
// ready. A configuration left "ready" by someone else, with no module of ours behind it, does not
// count: it is rebuilt.
bool LocalCollectorConfigSm::localExporterInUse_p() const {
   return ftHwConfig_->localCollectorConfig()->exporterReady() &&
          (localCollectorPams_->udpPam4Ready() || localCollectorPams_->udpPam6Ready());
}

void LocalCollectorConfigSm::handleExporterConfig(Kivo::String const& expName) {
   KTRACE(5, "LocalCollectorConfigSm::handleExporterConfig for " << name_ << " for " << expName);
   if (!localExporterInUse_p()) {
      KTRACE(5, "local exporter not ready::");
      handleExporterConfig();
      return;
   }
   if (expName != ftHwConfig_->localCollectorConfig()->expName()) {
      return;
   }
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> expConfig = ftHwConfig_->expConfig(expName);
   if (!expConfig) {
      KTRACE(5, "exporter doesn't exist::");
      handleExporterConfig();
      return;
   }
   if (exporterModified(expConfig)) {
      handleExporterConfig();
   }
}

bool LocalCollectorConfigSm::exporterModified(
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> const& expConfig) const {
   Kivo::String const& name = expConfig->name();
   KIVO_ASSERT(ftHwConfig()->localCollectorConfig()->expName() == name);
   HwFlowTracking::LocalCollectorConfig const& lcc = *ftHwConfig_->localCollectorConfig();
   // Only the family in use matters: an IPv4 local collector does not care about IPv6.
   if (lcc.srcIp().isV6()) {
      if (Pelto::IpGenAddr(expConfig->srcIp6()) != lcc.srcIp()) {
         KTRACE(5, "SrcIp6 changed::");
         return true;
      }
      if (!expConfig->exporter6Ready()) {
         KTRACE(5, "exporter6 not ready::");
         return true;
      }
   } else if (Pelto::IpGenAddr(expConfig->srcIp4()) != lcc.srcIp()) {
      KTRACE(5, "SrcIp changed::");
      return true;
   }
   if (expConfig->vrfName() != lcc.vrfName()) {
      KTRACE(5, "VRF name changed::");
      return true;
   }
   if (expConfig->dscp() != lcc.dscpValue()) {
      KTRACE(5, "dscp value changed::");
      return true;
   }
   return false;
}

void LocalCollectorConfigSm::handleExporterConfig() {
   KTRACE(5, "LocalCollectorConfigSm::handleExporterConfig for " << name_);
   cleanup();
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> chosen;
   Family family = Family::v4;
   for (auto const& [expName, expConfig] : ftHwConfig_->expConfigColl()) {
      if (expConfig->exporter4Ready() || expConfig->exporter6Ready()) {
         chosen = expConfig;
         family = expConfig->exporter4Ready() ? Family::v4 : Family::v6;
         break;
      }
   }
   if (!chosen) {
      KTRACE(5, "no exporter ready for " << name_);
      return;
   }

   // Read before writing: observers of the local collector configuration run synchronously.
   Kivo::String const expName = chosen->name();
   Kivo::String const vrfName = chosen->vrfName();
   Pelto::IpGenAddr const srcIp =
       withFamily(family, [&]<class F>(F) { return Pelto::IpGenAddr(F::srcIp(*chosen)); });
   Pelto::DscpValue const dscp = chosen->dscp();

   Kivo::Ptr<HwFlowTracking::LocalCollectorConfig> const lcc = ftHwConfig_->localCollectorConfig();
   lcc->expNameIs(expName);
   lcc->vrfNameIs(vrfName);
   lcc->srcIpIs(srcIp);
   lcc->destIpIs(srcIp);
   Kivo::Ptr<Pelto::UdpPam> const pam = withFamily(family, [&]<class F>(F) {
      createPam_p<F::family>(expName, F::srcIp(*chosen), vrfName);
      return F::udpPam(*localCollectorPams_);
   });
   if (!pam || pam->rxPort() == 0) {
      return;
   }
   std::uint16_t const port = pam->rxPort();
   lcc->srcPortIs(port);
   lcc->destPortIs(port);
   lcc->dscpValueIs(dscp);
   lcc->exporterReadyIs(true);
   KTRACE(4, " Resolved ip/port " << srcIp << " : " << port);
}

void LocalCollectorConfigSm::cleanup() {
   KTRACE(5, "LocalCollectorConfigSm::cleanup for " << name_);
   Kivo::Ptr<HwFlowTracking::LocalCollectorConfig> const lcc = ftHwConfig_->localCollectorConfig();
   lcc->exporterReadyIs(false);
   lcc->expNameIs({});
   lcc->destIpIs(Pelto::IpGenAddr(Pelto::IpAddr::ipAddrZero()));
   lcc->dscpValueIs(Pelto::DscpValue());
   forEachFamily([this]<class F>(F) {
      if (Kivo::Ptr<Pelto::UdpPam> pam = F::udpPam(*localCollectorPams_)) {
         F::udpPamReadyIs(*localCollectorPams_, false);
         pam->modeIs(Pelto::UdpPam::Mode::closed);
         F::udpPamIs(*localCollectorPams_, nullptr);
      }
   });
}

template <Family f>
void LocalCollectorConfigSm::createPam_p(Kivo::String const& name,
                                         typename FamilyTraits<f>::Addr const& srcIp,
                                         Kivo::String const& vrfName) {
   using F = FamilyTraits<f>;
   KTRACE(5,
          "LocalCollectorConfigSm::createPam" << F::digit << " for " << name_ << " for " << name);
   Kivo::Ptr<Pelto::UdpPam> const pam = newPam_p<f>(name);
   F::bindAddrIs(*pam, srcIp);
   pam->txPortIs(0);
   if (openPam_p(pam, name, vrfName)) {
      F::udpPamReadyIs(*localCollectorPams_, true);
   }
}

template <Family f>
Kivo::Ptr<Pelto::UdpPam> LocalCollectorConfigSm::newPam_p(Kivo::String const& expName) {
   using F = FamilyTraits<f>;
   auto pam =
       Kivo::make<Pelto::UdpPam>("StftPam" + Kivo::String(F::digit) + "-" + name_ + "-" + expName);
   // Stored before it is opened; a module it replaces is not open any more.
   F::udpPamReadyIs(*localCollectorPams_, false);
   F::udpPamIs(*localCollectorPams_, pam);
   pam->ipv6EnIs(F::ipv6);
   pam->txPrioIs(Pelto::IpTrafficControl::bulk);
   pam->rxPortIs(0);  // the system picks the port
   return pam;
}

bool LocalCollectorConfigSm::openPam_p(Kivo::Ptr<Pelto::UdpPam> const& pam,
                                       Kivo::String const& expName, Kivo::String const& vrfName) {
   Kivo::String const netNs = allVrfStatus_->netNs(vrfName);
   if (!netNs.empty()) {
      pam->netNsIs(netNs);
   }
   try {
      pam->modeIs(Pelto::UdpPam::Mode::bound);
   } catch (Kivo::ErrnoException const& e) {
      // The exporter's source address is not assigned yet: expected for a while, retried.
      bool const retry = e.error() == EADDRNOTAVAIL;
      KTRACE(retry ? 5 : 1, "Caught ErrnoException: " << e.what());
      if (!retry) {
         throw Kivo::ErrnoException(e);
      }
      cleanup();
      addToPamReviewList(expName);
      return false;
   }
   KTRACE(3, "Created Pam: " << pam->name() << ", txPrio: " << static_cast<int>(pam->txPrio())
                             << ", fd: " << pam->fd());
   return true;
}

}  // namespace FlowTracking
