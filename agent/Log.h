// The agent's log: one line per event on stderr, with the syslog severity as a "<N>" prefix,
// which is how the journal reads a service's standard error (and still plain enough to read on a
// terminal). The text trace of the component (Dualog) goes the same way at debug severity.
#pragma once

#include <string_view>

namespace Agent {

enum class Severity { err = 3, warning = 4, notice = 5, info = 6, debug = 7 };

void log(Severity severity, std::string_view text);

// Sends every Dualog line to the log at debug severity, prefixed with its facility.
void routeTraceToLog();

}  // namespace Agent
