#include "Kivo/Signal.h"

#include "Trace/Trace.h"

namespace Kivo {

void handlerThrew(std::string_view kind, std::string_view who, std::exception const& e) {
   static Dualog::Facility& fac = Dualog::facility("Kivo");
   KTRACE(fac, 1, "Caught exception in " << kind << " " << who << ": " << e.what());
}

}  // namespace Kivo
