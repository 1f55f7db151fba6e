// The export component as the agent runs it: the records a switch's other agents would write
// (flow-tracking configuration and hardware status, interface and VRF maps, the VRF namespace
// table), the statistics table, and the component's top-level state machines built on them.
//
// A configuration is applied to the records as a difference from the one before, so the
// component sees only what changed: renaming an interface is one interface update; a new
// collector is one collector added to its exporter; an untouched exporter keeps its sockets,
// sequence numbers and template timers. Two keys cannot change in place, the flow tracking type
// and the statistics table's name: a change of either rebuilds the component from scratch.
//
// The host feeds in what the file does not say: which network namespaces exist (an exporter's
// family is resolved when its source address is configured and its VRF's namespace exists) and,
// when the interface table follows the kernel, the host's links.
//
// Single-threaded: everything runs on the scheduler's thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ip/AllVrfStatusLocal.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerTemplateSm.h"
#include "Ipfix/IpfixSm.h"
#include "Ipfix/LocalCollectorConfigSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Orbo/TaskScheduler.h"
#include "Vrf/VrfIdMap.h"
#include "agent/AgentConfig.h"
#include "agent/CollectorHealth.h"

namespace Agent {

class Component {
 public:
   // Network namespaces that exist, by name, with an identity that changes when a namespace is
   // deleted and made again under the same name.
   using NetNsMap = std::map<std::string, std::uint64_t>;

   // The host's links by index, when the interface table follows the kernel.
   using LinkMap = std::map<std::uint32_t, std::string>;

   // Fills the records from `config` and what the host has (`netNs`, `links`), then builds the
   // state machines on them, so that collectors get it all in the first full tables.
   // REQUIRES: `config` was accepted by the configuration loader.
   // Throws Kivo::Exception (e.g. the statistics table is held by another live agent).
   Component(Kivo::Ptr<Orbo::TaskScheduler> scheduler, AgentConfig const& config,
             NetNsMap netNs = {}, LinkMap links = {});
   // Removes the state machines before the records they maintain; the statistics table goes
   // with it.
   ~Component();
   Component(Component const&) = delete;
   Component& operator=(Component const&) = delete;

   AgentConfig const& config() const { return config_; }
   // Applies `next` as a difference from config(). REQUIRES: accepted by the loader.
   void configIs(AgentConfig const& next);

   void netNsIs(NetNsMap netNs);
   // The host's links, when the interface table follows the kernel (ignored otherwise).
   // Links whose name or index cannot go into the table are left out and logged.
   void linkIs(std::uint32_t index, std::string const& name);
   void linkDel(std::uint32_t index);

   // What the component runs on, for status reports and tests.
   Kivo::Ptr<HwFlowTracking::Config> const& hwConfig() const { return hwConfig_; }
   Kivo::Ptr<FlowTracking::FlowTrackingInfo> const& info() const { return info_; }
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> const& collStats() const { return collStats_; }
   Kivo::Ptr<FlowTracking::ConfigReq> const& configReq() const { return configReq_; }
   // Send failures per collector, in the table beside the statistics; entries of collectors
   // that are no longer configured go after each configuration change.
   CollectorHealthTable& health() const { return *health_; }

 private:
   struct ExporterState;

   void build_(AgentConfig const& config);
   void teardown_();
   void applyTrackers_(AgentConfig const& prev, AgentConfig const& next);
   void applyTracker_(TrackerConfig const* prev, TrackerConfig const& next);
   void applyTemplates_(TrackerConfig const* prev, TrackerConfig const& next);
   void applyExporter_(TrackerConfig const& ft, ExporterConfig const* prev,
                       ExporterConfig const& next);
   void applyInterfaces_(AgentConfig const& prev, AgentConfig const& next);
   void applyVrfs_(AgentConfig const& prev, AgentConfig const& next);
   void applySoftwareExport_();
   void healthRetain_();
   // Sets each family's resolved flag from the configuration and the namespaces; a namespace
   // made again under the same name turns the flag off and on, so the sockets are made anew.
   void resolve_(std::string const& ft, ExporterConfig const& exp);
   void resolveAll_();
   void watchReadiness_(std::string const& ft, std::string const& exp);
   void logReadiness_(std::string const& ft, std::string const& exp, FlowTracking::Family family,
                      bool ready);
   void intfIs_(std::string const& name, std::uint32_t index);
   void intfDel_(std::string const& name);

   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   AgentConfig config_;
   NetNsMap netNs_;
   LinkMap links_;  // from the kernel

   // Records.
   Kivo::Ptr<Ipfix::IpfixInitSm> init_;
   Kivo::Ptr<HwFlowTracking::Config> hwConfig_;
   Kivo::Ptr<HwFlowTracking::Status> hwStatus_;
   Kivo::Ptr<FlowTracking::Config> ftConfig_;
   Kivo::Ptr<FlowTracking::ConfigReq> configReq_;
   Kivo::Ptr<FlowTracking::FlowTrackingInfo> info_;
   Kivo::Ptr<FlowTracking::IntfIndexMap> intfIndexMap_;
   Kivo::Ptr<Vrf::VrfIdMap::Status> vrfIdMap_;
   Kivo::Ptr<Ip::AllVrfStatusLocal> allVrfStatus_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   std::unique_ptr<CollectorHealthTable> health_;
   std::unique_ptr<CollectorHealthMonitor> healthMonitor_;

   // State machines.
   Kivo::Ptr<FlowTracking::FlowTrackingInfoSm> infoSm_;
   Kivo::Ptr<FlowTracking::TemplateSm> templateSm_;
   Kivo::Ptr<FlowTracking::OptionsDataManagerSm> optionsDataManagerSm_;
   std::map<std::string, Kivo::Ptr<FlowTracking::LocalCollectorConfigSm>> localCollectorSm_;

   // Per exporter (tracker, exporter): the namespace identity its sockets were made for, and
   // the reactor that logs its readiness.
   std::map<std::pair<std::string, std::string>, std::unique_ptr<ExporterState>> exporters_;
};

}  // namespace Agent
