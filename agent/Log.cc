#include "agent/Log.h"

#include <unistd.h>

#include <string>

#include "Trace/Dualog.h"

namespace Agent {

void log(Severity severity, std::string_view text) {
   std::string line = "<" + std::to_string(static_cast<int>(severity)) + ">";
   line.append(text);
   line.push_back('\n');
   // One write per line, so that lines of concurrent writers never interleave.
   std::size_t done = 0;
   while (done < line.size()) {
      ssize_t const n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
      if (n <= 0) {
         return;  // nowhere to log to; nothing better to do
      }
      done += static_cast<std::size_t>(n);
   }
}

void routeTraceToLog() {
   Dualog::sinkIs([](Dualog::Facility const& fac, int level, std::string_view text) {
      std::string line = fac.name() + "/" + std::to_string(level) + ": ";
      line.append(text);
      log(Severity::debug, line);
   });
}

}  // namespace Agent
