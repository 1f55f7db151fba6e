#include "Ipfix/OptionsTemplateExporterSm.h"

#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("OptionsTemplateExporterSm"))

namespace FlowTracking {

#define TRACE_OT(level, what) \
   KTRACE(level, "OptionsTemplateExporterSm::" << what << " for " << traceId())

OptionsTemplateExporterSm::OptionsTemplateExporterSm(
    Kivo::String expName, Kivo::String ftName, FtId ftId,
    Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig, Kivo::Ptr<ExporterInfo> expInfo,
    Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
    Kivo::Ptr<Orbo::TaskScheduler> taskScheduler,
    Kivo::Ptr<OptionsTemplateConfig const> optTemplateConfig)
    : TemplateExporterSmBase(std::move(expName), std::move(ftName), ftId, std::move(hwExpConfig),
                             std::move(expInfo), std::move(collStats), std::move(taskScheduler)),
      optTemplateConfig_(std::move(optTemplateConfig)) {
   if (optTemplateConfig_) {
      configReactor_.watch(optTemplateConfig_->onVersion(),
                           [this] { handleOptTemplateConfigVersion(); });
      handleOptTemplateConfigVersion();  // bound to a config: once now (skipped before init)
   }
   handleInitialized();
}

OptionsTemplateExporterSm::~OptionsTemplateExporterSm() {
   configReactor_.reset();
   templateCreationTaskDel();
}

void OptionsTemplateExporterSm::templateCreationTaskIs(
    Kivo::Ptr<Orbo::TaskScheduler> const& scheduler, Orbo::TaskPriority priority,
    Kivo::String const& name) {
   if (templateCreationTask_ && templateCreationTask_->scheduler() == scheduler.get() &&
       templateCreationTask_->priority() == priority && templateCreationTask_->name() == name) {
      return;
   }
   templateCreationTask_ =
       Kivo::make<Orbo::Task>(scheduler, priority, name, [this] { handleTemplateCreationTask(); });
   handleTemplateCreationTask();
}

void OptionsTemplateExporterSm::handleInitialized() {
   TRACE_OT(5, "handleInitialized");
   handleStartup();
   templateCreationTaskIs(taskScheduler(), 3,
                          Kivo::String("optionsTemplateExporterSm") + "-" + "TemplateCreationTask" +
                              "-" + ftName() + "-" + expName());
   initializedIs(true);
   templateCreationTask_->scheduleTask();
}

void OptionsTemplateExporterSm::handleOptTemplateConfigVersion() {
   if (!initialized()) {
      TRACE_OT(5, "handleOptTemplateConfigVersion(skipped)");
      return;
   }
   TRACE_OT(5, "handleOptTemplateConfigVersion");
   templateCreationTask_->scheduleTask();
}

std::uint32_t OptionsTemplateExporterSm::getTemplateLength() const {
   std::uint32_t len = 0;
   if (optTemplateConfig_) {
      for (auto const& [name, t] : optTemplateConfig_->templateEntries()) {
         len += getTemplateEntryLength(t);
      }
   }
   return len;
}

std::uint32_t OptionsTemplateExporterSm::addTemplateFieldSpecifier(
    Kivo::Ptr<Pelto::Pkt> const& pkt, std::uint32_t offset,
    Kivo::Ptr<HwFlowTracking::FtTemplateEntry const> const& entry) const {
   std::uint32_t const next = writeFieldSpecifier(pkt, static_cast<std::uint16_t>(offset), *entry);
   KTRACE(8, "OptionsTemplateExporterSm::addTemplateFieldSpecifier for "
                 << traceId() << ": Scope field: " << entry->position()
                 << ", fieldId: " << entry->fieldId() << ", enterprise: " << entry->enterpriseIe()
                 << ", len: " << entry->fieldLen());
   return next;
}

void OptionsTemplateExporterSm::handleTemplateCreationTask() {
   if (!initialized()) {
      TRACE_OT(5, "handleTemplateCreationTask(skipped)");
      return;
   }
   TRACE_OT(5, "handleTemplateCreationTask");
   templateLenDelAll();
   std::uint32_t const total = getTemplateLength();
   if (total == 0) {
      templatePktIs(nullptr);
      templateReadyIs(false);
      KTRACE(5, "no options templates to send");
      return;
   }
   Kivo::Ptr<Pelto::Pkt> pkt = getPkt();
   pkt->tailGrow(total);
   templatePktIs(pkt);
   templatePktTemplateCountIs(
       static_cast<std::uint16_t>(optTemplateConfig_->templateEntries().size()));
   std::uint32_t offset = 0;
   for (auto const& [name, t] : optTemplateConfig_->templateEntries()) {
      std::uint32_t const len = getTemplateEntryLength(t);
      templateLenIs(t->templateId(), len);
      KTRACE(6, "template " << t->templateId() << ", length: " << len << ", offset: " << offset);
      offset =
          writeOptionsTemplateRecord(pkt, offset, *t,
                                     [this](Kivo::Ptr<Pelto::Pkt> const& p, std::uint32_t at,
                                            Kivo::Ptr<HwFlowTracking::FtTemplateEntry> const& e) {
                                        return addTemplateFieldSpecifier(p, at, e);
                                     });
   }
   finishMessage();
}

void OptionsTemplateExporterSm::updateCollectorOnTx(Kivo::String const& collector) {
   expInfo()->collInfoIs(collector)->optTemplateSentIs(true);
}

}  // namespace FlowTracking
