// Which template exporters exist, and the data template exporter itself.
//
//   TemplateSm ─▶ FtTemplateSm (per tracker in the hardware status and the info tree)
//                   ├▶ FtExporterSm (per exporter): the hardware's data templates, set id 2
//                   └▶ OptionsTemplateExporterSm (per exporter): the options templates, set id 3
//
// TemplateSm also builds the options template configuration all trackers share (the interface
// table, VRF table, flow key and flow tracker table templates), and carries out requests to
// clear the collector statistics.
#pragma once

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/OptionsTemplateExporterSm.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

// Sends the data templates the hardware reports in use for one tracker, as one template set,
// rebuilt (once per burst of changes, on its creation task) whenever a template status changes.
class FtExporterSm : public TemplateExporterSmBase {
 public:
   FtExporterSm(Kivo::String expName, Kivo::String ftName, FtId ftId,
                Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig,
                Kivo::Ptr<ExporterInfo> expInfo,
                Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                Kivo::Ptr<Orbo::TaskScheduler> taskScheduler,
                Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl);
   ~FtExporterSm() override;

   bool initialized() const { return initialized_; }

   void handleInitialized();
   void handleTemplateCreationTask();

 private:
   Kivo::String taskPrefix() const override { return "ftExporterSm"; }
   std::uint16_t headerSetId() const override { return 2; }

   // Asserted by name.
   Kivo::Ptr<Ipfix::ElementIdColl const> const& elementIdColl() const { return elementIdColl_; }

   // Watches one template status: any change of its fields or use schedules a rebuild.
   void templateStatusIs(Kivo::Ptr<HwFlowTracking::TemplateStatus const> const& status);
   void templateStatusDel(TemplateId id);
   void templateStatusDelAll();

   // Octets of every template in use; of one template.
   std::uint32_t getFtTemplateLength() const;
   static std::uint32_t getTemplateLength(HwFlowTracking::TemplateStatus const& status);

   struct StatusReactor {
      Kivo::Ptr<HwFlowTracking::TemplateStatus const> status;
      Kivo::Reactor reactor;
   };

   Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus_;
   Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl_;
   std::map<TemplateId, StatusReactor> templateStatus_;
   Kivo::Ptr<Orbo::Task> templateCreationTask_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

class FtTemplateSm : public Kivo::Object {
 public:
   FtTemplateSm(Kivo::String ftName, Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
                Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                Kivo::Ptr<FlowTrackerInfo> ftInfo,
                Kivo::Ptr<OptionsTemplateConfig const> optTemplateConfig,
                Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl);

   bool initialized() const { return initialized_; }
   void handleInitialized();
   void handleExporters(Kivo::String const& expName);

   Kivo::Ptr<FtExporterSm> ftExporterSm(Kivo::String const& expName) const {
      return ftExporterSm_.get(expName);
   }
   Kivo::Ptr<OptionsTemplateExporterSm> optTemplateExporterSm(Kivo::String const& expName) const {
      return optTemplateExporterSm_.get(expName);
   }
   void optTemplateExporterSmDel(Kivo::String const& expName) {
      optTemplateExporterSm_.del(expName);
   }

 private:
   void ftExporterSmDel(Kivo::String const& expName) { ftExporterSm_.del(expName); }
   void ftExporterSmDelAll() { ftExporterSm_.delAll(); }
   void optTemplateExporterSmDelAll() { optTemplateExporterSm_.delAll(); }

   Kivo::String ftName_;
   Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig_;
   Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   Kivo::Ptr<FlowTrackerInfo> ftInfo_;
   Kivo::Ptr<OptionsTemplateConfig const> optTemplateConfig_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl_;
   Kivo::Coll<Kivo::String, FtExporterSm> ftExporterSm_;
   Kivo::Coll<Kivo::String, OptionsTemplateExporterSm> optTemplateExporterSm_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

class TemplateSm : public Kivo::Object {
 public:
   TemplateSm(Kivo::Ptr<Orbo::TaskSchedulerRoot> scheduler,
              Kivo::Ptr<Config const> flowTrackingConfig,
              Kivo::Ptr<ConfigReq const> flowTrackingConfigReq,
              Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
              Kivo::Ptr<HwFlowTracking::Config const> hwConfig,
              Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
              Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo,
              Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl);
   ~TemplateSm() override;

   bool initialized() const { return initialized_; }
   Kivo::Ptr<OptionsTemplateConfig> const& optTemplateConfig() const { return optTemplateConfig_; }
   Kivo::Ptr<FtTemplateSm> ftTemplateSm(Kivo::String const& ftName) const {
      return ftTemplateSm_.get(ftName);
   }

   void handleInitialized();
   void handleHwFtStatus(Kivo::String const& ftName);
   // Resets the statistics entries the clear-counters request names (every one but the 'clear
   // time' entry, which it stamps). Throws Kivo::RangeException, changing nothing, when the
   // request names a tracker or exporter longer than a statistics key holds (128 bytes).
   void clearCounters();
   void initOptTemplateConfig();

 private:
   void ftTemplateSmDel(Kivo::String const& ftName) { ftTemplateSm_.del(ftName); }
   void ftTemplateSmDelAll() { ftTemplateSm_.delAll(); }
   void optTemplateConfigIs() { optTemplateConfig_ = Kivo::make<OptionsTemplateConfig>(); }
   void optTemplateConfigDel() { optTemplateConfig_ = nullptr; }

   Kivo::Ptr<Orbo::TaskSchedulerRoot> scheduler_;
   Kivo::Ptr<Config const> flowTrackingConfig_;
   Kivo::Ptr<ConfigReq const> flowTrackingConfigReq_;
   Kivo::Ptr<HwFlowTracking::Status const> hwStatus_;
   Kivo::Ptr<HwFlowTracking::Config const> hwConfig_;
   Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats_;
   Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo_;
   Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl_;
   Kivo::Coll<Kivo::String, FtTemplateSm> ftTemplateSm_;
   Kivo::Ptr<OptionsTemplateConfig> optTemplateConfig_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

// Its arguments are the constructor's.
template <class... Args>
Kivo::Ptr<TemplateSm> templateSmFactory(Args&&... args) {
   return Kivo::make<TemplateSm>(std::forward<Args>(args)...);
}

}  // namespace FlowTracking
