#include "support/Command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace testsupport {

CommandResult runCommand(std::vector<std::string> argv, std::chrono::milliseconds timeout) {
   CommandResult r;
   r.argv = std::move(argv);
   int out[2], err[2];
   if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
   }
   posix_spawn_file_actions_t fa;
   posix_spawn_file_actions_init(&fa);
   posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_adddup2(&fa, out[1], STDOUT_FILENO);
   posix_spawn_file_actions_adddup2(&fa, err[1], STDERR_FILENO);
   std::vector<char*> args(r.argv.size() + 1, nullptr);
   std::transform(r.argv.begin(), r.argv.end(), args.begin(), [](auto& a) { return a.data(); });
   pid_t pid = -1;
   int const rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&fa);
   close(out[1]), close(err[1]);
   pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
   auto const deadline = std::chrono::steady_clock::now() + timeout;
   while (rc == 0 && (fds[0].fd >= 0 || fds[1].fd >= 0)) {
      auto const left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if ((r.timedOut = left.count() <= 0)) {
         kill(pid, SIGKILL);
         break;
      }
      int const n = poll(fds, 2, int(left.count()));
      for (int i = 0; n > 0 && i < 2; ++i) {
         char buf[65536];
         ssize_t const got = fds[i].revents ? read(fds[i].fd, buf, sizeof buf) : -1;
         if (got > 0) {
            (i ? r.err : r.out).append(buf, std::size_t(got));
         } else if (fds[i].revents && (got == 0 || errno != EINTR)) {
            fds[i].fd = -1;  // EOF
         }
      }
   }
   close(out[0]), close(err[0]);
   int status = 0;
   while (rc == 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
   }
   r.exitCode = rc == 0 && !r.timedOut && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   r.err += rc == 0 ? "" : "cannot start " + r.argv[0] + ": " + std::strerror(rc);
   return r;
}

int exitCodeOf(pid_t child) {
   int status = 0;
   return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string CommandResult::describe() const {
   std::string s;
   for (std::string const& a : argv) {
      s += a + " ";
   }
   return s + "\n  exit code " + std::to_string(exitCode) + (timedOut ? " (timed out)" : "") +
          "\n  stderr: " + err;
}

}  // namespace testsupport
