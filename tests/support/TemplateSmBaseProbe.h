// What tests read inside a template exporter: state that is its own business.
#pragma once

#include "Ipfix/TemplateSmBase.h"

namespace FlowTracking {

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

}  // namespace FlowTracking
