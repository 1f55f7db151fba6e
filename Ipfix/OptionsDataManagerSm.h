// The options data managers wire the options data subsystem together.
//
// OptionsDataManagerSm (one per agent) owns all options data, runs the two global sources (the
// interface table and the VRF table) and keeps, per tracker that is configured, reported by the
// hardware and in the info tree, one OptionsDataContainer (the global data plus the tracker's own)
// and one FtOptionsDataManagerSm. That one runs the tracker's sources (its flow tracker table row
// and its flow keys) and keeps one OptionsDataExporterSm per exporter of the tracker; those with
// the same message size share one cache of finished messages.
//
// Sources are created at initialization only, before any exporter: exporters require the set of
// sources to stay fixed. Trackers and exporters come and go at any time.
#pragma once

#include <algorithm>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/OptionsDataExporter.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "Vrf/VrfIdMap.h"

namespace FlowTracking {

// The longest options data record any source makes from valid input: the flow tracker table's
// row of a tracker with a 128-octet name, 149 octets.
constexpr std::uint32_t maxOptionsDataRecordLen() {
   return std::max({InterfaceTableSm::maxDataRecordLen(), VrfTableSm::maxDataRecordLen(),
                    FlowTrackerTableSm::maxDataRecordLen(), FlowKeySm::maxDataRecordLen()});
}

// The smallest exporter MTU (HwFlowTracking::ExporterConfig::ipfixMtu) that carries every
// record: 48 + 16 + 4 + 149 = 217. A smaller one stops the process at the first record that
// does not fit an empty message; the agent refuses it.
constexpr std::uint32_t minIpfixMtu() {
   return minIpfixMtuForRecord(maxOptionsDataRecordLen());
}
static_assert(minIpfixMtu() == 217);

// Each exporter's options data goes out under the tracker id that hwFtConfig holds when the
// exporter is made, the id its data and options templates go out under too: a writer creates a
// tracker's configuration before it sets the id, so an id taken when the tracker is first served
// can be the 0 of an unset one.
class FtOptionsDataManagerSm : public Kivo::Object {
 public:
   FtOptionsDataManagerSm(Kivo::String ftName, Kivo::Ptr<HwFlowTracking::Config const> hwConfig,
                          Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
                          Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
                          Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                          Kivo::Ptr<FlowTrackerInfo> flowTrackerInfo, FlowTrackingType ftrType,
                          Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                          Kivo::Ptr<OptionsDataContainer> dataContainer,
                          Kivo::Ptr<Orbo::TaskScheduler> scheduler);
   ~FtOptionsDataManagerSm() override;

   // Creates the tracker's two sources, then serves every exporter the tracker has.
   void handleInitialized();
   // Serves the exporter while both its configuration and its information exist, else drops it.
   void handleExpConfig(Kivo::String const& expName);

 private:
   friend struct OptionsDataManagerSmProbe;

   bool initialized() const { return initialized_; }
   Kivo::Ptr<OptionsDataExporterSm> exporterSm(Kivo::String const& expName) const {
      return exporterSm_.get(expName);
   }
   void exporterSmDel(Kivo::String const& expName) { exporterSm_.del(expName); }
   Kivo::Ptr<FlowTrackerTableSm> const& flowTrackerTableSm() const { return flowTrackerTableSm_; }
   Kivo::Ptr<FlowKeySm> const& flowKeySm() const { return flowKeySm_; }
   Kivo::Ptr<MsgCacheColl> const& msgCaches() const { return msgCaches_; }
   void initFlowKeySm();
   void initFlowTrackerTableSm();

   Kivo::String ftName_;
   Kivo::Ptr<HwFlowTracking::Config const> hwConfig_;
   Kivo::Ptr<HwFlowTracking::Status const> hwStatus_;
   Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig_;
   Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus_;
   Kivo::Ptr<FlowTrackerInfo> flowTrackerInfo_;
   FlowTrackingType ftrType_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   Kivo::Ptr<OptionsDataContainer> dataContainer_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   Kivo::Ptr<FlowTrackerTableSm> flowTrackerTableSm_;
   Kivo::Ptr<FlowKeySm> flowKeySm_;
   // The finished messages of full transmissions, shared by the exporters of one message size.
   Kivo::Ptr<MsgCacheColl> msgCaches_ = Kivo::make<MsgCacheColl>();
   Kivo::Coll<Kivo::String, OptionsDataExporterSm> exporterSm_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

class OptionsDataManagerSm : public Kivo::Object {
 public:
   OptionsDataManagerSm(Kivo::Ptr<HwFlowTracking::Config const> hwConfig,
                        Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
                        Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo,
                        Kivo::Ptr<IntfIndexMap const> intfIndexMap,
                        Kivo::Ptr<Vrf::VrfIdMap::Status const> vrfIdMapStatus,
                        Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                        Kivo::Ptr<Orbo::TaskScheduler> scheduler);
   ~OptionsDataManagerSm() override;

   // Makes the global sources and serves every tracker known so far.
   // REQUIRES: not initialized yet (it runs once, from the constructor).
   void handleInitialized();
   // Serves the tracker while its configuration, status and information all exist, else drops
   // its data, its manager and its container.
   void handleTracker(Kivo::String const& ftName);

 private:
   friend struct OptionsDataManagerSmProbe;

   // The global sources, made once by handleInitialized.
   void initIntfTableSm();
   void initVrfTableSm();

   bool initialized() const { return initialized_; }
   Kivo::Ptr<OptionsDataAll> const& dataAll() const { return dataAll_; }
   Kivo::Ptr<OptionsDataContainer> dataContainer(Kivo::String const& ftName) const {
      return dataContainer_.get(ftName);
   }
   Kivo::Ptr<FtOptionsDataManagerSm> ftManagerSm(Kivo::String const& ftName) const {
      return ftManagerSm_.get(ftName);
   }
   Kivo::Ptr<InterfaceTableSm> const& intfTableSm() const { return intfTableSm_; }
   Kivo::Ptr<VrfTableSm> const& vrfTableSm() const { return vrfTableSm_; }

   Kivo::Ptr<HwFlowTracking::Config const> hwConfig_;
   Kivo::Ptr<HwFlowTracking::Status const> hwStatus_;
   Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo_;
   Kivo::Ptr<IntfIndexMap const> intfIndexMap_;
   Kivo::Ptr<Vrf::VrfIdMap::Status const> vrfIdMapStatus_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   bool initialized_ = false;
   Kivo::Ptr<OptionsDataAll> dataAll_;
   Kivo::Ptr<InterfaceTableSm> intfTableSm_;
   Kivo::Ptr<VrfTableSm> vrfTableSm_;
   Kivo::Coll<Kivo::String, OptionsDataContainer> dataContainer_;
   Kivo::Coll<Kivo::String, FtOptionsDataManagerSm> ftManagerSm_;
   Kivo::Reactor reactor_;
};

Kivo::Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    Kivo::Ptr<HwFlowTracking::Config const> const& hwConfig,
    Kivo::Ptr<HwFlowTracking::Status const> const& hwStatus,
    Kivo::Ptr<FlowTrackingInfo> const& flowTrackingInfo,
    Kivo::Ptr<IntfIndexMap const> const& intfIndexMap,
    Kivo::Ptr<Vrf::VrfIdMap::Status const> const& vrfIdMapStatus,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> const& collStats,
    Kivo::Ptr<Orbo::TaskScheduler> const& scheduler);

}  // namespace FlowTracking
