// OptionsTemplateExporterSm: sends the options templates of one (tracker, exporter) as one options
// template set (set id 3), rebuilt from the shared OptionsTemplateConfig on every version bump
// (bursts of bumps coalesce into one rebuild on the creation task) and re-sent by the base every
// template interval. After a send to a collector, the collector is marked as having its options
// templates, which is what lets options data go to it.
#pragma once

#include "Ipfix/OptionsTemplate.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

class OptionsTemplateExporterSm : public TemplateExporterSmBase {
 public:
   OptionsTemplateExporterSm(Kivo::String expName, Kivo::String ftName, FtId ftId,
                             Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig,
                             Kivo::Ptr<ExporterInfo> expInfo,
                             Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                             Kivo::Ptr<Orbo::TaskScheduler> taskScheduler,
                             Kivo::Ptr<OptionsTemplateConfig const> optTemplateConfig);
   ~OptionsTemplateExporterSm() override;

   void handleInitialized();
   void handleOptTemplateConfigVersion();
   void handleTemplateCreationTask();

 private:
   Kivo::String taskPrefix() const override { return "optionsTemplateExporterSm"; }
   std::uint16_t headerSetId() const override { return 3; }
   void updateCollectorOnTx(Kivo::String const& collector) override;

   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }
   void templateCreationTaskIs(Kivo::Ptr<Orbo::TaskScheduler> const& scheduler,
                               Orbo::TaskPriority priority, Kivo::String const& name);
   void templateCreationTaskDel() { templateCreationTask_ = nullptr; }
   // Octets of all options template records, set header not included.
   std::uint32_t getTemplateLength() const;
   // Writes one field specifier at `offset` and returns the offset after it.
   std::uint32_t addTemplateFieldSpecifier(
       Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint32_t offset,
       Kivo::Ptr<HwFlowTracking::FtTemplateEntry const> const& entry) const;

   Kivo::Ptr<OptionsTemplateConfig const> optTemplateConfig_;
   bool initialized_ = false;
   Kivo::Ptr<Orbo::Task> templateCreationTask_;
   Kivo::Reactor configReactor_;
};

// Its arguments are the constructor's.
template <class... Args>
Kivo::Ptr<OptionsTemplateExporterSm> optionsTemplateExporterSmFactory(Args&&... args) {
   return Kivo::make<OptionsTemplateExporterSm>(std::forward<Args>(args)...);
}

}  // namespace FlowTracking
