// What tests read or run inside an options data exporter.
#pragma once

#include "Ipfix/OptionsDataExporterSm.h"

namespace FlowTracking {

struct OptionsDataExporterSmProbe {
   static bool processing(OptionsDataExporterSm const& sm) { return sm.processing_; }
   static bool msgCacheValid(OptionsDataExporterSm const& sm) { return sm.msgCacheValid_; }
   static std::uint32_t msgCacheBuildCount(OptionsDataExporterSm const& sm) {
      return sm.msgCacheBuildCount_;
   }
   static std::uint32_t updateQueueBytes(OptionsDataExporterSm const& sm) {
      return sm.updateQueueBytes_;
   }
   static std::uint16_t maxMsgSize(OptionsDataExporterSm const& sm) { return sm.maxMsgSize(); }
   static Kivo::Ptr<Collector> collector(OptionsDataExporterSm const& sm, Kivo::String const& n) {
      return sm.collector(n);
   }
   static Kivo::Ptr<Orbo::Task> const& txPeriodicTask(OptionsDataExporterSm const& sm) {
      return sm.txPeriodicTask_;
   }
   static void maybeBeginPeriodicTransmission(OptionsDataExporterSm& sm) {
      sm.maybeBeginPeriodicTransmission();
   }
};

}  // namespace FlowTracking
