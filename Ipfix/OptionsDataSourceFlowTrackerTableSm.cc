#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"

#include <algorithm>
#include <ostream>

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("FlowTrackerTableSm"))

namespace FlowTracking {

namespace {

// Random n-out-of-N sampling (RFC 5477 selector algorithm 3), one packet out of the sample rate.
constexpr unsigned selectorAlgorithmRandomNOutOfN = 3;
constexpr unsigned samplingSize = 1;

}  // namespace

Kivo::String stringValue(FlowTrackerTableSm::Param p) {
   switch (p) {
      case FlowTrackerTableSm::Param::inactiveTimeout:
         return "inactiveTimeout";
      case FlowTrackerTableSm::Param::activeInterval:
         return "activeInterval";
      case FlowTrackerTableSm::Param::sampleRate:
         return "sampleRate";
   }
   return std::to_string(static_cast<unsigned>(p));
}

std::ostream& operator<<(std::ostream& os, FlowTrackerTableSm::Param p) {
   return os << stringValue(p);
}

FlowTrackerTableSm::FlowTrackerTableSm(Kivo::Ptr<OptionsDataSource> dataSource,
                                       Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                                       Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
                                       Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
                                       Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                                       FlowTrackingType ftrType,
                                       Kivo::Ptr<Orbo::TaskScheduler> scheduler)
    : dataSource_(std::move(dataSource)),
      dataUpdate_(std::move(dataUpdate)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      ftrType_(ftrType),
      scheduler_(std::move(scheduler)) {
   reactor_.watch(hwFtStatus_->onInactiveTimeout(),
                  [this] { handleParamChange(Param::inactiveTimeout); });
   reactor_.watch(hwFtStatus_->onActiveInterval(),
                  [this] { handleParamChange(Param::activeInterval); });
   reactor_.watch(hwStatus_->onSampleRate(), [this] { handleParamChange(Param::sampleRate); });
   setIdValIs(setId());
   updateDelayIs(defaultUpdateDelay());
   updateTaskDel();
   initializedIs(false);
   handleInitialized();
}

FlowTrackerTableSm::~FlowTrackerTableSm() {
   reactor_.reset();
   updateTaskDel();
}

TemplateId FlowTrackerTableSm::setId() {
   return flowTrackerTable.templateId();
}

void FlowTrackerTableSm::updateTaskIs(Kivo::Ptr<Orbo::TaskScheduler> const& scheduler,
                                      Orbo::TaskPriority priority, Kivo::String const& name) {
   updateTask_ = Kivo::make<Orbo::TimerTask>(scheduler, priority, name, [this] { doUpdate(); });
}

DataRecordPtr FlowTrackerTableSm::makeDataRecord() const {
   // Whole seconds.
   FlowTracking::ActiveInterval const active = hwFtStatus_->activeInterval();
   KIVO_ASSERT(active.seconds() < Kivo::maxU16());
   auto const flowActiveTimeout = static_cast<unsigned>(active.seconds());
   FlowTracking::InactiveTimeout const inactive = hwFtStatus_->inactiveTimeout();
   KIVO_ASSERT(inactive.seconds() < Kivo::maxU16());
   auto const flowIdleTimeout = static_cast<unsigned>(inactive.seconds());

   FtId const observationDomainId = hwFtConfig_ ? hwFtConfig_->ftId() : 0;
   Kivo::String const observationDomainName = hwFtConfig_ ? hwFtConfig_->name() : Kivo::String();
   std::uint32_t const samplingPopulation = hwStatus_->sampleRate();
   auto const flowTrackingType = static_cast<unsigned>(ftrType_);

   RecordWriter w(
       flowTrackerTable.fields,
       std::min<std::size_t>(observationDomainName.size(), Pelto::IpfixConst::maxShortVarLen()));
   auto const& [pos, max] = w.cursor();
   w.add(observationDomainId);
   w.add(observationDomainName);
   w.add(flowActiveTimeout);
   w.add(flowIdleTimeout);
   w.add(selectorAlgorithmRandomNOutOfN);
   w.add(samplingSize);
   w.add(samplingPopulation);
   w.add(flowTrackingType);
   KIVO_ASSERT(pos == max);
   KTRACE(7, "FlowTrackerTableSm::"
                 << "makeDataRecord"
                 << " for " << hwFtStatus_->name() << " observationDomainId:" << observationDomainId
                 << ", observationDomainName:" << observationDomainName << ", flowActiveTimeout:"
                 << flowActiveTimeout << ", flowIdleTimeout:" << flowIdleTimeout
                 << ", selectorAlgorithm:" << selectorAlgorithmRandomNOutOfN << ", samplingSize:"
                 << samplingSize << ", samplingPopulation:" << samplingPopulation
                 << ", flowTrackingType:" << flowTrackingType);
   return w.dataRecord();
}

void FlowTrackerTableSm::handleInitialized() {
   KTRACE(5, "FlowTrackerTableSm::handleInitialized for " << hwFtStatus_->name());
   updateTaskIs(scheduler_, 3, updateTaskName());
   initializedIs(true);
   DataRecordPtr const record = makeDataRecord();
   KTRACE(6, "record len:" << record->dataLen());
   dataSource_->dataRecordDelAll();
   dataSource_->dataRecordIs(record);
   // The whole source is what an exporter sends first; nothing is posted as an update.
   dataSource_->versionInc(1);
}

void FlowTrackerTableSm::handleParamChange(Param whatChanged) {
   KTRACE(5, "FlowTrackerTableSm::handleParamChange for " << hwFtStatus_->name()
                                                          << " param changed: " << whatChanged);
   if (!updateTask_) {
      return;
   }
   updateTask_->scheduleTaskLowestDelay(updateDelay());
}

void FlowTrackerTableSm::doUpdate() {
   if (!initialized()) {
      KTRACE(5, "FlowTrackerTableSm::doUpdate(skipped) for " << hwFtStatus_->name());
      return;
   }
   KTRACE(5, "FlowTrackerTableSm::doUpdate for " << hwFtStatus_->name());
   DataRecordPtr const record = makeDataRecord();
   KTRACE(6, "record len:" << record->dataLen());
   dataUpdate_->addUpdate(setIdVal(), record);
   dataSource_->dataRecordDelAll();
   dataSource_->dataRecordIs(record);
   dataSource_->versionInc(1);
}

Kivo::Ptr<FlowTrackerTableSm> flowTrackerTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<HwFlowTracking::Status const> const& hwStatus,
    Kivo::Ptr<HwFlowTracking::FtConfig const> const& hwFtConfig,
    Kivo::Ptr<HwFlowTracking::FtStatus const> const& hwFtStatus, FlowTrackingType ftrType,
    Kivo::Ptr<Orbo::TaskScheduler> const& scheduler) {
   return Kivo::make<FlowTrackerTableSm>(dataSource, dataUpdate, hwStatus, hwFtConfig, hwFtStatus,
                                         ftrType, scheduler);
}

}  // namespace FlowTracking
