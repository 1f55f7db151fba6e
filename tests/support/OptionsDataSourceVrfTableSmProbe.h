// What the tests read inside a VrfTableSm.
#pragma once

#include "Ipfix/OptionsDataSourceVrfTableSm.h"

namespace FlowTracking {

struct VrfTableSmProbe {
   static DataRecordPtr makeDataRecord(VrfTableSm const& sm, Vrf::VrfIdMap::VrfId vrfId,
                                       Kivo::String const& name) {
      return sm.makeDataRecord(vrfId, name);
   }
   static DataRecordPtr dataRecord(VrfTableSm const& sm, Vrf::VrfIdMap::VrfId vrfId) {
      return sm.dataRecord(vrfId);
   }
};

}  // namespace FlowTracking
