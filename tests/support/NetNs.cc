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

std::runtime_error errnoError(std::string const& what, int err = errno) {
   return std::runtime_error(what + ": " + std::strerror(err));
}

// Runs argv[0], looked up on PATH, without a shell; killed when silent for 10 s. Throws with the
// command and its output (stdout and stderr together) unless it exits 0.
void runCommand(std::vector<std::string> const& argv) {
   std::string what;
   std::vector<char*> args;
   for (auto const& a : argv) {
      what += (what.empty() ? "" : " ") + a;
      args.push_back(const_cast<char*>(a.c_str()));
   }
   args.push_back(nullptr);
   int out[2];
   if (pipe2(out, O_CLOEXEC) != 0) {
      throw errnoError("pipe");
   }
   posix_spawn_file_actions_t actions;
   posix_spawn_file_actions_init(&actions);
   posix_spawn_file_actions_adddup2(&actions, out[1], 1);
   posix_spawn_file_actions_adddup2(&actions, out[1], 2);
   pid_t pid = -1;
   int const err = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
   posix_spawn_file_actions_destroy(&actions);
   close(out[1]);
   if (err != 0) {
      close(out[0]);
      throw errnoError("cannot run " + what, err);
   }
   std::string output;
   char buf[512];
   pollfd p{out[0], POLLIN, 0};
   int ready = 0;
   ssize_t n = 0;
   while ((ready = poll(&p, 1, 10'000)) == 1 && (n = read(out[0], buf, sizeof(buf))) > 0) {
      output.append(buf, static_cast<std::size_t>(n));
   }
   close(out[0]);
   if (ready == 0) {
      kill(pid, SIGKILL);
   }
   int status = 0;
   waitpid(pid, &status, 0);
   if (ready == 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      throw std::runtime_error(what + (ready == 0 ? ": timed out" : ": failed") +
                               (output.empty() ? "" : ": " + output));
   }
}

}  // namespace

std::unique_ptr<NetNs> NetNs::create(std::string const& name, std::string* whyNot) {
   std::unique_ptr<NetNs> ns;
   try {
      runCommand({"ip", "netns", "add", name});
      ns.reset(new NetNs(name));  // deletes the namespace again on any failure
      ns->ip({"link", "set", "lo", "up"});
      ns->run([] {});
   } catch (std::exception const& e) {
      *whyNot = std::string("cannot use a network namespace: ") + e.what();
      return nullptr;
   }
   return ns;
}

NetNs::~NetNs() {
   try {
      runCommand({"ip", "netns", "del", name_});
   } catch (std::exception const& e) {
      std::fprintf(stderr, "NetNs: %s\n", e.what());
   }
}

void NetNs::ip(std::vector<std::string> const& args) const {
   std::vector<std::string> argv = {"ip", "-n", name_};
   argv.insert(argv.end(), args.begin(), args.end());
   runCommand(argv);
}

void NetNs::enter_() const {
   std::string const path = "/var/run/netns/" + name_;
   int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
      int const err = errno;
      close(fd);  // harmless when open failed
      throw errnoError((fd < 0 ? "open " : "setns ") + path, err);
   }
   close(fd);
}

ino_t NetNs::currentInode() {
   struct stat st {};
   if (stat("/proc/thread-self/ns/net", &st) != 0) {
      throw errnoError("stat /proc/thread-self/ns/net");
   }
   return st.st_ino;
}

}  // namespace testsupport
