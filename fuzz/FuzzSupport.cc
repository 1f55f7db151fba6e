#include "FuzzSupport.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace Fuzz {

namespace {

bool writeFile(char const* path, std::string const& text) {
   int const fd = open(path, O_WRONLY | O_CLOEXEC);
   if (fd < 0) {
      return false;
   }
   bool const ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
   close(fd);
   return ok;
}

bool loopbackUp() {
   int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      return false;
   }
   ifreq ifr{};
   std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
   bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
   if (ok) {
      ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
      ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
   }
   close(fd);
   return ok;
}

}  // namespace

std::string shmName(char const* what) {
   return "/ipfix-fuzz-" + std::string(what) + "-" + std::to_string(getpid());
}

bool isolateNetwork() {
   if (unshare(CLONE_NEWNET) != 0) {
      // Unprivileged: a user namespace of our own, mapping us to ourselves, may make one.
      uid_t const uid = geteuid();
      gid_t const gid = getegid();
      if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0 ||
          !writeFile("/proc/self/uid_map",
                     std::to_string(uid) + " " + std::to_string(uid) + " 1") ||
          !writeFile("/proc/self/setgroups", "deny") ||
          !writeFile("/proc/self/gid_map",
                     std::to_string(gid) + " " + std::to_string(gid) + " 1")) {
         return false;
      }
   }
   return loopbackUp();
}

void confine(Agent::AgentConfig& config, char const* what, bool isolated) {
   config.statisticsTable = shmName(what);
   config.trace.clear();
   if (isolated) {
      return;
   }
   for (auto& [ftName, ft] : config.trackers) {
      ft.softwareExport = false;
      for (auto& [expName, exp] : ft.exporters) {
         exp.source4.reset();
         exp.source6.reset();
      }
   }
}

}  // namespace Fuzz
