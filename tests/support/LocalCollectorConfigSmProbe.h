// What tests read inside the local collector's state machine.
#pragma once

#include "Ipfix/LocalCollectorConfigSm.h"

namespace FlowTracking {

struct LocalCollectorConfigSmProbe {
   static Kivo::Ptr<Orbo::TimerTask> const& pamRetryTask(LocalCollectorConfigSm const& sm) {
      return sm.pamRetryTask_;
   }
};

}  // namespace FlowTracking
