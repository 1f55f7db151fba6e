// Follows the named network namespaces of the host (/var/run/netns, where `ip netns add` mounts
// them) and reports the set of those that are usable, each with its identity (the namespace's
// inode), whenever it changes. A namespace deleted and made again under the same name gets a new
// identity, so a user of the report can tell that sockets made in the old one are stale.
//
// A name shows up in the directory a moment before the namespace is mounted on it; such a name is
// not reported until the mount is there (checked again every pendingRetry() seconds).
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Orbo/EventLoop.h"
#include "agent/Component.h"
#include "agent/DirWatch.h"

namespace Agent {

class NetNsWatch {
 public:
   using Handler = std::function<void(Component::NetNsMap const&)>;

   // Reads the directory now (see current()) and follows it; creates it when missing and the
   // process may. `onChange` is called from tasks of `scheduler`, only on a change.
   NetNsWatch(Orbo::EventLoop& loop, Kivo::Ptr<Orbo::TaskScheduler> scheduler, Handler onChange,
              std::string dir = "/var/run/netns");
   ~NetNsWatch();

   Component::NetNsMap const& current() const { return current_; }
   static constexpr double pendingRetry() { return 0.1; }
   // Without inotify on the directory (it could not be made), how often it is read again.
   static constexpr double pollInterval() { return 2.0; }

   // Reads the directory; returns the usable namespaces, and whether some name is not yet one.
   static Component::NetNsMap scan(std::string const& dir, bool* pending);

 private:
   void review_();

   std::string dir_;
   Handler onChange_;
   Component::NetNsMap current_;
   double pendingSince_ = 0;  // when a name was first seen unmounted; 0: none is
   Kivo::Ptr<Orbo::Task> reviewTask_;
   std::unique_ptr<DirWatch> watch_;
};

}  // namespace Agent
