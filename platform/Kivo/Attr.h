// Attributes and keyed collections that notify observers.
//
// Entities hold these as private members and expose the framework's operations around them:
//   x()            read             xIs(v)     set (notifies only on a real change)
//   xInc(d)        bump a counter   onX()      the Signal a reactor watches
// Collections are keyed; `is` creates (or returns the existing element), `del` removes one key,
// `delAll` removes every key one by one. Each insertion, replacement or removal emits the key.
// Ordered and Sorted collections iterate in key order; Hashed and Dense ones in an order nothing
// may rely on.
// Each can be given a SignalName, which traces of its observers' failures show.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Kivo/DenseMap.h"
#include "Kivo/Ptr.h"
#include "Kivo/Signal.h"
#include "Kivo/SortedMap.h"

namespace Kivo {

struct Ordered {
   template <class K, class V>
   using Map = std::map<K, V>;
   template <class K>
   using Set = std::set<K>;
};

struct Hashed {
   template <class K, class V>
   using Map = std::unordered_map<K, V>;
   template <class K>
   using Set = std::unordered_set<K>;
};

// Entries in one array, walked from one end to the other (see DenseMap); for entities, the
// array holds their pointers.
struct Dense {
   template <class K, class V>
   using Map = DenseMap<K, V>;
};

// Small collections walked in key order: entries in one array, sorted (see SortedMap).
struct Sorted {
   template <class K, class V>
   using Map = SortedMap<K, V>;
};

template <class T>
class Value {
 public:
   Value() = default;
   explicit Value(T v) : v_(std::move(v)) {}
   explicit Value(SignalName name) : signal_(name) {}

   T const& get() const { return v_; }

   // Sets the value; notifies and returns true only when it changed.
   bool is(T v) {
      if (v_ == v) {
         return false;
      }
      v_ = std::move(v);
      signal_.emit();
      return true;
   }
   // Adds `delta`; notifies only when the value changed. Returns the new value.
   template <class D>
   T inc(D delta) {
      // Not read back after is(): a handler may have destroyed the entity holding this value.
      T const v = static_cast<T>(v_ + delta);
      is(v);
      return v;
   }
   Signal<> const& signal() const { return signal_; }

 private:
   T v_{};
   Signal<> signal_;
};

// Entities keyed by K, owned through Ptr<V>. `is(k, args...)` constructs V(k, args...).
template <class K, class V, class Kind = Ordered>
class Coll {
 public:
   using Map = typename Kind::template Map<K, Ptr<V>>;

   Coll() = default;
   explicit Coll(SignalName name) : signal_(name) {}

   Ptr<V> get(K const& k) const {
      auto it = m_.find(k);
      return it == m_.end() ? Ptr<V>() : it->second;
   }
   bool has(K const& k) const { return m_.find(k) != m_.end(); }
   std::size_t size() const { return m_.size(); }
   bool empty() const { return m_.empty(); }

   template <class... Args>
   Ptr<V> is(K const& k, Args&&... args) {
      auto it = m_.find(k);
      if (it != m_.end()) {
         return it->second;
      }
      Ptr<V> v = make<V>(k, std::forward<Args>(args)...);
      m_.emplace(k, v);
      signal_.emit(k);
      return v;
   }
   // Stores `v` under `k`, replacing a different element; notifies only on a change.
   Ptr<V> put(K const& k, Ptr<V> v) {
      auto it = m_.find(k);
      if (it != m_.end()) {
         if (it->second == v) {
            return v;
         }
         Ptr<V> old = std::exchange(it->second, v);  // released after the handlers ran
         signal_.emit(k);
         return v;
      }
      m_.emplace(k, v);
      signal_.emit(k);
      return v;
   }
   // Removes `k`; returns the removed element (null when absent).
   Ptr<V> del(K const& k) {
      auto it = m_.find(k);
      return it == m_.end() ? nullptr : take_(it).first;
   }
   void delAll() {
      while (!m_.empty()) {
         if (!take_(m_.begin()).second) {
            return;  // a handler destroyed the owner of this collection
         }
      }
   }
   // A copy of the keys, for walks whose handlers may change the collection.
   std::vector<K> keys() const {
      std::vector<K> ks;
      ks.reserve(m_.size());
      for (auto const& [k, v] : m_) {
         ks.push_back(k);
      }
      return ks;
   }
   auto begin() const { return m_.begin(); }
   auto end() const { return m_.end(); }
   Signal<K> const& signal() const { return signal_; }

 private:
   // Erases the element at `it` and notifies its key; the bool is false when a handler destroyed
   // this collection. The key is copied first: the caller's may live in the erased node.
   std::pair<Ptr<V>, bool> take_(typename Map::iterator it) {
      K const key = it->first;
      Ptr<V> old = std::move(it->second);  // released after the handlers ran
      m_.erase(it);
      bool const alive = signal_.emit(key);
      return {std::move(old), alive};
   }

   Map m_;
   Signal<K> signal_;
};

// Plain values keyed by K.
template <class K, class V, class Kind = Ordered>
class ValueColl {
 public:
   using Map = typename Kind::template Map<K, V>;

   ValueColl() = default;
   explicit ValueColl(SignalName name) : signal_(name) {}

   V const* find(K const& k) const {
      auto it = m_.find(k);
      return it == m_.end() ? nullptr : &it->second;
   }
   V get(K const& k) const {
      auto it = m_.find(k);
      return it == m_.end() ? V{} : it->second;
   }
   bool has(K const& k) const { return m_.find(k) != m_.end(); }
   std::size_t size() const { return m_.size(); }
   bool empty() const { return m_.empty(); }

   // Inserts or replaces; notifies and returns true only when something changed.
   bool is(K const& k, V v) {
      auto it = m_.find(k);
      if (it != m_.end()) {
         if (it->second == v) {
            return false;
         }
         it->second = std::move(v);
      } else {
         m_.emplace(k, std::move(v));
      }
      signal_.emit(k);
      return true;
   }
   std::optional<V> del(K const& k) {
      auto it = m_.find(k);
      if (it == m_.end()) {
         return std::nullopt;
      }
      return take_(it).first;
   }
   void delAll() {
      if (signal_.observers() == 0) {
         m_.clear();
         return;
      }
      while (!m_.empty()) {
         if (!take_(m_.begin()).second) {
            return;  // a handler destroyed the owner of this collection
         }
      }
   }
   std::vector<K> keys() const {
      std::vector<K> ks;
      ks.reserve(m_.size());
      for (auto const& [k, v] : m_) {
         ks.push_back(k);
      }
      return ks;
   }
   auto begin() const { return m_.begin(); }
   auto end() const { return m_.end(); }
   Signal<K> const& signal() const { return signal_; }

 private:
   // As Coll::take_: the key is copied before its node goes.
   std::pair<V, bool> take_(typename Map::iterator it) {
      K const key = it->first;
      V old = std::move(it->second);
      m_.erase(it);
      bool const alive = signal_.emit(key);
      return {std::move(old), alive};
   }

   Map m_;
   Signal<K> signal_;
};

// A set keyed by its elements.
template <class K, class Kind = Hashed>
class SetColl {
 public:
   using Set = typename Kind::template Set<K>;

   SetColl() = default;
   explicit SetColl(SignalName name) : signal_(name) {}

   bool has(K const& k) const { return s_.find(k) != s_.end(); }
   std::size_t size() const { return s_.size(); }
   bool empty() const { return s_.empty(); }
   // Room for `n` elements without rehashing, for a bulk fill.
   void reserve(std::size_t n) { s_.reserve(n); }
   bool is(K const& k) {
      if (!s_.insert(k).second) {
         return false;
      }
      signal_.emit(k);
      return true;
   }
   bool del(K const& k) {
      auto it = s_.find(k);
      if (it == s_.end()) {
         return false;
      }
      K old = *it;
      s_.erase(it);
      signal_.emit(old);
      return true;
   }
   // Removes every element; one notification per element when followed, one step otherwise.
   void delAll() {
      if (signal_.observers() == 0) {
         s_.clear();
         return;
      }
      while (!s_.empty()) {
         K const k = *s_.begin();
         s_.erase(s_.begin());
         if (!signal_.emit(k)) {
            return;  // a handler destroyed the owner of this set
         }
      }
   }
   auto begin() const { return s_.begin(); }
   auto end() const { return s_.end(); }
   Signal<K> const& signal() const { return signal_; }

 private:
   Set s_;
   Signal<K> signal_;
};

}  // namespace Kivo
