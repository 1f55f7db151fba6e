#include "agent/DirWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>

#include "Kivo/Kivo.h"

namespace Agent {

DirWatch::DirWatch(Orbo::EventLoop& loop, std::string dir, Handler onChange)
    : loop_(loop), dir_(std::move(dir)), onChange_(std::move(onChange)) {
   fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
   if (fd_ < 0) {
      throw Kivo::ErrnoException(errno, "inotify_init1");
   }
   std::uint32_t const mask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                              IN_ATTRIB | IN_ONLYDIR;
   if (inotify_add_watch(fd_, dir_.c_str(), mask) < 0) {
      int const err = errno;
      close(fd_);
      throw Kivo::ErrnoException(err, "inotify_add_watch " + dir_);
   }
   loop_.fdIs(fd_, [this] { handleReadable_(); });
}

DirWatch::~DirWatch() {
   loop_.fdDel(fd_);
   close(fd_);
}

void DirWatch::handleReadable_() {
   alignas(inotify_event) char buf[8192];
   for (;;) {
      ssize_t const n = read(fd_, buf, sizeof(buf));
      if (n <= 0) {
         return;  // EAGAIN: drained
      }
      for (ssize_t off = 0; off + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
         auto const* ev = reinterpret_cast<inotify_event const*>(buf + off);
         off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
         if (ev->mask & IN_Q_OVERFLOW) {
            onChange_({});  // events were lost: the watcher looks at everything again
         } else if (ev->len > 0) {
            onChange_(ev->name);
         }
      }
   }
}

}  // namespace Agent
