// Pelto::Pkt: a packet buffer of fixed capacity. The packet's data is a window [head, tail) of
// the buffer; there is room in front of it (head room) for headers prepended later, and room
// behind it (tail room) for data appended later. The capacity never changes: prepending without
// enough head room moves the data back, and growing beyond the capacity is an assertion failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Kivo/Kivo.h"

namespace Pelto {

class Pkt : public Kivo::Object {
 public:
   // An empty packet of `capacity` octets whose data starts `headroom` octets into the buffer.
   explicit Pkt(std::size_t capacity, std::size_t headroom = 0);

   std::uint8_t* data() { return buf_.get() + head_; }
   std::uint8_t const* data() const { return buf_.get() + head_; }
   std::size_t bytes() const { return tail_ - head_; }
   std::size_t capacity() const { return capacity_; }
   std::size_t headroom() const { return head_; }
   std::size_t tailroom() const { return capacity_ - tail_; }
   std::span<std::uint8_t const> span() const { return {data(), bytes()}; }

   // Adds `n` zeroed octets in front of the data, moving the data back when the head room is
   // short. REQUIRES: bytes() + n <= capacity().
   void headGrow(std::size_t n);
   // Drops `n` octets from the front. REQUIRES: n <= bytes().
   void headTrim(std::size_t n);
   // Adds `n` zeroed octets after the data. REQUIRES: n <= tailroom().
   void tailGrow(std::size_t n);
   // Drops `n` octets from the end. REQUIRES: n <= bytes().
   void tailTrim(std::size_t n);

   // Copies `n` octets to `offset` of the data. REQUIRES: offset + n <= bytes().
   void write(std::size_t offset, void const* src, std::size_t n);

   // Lower-case hex of the data, 16 octets a line, each line prefixed with its offset.
   std::string hexdump() const;

 private:
   std::unique_ptr<std::uint8_t[]> buf_;
   std::size_t capacity_;
   std::size_t head_;
   std::size_t tail_;
};

}  // namespace Pelto
