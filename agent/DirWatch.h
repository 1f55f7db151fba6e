// Watches one directory with inotify and reports the names of entries that were created,
// deleted, moved or written, through an event loop. Editors save by writing a new file and
// renaming it over the old one, so watching the directory, not the file, sees every save.
#pragma once

#include <functional>
#include <string>

#include "Orbo/EventLoop.h"

namespace Agent {

class DirWatch {
 public:
   using Handler = std::function<void(std::string const& name)>;

   // Throws Kivo::ErrnoException when the directory cannot be watched (e.g. it does not exist).
   // The loop must outlive the watch.
   DirWatch(Orbo::EventLoop& loop, std::string dir, Handler onChange);
   ~DirWatch();
   DirWatch(DirWatch const&) = delete;
   DirWatch& operator=(DirWatch const&) = delete;

   std::string const& dir() const { return dir_; }

 private:
   void handleReadable_();

   Orbo::EventLoop& loop_;
   std::string dir_;
   Handler onChange_;
   int fd_ = -1;
};

}  // namespace Agent
