#include "agent/NetNsWatch.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>

#include "agent/Log.h"

namespace Agent {

namespace {

constexpr long nsfsMagic = 0x6e736673;  // a namespace file mounted by `ip netns add`

}  // namespace

NetNsWatch::NetNsWatch(Orbo::EventLoop& loop, Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                       Handler onChange, std::string dir)
    : dir_(std::move(dir)), onChange_(std::move(onChange)) {
   reviewTask_ = Kivo::make<Orbo::Task>(scheduler, 3, "netNsReviewTask", [this] { review_(); });
   ::mkdir(dir_.c_str(), 0755);  // as `ip netns` would; fine to fail when it exists or we may not
   try {
      watch_ = std::make_unique<DirWatch>(
          loop, dir_, [this](std::string const&) { reviewTask_->scheduleTaskLowestDelay(0.01); });
   } catch (Kivo::ErrnoException const& e) {
      log(Severity::warning, "cannot watch " + dir_ + " (" + e.what() + "): reading it every " +
                                 std::to_string(static_cast<int>(pollInterval())) + " s instead");
   }
   bool pending = false;
   current_ = scan(dir_, &pending);
   if (pending || !watch_) {
      reviewTask_->scheduleTaskLowestDelay(watch_ ? pendingRetry() : pollInterval());
   }
}

NetNsWatch::~NetNsWatch() {
   reviewTask_ = nullptr;
}

Component::NetNsMap NetNsWatch::scan(std::string const& dir, bool* pending) {
   Component::NetNsMap found;
   *pending = false;
   DIR* d = ::opendir(dir.c_str());
   if (!d) {
      return found;
   }
   while (dirent* ent = ::readdir(d)) {
      std::string const name = ent->d_name;
      if (name == "." || name == "..") {
         continue;
      }
      std::string const path = dir + "/" + name;
      struct statfs fs {};
      struct stat st {};
      if (::statfs(path.c_str(), &fs) != 0 || ::stat(path.c_str(), &st) != 0) {
         continue;  // gone meanwhile
      }
      if (fs.f_type != nsfsMagic) {
         *pending = true;  // created, not mounted yet
         continue;
      }
      found[name] = static_cast<std::uint64_t>(st.st_ino);
   }
   ::closedir(d);
   return found;
}

void NetNsWatch::review_() {
   bool pending = false;
   Component::NetNsMap found = scan(dir_, &pending);
   double const now = Kivo::currentTime();
   if (!pending) {
      pendingSince_ = 0;
   } else if (pendingSince_ == 0) {
      pendingSince_ = now;
   }
   // A name that stays unmounted is a leftover, not a namespace on its way: look less often.
   bool const fast = watch_ && pending && now - pendingSince_ < 5.0;
   if (pending || !watch_) {
      reviewTask_->scheduleTaskLowestDelay(fast ? pendingRetry() : pollInterval());
   }
   if (found != current_) {
      current_ = std::move(found);
      onChange_(current_);
   }
}

}  // namespace Agent
