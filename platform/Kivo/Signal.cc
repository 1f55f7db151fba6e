#include "Kivo/Signal.h"

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("Kivo"))

namespace Kivo {

void handlerThrew(std::string_view kind, std::string_view who, std::exception const& e) {
   KTRACE(1, "Caught exception in " << kind << " " << who << ": " << e.what());
}

}  // namespace Kivo
