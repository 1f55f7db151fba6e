// Runs a program for tests: directly (no shell, found on PATH), stdin /dev/null, stdout and stderr
// collected, killed when it outlives its timeout.
#pragma once

#include <unistd.h>

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

// Forks a child that exits with what `fn` returns, or dies of SIGALRM after 60 s if it hangs.
template <class F>
pid_t inChild(F fn) {
   pid_t const child = fork();
   if (child == 0) {
      alarm(60);
      _exit(fn());
   }
   return child;
}
// The exit code of `child`, or -1 when it did not exit by itself.
int exitCodeOf(pid_t child);

}  // namespace testsupport
