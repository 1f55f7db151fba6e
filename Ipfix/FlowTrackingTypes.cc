#include "Ipfix/FlowTrackingTypes.h"

#include "Vrf/VrfIdMap.h"

namespace FlowTracking {

Kivo::String netNsForVrf(Kivo::String const& vrf) {
   Vrf::VrfIdMap::VrfName const checked(vrf);  // bounds the length
   if (vrf.empty() || vrf == "default") {
      return {};
   }
   // The namespace is a file in /var/run/netns: the name must stay one plain file name there.
   bool const plainName = vrf != "." && vrf != ".." && vrf.find('/') == Kivo::String::npos &&
                          vrf.find('\0') == Kivo::String::npos;
   if (!plainName) {
      throw Kivo::RangeException("L3::VrfName::value cannot name a network namespace: " + vrf);
   }
   return "ns-" + vrf;
}

}  // namespace FlowTracking
