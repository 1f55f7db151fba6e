// What the tests read inside the options data managers: what each serves.
#pragma once

#include "Ipfix/OptionsDataManagerSm.h"

namespace FlowTracking {

struct OptionsDataManagerSmProbe {
   static Kivo::Ptr<OptionsDataAll> const& dataAll(OptionsDataManagerSm const& m) {
      return m.dataAll();
   }
   static Kivo::Ptr<OptionsDataContainer> dataContainer(OptionsDataManagerSm const& m,
                                                        Kivo::String const& ftName) {
      return m.dataContainer(ftName);
   }
   static Kivo::Ptr<FtOptionsDataManagerSm> ftManagerSm(OptionsDataManagerSm const& m,
                                                        Kivo::String const& ftName) {
      return m.ftManagerSm(ftName);
   }
   static Kivo::Ptr<OptionsDataExporterSm> exporterSm(FtOptionsDataManagerSm const& m,
                                                      Kivo::String const& expName) {
      return m.exporterSm(expName);
   }
};

}  // namespace FlowTracking
