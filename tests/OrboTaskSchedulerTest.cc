// The task scheduler as scripts of events against a manual clock; the event loop on the real one.
#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "Orbo/EventLoop.h"
#include "Orbo/TaskScheduler.h"

using namespace Orbo;
using Kivo::make;
using Kivo::Ptr;
using Log = std::vector<std::string>;

namespace {

struct OrboTaskScheduler : ::testing::Test {
   Kivo::ScopedManualClock clock;
   double const t0 = clock->now();
   Ptr<TaskScheduler> sched = make<TaskScheduler>();
   Log log;

   // A task that logs its name, then does `then`.
   Ptr<Task> task(
       std::string name, TaskPriority prio = 0, std::function<void()> then = [] {}) {
      return make<Task>(sched, prio, name, [this, name, then] { log.push_back(name), then(); });
   }
   void stamp() { log.back() += "@" + std::to_string(int(clock->now() - t0)); }
};

}  // namespace

// A task scheduled during a pass, itself or one of higher priority, waits for the next pass.
TEST_F(OrboTaskScheduler, TaskScheduledDuringAPassRunsInTheNextPass) {
   Ptr<Task> high = task("high", 9), self;
   int selfRuns = 0;
   self = task("self", 0, [&] {
      high->scheduleTask();
      if (++selfRuns < 3) {
         self->scheduleTask();
      }
   });
   self->scheduleTask();
   self->scheduleTask();
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_EQ(sched->runPass(), 2u);
   EXPECT_EQ(log, (Log{"self", "high", "self"}));
   EXPECT_EQ(sched->runPass(), 2u);
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_EQ(sched->runPass(), 0u);
}

// Higher priority first; within a priority, the order the tasks fell due, including a timer that
// fell due before a task was made ready but is only picked up when the pass begins.
TEST_F(OrboTaskScheduler, PriorityThenTheOrderTasksFellDue) {
   Ptr<Task> timer = task("timer");
   timer->scheduleTaskLowestDelay(1);
   clock->advance(2);
   std::vector<Ptr<Task>> tasks;
   for (auto [name, prio] : {std::pair{"l1", 0}, {"h1", 5}, {"l2", 0}, {"m", 2}, {"h2", 5}}) {
      tasks.push_back(task(name, prio));
      tasks.back()->scheduleTask();
   }
   EXPECT_EQ(sched->runPass(), 6u);
   EXPECT_EQ(log, (Log{"h1", "h2", "m", "timer", "l1", "l2"}));
}

TEST_F(OrboTaskScheduler, ScheduleTaskLowestDelayKeepsTheEarlierRun) {
   struct Case {
      double pending;  // < 0: ready; 0: idle; > 0: a timer that far ahead
      double request, due;
   } const cases[] = {{0, 3, 3}, {5, 10, 5}, {10, 5, 5}, {-1, 5, 0}};
   for (auto const& c : cases) {
      SCOPED_TRACE("pending " + std::to_string(c.pending) + ", asked " + std::to_string(c.request));
      clock->nowIs(t0);
      log.clear();
      Ptr<Task> t = task("t");
      if (c.pending < 0) {
         t->scheduleTask();
      } else if (c.pending > 0) {
         t->scheduleTaskLowestDelay(c.pending);
      }
      t->scheduleTaskLowestDelay(c.request);
      EXPECT_EQ(t->dueTime(), t0 + c.due);
      EXPECT_EQ(sched->hasDueWork(), c.due == 0);
      EXPECT_TRUE(sched->runFor(*clock, c.due));
      EXPECT_EQ(log, Log{"t"});
   }
}

// A pending run goes with stopTimerTask() or with the last Ptr to its task, also when that is
// dropped by a task running earlier in the same pass.
TEST_F(OrboTaskScheduler, StopOrDropCancelsAPendingRun) {
   for (bool drop : {false, true}) {
      SCOPED_TRACE(drop ? "last Ptr dropped" : "stopTimerTask");
      log.clear();
      Ptr<Task> timer = task("timer"), ready = task("ready"), victim = task("victim");
      Ptr<Task> first =
          task("first", 1, [&] { drop ? void(victim = nullptr) : victim->stopTimerTask(); });
      timer->scheduleTaskLowestDelay(1);
      for (Task* t : {ready.get(), victim.get(), first.get()}) {
         t->scheduleTask();
      }
      for (Ptr<Task>* t : {&timer, &ready}) {
         drop ? void(*t = nullptr) : (*t)->stopTimerTask();
      }
      EXPECT_TRUE(sched->runFor(*clock, 5));
      EXPECT_EQ(log, Log{"first"});
      EXPECT_EQ(sched->pendingTasks(), 0u);
   }
}

// The handler asks for another run, then drops the last Ptr to the owner of its task: the task
// lives until the handler returns, and the run it asked for goes with it. Releasing the task
// releases its handler's captures, which here schedule another task: that waits for the next pass.
TEST_F(OrboTaskScheduler, HandlerDropsTheLastReferenceToItsOwner) {
   struct Owner : Kivo::Object {
      Ptr<Task> t;
   };
   Ptr<Task> later = task("later");
   auto onRelease = std::shared_ptr<void>(nullptr, [&](void*) { later->scheduleTask(); });
   auto owner = make<Owner>();
   owner->t = task("t", 0, [&, onRelease] {
      owner->t->scheduleTaskLowestDelay(1);
      owner = nullptr;
      log.push_back("after drop");
   });
   onRelease = nullptr;
   owner->t->scheduleTask();
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_EQ(log, (Log{"t", "after drop"}));
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_TRUE(sched->runFor(*clock, 5));
   EXPECT_EQ(log, (Log{"t", "after drop", "later"}));
}

TEST_F(OrboTaskScheduler, RunningOnlyInsideItsOwnHandler) {
   Ptr<Task> a, b;
   a = task("a", 1, [&] { EXPECT_TRUE(a->running() && !b->running()); });
   b = task("b", 0, [&] { EXPECT_TRUE(b->running() && !a->running()); });
   a->scheduleTask();
   b->scheduleTask();
   EXPECT_FALSE(a->running());
   EXPECT_EQ(sched->runPass(), 2u);
   EXPECT_FALSE(a->running() || b->running());
}

// A zero slice says yield at every check inside a task; the default slice on a manual clock only
// once the handler itself moves the clock past it.
TEST_F(OrboTaskScheduler, TaskShouldYieldFollowsTheSliceAndTheClock) {
   std::vector<bool> yields;
   Ptr<Task> t = task("t", 0, [&] {
      yields.push_back(sched->taskShouldYield());
      clock->advance(2 * sched->timeSlice());
      yields.push_back(sched->taskShouldYield());
   });
   sched->timeSliceIs(0);
   t->scheduleTask();
   sched->runPass();
   EXPECT_FALSE(sched->taskShouldYield());
   sched->timeSliceIs(0.01);
   t->scheduleTask();
   sched->runPass();
   EXPECT_EQ(yields, (std::vector<bool>{true, true, false, true}));
}

TEST_F(OrboTaskScheduler, RunForStopsAtEachTimerInOrderAndEndsAtTheTarget) {
   auto stamp = [this] { this->stamp(); };
   Ptr<Task> c = task("c", 0, stamp), a = task("a", 0, stamp), b = task("b", 0, stamp);
   Ptr<Task> late = task("late", 0, stamp), periodic;
   periodic = task("p", 0, [&] { stamp(), periodic->scheduleTaskLowestDelay(4); });
   for (auto [t, delay] : {std::pair{&c, 3}, {&a, 1}, {&b, 2}, {&late, 11}, {&periodic, 4}}) {
      (*t)->scheduleTaskLowestDelay(delay);
   }
   EXPECT_TRUE(sched->runFor(*clock, 10));
   EXPECT_EQ(log, (Log{"a@1", "b@2", "c@3", "p@4", "p@8"}));
   EXPECT_EQ(clock->now(), t0 + 10);
   EXPECT_EQ(sched->nextTimerDue(), t0 + 11);
}

TEST_F(OrboTaskScheduler, RunUntilIdleGivesUpOnATaskThatNeverStops) {
   Ptr<Task> t;
   t = task("t", 0, [&] { t->scheduleTask(); });
   t->scheduleTask();
   EXPECT_FALSE(sched->runUntilIdle(50));
   EXPECT_EQ(log.size(), 50u);
   t->stopTimerTask();
   EXPECT_TRUE(sched->runUntilIdle(50));
}

// The real clock from here on. A watchdog stops run() after 2 s, so a broken loop fails fast.
namespace {

struct OrboEventLoop : ::testing::Test {
   Ptr<TaskScheduler> sched = make<TaskScheduler>();
   EventLoop loop{sched};
   bool timedOut = false;
   Ptr<Task> watchdog = make<Task>(sched, 0, "watchdog", [this] { timedOut = true, loop.stop(); });
   void run() {
      watchdog->scheduleTaskLowestDelay(2.0);
      loop.run();
      watchdog->stopTimerTask();
      EXPECT_FALSE(timedOut);
   }
};

}  // namespace

TEST_F(OrboEventLoop, ReadableDescriptorHandlerRuns) {
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   char got = 0;
   loop.fdIs(fds[0], [&] {
      EXPECT_EQ(read(fds[0], &got, 1), 1);
      loop.stop();
   });
   ASSERT_EQ(write(fds[1], "x", 1), 1);
   run();
   EXPECT_EQ(got, 'x');
   loop.fdDel(fds[0]);
   close(fds[0]);
   close(fds[1]);
}

TEST_F(OrboEventLoop, TimerFiresAndStopEndsRun) {
   double const start = Kivo::currentTime();
   double firedAfter = -1;
   Ptr<Task> timer = make<Task>(sched, 0, "timer", [&] {
      firedAfter = Kivo::currentTime() - start;
      loop.stop();
   });
   timer->scheduleTaskLowestDelay(0.005);
   run();
   EXPECT_GE(firedAfter, 0.005);
   EXPECT_LT(firedAfter, 1.0);
}

TEST_F(OrboEventLoop, SignalIsDeliveredThroughTheLoop) {
   int delivered = 0;
   loop.signalIs(SIGUSR1, [&] { ++delivered, loop.stop(); });
   ASSERT_EQ(raise(SIGUSR1), 0);  // blocked by signalIs: it waits for the loop
   EXPECT_EQ(delivered, 0);
   run();
   EXPECT_EQ(delivered, 1);
}
