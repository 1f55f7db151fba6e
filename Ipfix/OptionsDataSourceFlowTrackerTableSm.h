// The flow tracker table options data: the one record that describes a flow tracker, exported as
// its own observation domain, to a collector.
//
// FlowTrackerTableSm keeps that record in the tracker's OptionsDataSource. When the tracker's
// active interval or inactive timeout or the sample rate changes, it waits updateDelay() seconds
// (2 s unless set) so that a burst of changes gives one new record, then replaces the record and
// posts it to the tracker's OptionsDataUpdate. The tracker's name, id and type are read at every
// build but not watched.
//
// Record layout (value octets of one data record; every number unsigned, network order):
//    0    4  observationDomainId     the tracker id
//    4    1  name length L, 0..254   (observationDomainName, short variable-length form)
//    5    L  observationDomainName   the tracker name, no terminator
//    5+L  2  flowActiveTimeout       active interval, whole seconds
//    7+L  2  flowIdleTimeout         inactive timeout, whole seconds
//    9+L  2  selectorAlgorithm       3
//   11+L  4  samplingSize            1
//   15+L  4  samplingPopulation      the sample rate
//   19+L  2  flowTrackingType        the tracker's type, zero-extended
// Selector algorithm 3 (RFC 5477) with 1 packet out of `sample rate` is random n-out-of-N
// sampling; both are constants of the record.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "HwFlowTracking/HwFlowTracking.h"
#include "Ipfix/CollectorStats.h"
#include "Ipfix/OptionsDataExporter.h"
#include "Ipfix/OptionsTemplate.h"
#include "Orbo/TaskScheduler.h"

namespace FlowTracking {

class FlowTrackerTableSm : public Kivo::Object {
 public:
   // What changed, as handleParamChange is told.
   enum class Param : std::uint8_t { inactiveTimeout = 0, activeInterval = 1, sampleRate = 2 };

   static constexpr double defaultUpdateDelay() { return 2.0; }
   static constexpr char const* updateTaskName() { return "FlowTrackerTableSmUpdate"; }

   // Publishes the record before returning.
   FlowTrackerTableSm(Kivo::Ptr<OptionsDataSource> dataSource,
                      Kivo::Ptr<OptionsDataUpdate> dataUpdate,
                      Kivo::Ptr<HwFlowTracking::Status const> hwStatus,
                      Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig,
                      Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus,
                      FlowTrackingType ftrType, Kivo::Ptr<Orbo::TaskScheduler> scheduler);
   ~FlowTrackerTableSm() override;

   // Template id of the flow tracker table's options template; updates are posted under it.
   static TemplateId setId();
   // The longest record the table can give: the fixed fields (21 octets) and the longest tracker
   // name, the 128 octets a collector statistics key holds (a longer one stops the process when
   // the first message is counted). The layout itself has room for 254 octets of name.
   static constexpr std::uint32_t maxDataRecordLen() {
      return static_cast<std::uint32_t>(
          recordLen(flowTrackerTable.fields, Mirra::Ipfix::StringIndex::max() + 1));
   }

   void handleInitialized();
   // Schedules the rebuild; changes within updateDelay() of each other share it.
   void handleParamChange(Param whatChanged);

 private:
   friend struct FlowTrackerTableSmProbe;

   TemplateId setIdVal() const { return setIdVal_; }
   void setIdValIs(TemplateId id) { setIdVal_ = id; }
   bool initialized() const { return initialized_; }
   void initializedIs(bool v) { initialized_ = v; }
   // Seconds between a change and the rebuild it causes.
   double updateDelay() const { return updateDelay_; }
   void updateDelayIs(double seconds) { updateDelay_ = seconds; }
   void updateTaskIs(Kivo::Ptr<Orbo::TaskScheduler> const& scheduler, Orbo::TaskPriority priority,
                     Kivo::String const& name);
   void updateTaskDel() { updateTask_ = nullptr; }

   // The tracker's record as the inputs stand. Aborts for a timeout of 65535 s or more or a name
   // of 255 octets or more.
   DataRecordPtr makeDataRecord() const;
   // The rebuild the update task runs: replaces the record and posts it.
   void doUpdate();

   Kivo::Ptr<OptionsDataSource> dataSource_;
   Kivo::Ptr<OptionsDataUpdate> dataUpdate_;
   Kivo::Ptr<HwFlowTracking::Status const> hwStatus_;
   Kivo::Ptr<HwFlowTracking::FtConfig const> hwFtConfig_;
   Kivo::Ptr<HwFlowTracking::FtStatus const> hwFtStatus_;
   FlowTrackingType ftrType_;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler_;
   TemplateId setIdVal_;
   double updateDelay_ = defaultUpdateDelay();
   Kivo::Ptr<Orbo::TimerTask> updateTask_;
   bool initialized_ = false;
   Kivo::Reactor reactor_;
};

Kivo::String stringValue(FlowTrackerTableSm::Param p);
std::ostream& operator<<(std::ostream& os, FlowTrackerTableSm::Param p);

Kivo::Ptr<FlowTrackerTableSm> flowTrackerTableSmFactory(
    Kivo::Ptr<OptionsDataSource> const& dataSource, Kivo::Ptr<OptionsDataUpdate> const& dataUpdate,
    Kivo::Ptr<HwFlowTracking::Status const> const& hwStatus,
    Kivo::Ptr<HwFlowTracking::FtConfig const> const& hwFtConfig,
    Kivo::Ptr<HwFlowTracking::FtStatus const> const& hwFtStatus, FlowTrackingType ftrType,
    Kivo::Ptr<Orbo::TaskScheduler> const& scheduler);

}  // namespace FlowTracking
