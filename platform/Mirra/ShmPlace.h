// Where a shared-memory table writer last found one key's entry (ShmTableWriter::modify): the
// hash of the key, the data segment and slot, and the bytes of the key as that slot holds them.
// A writer that changes one entry again and again keeps one, and skips hashing and probing while
// the entry stays where it was. Only its writer reads it.
#pragma once

#include <cstdint>
#include <cstring>

namespace Mirra {

template <class Key>
struct ShmPlace {
   std::uint32_t hash = 0;
   std::uint32_t serial = 0;
   std::uint32_t slot = ~std::uint32_t{0};
   // Compared byte for byte with the slot's key: the same bytes are the same key (whatever its
   // padding holds, it is the slot's own).
   alignas(Key) unsigned char slotKey[sizeof(Key)] = {};
};

}  // namespace Mirra
