// What the tests read and set inside an InterfaceTableSm.
#pragma once

#include "Ipfix/OptionsDataSourceIntfTableSm.h"

namespace FlowTracking {

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

}  // namespace FlowTracking
