// Orbo: the agent's cooperative task scheduler.
//
// A Task is a named handler with a priority that runs on the scheduler's thread when it is due.
// The state machine that creates a task owns it (through Ptr); dropping the last reference
// cancels any pending run, so a task never outlives its owner. The scheduler itself holds no
// references to tasks.
//
// Time comes from Kivo::currentTime(), the clock that the rest of the system reads too. Programs
// drive a scheduler with Orbo::EventLoop on the real clock; tests install a Kivo::ManualClock and
// call runUntilIdle() / runFor(), which move time from timer to timer without sleeping.
//
// A pass runs every task that was due when the pass began, highest priority first and in the
// order they became due within a priority. A task scheduled while a pass runs (itself included)
// runs in the next pass.
//
// A std::exception that leaves a task's handler is caught by the scheduler and traced with the
// task's name (Kivo::handlerThrew); the pass goes on with the next task and the failed task is
// not run again unless it was scheduled again before it threw. The scheduler and whatever drives
// it keep running. Other exceptions pass through; KIVO_ASSERT stops the process.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <set>

#include "Kivo/Kivo.h"

namespace Orbo {

using TaskPriority = int;  // larger runs first

class TaskScheduler;

class Task : public Kivo::Object {
 public:
   using Handler = std::function<void()>;

   Task(Kivo::Ptr<TaskScheduler> scheduler, TaskPriority priority, Kivo::String name,
        Handler handler);
   ~Task() override;

   Kivo::String const& name() const { return name_; }
   TaskPriority priority() const { return priority_; }
   TaskScheduler* scheduler() const { return scheduler_.get(); }

   // Run on the next pass. A pending timer is brought forward.
   void scheduleTask();
   // Run `seconds` from now, unless a run is already due no later than that; then it is kept.
   void scheduleTaskLowestDelay(double seconds);
   // Cancels a pending run (timer or next pass). The task can be scheduled again later.
   void stopTimerTask();

   bool scheduled() const { return state_ != State::idle; }
   // When the pending run is due; only meaningful while scheduled().
   double dueTime() const { return due_; }
   // True while this task's handler is running.
   bool running() const;

 private:
   friend class TaskScheduler;
   enum class State { idle, timer, ready };

   Kivo::Ptr<TaskScheduler> scheduler_;
   TaskPriority priority_;
   Kivo::String name_;
   Handler handler_;
   State state_ = State::idle;
   double due_ = 0;
   std::uint64_t pass_ = 0;  // the pass a ready task may run in
   std::multimap<double, Task*>::iterator timerPos_;
   std::list<Task*>::iterator readyPos_;
};

using TimerTask = Task;

class TaskScheduler : public Kivo::Object {
 public:
   TaskScheduler() = default;
   ~TaskScheduler() override;

   // Whether the running task has used up its time slice and should reschedule itself and return.
   // With a time slice of 0 every check says yes, which makes yielding deterministic in tests.
   bool taskShouldYield() const;
   double timeSlice() const { return timeSlice_; }
   void timeSliceIs(double seconds) { timeSlice_ = seconds; }

   Task* currentTask() const { return current_; }

   // Runs one pass; returns the number of tasks run. A pass runs the tasks that were ready when
   // it began, highest priority first, but starts no further task once it has lasted
   // passBudget(): the rest stay ready, first in line for the next pass, and the event loop
   // reads its descriptors in between. So the loop is deaf for at most the budget plus the
   // longest single task, however many tasks fall due together.
   std::size_t runPass();
   double passBudget() const { return passBudget_; }
   void passBudgetIs(double seconds) { passBudget_ = seconds; }
   // True when a task is ready or a timer is due by the current time.
   bool hasDueWork() const;
   // When the earliest timer is due; +infinity when there is none (ready tasks are not counted).
   double nextTimerDue() const;
   std::size_t pendingTasks() const { return timers_.size() + readyCount_; }

   // Runs passes until nothing is due at the current time. Returns false when `maxPasses` were
   // not enough (a task that keeps rescheduling itself with no delay).
   bool runUntilIdle(std::size_t maxPasses = 10000);
   // Moves `clock` forward by `seconds`, stopping at every timer on the way and running what is
   // due there. REQUIRES: `clock` is the installed clock.
   bool runFor(Kivo::ManualClock& clock, double seconds, std::size_t maxPasses = 100000);

   // Total tasks run; for tests and statistics.
   std::uint64_t tasksRun() const { return tasksRun_; }

 private:
   friend class Task;
   void makeReady_(Task* t);
   void unschedule_(Task* t);
   void promoteDueTimers_(double now);

   std::multimap<double, Task*> timers_;
   std::map<TaskPriority, std::list<Task*>, std::greater<>> ready_;
   std::size_t readyCount_ = 0;
   std::uint64_t pass_ = 0;
   std::uint64_t tasksRun_ = 0;
   Task* current_ = nullptr;
   // A pass is under way; unlike current_ this also covers the moments between two handlers,
   // when releasing the task that just ran may run destructors that schedule other tasks.
   bool inPass_ = false;
   double currentStart_ = 0;
   double timeSlice_ = 0.01;
   double passBudget_ = 0.05;
};

using TaskSchedulerRoot = TaskScheduler;

}  // namespace Orbo
