// The real-time driver of a TaskScheduler: sleeps in epoll until the next timer is due, a
// registered file descriptor is readable or a registered signal arrives, then runs a pass.
// Programs use it with the real clock; tests drive schedulers by hand instead.
//
// Like tasks, descriptor and signal handlers that throw a std::exception have it caught and traced
// (Kivo::handlerThrew) and the loop carries on.
//
// The loop measures each pass, from waking up to going back to sleep: while one runs, nothing
// else (a descriptor, a signal, a timer) is served, so the longest pass is the longest stall.
#pragma once

#include <array>
#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <string_view>

#include "Orbo/TaskScheduler.h"

namespace Orbo {

class EventLoop {
 public:
   using Handler = std::function<void()>;

   // How long passes took, on Kivo::currentTime(), since the loop was made.
   struct PassStats {
      static constexpr std::array<double, 5> bounds{0.001, 0.01, 0.1, 1, 10};
      std::uint64_t passes = 0;
      double maxSeconds = 0;
      std::array<std::uint64_t, bounds.size()> longerThan{};  // passes longer than each bound
   };

   // Throws Kivo::ErrnoException when epoll cannot be created.
   explicit EventLoop(Kivo::Ptr<TaskScheduler> scheduler);
   ~EventLoop();
   EventLoop(EventLoop const&) = delete;
   EventLoop& operator=(EventLoop const&) = delete;

   // Calls `onReadable` on the loop's thread whenever `fd` is readable. The caller keeps owning
   // the descriptor and must call fdDel before closing it.
   void fdIs(int fd, Handler onReadable);
   void fdDel(int fd);
   // Delivers `signo` through the loop instead of asynchronously (the signal is blocked in the
   // calling thread and read from a signalfd).
   void signalIs(int signo, Handler onSignal);

   // Runs until stop(); returns after the pass in which stop() was called.
   void run();
   // Waits for at most `maxWait` seconds for something to do, then does it.
   void runOnce(double maxWait);
   void stop() { stopped_ = true; }
   PassStats const& passStats() const { return passStats_; }

 private:
   void handleSignals_();
   void call_(Handler const& h, std::string_view kind, long id);

   Kivo::Ptr<TaskScheduler> scheduler_;
   int epollFd_ = -1;
   int signalFd_ = -1;
   sigset_t signals_{};
   std::map<int, Handler> fds_;
   std::map<int, Handler> signalHandlers_;
   bool stopped_ = false;
   PassStats passStats_;
};

}  // namespace Orbo
