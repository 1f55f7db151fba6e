// Network byte order. Wire structs are made only of these types (and plain octets), so a field
// can be neither read nor written without conversion, and the structs have alignment 1 so that
// they can be laid over any offset of a packet.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace Pelto {

template <class T>
struct BigEndian {
   std::uint8_t b[sizeof(T)];

   // One load or store and a byte swap: the octets are copied whole, never one at a time.
   T get() const {
      T v;
      std::memcpy(&v, b, sizeof(T));
      return networkOrder_p(v);
   }
   void set(T v) {
      v = networkOrder_p(v);
      std::memcpy(b, &v, sizeof(T));
   }

 private:
   // Network order from host order, or host order from network order: the same swap.
   static T networkOrder_p(T v) {
      if constexpr (sizeof(T) == 1 || std::endian::native == std::endian::big) {
         return v;
      } else if constexpr (sizeof(T) == 2) {
         return __builtin_bswap16(v);
      } else if constexpr (sizeof(T) == 4) {
         return __builtin_bswap32(v);
      } else {
         static_assert(sizeof(T) == 8, "integers of 1, 2, 4 or 8 octets");
         return __builtin_bswap64(v);
      }
   }
};

using Be16 = BigEndian<std::uint16_t>;
using Be32 = BigEndian<std::uint32_t>;
using Be64 = BigEndian<std::uint64_t>;
static_assert(sizeof(Be16) == 2 && alignof(Be16) == 1);
static_assert(sizeof(Be32) == 4 && alignof(Be32) == 1);
static_assert(sizeof(Be64) == 8 && alignof(Be64) == 1);

// Stores at an arbitrary byte position, in sizeof(T) octets; returns the position after the value.
template <class T>
inline std::uint8_t* storeBe(std::uint8_t* p, T v) {
   reinterpret_cast<BigEndian<T>*>(p)->set(v);
   return p + sizeof(T);
}
inline std::uint8_t* storeBe16(std::uint8_t* p, std::uint16_t v) {
   return storeBe(p, v);
}
inline std::uint8_t* storeBe32(std::uint8_t* p, std::uint32_t v) {
   return storeBe(p, v);
}
inline std::uint8_t* storeBe64(std::uint8_t* p, std::uint64_t v) {
   return storeBe(p, v);
}
inline std::uint16_t loadBe16(std::uint8_t const* p) {
   return reinterpret_cast<Be16 const*>(p)->get();
}
inline std::uint32_t loadBe32(std::uint8_t const* p) {
   return reinterpret_cast<Be32 const*>(p)->get();
}
inline std::uint64_t loadBe64(std::uint8_t const* p) {
   return reinterpret_cast<Be64 const*>(p)->get();
}

}  // namespace Pelto
