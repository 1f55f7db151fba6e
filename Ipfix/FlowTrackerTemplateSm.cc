#include "Ipfix/FlowTrackerTemplateSm.h"

#include <sstream>

#include "Pelto/IpfixWire.h"
#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("FlowTrackerTemplateSm"))

namespace FlowTracking {

namespace {

// A statistics key holds its names inline, in at most 128 bytes, so a longer name in a request
// could match no entry. Throws Kivo::RangeException giving the name's size, buffer and contents.
void checkKeyName(Kivo::String const& name) {
   constexpr std::size_t maxSize = Mirra::Ipfix::StringIndex::max() + 1;
   if (name.size() <= maxSize) {
      return;
   }
   std::ostringstream text;
   text << "expected size <= " << maxSize << ", instead got " << name.size()
        << ". Buffer is at address: " << static_cast<void const*>(name.data())
        << " with contents: " << name;
   throw Kivo::RangeException(text.str());
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// FtExporterSm

FtExporterSm::FtExporterSm(Kivo::String expName, Kivo::String ftName, FtId ftId,
                           Kivo::Ptr<HwFlowTracking::ExporterConfig const> hwExpConfig,
                           Kivo::Ptr<ExporterInfo> expInfo,
                           Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                           Kivo::Ptr<Orbo::TaskScheduler> taskScheduler,
                           Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                           Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl)
    : TemplateExporterSmBase(std::move(expName), std::move(ftName), ftId, std::move(hwExpConfig),
                             std::move(expInfo), std::move(collStats), std::move(taskScheduler)),
      hwFtStatus_(std::move(hwFtStatus)),
      elementIdColl_(std::move(elementIdColl)) {
   reactor_.watch(hwFtStatus_->onTemplateStatus(), [this](TemplateId id) {
      if (auto status = hwFtStatus_->templateStatus(id)) {
         templateStatusIs(status);
      } else {
         templateStatusDel(id);
      }
   });
   handleInitialized();
}

FtExporterSm::~FtExporterSm() {
   reactor_.reset();
   templateStatus_.clear();
   templateCreationTask_ = nullptr;
}

void FtExporterSm::templateStatusIs(Kivo::Ptr<HwFlowTracking::TemplateStatus const> const& status) {
   auto [it, added] = templateStatus_.try_emplace(status->templateId());
   if (!added && it->second.status == status) {
      return;
   }
   it->second.reactor.reset();
   it->second.status = status;
   auto rebuild = [this] { templateCreationTask_->scheduleTask(); };
   it->second.reactor.watch(status->onInUse(), rebuild);
   it->second.reactor.watch(status->onGenId(), rebuild);
   it->second.reactor.watch(status->onEntry(), [rebuild](std::uint32_t) { rebuild(); });
   if (initialized_) {
      rebuild();
   }
}

void FtExporterSm::templateStatusDel(TemplateId id) {
   if (templateStatus_.erase(id) && templateCreationTask_) {
      templateCreationTask_->scheduleTask();  // rebuilt without that template
   }
}

void FtExporterSm::templateStatusDelAll() {
   while (!templateStatus_.empty()) {
      templateStatusDel(templateStatus_.begin()->first);
   }
}

std::uint32_t FtExporterSm::getTemplateLength(HwFlowTracking::TemplateStatus const& status) {
   std::uint32_t len = sizeof(Pelto::TemplateHeaderWire);
   for (auto const& [pos, e] : status.entries()) {
      len += fieldSpecifierLength(*e);
   }
   return len;
}

std::uint32_t FtExporterSm::getFtTemplateLength() const {
   std::uint32_t len = 0;
   for (auto const& [id, s] : templateStatus_) {
      if (s.status->inUse()) {
         len += getTemplateLength(*s.status);
      }
   }
   return len;
}

void FtExporterSm::handleInitialized() {
   KTRACE(5, "FtExporterSm::handleInitialized for " << traceId());
   handleStartup();
   templateCreationTask_ =
       Kivo::make<Orbo::Task>(taskScheduler(), 3,
                              Kivo::String("ftExporterSm") + "-" + "TemplateCreationTask" + "-" +
                                  ftName() + "-" + expName(),
                              [this] { handleTemplateCreationTask(); });
   bool anyInUse = false;
   for (auto const& [id, status] : hwFtStatus_->templateStatusColl()) {
      templateStatusIs(status);
      anyInUse |= status->inUse();
   }
   if (anyInUse) {
      templateCreationTask_->scheduleTask();
   }
   initialized_ = true;
}

void FtExporterSm::handleTemplateCreationTask() {
   KTRACE(5, "FtExporterSm::handleTemplateCreationTask for " << traceId());
   if (!templateCreationTask_->running()) {
      KTRACE(5, "Returning because templateCreationTask not running.");
      return;
   }
   templateLenDelAll();
   std::uint32_t const total = getFtTemplateLength();
   if (total == 0) {
      templatePktIs(nullptr);
      templateReadyIs(false);
      KTRACE(5, "Returning because no flow group configured.");
      return;
   }
   Kivo::Ptr<Pelto::Pkt> pkt = getPkt();
   pkt->tailGrow(total);
   templatePktIs(pkt);
   std::uint16_t count = 0;
   std::uint32_t offset = 0;
   for (auto const& [id, s] : templateStatus_) {
      HwFlowTracking::TemplateStatus const& status = *s.status;
      if (!status.inUse()) {
         continue;
      }
      ++count;
      Pelto::TemplateHeader hdr(pkt, offset);
      hdr.templateIdIs(id);
      hdr.fieldCountIs(static_cast<std::uint16_t>(status.entries().size()));
      std::uint32_t const len = getTemplateLength(status);
      templateLenIs(id, len);
      KTRACE_TEXT(
          6, "Template for " << id << " has length: " << len << ", and is at offset: " << offset);
      offset += sizeof(Pelto::TemplateHeaderWire);
      for (auto const& [pos, te] : status.entries()) {
         // clang-format off
         KIVO_ASSERT(elementIdColl()->elementIdCollHas( te->fieldId() ));
         KIVO_ASSERT(te->enterpriseIe() == elementIdColl()->elementIdColl( te->fieldId() ).enterpriseIe());
         // clang-format on
         offset = writeFieldSpecifier(pkt, offset, *te);
         KTRACE_TEXT(8, "Element: " << te->fieldId()
                                    << ", elementId: " << static_cast<std::uint32_t>(te->fieldId())
                                    << ", len: " << te->fieldLen()
                                    << ", enterpriseIe: " << te->enterpriseIe());
      }
   }
   templatePktTemplateCountIs(count);
   finishMessage();
}

// ---------------------------------------------------------------------------------------------
// FtTemplateSm

FtTemplateSm::FtTemplateSm(Kivo::String ftName,
                           Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
                           Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                           Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                           Kivo::Ptr<FlowTrackerInfo> ftInfo,
                           Kivo::Ptr<OptionsTemplateConfig const> optTemplateConfig,
                           Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                           Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl)
    : ftName_(std::move(ftName)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      collStats_(std::move(collStats)),
      ftInfo_(std::move(ftInfo)),
      optTemplateConfig_(std::move(optTemplateConfig)),
      scheduler_(std::move(scheduler)),
      elementIdColl_(std::move(elementIdColl)) {
   auto exporters = [this](Kivo::String const& name) { handleExporters(name); };
   if (hwFtConfig_) {
      reactor_.watch(hwFtConfig_->onExpConfig(), exporters);
   }
   reactor_.watch(ftInfo_->onExpInfo(), exporters);
   handleInitialized();
}

void FtTemplateSm::handleInitialized() {
   KTRACE(5, "FtTemplateSm::handleInitialized for " << ftName_);
   if (hwFtConfig_) {
      for (auto const& name : hwFtConfig_->expConfigColl().keys()) {
         handleExporters(name);
      }
   }
   initialized_ = true;
}

void FtTemplateSm::handleExporters(Kivo::String const& expName) {
   KTRACE(5, "FtTemplateSm::handleExporters for " << ftName_ << " " << expName);
   auto cfg = hwFtConfig_ ? hwFtConfig_->expConfig(expName) : nullptr;
   auto info = ftInfo_->expInfo(expName);
   if (cfg && info) {
      FtId const ftId = hwFtConfig_->ftId();
      if (!ftExporterSm_.has(expName)) {
         ftExporterSm_.put(expName,
                           Kivo::make<FtExporterSm>(expName, ftName_, ftId, cfg, info, collStats_,
                                                    scheduler_, hwFtStatus_, elementIdColl_));
      }
      KTRACE(4, "Created FtExporterSm for " << expName);
      if (!optTemplateExporterSm_.has(expName)) {
         optTemplateExporterSm_.put(
             expName, optionsTemplateExporterSmFactory(expName, ftName_, ftId, cfg, info,
                                                       collStats_, scheduler_, optTemplateConfig_));
      }
      KTRACE(4, "Created OptionsTemplateExporterSm for " << expName);
      return;
   }
   ftExporterSmDel(expName);
   KTRACE(4, "Deleted FtExporterSm for " << expName);
   optTemplateExporterSmDel(expName);
   KTRACE(4, "Deleted OptionsTemplateExporterSm for " << expName);
}

// ---------------------------------------------------------------------------------------------
// TemplateSm

TemplateSm::TemplateSm(Kivo::Ptr<Orbo::TaskSchedulerRoot> scheduler,
                       Kivo::Ptr<Config const> flowTrackingConfig,
                       Kivo::Ptr<ConfigReq const> flowTrackingConfigReq,
                       Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
                       Kivo::Ptr<HwFlowTracking::Config const> hwConfig,
                       Kivo::Ptr<Mirra::Ipfix::CollectorStatistics> collStats,
                       Kivo::Ptr<FlowTrackingInfo> flowTrackingInfo,
                       Kivo::Ptr<Ipfix::ElementIdColl const> elementIdColl)
    : scheduler_(std::move(scheduler)),
      flowTrackingConfig_(std::move(flowTrackingConfig)),
      flowTrackingConfigReq_(std::move(flowTrackingConfigReq)),
      hwStatus_(std::move(hwStatus)),
      hwConfig_(std::move(hwConfig)),
      collStats_(std::move(collStats)),
      flowTrackingInfo_(std::move(flowTrackingInfo)),
      elementIdColl_(std::move(elementIdColl)) {
   auto tracker = [this](Kivo::String const& name) { handleHwFtStatus(name); };
   reactor_.watch(hwStatus_->onFtStatus(), tracker);
   reactor_.watch(flowTrackingInfo_->onFtInfo(), tracker);
   if (flowTrackingConfigReq_) {
      reactor_.watch(flowTrackingConfigReq_->onClearCountersReq(), [this] { clearCounters(); });
   }
   handleInitialized();
}

TemplateSm::~TemplateSm() {
   reactor_.reset();
   ftTemplateSmDelAll();
}

void TemplateSm::handleInitialized() {
   KTRACE(5, "TemplateSm::handleInitialized");
   initOptTemplateConfig();
   for (auto const& name : hwStatus_->ftStatusColl().keys()) {
      handleHwFtStatus(name);
   }
   initialized_ = true;
}

void TemplateSm::handleHwFtStatus(Kivo::String const& ftName) {
   KTRACE(5, "TemplateSm::handleHwFtStatus for " << ftName);
   auto status = hwStatus_->ftStatus(ftName);
   auto info = flowTrackingInfo_->ftInfo(ftName);
   if (status && info) {
      if (!ftTemplateSm_.has(ftName)) {
         ftTemplateSm_.put(ftName, Kivo::make<FtTemplateSm>(
                                       ftName, hwConfig_->ftConfig(ftName), status, collStats_,
                                       info, optTemplateConfig_, scheduler_, elementIdColl_));
      }
      KTRACE(4, "Created FtTemplateSm for " << ftName);
      return;
   }
   ftTemplateSmDel(ftName);
   KTRACE(4, "Deleted FtTemplateSm for " << ftName);
}

void TemplateSm::initOptTemplateConfig() {
   optTemplateConfigIs();
   for (OptionsTable const* table : optionsTables) {
      KTRACE(4, "TemplateSm => " << table->step);
      auto t = optTemplateConfig_->templateEntryIs(Kivo::String(table->name), table->templateId());
      for (RecordField const& f : table->fields) {
         (f.scope ? addScopeField : addField)(elementIdColl_, t, f.element);
      }
   }
   // Observers see one change, once all four templates are complete.
   optTemplateConfig_->versionInc(1);
}

void TemplateSm::clearCounters() {
   static ClearCountersReq const none;
   ClearCountersReq const& req =
       flowTrackingConfigReq_ ? flowTrackingConfigReq_->clearCountersReq() : none;
   if (req.requestTime == 0) {
      KTRACE(5, "TemplateSm::clearCounters requestTime is zero");
      return;
   }
   // Refused before anything is changed.
   checkKeyName(req.ftName);
   checkKeyName(req.expName);
   std::vector<Mirra::Ipfix::CollectorStatisticsEntry> entries;
   collStats_->forEachStats(
       [&](Mirra::Ipfix::CollectorStatisticsEntry const& e) { entries.push_back(e); });
   double const now = Kivo::currentTime();
   for (auto const& e : entries) {
      auto const& k = e.key;
      if (k.tracker().empty() && k.exporter().empty()) {
         KTRACE(6, "TemplateSm::clearCounters skip 'clear time' entry ");
         continue;
      }
      bool const match =
          (req.ftName.empty() || req.ftName == k.tracker()) &&
          (req.expName.empty() || req.expName == k.exporter()) &&
          (req.collector.family == Pelto::IpGenAddr::Family::none ||
           (req.collector == k.collector.addr && req.collectorPort == k.collector.port));
      if (!match) {
         KTRACE(7, "TemplateSm::clearCounters tracker \"" << k.tracker() << "\" exporter \""
                                                          << k.exporter() << "\" did not match ");
         continue;
      }
      KTRACE(5, "TemplateSm::clearCounters clear counters " << k);
      collStats_->statsDel(k);
      Mirra::Ipfix::CollectorStatisticsEntry cleared(k);
      cleared.lastClearedTime = now;
      collStats_->statsIs(cleared);
   }
   // The 'clear time' entry tells readers when counters were last cleared.
   Mirra::Ipfix::CollectorStatisticsEntry clearTime{Mirra::Ipfix::CollectorStatisticsKey()};
   clearTime.lastClearedTime = now;
   collStats_->statsIs(clearTime);
}

}  // namespace FlowTracking
