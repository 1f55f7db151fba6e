#include "support/NetNs.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "support/Command.h"

namespace testsupport {

namespace {

std::runtime_error errnoError(std::string const& what, int err = errno) {
   return std::runtime_error(what + ": " + std::strerror(err));
}

// Throws with the command and its output unless it exits 0 within 10 s.
void mustRun(std::vector<std::string> const& argv) {
   CommandResult const r = runCommand(argv, std::chrono::seconds(10));
   if (!r.ok()) {
      throw std::runtime_error(r.describe() + r.out);
   }
}

}  // namespace

std::unique_ptr<NetNs> NetNs::create(std::string const& name, std::string* whyNot) {
   std::unique_ptr<NetNs> ns;
   try {
      mustRun({"ip", "netns", "add", name});
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
      mustRun({"ip", "netns", "del", name_});
   } catch (std::exception const& e) {
      std::fprintf(stderr, "NetNs: %s\n", e.what());
   }
}

void NetNs::ip(std::vector<std::string> const& args) const {
   std::vector<std::string> argv = {"ip", "-n", name_};
   argv.insert(argv.end(), args.begin(), args.end());
   mustRun(argv);
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
