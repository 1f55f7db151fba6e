#include "Ipfix/OptionsDataManagerSm.h"

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("OptionsDataManagerSm"))

namespace FlowTracking {

// ---------------------------------------------------------------------------------------------
// FtOptionsDataManagerSm

FtOptionsDataManagerSm::FtOptionsDataManagerSm(
    Kivo::String ftName, Kivo::Ptr<HwFlowTracking::Config const> hwConfig,
    Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
    Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
    Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
    Kivo::Ptr<FlowTrackerInfo> flowTrackerInfo, FlowTrackingType ftrType,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
    Kivo::Ptr<OptionsDataContainer> dataContainer, Kivo::Ptr<Orbo::TaskScheduler> scheduler)
    : ftName_(std::move(ftName)),
      hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      flowTrackerInfo_(std::move(flowTrackerInfo)),
      ftrType_(ftrType),
      collStats_(std::move(collStats)),
      dataContainer_(std::move(dataContainer)),
      scheduler_(std::move(scheduler)) {
   auto exporter = [this](Kivo::String const& name) { handleExpConfig(name); };
   reactor_.watch(hwFtConfig_->onExpConfig(), exporter);
   reactor_.watch(flowTrackerInfo_->onExpInfo(), exporter);
   handleInitialized();
}

FtOptionsDataManagerSm::~FtOptionsDataManagerSm() {
   reactor_.reset();
   exporterSm_.delAll();  // exporters go before the sources they follow
}

void FtOptionsDataManagerSm::handleInitialized() {
   KTRACE(5, "FtOptionsDataManagerSm::handleInitialized for " << ftName_);
   initFlowKeySm();
   initFlowTrackerTableSm();
   for (auto const& name : hwFtConfig_->expConfigColl().keys()) {
      handleExpConfig(name);
   }
   initialized_ = true;
}

void FtOptionsDataManagerSm::initFlowKeySm() {
   auto const tracker = dataContainer_->data().get(OptionsDataScope::scopeTracker);
   auto const update = dataContainer_->update().get(OptionsDataScope::scopeTracker);
   flowKeySm_ =
       flowKeySmFactory(tracker->sourceIs("FlowKey", FlowKeySm::setId()), update, hwFtStatus_);
}

void FtOptionsDataManagerSm::initFlowTrackerTableSm() {
   auto const tracker = dataContainer_->data().get(OptionsDataScope::scopeTracker);
   auto const update = dataContainer_->update().get(OptionsDataScope::scopeTracker);
   flowTrackerTableSm_ =
       flowTrackerTableSmFactory(tracker->sourceIs("FlowTrackerTable", FlowTrackerTableSm::setId()),
                                 update, hwStatus_, hwFtConfig_, hwFtStatus_, ftrType_, scheduler_);
}

void FtOptionsDataManagerSm::handleExpConfig(Kivo::String const& expName) {
   auto const cfg = hwFtConfig_->expConfig(expName);
   auto const info = flowTrackerInfo_->expInfo(expName);
   KTRACE(5, "FtOptionsDataManagerSm::handleExpConfig for " << ftName_ << " " << expName
                                                            << ", hwExpConfig:" << bool(cfg)
                                                            << ", expInfo:" << bool(info));
   if (cfg && info) {
      if (!exporterSm_.has(expName)) {
         // The tracker's id as configured now, as the template exporters of this exporter take
         // it: it may have been set after this manager was made.
         auto sm =
             optionsDataExporterSmFactory(expName, ftName_, hwFtConfig_->ftId(), hwFtConfig_, cfg,
                                          info, collStats_, dataContainer_, scheduler_, msgCaches_);
         sm->updateDataCoalesceTimeIs(defaultUpdateDataCoalesceTime());
         exporterSm_.put(expName, sm);
      }
      return;
   }
   exporterSmDel(expName);
}

// ---------------------------------------------------------------------------------------------
// OptionsDataManagerSm

OptionsDataManagerSm::OptionsDataManagerSm(Kivo::Ptr<HwFlowTracking::Config const> hwConfig,
                                           Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
                                           Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo,
                                           Kivo::Ptr<IntfIndexMap const> intfIndexMap,
                                           Kivo::Ptr<Vrf::VrfIdMap::Status const> vrfIdMapStatus,
                                           Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                                           Kivo::Ptr<Orbo::TaskScheduler> scheduler)
    : hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      intfIndexMap_(std::move(intfIndexMap)),
      vrfIdMapStatus_(std::move(vrfIdMapStatus)),
      collStats_(std::move(collStats)),
      scheduler_(std::move(scheduler)) {
   auto tracker = [this](Kivo::String const& name) { handleTracker(name); };
   reactor_.watch(flowTrackingInfo_->onFtInfo(), tracker);
   reactor_.watch(hwConfig_->onFtConfig(), tracker);
   reactor_.watch(hwStatus_->onFtStatus(), tracker);
   handleInitialized();
}

OptionsDataManagerSm::~OptionsDataManagerSm() {
   reactor_.reset();
   for (auto const& name : ftManagerSm_.keys()) {
      dataAll_->trackerDataDel(name);
      ftManagerSm_.del(name);
      dataContainer_.del(name);
   }
}

void OptionsDataManagerSm::handleInitialized() {
   KIVO_ASSERT(!initialized());
   KTRACE(5, "OptionsDataManagerSm::handleInitialized");
   dataAll_ = Kivo::make<OptionsDataAll>();
   initIntfTableSm();
   initVrfTableSm();
   for (auto const& name : flowTrackingInfo_->ftInfoColl().keys()) {
      handleTracker(name);
   }
   initialized_ = true;
}

void OptionsDataManagerSm::initIntfTableSm() {
   auto const source =
       dataAll_->globalData()->sourceIs("InterfaceTable", InterfaceTableSm::setId());
   intfTableSm_ = interfaceTableSmFactory(source, dataAll_->globalUpdate(), intfIndexMap_);
}

void OptionsDataManagerSm::initVrfTableSm() {
   auto const source = dataAll_->globalData()->sourceIs("VrfTable", VrfTableSm::setId());
   vrfTableSm_ = vrfTableSmFactory(source, dataAll_->globalUpdate(), vrfIdMapStatus_);
}

void OptionsDataManagerSm::handleTracker(Kivo::String const& ftName) {
   auto const ftConfig = hwConfig_->ftConfig(ftName);
   auto const ftStatus = hwStatus_->ftStatus(ftName);
   auto const ftInfo = flowTrackingInfo_->ftInfo(ftName);
   KTRACE(5, "OptionsDataManagerSm::handleTracker ftName:"
                 << ftName << ", hwFtConfig:" << bool(ftConfig) << ", hwFtStatus:" << bool(ftStatus)
                 << ", ftInfo:" << bool(ftInfo));
   if (ftConfig && ftStatus && ftInfo) {
      if (ftManagerSm_.has(ftName)) {
         return;
      }
      auto const trackerData = dataAll_->trackerDataIs(ftName);
      auto const container = dataContainer_.is(ftName);
      container->dataIs(dataAll_->globalData());
      container->dataIs(trackerData->data());
      container->updateIs(dataAll_->globalUpdate());
      container->updateIs(trackerData->update());
      ftManagerSm_.put(
          ftName, Kivo::make<FtOptionsDataManagerSm>(ftName, hwConfig_, hwStatus_, ftConfig,
                                                     ftStatus, ftInfo, flowTrackingInfo_->ftrType(),
                                                     collStats_, container, scheduler_));
      return;
   }
   dataAll_->trackerDataDel(ftName);
   ftManagerSm_.del(ftName);
   dataContainer_.del(ftName);
}

Kivo::Ptr<OptionsDataManagerSm> optionsDataManagerSmFactory(
    Kivo::Ptr<HwFlowTracking::Config const> const& hwConfig,
    Kivo::Ptr<HwFlowTracking::Status const> const& hwStatus,
    Kivo::Ptr<FlowTrackingInfo> const& flowTrackingInfo,
    Kivo::Ptr<IntfIndexMap const> const& intfIndexMap,
    Kivo::Ptr<Vrf::VrfIdMap::Status const> const& vrfIdMapStatus,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> const& collStats,
    Kivo::Ptr<Orbo::TaskScheduler> const& scheduler) {
   return Kivo::make<OptionsDataManagerSm>(hwConfig, hwStatus, flowTrackingInfo, intfIndexMap,
                                           vrfIdMapStatus, collStats, scheduler);
}

}  // namespace FlowTracking
