// The task scheduler as scripts of events against a manual clock; the event loop on the real one.
#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <csignal>
#include <set>
#include <stdexcept>

#include "Orbo/EventLoop.h"
#include "Orbo/TaskScheduler.h"
#include "Trace/Snaplog.h"

using namespace Orbo;
using namespace Kivo;
using Log = std::vector<std::string>;

struct OrboTaskScheduler : ::testing::Test {
   Kivo::ScopedManualClock clock;
   double const t0 = clock->now();
   Ptr<TaskScheduler> sched = make<TaskScheduler>();
   Log log;

   // A task that logs its name, then does `then`.
   Ptr<Task> task(std::string name, TaskPriority prio = 0, std::function<void()> then = {}) {
      return make<Task>(sched, prio, name,
                        [=, this] { log.push_back(name), then ? then() : void(); });
   }
   void stamp() { log.back() += "@" + std::to_string(int(clock->now() - t0)); }
};

// A task scheduled during a pass, itself or one of higher priority, waits for the next pass. A
// task is running() only inside its own handler.
TEST_F(OrboTaskScheduler, TaskScheduledDuringAPassRunsInTheNextPass) {
   Ptr<Task> high = task("high", 9), self;
   int selfRuns = 0;
   self = task("self", 0, [&] {
      EXPECT_TRUE(self->running() && !high->running());
      high->scheduleTask();
      if (++selfRuns < 3) {
         self->scheduleTask();
      }
   });
   self->scheduleTask(), self->scheduleTask();
   for (std::size_t ran : {1, 2, 2, 1, 0}) {
      EXPECT_EQ(sched->runPass(), ran);
   }
   EXPECT_EQ(log, (Log{"self", "high", "self", "high", "self", "high"}));
   EXPECT_FALSE(self->running() || high->running());
}

// Higher priority first; within a priority, the order the tasks fell due, including a timer that
// fell due before a task was made ready but is only picked up when the pass begins.
TEST_F(OrboTaskScheduler, PriorityThenTheOrderTasksFellDue) {
   Ptr<Task> timer = task("timer");
   timer->scheduleTaskLowestDelay(1);
   clock->advance(2);
   std::vector<Ptr<Task>> tasks;
   for (auto [name, prio] : {std::pair{"l1", 0}, {"h1", 5}, {"l2", 0}, {"m", 2}, {"h2", 5}}) {
      tasks.push_back(task(name, prio)), tasks.back()->scheduleTask();
   }
   EXPECT_EQ(sched->runPass(), 6u);
   EXPECT_EQ(log, (Log{"h1", "h2", "m", "timer", "l1", "l2"}));
}

// A pass that has lasted its budget starts no further task: the others run first in the next
// pass, in their order, so a crowd of due tasks leaves the loop room between them.
TEST_F(OrboTaskScheduler, PassPastItsBudgetLeavesTheRestToTheNextPassInOrder) {
   std::vector<Ptr<Task>> tasks;
   for (auto [name, seconds] : {std::pair{"a", 0.03}, {"b", 0.03}, {"c", 0.0}, {"d", 0.2}}) {
      tasks.push_back(task(name, 0, [this, s = seconds] { clock->advance(s); }));
      tasks.back()->scheduleTask();
   }
   Ptr<Task> late = task("late");
   for (std::size_t ran : {2, 2}) {
      EXPECT_EQ(sched->runPass(), ran);
      late->scheduleTask();
   }
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_EQ(log, (Log{"a", "b", "c", "d", "late"}));
}

// Pending: < 0 ready, 0 idle, > 0 a timer that far ahead.
TEST_F(OrboTaskScheduler, ScheduleTaskLowestDelayKeepsTheEarlierRun) {
   for (auto [pending, request, due] :
        {std::array{0., 3., 3.}, {5., 10., 5.}, {10., 5., 5.}, {-1., 5., 0.}}) {
      SCOPED_TRACE("pending " + std::to_string(pending) + ", asked " + std::to_string(request));
      clock->nowIs(t0), log.clear();
      Ptr<Task> t = task("t");
      pending<0 ? t->scheduleTask() : pending> 0 ? t->scheduleTaskLowestDelay(pending) : void();
      t->scheduleTaskLowestDelay(request);
      EXPECT_EQ(t->dueTime(), t0 + due);
      EXPECT_EQ(sched->hasDueWork(), due == 0);
      EXPECT_TRUE(sched->runFor(*clock, due));
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
      ready->scheduleTask(), victim->scheduleTask(), first->scheduleTask();
      for (Ptr<Task>* t : {&timer, &ready}) {
         drop ? void(*t = nullptr) : (*t)->stopTimerTask();
      }
      EXPECT_TRUE(sched->runFor(*clock, 5));
      EXPECT_EQ(log, Log{"first"});
      EXPECT_EQ(sched->pendingTasks(), 0u);
   }
}

// The handler asks for another run, then drops its task's owner: the task lives until the handler
// returns, the run goes with it, and its released captures schedule a task for the next pass.
TEST_F(OrboTaskScheduler, HandlerDropsTheLastReferenceToItsOwner) {
   Ptr<Task> later = task("later");
   auto onRelease = std::shared_ptr<void>(nullptr, [&](void*) { later->scheduleTask(); });
   auto owner = std::make_shared<Ptr<Task>>();
   *owner = task("t", 0, [&, onRelease] {
      (*owner)->scheduleTaskLowestDelay(1);
      owner = nullptr;
      log.push_back("after drop");
   });
   onRelease = nullptr;
   (*owner)->scheduleTask();
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_EQ(log, (Log{"t", "after drop"}));
   EXPECT_EQ(sched->runPass(), 1u);
   EXPECT_TRUE(sched->runFor(*clock, 5));
   EXPECT_EQ(log, (Log{"t", "after drop", "later"}));
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
   for (double slice : {0., 0.01}) {
      sched->timeSliceIs(slice), t->scheduleTask(), sched->runPass();
      EXPECT_FALSE(sched->taskShouldYield());
   }
   EXPECT_EQ(yields, (std::vector<bool>{true, true, false, true}));
}

// A task that throws, between two others of the same pass: the exception is traced with the
// task's name, the rest of the pass runs, and so do later passes, the thrower's rescheduled run
// (asked for before it threw) and timers included.
TEST_F(OrboTaskScheduler, ThrowingTaskIsTracedAndThePassAndLaterPassesGoOn) {
   Ptr<Task> thrower, other = task("other", 0, [&] { other->scheduleTaskLowestDelay(5); });
   Ptr<Task> first = task("first");
   int throws = 0;
   thrower = task("thrower", 0, [&] {
      if (++throws == 1) {
         thrower->scheduleTaskLowestDelay(1);
      }
      throw std::runtime_error("bad state " + std::to_string(throws));
   });
   first->scheduleTask(), thrower->scheduleTask(), other->scheduleTask();
   Snaplog::clear();
   EXPECT_EQ(sched->runPass(), 3u);
   EXPECT_EQ(log, (Log{"first", "thrower", "other"}));
   EXPECT_TRUE(thrower->scheduled() && other->scheduled());
   EXPECT_FALSE(sched->currentTask());
   EXPECT_TRUE(sched->runFor(*clock, 10));
   EXPECT_EQ(log, (Log{"first", "thrower", "other", "thrower", "other", "other"}));
   EXPECT_FALSE(thrower->scheduled());
   EXPECT_EQ(Snaplog::lines(), (Log{"Caught exception in task thrower: bad state 1",
                                    "Caught exception in task thrower: bad state 2"}));
}

TEST_F(OrboTaskScheduler, RunForStopsAtEachTimerInOrderAndEndsAtTheTarget) {
   auto stamp = [this] { this->stamp(); };
   Ptr<Task> c = task("c", 0, stamp), a = task("a", 0, stamp), b = task("b", 0, stamp);
   Ptr<Task> late = task("late", 0, stamp), periodic;
   periodic = task("p", 0, [&] { stamp(), periodic->scheduleTaskLowestDelay(4); });
   c->scheduleTaskLowestDelay(3), a->scheduleTaskLowestDelay(1), b->scheduleTaskLowestDelay(2);
   late->scheduleTaskLowestDelay(11), periodic->scheduleTaskLowestDelay(4);
   EXPECT_TRUE(sched->runFor(*clock, 10));
   EXPECT_EQ(log, (Log{"a@1", "b@2", "c@3", "p@4", "p@8"}));
   EXPECT_EQ(clock->now(), t0 + 10);
   EXPECT_EQ(sched->nextTimerDue(), t0 + 11);
}

TEST_F(OrboTaskScheduler, RunUntilIdleGivesUpOnATaskThatNeverStops) {
   Ptr<Task> t = task("t", 0, [&] { t->scheduleTask(); });
   t->scheduleTask();
   EXPECT_FALSE(sched->runUntilIdle(50));
   EXPECT_EQ(log.size(), 50u);
   t->stopTimerTask();
   EXPECT_TRUE(sched->runUntilIdle(50));
}

// Descriptor handlers and tasks that throw are traced and the loop carries on. No waiting: the
// pipe is readable and the task is due before each runOnce.
TEST(OrboEventLoop, ThrowingDescriptorHandlerOrTaskDoesNotStopTheLoop) {
   Kivo::ScopedManualClock clock;
   Ptr<TaskScheduler> sched = make<TaskScheduler>();
   EventLoop loop{sched};
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   Log log;
   char buf = 0;
   loop.fdIs(fds[0], [&] {
      ASSERT_EQ(read(fds[0], &buf, 1), 1);
      log.push_back(std::string("fd:") + buf);
      if (buf == 'x') {
         throw std::runtime_error("fd handler failed");
      }
   });
   Ptr<Task> t = make<Task>(sched, 0, "loopTask", [&] {
      log.push_back("task");
      throw std::runtime_error("task failed");
   });
   Snaplog::clear();
   for (char c : {'x', 'y'}) {
      ASSERT_EQ(write(fds[1], &c, 1), 1);
      t->scheduleTask();
      EXPECT_NO_THROW(loop.runOnce(0));
   }
   EXPECT_EQ(log, (Log{"fd:x", "task", "fd:y", "task"}));
   std::string const fd = std::to_string(fds[0]);
   EXPECT_EQ(Snaplog::lines(),
             (Log{"Caught exception in handler of fd " + fd + ": fd handler failed",
                  "Caught exception in task loopTask: task failed",
                  "Caught exception in task loopTask: task failed"}));
   loop.fdDel(fds[0]);
   close(fds[0]), close(fds[1]);
}

// Each pass is measured from waking to sleeping again, handlers and tasks included; the clock is
// moved by a task as a slow task would move the real one.
TEST(OrboEventLoop, PassStatsCountTheLongestPassAndEachBoundItExceeded) {
   Kivo::ScopedManualClock clock;
   Ptr<TaskScheduler> sched = make<TaskScheduler>();
   EventLoop loop{sched};
   double took = 0;
   Ptr<Task> slow = make<Task>(sched, 0, "slow", [&] { clock->nowIs(clock->now() + took); });
   for (double const t : {0.0005, 0.05, 2.5, 0.002}) {
      took = t;
      slow->scheduleTask();
      loop.runOnce(0);
   }
   auto const& s = loop.passStats();
   EXPECT_EQ(s.passes, 4u);
   EXPECT_DOUBLE_EQ(s.maxSeconds, 2.5);
   EXPECT_EQ(s.longerThan, (std::array<std::uint64_t, 5>{3, 2, 1, 1, 0}));
}

// The real clock: a readable fd, a timer and a signal each reach their handler through run(), and
// stop() ends it. A watchdog stops run() after 2 s, so a broken loop fails fast.
TEST(OrboEventLoop, RunsDescriptorTimerAndSignalHandlersUntilStopped) {
   Ptr<TaskScheduler> sched = make<TaskScheduler>();
   EventLoop loop{sched};
   std::set<std::string> seen;
   auto saw = [&](std::string what) { seen.insert(what), seen.size() == 3 ? loop.stop() : void(); };
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   ASSERT_EQ(write(fds[1], "x", 1), 1);
   char buf = 0;
   loop.fdIs(fds[0], [&] { saw(read(fds[0], &buf, 1) == 1 ? std::string("fd:") + buf : "fd?"); });
   double start = Kivo::currentTime(), firedAfter = -1;
   Ptr<Task> timer = make<Task>(sched, 0, "timer",
                                [&] { firedAfter = Kivo::currentTime() - start, saw("timer"); });
   timer->scheduleTaskLowestDelay(0.005);
   loop.signalIs(SIGUSR1, [&] { saw("signal"); });
   ASSERT_EQ(raise(SIGUSR1), 0);  // blocked by signalIs: it waits for the loop
   EXPECT_TRUE(seen.empty());
   Ptr<Task> watchdog = make<Task>(sched, 0, "watchdog", [&] { saw("watchdog"), loop.stop(); });
   watchdog->scheduleTaskLowestDelay(2.0);
   loop.run();
   EXPECT_EQ(seen, (std::set<std::string>{"fd:x", "signal", "timer"}));
   EXPECT_TRUE(firedAfter >= 0.005 && firedAfter < 1.0) << firedAfter;
   loop.fdDel(fds[0]);
   close(fds[0]), close(fds[1]);
}
