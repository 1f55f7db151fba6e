#include "Pelto/Pkt.h"

#include <cstdio>
#include <cstring>

namespace Pelto {

Pkt::Pkt(std::size_t capacity, std::size_t headroom)
    : buf_(new std::uint8_t[capacity]), capacity_(capacity), head_(headroom), tail_(headroom) {
   KIVO_ASSERT(headroom <= capacity);
}

void Pkt::headGrow(std::size_t n) {
   KIVO_ASSERT(bytes() + n <= capacity());
   if (head_ < n) {
      std::size_t const shift = n - head_;
      std::memmove(buf_.get() + head_ + shift, buf_.get() + head_, bytes());
      head_ += shift;
      tail_ += shift;
   }
   head_ -= n;
   std::memset(buf_.get() + head_, 0, n);
}

void Pkt::headTrim(std::size_t n) {
   KIVO_ASSERT(n <= bytes());
   head_ += n;
}

void Pkt::tailGrow(std::size_t n) {
   KIVO_ASSERT(n <= tailroom());
   std::memset(buf_.get() + tail_, 0, n);
   tail_ += n;
}

void Pkt::tailTrim(std::size_t n) {
   KIVO_ASSERT(n <= bytes());
   tail_ -= n;
}

void Pkt::write(std::size_t offset, void const* src, std::size_t n) {
   KIVO_ASSERT(offset + n <= bytes());
   std::memcpy(data() + offset, src, n);
}

std::string Pkt::hexdump() const {
   std::string out;
   char tmp[24];
   for (std::size_t i = 0; i < bytes(); ++i) {
      if (i % 16 == 0) {
         std::snprintf(tmp, sizeof(tmp), "%s%04zx:", i ? "\n" : "", i);
         out += tmp;
      }
      std::snprintf(tmp, sizeof(tmp), " %02x", data()[i]);
      out += tmp;
   }
   return out;
}

}  // namespace Pelto
