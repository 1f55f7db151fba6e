// Signals, reactors, attributes and Ptr: above all, what handlers may do to what notifies them.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>

#include "Kivo/Attr.h"
#include "Kivo/Kivo.h"
#include "Trace/Snaplog.h"
#include "support/DeathText.h"

using namespace Kivo;
using Log = std::vector<String>;

namespace {

struct Item : Object {
   explicit Item(String const&, int t = 0) : tag(t) {}
   int tag;
};

struct Entity : Object {
   Value<int> x{SignalName{"x"}};
   ValueColl<String, int> vals;
   Coll<String, Item> items;
   SetColl<String> names;
};

void watchAll(Reactor& r, Entity const& e, std::function<void()> fn) {
   r.watch(e.x.signal(), fn);
   r.watch(e.vals.signal(), [fn](String const&) { fn(); });
   r.watch(e.items.signal(), [fn](String const&) { fn(); });
   r.watch(e.names.signal(), [fn](String const&) { fn(); });
}

// A state machine owning its entity; `first` is destroyed after the entity, `last` before it.
struct Sm : Object {
   Reactor first;
   Ptr<Entity> e;
   Reactor last;
};

struct Base : Object {
   explicit Base(int* d) : destroyed(d) {}
   ~Base() override { ++*destroyed; }
   int* destroyed;
};
struct Derived : Base {
   using Base::Base;
};

}  // namespace

// The first handler destroys its own reactor (the next still runs) or the next one (never runs).
TEST(KivoSignal, HandlerDestroysItsOwnOrTheNextReactor) {
   for (bool own : {true, false}) {
      SCOPED_TRACE(own ? "own" : "next");
      auto e = make<Entity>();
      auto victim = std::make_unique<Reactor>();
      Reactor other;
      Log calls;
      (own ? *victim : other).watch(e->x.signal(), [&] { calls.push_back("1"), victim.reset(); });
      (own ? other : *victim).watch(e->x.signal(), [&] { calls.push_back("2"); });
      e->x.is(1), e->x.is(2);
      EXPECT_EQ(calls, own ? (Log{"1", "2", "2"}) : (Log{"1", "1"}));
      EXPECT_EQ(e->x.signal().observers(), 1u);
   }
}

// Outside any emission each disconnection takes its slot out at once: slots keep their order as a
// signal goes between none, one and several observers.
TEST(KivoSignal, SlotsKeepTheirOrderAsObserversComeAndGo) {
   auto e = make<Entity>();
   Log calls;
   std::map<String, Reactor> r;
   auto watch = [&](String n) { r[n].watch(e->x.signal(), [&calls, n] { calls.push_back(n); }); };
   auto emitted = [&] {
      calls.clear();
      e->x.inc(1);
      return calls;
   };
   watch("A"), watch("B"), watch("C");
   EXPECT_EQ(emitted(), (Log{"A", "B", "C"}));
   r["B"].reset();
   EXPECT_EQ(emitted(), (Log{"A", "C"}));
   r["A"].reset();
   EXPECT_EQ(emitted(), Log{"C"});
   watch("D");
   EXPECT_EQ(emitted(), (Log{"C", "D"}));
   r["D"].reset(), r["C"].reset();
   EXPECT_EQ(emitted(), Log{});
   EXPECT_EQ(e->x.signal().observers(), 0u);
   watch("E"), watch("F");
   EXPECT_EQ(emitted(), (Log{"E", "F"}));
   EXPECT_EQ(e->x.signal().observers(), 2u);
}

// For ASan: from inside each kind of change, the handler deletes the state machine holding its
// reactor and the last Ptr to the entity. Nothing may touch it after, nor call later slots.
TEST(KivoSignal, HandlerDestroysStateMachineHoldingLastRefToEntity) {
   std::vector<std::function<void(Entity&)>> const changes = {
       [](Entity& e) { e.x.is(7); },          [](Entity& e) { EXPECT_EQ(e.x.inc(3), 3); },
       [](Entity& e) { e.items.is("c", 1); }, [](Entity& e) { e.items.del("a"); },
       [](Entity& e) { e.items.delAll(); },   [](Entity& e) { e.vals.delAll(); },
       [](Entity& e) { e.names.delAll(); }};
   for (std::size_t i = 0; i < changes.size() * 2; ++i) {
      SCOPED_TRACE("case " + std::to_string(i / 2) + (i % 2 ? " from last" : " from first"));
      auto sm = make<Sm>();
      Entity* raw = (sm->e = make<Entity>()).get();
      for (char const* k : {"a", "b"}) {
         raw->vals.is(k, 1), raw->items.is(k), raw->names.is(k);
      }
      int smCalls = 0, laterCalls = 0;
      watchAll(i % 2 ? sm->last : sm->first, *raw, [&] { ++smCalls, sm = nullptr; });
      Reactor later;  // outlives the entity
      watchAll(later, *raw, [&] { ++laterCalls; });
      changes[i / 2](*raw);
      EXPECT_EQ(std::tuple(sm == nullptr, smCalls, laterCalls), std::tuple(true, 1, 0));
   }
}

// A nested change reaches every live slot before the outer one goes on. C disconnects D, which
// never runs, and connects E, which runs from the next change only.
TEST(KivoSignal, NestedChangeAndConnectOrDisconnectDuringEmission) {
   auto e = make<Entity>();
   Reactor r, rd, added;
   Log calls;
   auto log = [&](String n) { return [&, n](String const& k) { calls.push_back(n + k); }; };
   for (String name : {"A", "B", "C"}) {
      r.watch(e->vals.signal(), [&, name, mine = log(name)](String const& k) {
         mine(k);
         if (name + k == "A1") {
            e->vals.is("2", 2);
         } else if (name == "C" && added.empty()) {
            rd.reset(), added.watch(e->vals.signal(), log("E"));
         }
      });
   }
   rd.watch(e->vals.signal(), log("D"));
   e->vals.is("1", 1), e->vals.is("3", 3);
   EXPECT_EQ(calls, (Log{"A1", "A2", "B2", "C2", "B1", "C1", "A3", "B3", "C3", "E3"}));
}

TEST(KivoSignal, ReactorAndConnectionOutliveTheSignalOwner) {
   auto e = make<Entity>();
   Reactor r;
   watchAll(r, *e, [] { ADD_FAILURE(); });
   Connection c = e->x.signal().connect([] { ADD_FAILURE(); });
   e = nullptr;
   EXPECT_FALSE(c.connected());
   c.disconnect(), r.reset();
}

// A throwing observer between two others: the exception stops that observer only, is traced with
// the signal's name, and never reaches the code that made the change. Here the thrower also drops
// the reactor after it, which therefore never runs.
TEST(KivoSignal, ThrowingObserverIsTracedAndTheOthersStillRun) {
   auto e = make<Entity>();
   auto victim = std::make_unique<Reactor>();
   Reactor r;
   Log calls;
   r.watch(e->x.signal(), [&] { calls.push_back("before"); });
   r.watch(e->x.signal(), [&] {
      calls.push_back("thrower");
      if (e->x.get() == 2) {
         victim.reset();
      }
      throw Exception("handler failed " + std::to_string(e->x.get()));
   });
   victim->watch(e->x.signal(), [&] { calls.push_back("victim"); });
   r.watch(e->x.signal(), [&] { calls.push_back("after"); });
   Snaplog::clear();
   EXPECT_NO_THROW(e->x.is(1));
   EXPECT_NO_THROW(e->x.is(2));
   EXPECT_EQ(calls, (Log{"before", "thrower", "victim", "after", "before", "thrower", "after"}));
   EXPECT_EQ(e->x.signal().observers(), 3u);
   EXPECT_EQ(Snaplog::lines(), (Log{"Caught exception in observer of x: handler failed 1",
                                    "Caught exception in observer of x: handler failed 2"}));
}

// A collection keeps notifying key after key while one observer throws on each, and a thrower
// that destroys the entity ends the emission like any handler that does.
TEST(KivoSignal, ThrowingObserverDoesNotStopDelAllOrOutliveTheEntity) {
   auto e = make<Entity>();
   for (char const* k : {"a", "b", "c"}) {
      e->items.is(k);
   }
   Reactor r;
   Log seen;
   r.watch(e->items.signal(), [](String const& k) { throw std::runtime_error("no " + k); });
   r.watch(e->items.signal(), [&](String const& k) { seen.push_back(k); });
   e->items.delAll();
   EXPECT_EQ(std::tuple(seen, e->items.empty()), std::tuple(Log{"a", "b", "c"}, true));

   Entity* raw = e.get();
   int later = 0;
   Reactor first, second;
   first.watch(raw->x.signal(), [&] {
      e = nullptr;
      throw std::runtime_error("gone");
   });
   second.watch(raw->x.signal(), [&] { ++later; });
   Snaplog::clear();
   raw->x.is(1);
   EXPECT_EQ(std::tuple(later, Snaplog::lines()),
             std::tuple(0, Log{"Caught exception in observer of x: gone"}));
}

// Only std::exception is the observers' business; anything else passes through, and an assertion
// still stops the process from inside an observer.
TEST(KivoSignal, NonStandardExceptionPassesAndAssertionStillStops) {
   auto e = make<Entity>();
   Reactor r;
   int after = 0;
   r.watch(e->x.signal(), [&] {
      if (e->x.get() == 1) {
         throw 7;
      }
   });
   r.watch(e->x.signal(), [&] { ++after; });
   EXPECT_THROW(e->x.is(1), int);
   e->x.is(2);
   EXPECT_EQ(after, 1);
   r.watch(e->x.signal(), [&] { KIVO_ASSERT(e->x.get() != 3); });
   EXPECT_DEATH(e->x.is(3), testsupport::assertText("e->x.get() != 3"));
}

// The handler of a slot disconnected during an emission is released when the emission ends, and
// with it what it owns: here another reactor of the same signal, or the last Ptr to the entity.
TEST(KivoSignal, ReleasedHandlerStateMayDisconnectOthersOrDestroyTheOwner) {
   for (bool ownsEntity : {false, true}) {
      SCOPED_TRACE(ownsEntity ? "owns the entity" : "owns another reactor");
      auto e = make<Entity>();
      Entity* raw = e.get();
      auto other = std::make_shared<Reactor>();
      int otherCalls = 0;
      other->watch(raw->x.signal(), [&] { ++otherCalls; });
      auto held = std::make_unique<Reactor>();
      held->watch(raw->x.signal(), [other, keep = ownsEntity ? e : nullptr] {});
      other = nullptr;
      e = ownsEntity ? nullptr : e;
      Reactor r;
      r.watch(raw->x.signal(), [&] { held.reset(); });
      raw->x.is(1);
      if (!ownsEntity) {
         raw->x.is(2);
         EXPECT_TRUE(otherCalls == 1 && raw->x.signal().observers() == 1u);
      }
   }
}

// Every key is reported once per change. A handler of delAll erases keys still ahead of it.
TEST(KivoAttr, CollNotifiesPerKeyAndDelAllSurvivesHandlerErasingKeys) {
   auto e = make<Entity>();
   Log seen;
   Reactor r;
   r.watch(e->items.signal(), [&](String const& k) {
      seen.push_back(k);
      if (k == "a" && !e->items.has("a")) {
         e->items.del("c"), e->items.del("d");
      }
   });
   Ptr<Item> a = e->items.is("a", 1);
   EXPECT_TRUE(e->items.is("a", 2) == a && a->tag == 1);  // the existing one, no notification
   e->items.put("a", a), e->items.put("a", make<Item>("a"));
   EXPECT_EQ(e->items.del("zz"), nullptr);
   e->items.is("b"), e->items.is("c"), e->items.is("d");
   e->items.delAll();
   EXPECT_EQ(std::tuple(seen, e->items.empty()),
             std::tuple(Log{"a", "a", "b", "c", "d", "a", "c", "d", "b"}, true));
}

// Value, ValueColl and SetColl report each real change; unobserved, delAll just clears.
TEST(KivoAttr, ValueValueCollAndSetCollObservedAndUnobserved) {
   for (bool observed : {true, false}) {
      auto e = make<Entity>();
      std::multiset<String> seen;
      Reactor r;
      r.watch(e->vals.signal(), [&](String const& k) { seen.insert("v" + k); });
      r.watch(e->names.signal(), [&](String const& k) { seen.insert("n" + k); });
      r.watch(e->x.signal(), [&] { seen.insert("x"); });
      EXPECT_TRUE(!e->x.is(0) && e->x.inc(0) == 0 && e->x.is(6) && e->x.inc(-2) == 4);
      EXPECT_TRUE(e->vals.is("1", 1) && !e->vals.is("1", 1) && e->vals.is("1", 10));
      EXPECT_TRUE(e->vals.is("2", 2) && e->names.is("1") && !e->names.is("1") && e->names.is("2"));
      EXPECT_TRUE(e->vals.is("3", 3) && e->names.is("3") && e->names.del("3") &&
                  !e->names.del("3"));
      EXPECT_TRUE(e->vals.del("3") == 3 && e->vals.del("3") == std::nullopt);
      EXPECT_EQ(seen, (std::multiset<String>{"v1", "v1", "v2", "v3", "v3", "n1", "n2", "n3", "n3",
                                             "x", "x"}));
      seen.clear();
      observed ? void() : r.reset();
      e->vals.delAll(), e->names.delAll();
      EXPECT_TRUE(e->vals.empty() && e->names.empty());
      EXPECT_EQ(seen.size(), observed ? 4u : 0u);
   }
}

TEST(KivoPtr, CountsConversionsAndSelfAssignment) {
   int destroyed = 0;
   Ptr<Derived> d = make<Derived>(&destroyed);
   {
      Ptr<Derived const> c = d;
      Ptr<Base> b = d;
      EXPECT_EQ(b.get(), c.get());
      Ptr<Base> moved = std::move(b);
      EXPECT_TRUE(b == nullptr && d->refCount() == 3u && ptrDynamicCast<Derived>(moved) == d);
   }
   Ptr<Derived>& alias = d;
   d = alias, d = std::move(alias);
   ASSERT_TRUE(d != nullptr && d->refCount() == 1u);
   Ptr<Base const> last = std::move(d);
   EXPECT_EQ(destroyed, 0);
   last = nullptr;
   EXPECT_EQ(destroyed, 1);
}

#ifdef KIVO_THREAD_SAFE_PTR
TEST(KivoPtr, TwoThreadsCopyingAndDroppingKeepTheCountExact) {
   int destroyed = 0;
   Ptr<Base> shared = make<Base>(&destroyed);
   auto churn = [&shared] {
      for (int i = 0; i < 200000; ++i) {
         Ptr<Base> a = shared, b = a;
         a = nullptr;
      }
   };
   std::thread t1(churn), t2(churn);
   t1.join(), t2.join();
   EXPECT_EQ(shared->refCount(), 1u);
   shared = nullptr;
   EXPECT_EQ(destroyed, 1);
}
#endif
