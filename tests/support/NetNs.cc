#include "support/NetNs.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace testsupport {

namespace {

using Clock = std::chrono::steady_clock;

int msLeft(Clock::time_point deadline) {
   auto const left =
       std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
   return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

std::string CommandResult::describe(std::vector<std::string> const& argv) const {
   std::string s;
   for (auto const& a : argv) {
      s += (s.empty() ? "" : " ") + a;
   }
   s += timedOut ? ": timed out" : ": exit " + std::to_string(exitCode);
   if (!output.empty()) {
      s += ": " + output;
   }
   while (!s.empty() && s.back() == '\n') {
      s.pop_back();
   }
   return s;
}

CommandResult runCommand(std::vector<std::string> const& argv, std::chrono::milliseconds timeout) {
   CommandResult r;
   int out[2];
   if (pipe2(out, O_CLOEXEC) != 0) {
      r.output = std::string("pipe: ") + std::strerror(errno);
      return r;
   }
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
   posix_spawn_file_actions_adddup2(&actions, out[1], 1);
   posix_spawn_file_actions_adddup2(&actions, out[1], 2);
   std::vector<char*> args;
   for (auto const& a : argv) {
      args.push_back(const_cast<char*>(a.c_str()));
   }
   args.push_back(nullptr);
   pid_t pid = -1;
   int const err = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   close(out[1]);
   if (err != 0) {
      close(out[0]);
      r.output = "cannot run " + argv[0] + ": " + std::strerror(err);
      return r;
   }

   auto const deadline = Clock::now() + timeout;
   bool eof = false;
   while (!eof && msLeft(deadline) > 0) {
      pollfd p{out[0], POLLIN, 0};
      if (poll(&p, 1, msLeft(deadline)) <= 0) {
         continue;
      }
      char buf[512];
      ssize_t const n = read(out[0], buf, sizeof(buf));
      if (n > 0) {
         r.output.append(buf, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
         eof = true;
      }
   }
   close(out[0]);
   int status = 0;
   pid_t done = 0;
   while ((done = waitpid(pid, &status, WNOHANG)) == 0 && msLeft(deadline) > 0) {
      usleep(10'000);
   }
   if (done != pid) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      r.timedOut = true;
      return r;
   }
   r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   return r;
}

std::unique_ptr<NetNs> NetNs::create(std::string const& name, std::string* whyNot) {
   std::vector<std::string> const add = {"ip", "netns", "add", name};
   CommandResult const r = runCommand(add);
   if (r.exitCode != 0) {
      *whyNot = "cannot create a network namespace: " + r.describe(add);
      return nullptr;
   }
   std::unique_ptr<NetNs> ns(new NetNs(name));  // deletes the namespace again on any failure
   try {
      ns->ip({"link", "set", "lo", "up"});
      ns->run([] {});
   } catch (std::exception const& e) {
      *whyNot = std::string("cannot use a network namespace: ") + e.what();
      return nullptr;
   }
   return ns;
}

NetNs::~NetNs() {
   std::vector<std::string> const del = {"ip", "netns", "del", name_};
   CommandResult const r = runCommand(del);
   if (r.exitCode != 0) {
      std::fprintf(stderr, "NetNs: %s\n", r.describe(del).c_str());
   }
}

void NetNs::ip(std::vector<std::string> const& args) const {
   std::vector<std::string> argv = {"ip", "-n", name_};
   argv.insert(argv.end(), args.begin(), args.end());
   CommandResult const r = runCommand(argv);
   if (r.exitCode != 0) {
      throw std::runtime_error(r.describe(argv));
   }
}

void NetNs::enter_() const {
   std::string const path = "/var/run/netns/" + name_;
   int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0) {
      throw std::runtime_error("open " + path + ": " + std::strerror(errno));
   }
   int const rc = setns(fd, CLONE_NEWNET);
   int const err = errno;
   close(fd);
   if (rc != 0) {
      throw std::runtime_error("setns " + path + ": " + std::strerror(err));
   }
}

ino_t NetNs::currentInode() {
   struct stat st {};
   if (stat("/proc/thread-self/ns/net", &st) != 0) {
      throw std::runtime_error(std::string("stat /proc/thread-self/ns/net: ") +
                               std::strerror(errno));
   }
   return st.st_ino;
}

}  // namespace testsupport
