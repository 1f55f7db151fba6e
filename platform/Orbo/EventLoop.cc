#include "Orbo/EventLoop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <exception>
#include <string>

#include "Kivo/Signal.h"

namespace Orbo {

EventLoop::EventLoop(Kivo::Ptr<TaskScheduler> scheduler) : scheduler_(std::move(scheduler)) {
   epollFd_ = epoll_create1(EPOLL_CLOEXEC);
   if (epollFd_ < 0) {
      throw Kivo::ErrnoException(errno, "epoll_create1");
   }
   sigemptyset(&signals_);
}

EventLoop::~EventLoop() {
   if (signalFd_ >= 0) {
      close(signalFd_);
      pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);  // deliver them normally again
   }
   close(epollFd_);
}

void EventLoop::fdIs(int fd, Handler onReadable) {
   epoll_event ev{};
   ev.events = EPOLLIN;
   ev.data.fd = fd;
   int const op = fds_.count(fd) ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
   if (epoll_ctl(epollFd_, op, fd, &ev) < 0) {
      throw Kivo::ErrnoException(errno, "epoll_ctl on fd " + std::to_string(fd));
   }
   fds_[fd] = std::move(onReadable);
}

void EventLoop::fdDel(int fd) {
   if (fds_.erase(fd)) {
      epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
   }
}

void EventLoop::signalIs(int signo, Handler onSignal) {
   sigaddset(&signals_, signo);
   if (int const rc = pthread_sigmask(SIG_BLOCK, &signals_, nullptr); rc != 0) {
      throw Kivo::ErrnoException(rc, "pthread_sigmask");
   }
   int const fd = signalfd(signalFd_, &signals_, SFD_NONBLOCK | SFD_CLOEXEC);
   if (fd < 0) {
      throw Kivo::ErrnoException(errno, "signalfd");
   }
   if (signalFd_ < 0) {
      signalFd_ = fd;
      fdIs(signalFd_, [this] { handleSignals_(); });
   }
   signalHandlers_[signo] = std::move(onSignal);
}

void EventLoop::handleSignals_() {
   signalfd_siginfo info{};
   while (read(signalFd_, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
      auto it = signalHandlers_.find(static_cast<int>(info.ssi_signo));
      if (it != signalHandlers_.end()) {
         call_(it->second, "handler of signal", info.ssi_signo);
      }
   }
}

void EventLoop::call_(Handler const& h, std::string_view kind, long id) {
   try {
      h();
   } catch (std::exception const& e) {
      Kivo::handlerThrew(kind, std::to_string(id), e);
   }
}

void EventLoop::runOnce(double maxWait) {
   double wait = maxWait;
   if (scheduler_->hasDueWork()) {
      wait = 0;
   } else {
      wait = std::min(wait, scheduler_->nextTimerDue() - Kivo::currentTime());
   }
   // Round up so that a timer is never woken for a millisecond too early and then spun on.
   int const timeoutMs = wait <= 0 ? 0 : static_cast<int>(std::ceil(std::min(wait, 3600.0) * 1e3));
   epoll_event events[16];
   int const n = epoll_wait(epollFd_, events, 16, timeoutMs);
   if (n < 0 && errno != EINTR) {
      throw Kivo::ErrnoException(errno, "epoll_wait");
   }
   double const start = Kivo::currentTime();
   for (int i = 0; i < n; ++i) {
      auto it = fds_.find(events[i].data.fd);
      if (it != fds_.end()) {
         Handler h = it->second;  // the handler may unregister itself
         call_(h, "handler of fd", events[i].data.fd);
      }
   }
   if (scheduler_->hasDueWork()) {
      scheduler_->runPass();
   }
   double const took = std::max(0.0, Kivo::currentTime() - start);  // the clock may step back
   ++passStats_.passes;
   passStats_.maxSeconds = std::max(passStats_.maxSeconds, took);
   for (std::size_t i = 0; i < PassStats::bounds.size(); ++i) {
      passStats_.longerThan[i] += took > PassStats::bounds[i];
   }
}

void EventLoop::run() {
   stopped_ = false;
   while (!stopped_) {
      runOnce(3600.0);
   }
}

}  // namespace Orbo
