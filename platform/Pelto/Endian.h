// Network byte order. Wire structs are made only of these types (and plain octets), so a field
// can be neither read nor written without conversion, and the structs have alignment 1 so that
// they can be laid over any offset of a packet.
#pragma once

#include <cstdint>

namespace Pelto {

template <class T>
struct BigEndian {
   std::uint8_t b[sizeof(T)];

   T get() const {
      T v = 0;
      for (std::uint8_t x : b) {
         v = static_cast<T>((v << 8) | x);
      }
      return v;
   }
   void set(T v) {
      for (int i = static_cast<int>(sizeof(T)) - 1; i >= 0; --i) {
         b[i] = static_cast<std::uint8_t>(v & 0xff);
         v = static_cast<T>(v >> 8);
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
