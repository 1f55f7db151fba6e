// Runs a program for tests: directly (no shell, found on PATH), stdin /dev/null, stdout and stderr
// collected, killed when it outlives its timeout.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace testsupport {

struct CommandResult {
   std::vector<std::string> argv;
   std::string out, err;
   int exitCode = -1;  // -1 when killed or not started
   bool timedOut = false;

   bool ok() const { return exitCode == 0 && !timedOut; }
   std::string describe() const;  // command, exit code and stderr
};

CommandResult runCommand(std::vector<std::string> argv,
                         std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace testsupport
