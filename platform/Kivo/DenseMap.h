// A hash map whose entries sit in one array, for large collections that are walked whole: a walk
// reads memory from one end to the other instead of chasing a node per entry. The entries are in
// no particular order: a removal moves the last entry into the gap. They are found through an
// open-addressing index (linear probing over a power-of-two array at most half full, removal by
// shifting followers back: Kivo/LinearProbing.h) whose slots hold an entry's position and 32 bits
// of its key's hash, so that a lookup reads an entry only when those bits match.
//
// The subset of the std::map interface that Kivo's collections use. Inserting may move every
// entry and removing moves the last one: both invalidate iterators and references to entries.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "Kivo/Assert.h"
#include "Kivo/LinearProbing.h"

namespace Kivo {

template <class K, class V, class Hash = std::hash<K>>
class DenseMap {
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
      std::size_t const s = slotOf_p(k, hash_p(k));
      return slots_.empty() || !slots_[s] ? end() : begin() + position_p(slots_[s]);
   }
   iterator find(K const& k) {
      std::size_t const s = slotOf_p(k, hash_p(k));
      return slots_.empty() || !slots_[s] ? end() : begin() + position_p(slots_[s]);
   }

   bool contains(K const& k) const { return find(k) != end(); }
   // The value of `k`, added as V() when `k` is not there.
   V& operator[](K const& k) { return emplace(k, V()).first->second; }
   // Room for `n` entries without growing.
   void reserve(std::size_t n) {
      entries_.reserve(n);
      if (n * 2 > slots_.size()) {
         rehash_p(n * 2);
      }
   }

   // Adds `k` unless it is there; the entry of `k` and whether it was added.
   std::pair<iterator, bool> emplace(K const& k, V v) {
      if ((entries_.size() + 1) * 2 > slots_.size()) {
         rehash_p(slots_.empty() ? 16 : slots_.size() * 2);
      }
      std::uint64_t const h = hash_p(k);
      std::size_t const s = slotOf_p(k, h);
      if (slots_[s]) {
         return {begin() + position_p(slots_[s]), false};
      }
      KIVO_ASSERT(entries_.size() < maxEntries);
      slots_[s] = slotWord_p(h, entries_.size());
      entries_.emplace_back(k, std::move(v));
      return {end() - 1, true};
   }

   void erase(iterator it) {
      std::size_t const pos = static_cast<std::size_t>(it - begin());
      std::size_t const hole = slotOf_p(it->first, hash_p(it->first));
      KIVO_ASSERT(slots_[hole] && position_p(slots_[hole]) == pos);
      freeSlotShiftingBack(slots_, hole, [this](Slot s) { return homeOf_p(s); });
      // The last entry moves into the gap, and its slot follows it.
      std::size_t const last = entries_.size() - 1;
      if (pos != last) {
         Slot& moved = slots_[slotOf_p(entries_[last].first, hash_p(entries_[last].first))];
         moved = tagOf_p(moved) | (pos + 1);
         entries_[pos] = std::move(entries_[last]);
      }
      entries_.pop_back();
   }

   // Removes `k`; 1 if it was there, else 0.
   std::size_t erase(K const& k) {
      auto const it = find(k);
      if (it == end()) {
         return 0;
      }
      erase(it);
      return 1;
   }

   void clear() {
      entries_.clear();
      slots_.clear();
   }

   // Adds entries without looking them up, and indexes them all when it goes away: a build of
   // thousands of entries, done between other work, then writes the index in one pass while it
   // stays in the cache, instead of probing it at random for each entry.
   // REQUIRES: the keys added differ from each other and from the map's (indexing asserts it),
   // and nothing else touches the map while the filler lives. The references it returns stay
   // valid for the filler's life when `n` covers every entry added.
   class Filler {
    public:
      Filler(DenseMap& map, std::size_t n) : map_(map) { map_.entries_.reserve(map_.size() + n); }
      ~Filler() { map_.rehash_p(std::max<std::size_t>(16, map_.size() * 2)); }
      Filler(Filler const&) = delete;
      Filler& operator=(Filler const&) = delete;

      V& add(K const& k, V v) {
         KIVO_ASSERT(map_.entries_.size() < maxEntries);
         return map_.entries_.emplace_back(k, std::move(v)).second;
      }

    private:
      DenseMap& map_;
   };

 private:
   // Position + 1 in the low 32 bits (0 is a free slot), 32 bits of the key's hash above.
   using Slot = std::uint64_t;
   static constexpr std::size_t maxEntries = 0xFFFFFFFEu;

   // The key's hash, mixed so that its high half depends on every bit (std::hash of an integer
   // is the integer itself).
   static std::uint64_t hash_p(K const& k) {
      return static_cast<std::uint64_t>(Hash()(k)) * 0x9e3779b97f4a7c15u;
   }
   static Slot tagOf_p(std::uint64_t h) { return h & 0xFFFFFFFF00000000u; }
   static Slot slotWord_p(std::uint64_t h, std::size_t pos) { return tagOf_p(h) | (pos + 1); }
   static std::size_t position_p(Slot s) { return static_cast<std::size_t>(s & 0xFFFFFFFFu) - 1; }
   std::size_t homeOf_p(Slot s) const {
      return static_cast<std::size_t>(((s >> 32) * 0x9e3779b97f4a7c15u) >> shift_);
   }
   // The slot holding `k`, or the free slot where it would go. REQUIRES: slots_ not empty, or
   // the answer is not used.
   std::size_t slotOf_p(K const& k, std::uint64_t h) const {
      if (slots_.empty()) {
         return 0;
      }
      std::size_t const mask = slots_.size() - 1;
      Slot const tag = tagOf_p(h);
      std::size_t i = homeOf_p(tag);
      while (slots_[i] &&
             (tagOf_p(slots_[i]) != tag || !(entries_[position_p(slots_[i])].first == k))) {
         i = (i + 1) & mask;
      }
      return i;
   }
   // Indexes every entry anew in a slot array of at least `n` slots.
   void rehash_p(std::size_t n) {
      unsigned bits = 0;
      while ((std::size_t{1} << bits) < n) {
         ++bits;
      }
      slots_.assign(std::size_t{1} << bits, 0);
      shift_ = 64 - bits;
      for (std::size_t pos = 0; pos < entries_.size(); ++pos) {
         std::uint64_t const h = hash_p(entries_[pos].first);
         std::size_t const s = slotOf_p(entries_[pos].first, h);
         KIVO_ASSERT(!slots_[s]);  // a key added twice through a Filler
         slots_[s] = slotWord_p(h, pos);
      }
   }

   std::vector<value_type> entries_;
   std::vector<Slot> slots_;
   unsigned shift_ = 64;
};

}  // namespace Kivo
