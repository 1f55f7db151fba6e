// The steps that open-addressing tables with linear probing share (Kivo::DenseMap and the
// options data's record index): slots in a power-of-two array, a slot equal to Slot{} is free,
// and an entry sits in the first free slot at or after its home slot, going round.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace Kivo {

// The first free slot at or after `home`. REQUIRES: a free slot somewhere.
template <class Slot>
std::size_t freeSlotFrom(std::vector<Slot> const& slots, std::size_t home) {
   std::size_t const mask = slots.size() - 1;
   std::size_t i = home;
   while (slots[i] != Slot{}) {
      i = (i + 1) & mask;
   }
   return i;
}

// Frees the slot at `hole` without leaving a tombstone: every follower whose home slot
// (homeOf(slot)) lies at or before the hole, going round, moves back into it, so that probing
// from each home still finds every entry.
template <class Slot, class HomeOf>
void freeSlotShiftingBack(std::vector<Slot>& slots, std::size_t hole, HomeOf homeOf) {
   std::size_t const mask = slots.size() - 1;
   slots[hole] = Slot{};
   for (std::size_t i = (hole + 1) & mask; slots[i] != Slot{}; i = (i + 1) & mask) {
      std::size_t const home = homeOf(slots[i]);
      if (((i - home) & mask) >= ((i - hole) & mask)) {
         slots[hole] = std::exchange(slots[i], Slot{});
         hole = i;
      }
   }
}

}  // namespace Kivo
