// What the tests read and run inside a FlowTrackerTableSm.
#pragma once

#include "Ipfix/OptionsDataSourceFlowTrackerTableSm.h"

namespace FlowTracking {

struct FlowTrackerTableSmProbe {
   static DataRecordPtr makeDataRecord(FlowTrackerTableSm const& sm) { return sm.makeDataRecord(); }
   static void initializedIs(FlowTrackerTableSm& sm, bool v) { sm.initializedIs(v); }
   static void doUpdate(FlowTrackerTableSm& sm) { sm.doUpdate(); }
};

}  // namespace FlowTracking
