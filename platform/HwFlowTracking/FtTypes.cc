#include "HwFlowTracking/FtTypes.h"

#include <ostream>

namespace HwFlowTracking {

std::ostream& operator<<(std::ostream& os, TemplateId id) {
   return os << id.value();
}

std::ostream& operator<<(std::ostream& os, FlowTrackingType t) {
   switch (t) {
      case FlowTrackingType::none:
         return os << "none";
      case FlowTrackingType::sampled:
         return os << "sampled";
      case FlowTrackingType::hardware:
         return os << "hardware";
   }
   return os << static_cast<unsigned>(t);
}

}  // namespace HwFlowTracking
