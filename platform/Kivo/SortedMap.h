// A map kept as one array of entries sorted by key, for small collections that are walked in key
// order (the fields of one template, say): a walk reads memory from one end to the other instead
// of chasing a tree node per entry, and a lookup is a binary search. Inserting or removing moves
// the entries after that position, so keep it to collections of tens of entries.
//
// The subset of the std::map interface that Kivo's collections use (Coll, ValueColl), and no
// more. Inserting and removing invalidate iterators and references to entries at and after that
// position.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace Kivo {

template <class K, class V, class Less = std::less<K>>
class SortedMap {
 public:
   using value_type = std::pair<K, V>;
   using iterator = typename std::vector<value_type>::iterator;
   using const_iterator = typename std::vector<value_type>::const_iterator;

   std::size_t size() const { return entries_.size(); }
   bool empty() const { return entries_.empty(); }
   iterator begin() { return entries_.begin(); }
   iterator end() { return entries_.end(); }
   const_iterator begin() const { return entries_.begin(); }
   const_iterator end() const { return entries_.end(); }

   const_iterator find(K const& k) const {
      auto const it = lowerBound_p(entries_, k);
      return it != end() && !Less()(k, it->first) ? it : end();
   }
   iterator find(K const& k) {
      auto const it = lowerBound_p(entries_, k);
      return it != end() && !Less()(k, it->first) ? it : end();
   }

   // Adds `k` unless it is there; the entry of `k` and whether it was added.
   std::pair<iterator, bool> emplace(K const& k, V v) {
      auto const it = lowerBound_p(entries_, k);
      if (it != end() && !Less()(k, it->first)) {
         return {it, false};
      }
      return {entries_.emplace(it, k, std::move(v)), true};
   }

   void erase(iterator it) { entries_.erase(it); }
   void clear() { entries_.clear(); }

 private:
   template <class Entries>
   static auto lowerBound_p(Entries& entries, K const& k) {
      return std::lower_bound(
          entries.begin(), entries.end(), k,
          [](value_type const& e, K const& key) { return Less()(e.first, key); });
   }

   std::vector<value_type> entries_;
};

}  // namespace Kivo
