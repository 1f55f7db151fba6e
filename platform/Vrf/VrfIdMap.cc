#include "Vrf/VrfIdMap.h"

namespace Vrf::VrfIdMap {

VrfName::VrfName(std::string_view name) {
   if (name.size() > maxLength) {
      throw Kivo::RangeException("L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed");
   }
   value_ = Kivo::String(name);
}

Kivo::Ptr<Status> statusFactory() {
   return Kivo::make<Status>();
}

}  // namespace Vrf::VrfIdMap
