// The local collector of a tracker with software export.
//
// Software export sends the tracker's flow records to a collector on this system, which listens
// at the source address of one of the tracker's exporters. LocalCollectorConfigSm picks that
// exporter, opens a UDP packet access module bound to its source address (the system picks the
// port) and publishes the result in the tracker's HwFlowTracking::LocalCollectorConfig: exporter
// and VRF, source and destination address (both the exporter's own source address), source and
// destination port (both the module's bound port), DSCP, and last `exporterReady`.
//
// The exporter chosen is the first one, in name order, that is ready for IPv4 or else for IPv6;
// IPv4 wins within one exporter. It stays chosen until its source address of the family in use,
// its IPv6 readiness (when IPv6 is in use), its VRF or its DSCP changes, or it goes: then the
// configuration is cleared (`exporterReady` false first) and chosen again from scratch. A change
// of any other exporter leaves the configuration alone while one is in use.
//
// Nothing is opened inside a reacting handler: every change puts the exporter on a review list,
// and the task "ipfixLocalCollectorTask" works through the list pamCreateRetryInterval after
// the change, yielding when the scheduler asks and carrying on pamCreateRetryInterval later.
// Binding fails with EADDRNOTAVAIL while the exporter's source address is not yet assigned; the
// module is then retried every pamCreateRetryInterval until it is. Any other failure to open
// the module is raised to whoever runs the task and leaves the configuration not ready; the
// exporter is tried again at its next change.
#pragma once

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ip/AllVrfStatusLocal.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Kivo/Entity.h"
#include "Orbo/TaskScheduler.h"
#include "Pelto/UdpPam.h"

namespace FlowTracking {

// The local collector's packet access modules of one tracker. A module is stored before it is
// opened and removed when the local collector lets it go; its flag says it is open.
class LocalCollectorPams : public Kivo::Object {
 public:
   explicit LocalCollectorPams(Kivo::String name) : name_(std::move(name)) {}
   Kivo::String const& name() const { return name_; }

   KIVO_ATTR(Kivo::Ptr<Pelto::UdpPam>, udpPam4, UdpPam4);
   KIVO_ATTR(bool, udpPam4Ready, UdpPam4Ready);
   KIVO_ATTR(Kivo::Ptr<Pelto::UdpPam>, udpPam6, UdpPam6);
   KIVO_ATTR(bool, udpPam6Ready, UdpPam6Ready);

 private:
   Kivo::String name_;
};

// The modules of every tracker with software export, by tracker name.
class LocalCollectorPamsDir : public Kivo::Object {
   KIVO_ENTITIES(Kivo::String, LocalCollectorPams, localCollectorPams, LocalCollectorPams);
};

class LocalCollectorConfigSm;

// Follows one exporter configuration of the tracker and puts the exporter up for review when
// something the local collector depends on changes.
class LocalCollectorExporterReactor : public Kivo::Object {
 public:
   LocalCollectorExporterReactor(Kivo::String name,
                                 Kivo::Ptr<HwFlowTracking::ExporterConfig const> expConfig,
                                 LocalCollectorConfigSm* sm);

   Kivo::String const& name() const { return name_; }
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> const& expConfig() const { return expConfig_; }

   void handleSrcIp4();
   void handleSrcIp6();
   void handleVrfName();
   void handleDscp();
   // Either family's readiness changed.
   void handleExporterReady();

 private:
   Kivo::String name_;
   Kivo::Ptr<HwFlowTracking::ExporterConfig const> expConfig_;
   LocalCollectorConfigSm* sm_;  // owns this reactor
   Kivo::Reactor reactor_;
};

class LocalCollectorConfigSm : public Kivo::Object {
 public:
   // REQUIRES: config->swExport(). Reviews every exporter already configured on the task; nothing
   // is opened before the task runs.
   LocalCollectorConfigSm(Kivo::String name, Kivo::PtrConst<FlowTracking::Config> config,
                          Kivo::Ptr<HwFlowTracking::FtConfig> ftHwConfig,
                          Kivo::Ptr<LocalCollectorPams> localCollectorPams,
                          Kivo::PtrConst<Ip::AllVrfStatusLocal> allVrfStatus,
                          Kivo::Ptr<Orbo::TaskScheduler> scheduler);
   // Closes the modules and clears the local collector configuration.
   ~LocalCollectorConfigSm() override;

   // The tracker's name; also this state machine's trace identity.
   Kivo::String const& name() const { return name_; }

   // Exporters waiting for review, in name order; only entries set true are reviewed.
   KIVO_VALUES(Kivo::String, bool, exporterReviewList, ExporterReviewList);

 public:
   void handleInitialized();
   // The tracker gained, replaced or lost the exporter configuration `expName`.
   void handleExpConfig(Kivo::String const& expName);
   // Reviews one exporter: rebuilds when no exporter is in use yet, or when `expName` is the
   // one in use and it went away or changed in a way that matters.
   void handleExporterConfig(Kivo::String const& expName);
   // Rebuilds: clears everything, then chooses an exporter and opens its module.
   void handleExporterConfig();

 private:
   friend class LocalCollectorExporterReactor;
   friend struct LocalCollectorConfigSmProbe;

   // Asserted by name.
   Kivo::PtrConst<FlowTracking::Config> const& config() const { return config_; }
   Kivo::Ptr<HwFlowTracking::FtConfig> const& ftHwConfig() const { return ftHwConfig_; }

   // Creates the reactor for the tracker's configuration of `expName`, replacing one that
   // follows an older configuration under that name. REQUIRES: the tracker has that exporter.
   Kivo::Ptr<LocalCollectorExporterReactor> exporterConfigIs(Kivo::String const& expName);
   void exporterConfigDel(Kivo::String const& expName) { exporterConfig_.del(expName); }

   // Puts `expName` on the review list and has the task run pamCreateRetryInterval from now,
   // unless it is due earlier.
   void addToPamReviewList(Kivo::String const& expName);
   // The task: reviews the listed exporters in name order, yielding when the scheduler asks.
   void reviewPamCreation();
   // Whether the exporter in use differs from what the configuration holds for it.
   // REQUIRES: `expConfig` is the exporter in use.
   bool exporterModified(Kivo::Ptr<HwFlowTracking::ExporterConfig const> const& expConfig) const;
   // Withdraws readiness first, clears exporter name, destination and DSCP, closes the modules.
   void cleanup();
   // Open a module bound to `srcIp` in the VRF's namespace and store it in LocalCollectorPams.
   // On EADDRNOTAVAIL they clean up and put `name` (the exporter) up for review; any other
   // Kivo::ErrnoException is raised again. A VRF name over the maximum length raises
   // Kivo::RangeException.
   void createPam4(Kivo::String const& name, Pelto::IpAddr srcIp, Kivo::String const& vrfName) {
      createPam_p<Family::v4>(name, srcIp, vrfName);
   }
   void createPam6(Kivo::String const& name, Pelto::Ip6Addr const& srcIp,
                   Kivo::String const& vrfName) {
      createPam_p<Family::v6>(name, srcIp, vrfName);
   }
   template <Family f>
   void createPam_p(Kivo::String const& name, typename FamilyTraits<f>::Addr const& srcIp,
                    Kivo::String const& vrfName);
   bool localExporterInUse_p() const;
   // The module's settings before it is opened; the bind address is set by the caller.
   template <Family f>
   Kivo::Ptr<Pelto::UdpPam> newPam_p(Kivo::String const& expName);
   // Opens `pam` in the VRF's namespace; false when the failure was swallowed for a retry.
   bool openPam_p(Kivo::Ptr<Pelto::UdpPam> const& pam, Kivo::String const& expName,
                  Kivo::String const& vrfName);

   Kivo::String name_;
   Kivo::PtrConst<FlowTracking::Config> config_;
   Kivo::Ptr<HwFlowTracking::FtConfig> ftHwConfig_;
   Kivo::Ptr<LocalCollectorPams> localCollectorPams_;
   Kivo::PtrConst<Ip::AllVrfStatusLocal> allVrfStatus_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   Kivo::Coll<Kivo::String, LocalCollectorExporterReactor> exporterConfig_;
   double pamCreateRetryInterval_ = 0.05;
   Kivo::Ptr<Orbo::TimerTask> pamRetryTask_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

// Its arguments are the constructor's.
template <class... Args>
Kivo::Ptr<LocalCollectorConfigSm> localCollectorConfigSmFactory(Args&&... args) {
   return Kivo::make<LocalCollectorConfigSm>(std::forward<Args>(args)...);
}

}  // namespace FlowTracking
