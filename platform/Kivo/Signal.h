// Change notification: signals, connections and reactors.
//
// A Signal<Args...> is owned by the entity whose attribute or collection it reports on; a Reactor
// owns the connections of one state machine and disconnects them when it goes away. Emission is
// safe against everything a handler can do:
//  - disconnect itself or any other connection of the same signal (a disconnected slot is never
//    called again, including later in the emission under way);
//  - destroy the reactor or the state machine that holds the connection;
//  - destroy the entity that owns the signal (the emission stops after the running handler);
//  - change the entity again (nested emission: every live slot sees the nested change first, then
//    the outer emission carries on with the slots that are still connected);
//  - connect new slots (they are called from the next emission on).
// Slots are called in the order they were connected. Arguments are passed by value, so a handler
// that erases the key it was called with does not pull it from under the next slot.
//
// Exceptions: a std::exception that leaves a handler stops that handler only. The emission catches
// it, traces it with handlerThrew() and goes on with the next slot, so one failing observer never
// keeps the others from seeing the change; the code that made the change does not see it either.
// Anything else a handler throws passes through (and ends the emission). Violated invariants are
// KIVO_ASSERT, which stops the process wherever it happens.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

#include "Kivo/Pool.h"
#include "Kivo/Ptr.h"

namespace Kivo {

// The one policy for exceptions that leave a handler called by the framework (a signal's observer,
// an Orbo task, an event loop callback): the boundary that called it catches the std::exception
// and hands it here, and then carries on with its other handlers. This traces, on facility "Kivo"
// at level 1, "Caught exception in " + `kind` + " " + `who` + ": " + the exception's text, e.g.
// "Caught exception in task periodicTask: ..." or "Caught exception in observer of udpPam4: ...".
void handlerThrew(std::string_view kind, std::string_view who, std::exception const& e);

// What a signal reports on, for traces: a string with static storage, normally the name of the
// attribute or collection that owns the signal.
struct SignalName {
   char const* text = nullptr;
};

class SlotBase : public Object {
 public:
   virtual void disconnect() = 0;
   virtual bool connected() const = 0;
};

// Handle on one connected slot. Move-only; dropping it does not disconnect (a Reactor does).
class Connection {
 public:
   Connection() = default;
   explicit Connection(Ptr<SlotBase> slot) : slot_(std::move(slot)) {}
   void disconnect() {
      if (slot_) {
         slot_->disconnect();
         slot_ = nullptr;
      }
   }
   bool connected() const { return slot_ && slot_->connected(); }
   // Whether this handle holds a slot, connected or not.
   bool held() const { return static_cast<bool>(slot_); }

 private:
   Ptr<SlotBase> slot_;
};

// The slots of one signal, in connection order. Most signals of a large table have one observer
// (the state machine of that row), so the first slot is held inline and a list allocates only
// from the second on.
template <class S>
class SlotList {
 public:
   std::size_t size() const { return more_.empty() ? (one_ ? 1 : 0) : more_.size(); }
   bool empty() const { return !one_ && more_.empty(); }
   Ptr<S>* begin() { return more_.empty() ? &one_ : more_.data(); }
   Ptr<S>* end() { return begin() + size(); }
   Ptr<S>& operator[](std::size_t i) { return begin()[i]; }

   void push_back(Ptr<S> s) {
      if (empty()) {
         one_ = std::move(s);
         return;
      }
      if (more_.empty()) {
         more_.push_back(std::move(one_));
      }
      more_.push_back(std::move(s));
   }
   // Removes the element at `i`, keeping the order of the others.
   void eraseAt(std::size_t i) {
      if (more_.empty()) {
         one_ = nullptr;
         return;
      }
      more_.erase(more_.begin() + static_cast<std::ptrdiff_t>(i));
      if (more_.size() == 1) {
         one_ = std::move(more_.front());
         more_.clear();
      }
   }
   void swap(SlotList& o) {
      std::swap(one_, o.one_);
      more_.swap(o.more_);
   }

 private:
   // Invariant: either more_ is empty and one_ holds the only element (or nothing), or more_
   // holds every element (two or more) and one_ is null.
   Ptr<S> one_;
   std::vector<Ptr<S>> more_;
};

template <class... Args>
class Signal {
 public:
   using Handler = std::function<void(Args...)>;

   Signal() = default;
   explicit Signal(SignalName name) : name_(name.text) {}
   Signal(Signal const&) = delete;
   Signal& operator=(Signal const&) = delete;
   ~Signal() {
      for (Frame* f = frames_; f; f = f->prev) {
         f->dead = true;
      }
      for (auto& s : slots_) {
         s->signal = nullptr;
      }
   }

   // Observers connect through a const entity: observing does not change what is observed.
   Connection connect(Handler fn) const {
      static_assert(alignof(Slot) <= 8, "pool blocks are aligned to 8 octets");
      Ptr<Slot> s = make<Slot>(std::move(fn), this);
      slots_.push_back(s);
      return Connection(s);
   }

   // Whether anyone connected (live or not yet swept): a caller may skip building arguments.
   bool connectedAny() const { return !slots_.empty(); }

   // Returns false when a handler destroyed this signal (and so, normally, its owner): the caller
   // must not touch the owner after that.
   bool emit(Args... args) const {
      if (slots_.empty()) {
         return true;
      }
      // Copied: a handler may destroy this signal and still throw.
      char const* const sigName = name();
      Frame frame{frames_, false};
      // The frame is unlinked by `unwind` below on every way out, or left behind only when this
      // signal is gone; the compiler cannot see that.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
      frames_ = &frame;
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
      struct Unwind {
         Signal const* sig;
         Frame* frame;
         ~Unwind() {
            if (!frame->dead) {
               sig->frames_ = frame->prev;
               if (!sig->frames_ && sig->dirty_) {
                  sig->compact_();
               }
            }
         }
      } unwind{this, &frame};
      std::size_t const n = slots_.size();
      for (std::size_t i = 0; i < n; ++i) {
         Ptr<Slot> s = slots_[i];  // keeps the slot (and its handler) alive while it runs
         if (!s->live) {
            continue;
         }
         try {
            s->fn(args...);
         } catch (std::exception const& e) {
            handlerThrew("observer of", sigName, e);
         }
         if (frame.dead) {
            return false;  // a handler destroyed the owner of this signal
         }
      }
      return true;
   }

   // What the signal reports on; "(unnamed)" when it was not given a name.
   char const* name() const {
      return name_ ? name_ : "(unnamed)";
   }

   // Number of connected slots.
   std::size_t observers() const {
      std::size_t n = 0;
      for (auto const& s : slots_) {
         n += s->live ? 1 : 0;
      }
      return n;
   }

 private:
   // Pooled: a table's rows each connect one, and a rebuild makes them all again.
   struct Slot : SlotBase, Pooled {
      Slot(Handler f, Signal const* sig) : fn(std::move(f)), signal(sig) {}
      void disconnect() override {
         if (live) {
            live = false;
            if (signal) {
               signal->remove_(this);
            }
         }
      }
      bool connected() const override { return live && signal; }
      Handler fn;
      Signal const* signal;
      bool live = true;
   };
   struct Frame {
      Frame* prev;
      bool dead;
   };

   void remove_(Slot* s) const {
      if (frames_) {
         dirty_ = true;  // erased once the outermost emission ends
         return;
      }
      for (std::size_t i = 0; i < slots_.size(); ++i) {
         if (slots_[i].get() == s) {
            slots_.eraseAt(i);
            return;
         }
      }
   }
   void compact_() const {
      // The dead slots leave the list before they are released. Releasing a slot releases its
      // handler and whatever that owns, which may disconnect another slot of this signal (back
      // into remove_) or destroy this signal's owner; neither may happen inside the erase.
      SlotList<Slot> live, dead;
      for (auto& s : slots_) {
         (s->live ? live : dead).push_back(std::move(s));
      }
      slots_.swap(live);
      dirty_ = false;
   }

   char const* name_ = nullptr;
   mutable SlotList<Slot> slots_;
   mutable Frame* frames_ = nullptr;
   mutable bool dirty_ = false;
};

// The connections of one state machine. Destroying or resetting it disconnects them all, so a
// state machine that holds its reactors as members can never be called after its destruction.
class Reactor {
 public:
   Reactor() = default;
   Reactor(Reactor const&) = delete;
   Reactor& operator=(Reactor const&) = delete;
   Reactor(Reactor&&) = default;
   Reactor& operator=(Reactor&& o) {
      reset();
      first_ = std::move(o.first_);
      rest_ = std::move(o.rest_);
      return *this;
   }
   ~Reactor() { reset(); }

   template <class... Args, class F>
   void watch(Signal<Args...> const& signal, F&& fn) {
      Connection c = signal.connect(std::forward<F>(fn));
      if (first_.held()) {
         rest_.push_back(std::move(c));
      } else {
         first_ = std::move(c);
      }
   }
   void reset() {
      if (empty()) {
         return;  // the common case of a row's reactor that is about to watch
      }
      // Taken out first: a disconnection may release state that resets this reactor again.
      Connection first = std::move(first_);
      auto rest = std::move(rest_);
      rest_.clear();
      first.disconnect();
      for (auto& c : rest) {
         c.disconnect();
      }
   }
   bool empty() const { return !first_.held() && rest_.empty(); }

 private:
   // Most reactors watch one signal (a state machine per table row, say): that connection is
   // held inline, so such a reactor allocates nothing of its own.
   Connection first_;
   std::vector<Connection> rest_;
};

}  // namespace Kivo
