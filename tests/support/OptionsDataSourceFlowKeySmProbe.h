// What the tests read inside a FlowKeySm.
#pragma once

#include "Ipfix/OptionsDataSourceFlowKeySm.h"

namespace FlowTracking {

struct FlowKeySmProbe {
   static DataRecordPtr makeDataRecord(FlowKeySm const& sm, TemplateId templateId) {
      return sm.makeDataRecord(templateId);
   }
   static DataRecordPtr dataRecord(FlowKeySm const& sm, TemplateId templateId) {
      return sm.dataRecord(templateId);
   }
   static bool templateStatus(FlowKeySm const& sm, TemplateId templateId) {
      return sm.templateStatus(templateId);
   }
};

}  // namespace FlowTracking
