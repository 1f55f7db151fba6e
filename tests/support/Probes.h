// What the tests read, set or run inside the component's classes: state that is their own
// business, reached through the one probe struct each class names as a friend.
#pragma once

#include "Ipfix/LocalCollectorConfigSm.h"
#include "Ipfix/MessageBuilder.h"
#include "Ipfix/OptionsDataExporterSm.h"
#include "Ipfix/OptionsDataManagerSm.h"
#include "Ipfix/OptionsDataSourceFlowKeySm.h"
#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"
#include "Ipfix/OptionsDataSourceIntfTableSm.h"
#include "Ipfix/OptionsDataSourceVrfTableSm.h"
#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

// Where the message under construction stands.
struct MessageBuilderProbe {
   static Kivo::Ptr<Pelto::Pkt> const& pkt(MessageBuilder const& b) { return b.pkt(); }
   static std::uint32_t offset(MessageBuilder const& b) { return b.offset(); }
   static TemplateId setId(MessageBuilder const& b) { return b.setId(); }
};

struct TemplateExporterSmBaseProbe {
   static std::map<TemplateId, std::uint32_t> const& templateLen(TemplateExporterSmBase const& sm) {
      return sm.templateLen_;
   }
   static std::uint32_t templateTxCount(TemplateExporterSmBase const& sm) {
      return sm.templateTxCount_;
   }
   static Kivo::Ptr<Orbo::Task> const& periodicTemplateTxTask(TemplateExporterSmBase const& sm) {
      return sm.periodicTemplateTxTask_;
   }
   static Kivo::String taskPrefix(TemplateExporterSmBase const& sm) { return sm.taskPrefix(); }
   static std::uint16_t headerSetId(TemplateExporterSmBase const& sm) { return sm.headerSetId(); }
};

struct OptionsDataExporterSmProbe {
   using Sm = OptionsDataExporterSm;
   static bool processing(Sm const& sm) { return sm.processing_; }
   static bool msgCacheValid(Sm const& sm) { return sm.msgCacheValid(); }
   static std::uint32_t msgCacheBuildCount(Sm const& sm) { return sm.msgCacheBuildCount_; }
   static std::uint32_t updateQueueBytes(Sm const& sm) { return sm.updateQueueBytes_; }
   static std::uint16_t maxMsgSize(Sm const& sm) { return sm.maxMsgSize(); }
   static Kivo::Ptr<Collector> collector(Sm const& sm, Kivo::String const& n) {
      return sm.collector(n);
   }
   static Kivo::Ptr<Orbo::Task> const& txPeriodicTask(Sm const& sm) { return sm.txPeriodicTask_; }
   static void maybeBeginPeriodicTransmission(Sm& sm) { sm.maybeBeginPeriodicTransmission(); }
};

// What each options data manager serves.
struct OptionsDataManagerSmProbe {
   using S = Kivo::String;
   static Kivo::Ptr<OptionsDataAll> const& dataAll(OptionsDataManagerSm const& m) {
      return m.dataAll();
   }
   static Kivo::Ptr<OptionsDataContainer> dataContainer(OptionsDataManagerSm const& m,
                                                        S const& ft) {
      return m.dataContainer(ft);
   }
   static Kivo::Ptr<FtOptionsDataManagerSm> ftManagerSm(OptionsDataManagerSm const& m,
                                                        S const& ft) {
      return m.ftManagerSm(ft);
   }
   static Kivo::Ptr<OptionsDataExporterSm> exporterSm(FtOptionsDataManagerSm const& m, S const& e) {
      return m.exporterSm(e);
   }
};

struct LocalCollectorConfigSmProbe {
   static Kivo::Ptr<Orbo::TimerTask> const& pamRetryTask(LocalCollectorConfigSm const& sm) {
      return sm.pamRetryTask_;
   }
};

struct InterfaceTableSmProbe {
   static DataRecordPtr makeDataRecord(InterfaceTableSm const& sm, Kivo::String const& intfName,
                                       std::uint32_t intfIndex) {
      return sm.makeDataRecord(intfName, intfIndex);
   }
   static DataRecordPtr dataRecord(InterfaceTableSm const& sm, Pelto::IntfId const& intfId) {
      return sm.dataRecord(intfId);
   }
   static std::size_t dataRecords(InterfaceTableSm const& sm) { return sm.dataRecords(); }
   static void initializedIs(InterfaceTableSm& sm, bool v) { sm.initializedIs(v); }
};

struct VrfTableSmProbe {
   using VrfId = Vrf::VrfIdMap::VrfId;
   static DataRecordPtr makeDataRecord(VrfTableSm const& sm, VrfId id, Kivo::String const& name) {
      return sm.makeDataRecord(id, name);
   }
   static DataRecordPtr dataRecord(VrfTableSm const& sm, VrfId id) { return sm.dataRecord(id); }
};

struct FlowTrackerTableSmProbe {
   static DataRecordPtr makeDataRecord(FlowTrackerTableSm const& sm) { return sm.makeDataRecord(); }
   static void initializedIs(FlowTrackerTableSm& sm, bool v) { sm.initializedIs(v); }
   static void doUpdate(FlowTrackerTableSm& sm) { sm.doUpdate(); }
};

struct FlowKeySmProbe {
   static DataRecordPtr makeDataRecord(FlowKeySm const& sm, TemplateId id) {
      return sm.makeDataRecord(id);
   }
   static DataRecordPtr dataRecord(FlowKeySm const& sm, TemplateId id) { return sm.dataRecord(id); }
   static bool templateStatus(FlowKeySm const& sm, TemplateId id) { return sm.templateStatus(id); }
};

}  // namespace FlowTracking
