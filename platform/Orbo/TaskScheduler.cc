#include "Orbo/TaskScheduler.h"

#include <algorithm>
#include <exception>
#include <limits>

#include "Kivo/Signal.h"

namespace Orbo {

Task::Task(Kivo::Ptr<TaskScheduler> scheduler, TaskPriority priority, Kivo::String name,
           Handler handler)
    : scheduler_(std::move(scheduler)),
      priority_(priority),
      name_(std::move(name)),
      handler_(std::move(handler)) {
   KIVO_ASSERT(scheduler_);
}

Task::~Task() {
   scheduler_->unschedule_(this);
}

void Task::scheduleTask() {
   if (state_ == State::ready) {
      return;
   }
   // Timers that already fell due are made ready first, in the order they fell due; otherwise
   // this task would overtake them within its priority until the next pass picked them up. If
   // this task's own timer is among them, that run is the one it keeps.
   scheduler_->promoteDueTimers_(Kivo::currentTime());
   if (state_ == State::ready) {
      return;
   }
   scheduler_->unschedule_(this);
   scheduler_->makeReady_(this);
}

void Task::scheduleTaskLowestDelay(double seconds) {
   double const due = Kivo::currentTime() + (seconds > 0 ? seconds : 0);
   if (state_ == State::ready || (state_ == State::timer && due_ <= due)) {
      return;
   }
   scheduler_->unschedule_(this);
   due_ = due;
   state_ = State::timer;
   timerPos_ = scheduler_->timers_.emplace(due, this);
}

void Task::stopTimerTask() {
   scheduler_->unschedule_(this);
}

bool Task::running() const {
   return scheduler_->current_ == this;
}

TaskScheduler::~TaskScheduler() {
   // Tasks hold a reference to their scheduler, so none can be pending here.
   KIVO_ASSERT(timers_.empty() && readyCount_ == 0);
}

void TaskScheduler::makeReady_(Task* t) {
   auto& list = ready_[t->priority_];
   t->readyPos_ = list.insert(list.end(), t);
   t->state_ = Task::State::ready;
   t->due_ = Kivo::currentTime();
   // A task made ready during a pass waits for the next one.
   t->pass_ = inPass_ ? pass_ + 1 : pass_;
   ++readyCount_;
}

void TaskScheduler::unschedule_(Task* t) {
   switch (t->state_) {
      case Task::State::idle:
         return;
      case Task::State::timer:
         timers_.erase(t->timerPos_);
         break;
      case Task::State::ready:
         ready_[t->priority_].erase(t->readyPos_);
         --readyCount_;
         break;
   }
   t->state_ = Task::State::idle;
}

void TaskScheduler::promoteDueTimers_(double now) {
   while (!timers_.empty() && timers_.begin()->first <= now) {
      Task* t = timers_.begin()->second;
      timers_.erase(timers_.begin());
      t->state_ = Task::State::idle;
      makeReady_(t);
   }
}

bool TaskScheduler::taskShouldYield() const {
   return current_ && Kivo::currentTime() - currentStart_ >= timeSlice_;
}

std::size_t TaskScheduler::runPass() {
   KIVO_ASSERT(!current_);  // passes do not nest
   double const passStart = Kivo::currentTime();
   promoteDueTimers_(passStart);
   ++pass_;
   std::uint64_t const thisPass = pass_;
   std::size_t ran = 0;
   inPass_ = true;
   struct EndPass {
      bool& inPass;
      ~EndPass() { inPass = false; }
   } endPass{inPass_};
   for (;;) {
      if (ran > 0 && Kivo::currentTime() - passStart >= passBudget_) {
         break;
      }
      // Highest priority first; within a priority, the order the tasks became ready.
      Task* next = nullptr;
      for (auto& [prio, list] : ready_) {
         if (!list.empty() && list.front()->pass_ <= thisPass) {
            next = list.front();
            break;
         }
      }
      if (!next) {
         break;
      }
      unschedule_(next);
      Kivo::Ptr<Task> hold(next);  // the handler may drop its owner's reference
      current_ = next;
      currentStart_ = Kivo::currentTime();
      struct Clear {
         Task*& current;
         ~Clear() { current = nullptr; }
      } clear{current_};
      try {
         next->handler_();
      } catch (std::exception const& e) {
         // One failing task does not keep the others of this pass, or later passes, from running.
         Kivo::handlerThrew("task", hold->name(), e);
      }
      ++ran;
      ++tasksRun_;
   }
   return ran;
}

bool TaskScheduler::hasDueWork() const {
   return readyCount_ > 0 || (!timers_.empty() && timers_.begin()->first <= Kivo::currentTime());
}

double TaskScheduler::nextTimerDue() const {
   return timers_.empty() ? std::numeric_limits<double>::infinity() : timers_.begin()->first;
}

bool TaskScheduler::runUntilIdle(std::size_t maxPasses) {
   for (std::size_t i = 0; i < maxPasses; ++i) {
      if (!hasDueWork()) {
         return true;
      }
      runPass();
   }
   return !hasDueWork();
}

bool TaskScheduler::runFor(Kivo::ManualClock& clock, double seconds, std::size_t maxPasses) {
   KIVO_ASSERT(&Kivo::clock() == &clock);
   double const target = clock.now() + seconds;
   std::size_t passes = 0;
   for (;;) {
      while (hasDueWork()) {
         if (++passes > maxPasses) {
            return false;
         }
         runPass();
      }
      double const next = nextTimerDue();
      if (next > target) {
         break;
      }
      clock.nowIs(std::max(next, clock.now()));
   }
   clock.nowIs(std::max(target, clock.now()));  // a handler may have moved it further
   return true;
}

}  // namespace Orbo
