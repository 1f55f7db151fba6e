// Intrusive reference counting for every entity of the framework.
//
// An entity derives from Kivo::Object and is always heap-allocated through Kivo::make<T>() or a
// factory built on it; Kivo::Ptr<T> holds one reference. Because the count lives in the object, a
// raw `this` can be turned back into a Ptr, which is how notification keeps an entity alive while
// its observers run.
//
// The count is a plain integer unless the build defines KIVO_THREAD_SAFE_PTR, in which case it is
// atomic. Either way an entity is used from one thread at a time; the switch only makes handing
// references between threads safe.
#pragma once

#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#ifdef KIVO_THREAD_SAFE_PTR
#include <atomic>
#endif

namespace Kivo {

// The count itself, for Object and for the few types that manage their own storage and so
// cannot have a virtual destructor (Ptr<T> only needs T::ref() and T::unref()).
class RefCount {
 public:
   RefCount() = default;
   RefCount(RefCount const&) {}
   RefCount& operator=(RefCount const&) { return *this; }

   void inc() const noexcept {
#ifdef KIVO_THREAD_SAFE_PTR
      refs_.fetch_add(1, std::memory_order_relaxed);
#else
      ++refs_;
#endif
   }
   // True when the last reference went: the owner destroys itself.
   [[nodiscard]] bool dec() const noexcept {
#ifdef KIVO_THREAD_SAFE_PTR
      return refs_.fetch_sub(1, std::memory_order_acq_rel) == 1;
#else
      return --refs_ == 0;
#endif
   }
   std::uint32_t count() const noexcept {
      return refs_;
   }

 private:
#ifdef KIVO_THREAD_SAFE_PTR
   mutable std::atomic<std::uint32_t> refs_{0};
#else
   mutable std::uint32_t refs_ = 0;
#endif
};

class Object {
 public:
   Object() = default;
   Object(Object const&) {}
   Object& operator=(Object const&) { return *this; }
   virtual ~Object() = default;

   void ref() const noexcept { refs_.inc(); }
   void unref() const noexcept {
      if (refs_.dec()) {
         delete this;
      }
   }
   std::uint32_t refCount() const noexcept { return refs_.count(); }

 private:
   RefCount refs_;
};

template <class T>
class Ptr {
 public:
   using element_type = T;

   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) {
      if (p_) {
         p_->ref();
      }
   }
   Ptr(Ptr const& o) noexcept : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U> const& o) noexcept : Ptr(o.get()) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
   ~Ptr() {
      if (p_) {
         p_->unref();
      }
   }

   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }

   T* get() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }

   // Gives up the reference without dropping it; the caller owns it.
   T* release() noexcept { return std::exchange(p_, nullptr); }

   friend bool operator==(Ptr const& a, Ptr const& b) noexcept { return a.p_ == b.p_; }
   friend bool operator==(Ptr const& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }

 private:
   T* p_ = nullptr;
};

template <class T>
using PtrConst = Ptr<T const>;

template <class T, class... Args>
Ptr<T> make(Args&&... args) {
   return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T, class U>
Ptr<T> ptrCast(Ptr<U> const& p) noexcept {
   return Ptr<T>(static_cast<T*>(p.get()));
}

template <class T, class U>
Ptr<T> ptrDynamicCast(Ptr<U> const& p) noexcept {
   return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Kivo

template <class T>
struct std::hash<Kivo::Ptr<T>> {
   std::size_t operator()(Kivo::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.get()); }
};
