// Signals, reactors, attributes and Ptr: above all, what handlers may do to what notifies them.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Kivo/Attr.h"
#include "Kivo/Kivo.h"

using namespace Kivo;
using Log = std::vector<String>;

namespace {

struct Item : Object {
   explicit Item(String k, int t = 0) : key(std::move(k)), tag(t) {}
   String key;
   int tag;
};

struct Entity : Object {
   Value<int> x;
   ValueColl<String, int> vals;
   Coll<String, Item> items;
   SetColl<String> names;
};

// Watches every signal of `e` with `fn`.
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

}  // namespace

TEST(KivoSignal, HandlerDestroysItsOwnReactor) {
   auto e = make<Entity>();
   auto own = std::make_unique<Reactor>();
   Reactor other;
   Log calls;
   own->watch(e->x.signal(), [&] { calls.push_back("own"), own.reset(); });
   other.watch(e->x.signal(), [&] { calls.push_back("other"); });
   e->x.is(1);
   e->x.is(2);
   EXPECT_EQ(calls, (Log{"own", "other", "other"}));
   EXPECT_EQ(e->x.signal().observers(), 1u);
}

TEST(KivoSignal, HandlerDestroysAnotherReactorWhoseSlotIsStillAhead) {
   auto e = make<Entity>();
   auto victim = std::make_unique<Reactor>();
   Reactor killer;
   Log calls;
   killer.watch(e->x.signal(), [&] { calls.push_back("killer"), victim.reset(); });
   victim->watch(e->x.signal(), [&] { calls.push_back("victim"); });
   e->x.is(1);
   e->x.is(2);
   EXPECT_EQ(calls, (Log{"killer", "killer"}));
}

// For ASan: the handler deletes the state machine holding its reactor and the last reference to
// the entity, from inside each kind of change. Nothing may touch the entity afterwards, and the
// slots connected after the state machine's are not called.
TEST(KivoSignal, HandlerDestroysStateMachineHoldingLastRefToEntity) {
   using Op = std::function<void(Entity&)>;
   Op const none = [](Entity&) {};
   Op const twoEach = [](Entity& e) {
      for (char const* k : {"a", "b"}) {
         e.vals.is(k, 1), e.items.is(k), e.names.is(k);
      }
   };
   std::vector<std::pair<Op, Op>> const cases = {
       {none, [](Entity& e) { e.x.is(7); }},
       {none, [](Entity& e) { EXPECT_EQ(e.x.inc(3), 3); }},
       {none, [](Entity& e) { e.items.is("a", 1); }},
       {twoEach, [](Entity& e) { e.items.del("a"); }},
       {twoEach, [](Entity& e) { e.items.delAll(); }},
       {twoEach, [](Entity& e) { e.vals.delAll(); }},
       {twoEach, [](Entity& e) { e.names.delAll(); }},
   };
   for (std::size_t i = 0; i < cases.size() * 2; ++i) {
      SCOPED_TRACE("case " + std::to_string(i / 2) + (i % 2 ? " from last" : " from first"));
      auto sm = make<Sm>();
      sm->e = make<Entity>();
      cases[i / 2].first(*sm->e);
      Entity* raw = sm->e.get();
      int smCalls = 0, laterCalls = 0;
      watchAll(i % 2 ? sm->last : sm->first, *raw, [&] { ++smCalls, sm = nullptr; });
      Reactor later;  // outlives the entity
      watchAll(later, *raw, [&] { ++laterCalls; });
      cases[i / 2].second(*raw);
      EXPECT_EQ(sm, nullptr);
      EXPECT_EQ(smCalls, 1);
      EXPECT_EQ(laterCalls, 0);
   }
}

// A nested change reaches every live slot first; then the outer emission carries on with the
// slots still connected. C disconnects D during the nested emission, so D never runs.
TEST(KivoSignal, NestedChangeReachesEveryLiveSlotBeforeTheOuterOneGoesOn) {
   auto e = make<Entity>();
   Reactor r, rd;
   Log calls;
   auto slot = [&](String name, std::function<void(String const&)> then) {
      r.watch(e->vals.signal(), [&calls, name, then](String const& k) {
         calls.push_back(name + k);
         then(k);
      });
   };
   slot("A", [&](String const& k) {
      if (k == "1") {
         e->vals.is("2", 2);
      }
   });
   slot("B", [](String const&) {});
   slot("C", [&](String const&) { rd.reset(); });
   rd.watch(e->vals.signal(), [&](String const& k) { calls.push_back("D" + k); });
   e->vals.is("1", 1);
   EXPECT_EQ(calls, (Log{"A1", "A2", "B2", "C2", "B1", "C1"}));
}

TEST(KivoSignal, SlotConnectedDuringEmissionRunsFromTheNextEmission) {
   auto e = make<Entity>();
   Reactor r, added;
   int addedCalls = 0;
   r.watch(e->x.signal(), [&] {
      if (added.empty()) {
         added.watch(e->x.signal(), [&] { ++addedCalls; });
      }
   });
   e->x.is(1);
   EXPECT_EQ(addedCalls, 0);
   e->x.is(2);
   EXPECT_EQ(addedCalls, 1);
}

TEST(KivoSignal, ReactorAndConnectionOutliveTheSignalOwner) {
   auto e = make<Entity>();
   Reactor r;
   watchAll(r, *e, [] { ADD_FAILURE(); });
   Connection c = e->x.signal().connect([] { ADD_FAILURE(); });
   e = nullptr;
   EXPECT_FALSE(c.connected());
   c.disconnect();
   r.reset();
}

TEST(KivoSignal, ThrowingHandlerLeavesTheSignalUsable) {
   auto e = make<Entity>();
   auto victim = std::make_unique<Reactor>();
   Reactor r;
   Log calls;
   r.watch(e->x.signal(), [&] {
      calls.push_back("thrower");
      if (victim) {
         victim.reset();
         throw Exception("handler failed");
      }
   });
   victim->watch(e->x.signal(), [&] { calls.push_back("victim"); });
   r.watch(e->x.signal(), [&] { calls.push_back("after"); });
   EXPECT_THROW(e->x.is(1), Exception);
   e->x.is(2);
   EXPECT_EQ(calls, (Log{"thrower", "thrower", "after"}));
   EXPECT_EQ(e->x.signal().observers(), 2u);
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
      if (ownsEntity) {
         e = nullptr;
      }
      Reactor r;
      r.watch(raw->x.signal(), [&] { held.reset(); });
      raw->x.is(1);
      if (!ownsEntity) {
         raw->x.is(2);
         EXPECT_EQ(otherCalls, 1);
         EXPECT_EQ(raw->x.signal().observers(), 1u);
      }
   }
}

TEST(KivoAttr, ValueNotifiesOnlyOnARealChange) {
   Value<int> v(5);
   int calls = 0;
   Reactor r;
   r.watch(v.signal(), [&] { ++calls; });
   EXPECT_FALSE(v.is(5));
   EXPECT_EQ(v.inc(0), 5);
   EXPECT_EQ(calls, 0);
   EXPECT_TRUE(v.is(6));
   EXPECT_EQ(v.inc(-2), 4);
   EXPECT_EQ(calls, 2);
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
   EXPECT_EQ(e->items.is("a", 2), a);  // the existing element, no notification
   EXPECT_EQ(a->tag, 1);
   e->items.put("a", a);
   e->items.put("a", make<Item>("a"));
   EXPECT_EQ(e->items.del("zz"), nullptr);
   e->items.is("b"), e->items.is("c"), e->items.is("d");
   e->items.delAll();
   EXPECT_EQ(seen, (Log{"a", "a", "b", "c", "d", "a", "c", "d", "b"}));
   EXPECT_TRUE(e->items.empty());
}

// Observed, ValueColl and SetColl report each change; unobserved (the only slot disconnected),
// delAll just clears.
TEST(KivoAttr, ValueCollAndSetCollObservedAndUnobserved) {
   for (bool observed : {true, false}) {
      auto e = make<Entity>();
      std::multiset<String> seen;
      Reactor r;
      r.watch(e->vals.signal(), [&](String const& k) { seen.insert("v" + k); });
      r.watch(e->names.signal(), [&](String const& k) { seen.insert("n" + k); });
      EXPECT_TRUE(e->vals.is("1", 1) && !e->vals.is("1", 1) && e->vals.is("1", 10));
      EXPECT_TRUE(e->vals.is("2", 2) && e->names.is("1") && !e->names.is("1") && e->names.is("2"));
      EXPECT_TRUE(e->vals.is("3", 3) && e->names.is("3") && e->names.del("3") &&
                  !e->names.del("3"));
      EXPECT_EQ(e->vals.del("3"), 3);
      EXPECT_EQ(e->vals.del("3"), std::nullopt);
      EXPECT_EQ(seen,
                (std::multiset<String>{"v1", "v1", "v2", "v3", "v3", "n1", "n2", "n3", "n3"}));
      seen.clear();
      if (!observed) {
         r.reset();
      }
      e->vals.delAll();
      e->names.delAll();
      EXPECT_TRUE(e->vals.empty() && e->names.empty());
      EXPECT_EQ(seen.size(), observed ? 4u : 0u);
   }
}

namespace {
struct Base : Object {
   explicit Base(int* d) : destroyed(d) {}
   ~Base() override { ++*destroyed; }
   int* destroyed;
};
struct Derived : Base {
   using Base::Base;
};
}  // namespace

TEST(KivoPtr, CountsConversionsAndSelfAssignment) {
   int destroyed = 0;
   Ptr<Derived> d = make<Derived>(&destroyed);
   EXPECT_EQ(d->refCount(), 1u);
   {
      Ptr<Derived const> c = d;
      Ptr<Base> b = d;
      EXPECT_EQ(d->refCount(), 3u);
      EXPECT_EQ(b.get(), c.get());
      Ptr<Base> moved = std::move(b);
      EXPECT_EQ(b, nullptr);
      EXPECT_EQ(d->refCount(), 3u);
      EXPECT_EQ(ptrDynamicCast<Derived>(moved), d);
   }
   Ptr<Derived>& alias = d;
   d = alias;
   d = std::move(alias);
   ASSERT_NE(d, nullptr);
   EXPECT_EQ(d->refCount(), 1u);
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
         Ptr<Base> a = shared;
         Ptr<Base> b = a;
         a = nullptr;
      }
   };
   std::thread t1(churn), t2(churn);
   t1.join();
   t2.join();
   EXPECT_EQ(shared->refCount(), 1u);
   shared = nullptr;
   EXPECT_EQ(destroyed, 1);
}
#endif
