// The layout of a shared-memory table: what the writer puts in its segments and what a reader
// checks before it trusts them.
//
// A table named "/base" lives in POSIX shared-memory objects:
//
//   "/base"       the control segment, one ControlHeader that stays put for the life of the
//                 writer: which data segment is current, the table generation (the word readers
//                 sleep on) and the writer's pid.
//   "/base.<n>"   data segment n: a DataHeader, then slotCount slots of slotSize bytes from
//                 slotsOffset. Exactly one is current; the writer replaces it when it fills up.
//
// A slot is a SlotHeader, then the key at keyOffset and the value at valueOffset, each aligned
// for its type, the whole slot rounded up to a cache line. The slots form an open-addressing hash
// table with linear probing: a key's probe sequence starts at home(hash, shift) and walks up,
// wrapping, to the first empty slot. Within one data segment a slot's key never changes once it
// is written: deleting a key leaves a tombstone that keeps the key and the generation of the
// deletion (so readers can report it), and only that same key takes the slot back. When live
// slots and tombstones reach 3/4 of the slots, the writer builds a new data segment (larger, or
// the same size without the tombstones) and moves every live entry into it.
//
// Segments are shared between processes on one machine only, so fields are in native byte order.
// Any change to these structures or to home() must change layoutVersion(). The first fields of
// the control header (magic, layoutVersion, headerSize, writerPid) keep their offsets across
// versions so that a writer can recognise a stale table left behind by an older build.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace Mirra::ShmLayout {

// Eight ASCII characters read as a native 64-bit word, so that a hex dump shows the text.
constexpr std::uint64_t magicOf(char const (&text)[9]) {
   std::uint64_t m = 0;
   for (int i = 7; i >= 0; --i) {
      m = (m << 8) | static_cast<std::uint8_t>(text[i]);
   }
   return m;
}

constexpr std::uint64_t controlMagic() {
   return magicOf("MIRRACTL");
}
constexpr std::uint64_t dataMagic() {
   return magicOf("MIRRADAT");
}
constexpr std::uint32_t layoutVersion() {
   return 1;
}
constexpr std::size_t cacheLine() {
   return 64;
}
constexpr std::uint32_t minSlots() {
   return 4;
}
constexpr std::uint32_t maxSlots() {
   return std::uint32_t{1} << 30;
}

struct ControlHeader {
   std::uint64_t magic;          // controlMagic(), written last when the writer sets up
   std::uint32_t layoutVersion;  // layoutVersion()
   std::uint32_t headerSize;     // sizeof(ControlHeader)
   std::int32_t writerPid;       // the process that owns the table
   std::uint32_t keySize;
   std::uint32_t valueSize;
   std::uint32_t dataSerial;  // the current data segment is "<base>.<dataSerial>"
   std::uint32_t closed;      // 1 once the writer has shut the table down
   std::uint32_t waiters;     // readers asleep on `generation`; the writer wakes them when not 0
   std::uint64_t generation;  // bumped on every change; readers sleep on its low 32 bits
};
static_assert(sizeof(ControlHeader) == 48);

struct DataHeader {
   std::uint64_t magic;  // dataMagic()
   std::uint32_t layoutVersion;
   std::uint32_t headerSize;  // sizeof(DataHeader)
   std::uint32_t keySize;
   std::uint32_t valueSize;
   std::uint32_t keyOffset;    // from the start of a slot
   std::uint32_t valueOffset;  // from the start of a slot
   std::uint32_t slotSize;
   std::uint32_t slotCount;       // a power of two, minSlots() to maxSlots()
   std::uint64_t slotsOffset;     // of slot 0 from the start of the segment, cache-line aligned
   std::uint64_t baseGeneration;  // the table generation when this segment was built
   std::uint32_t serial;          // the n of "<base>.<n>"
   std::uint32_t liveCount;       // live entries, kept current by the writer
   std::uint32_t successor;       // serial of the segment that replaced this one, 0 while current
   std::uint32_t reserved;
};
static_assert(sizeof(DataHeader) == 72);

enum SlotState : std::uint32_t {
   slotEmpty = 0,    // never used in this segment: ends a probe sequence
   slotLive = 1,     // holds a key and its value
   slotDeleted = 2,  // tombstone: the key was deleted at changeGen
};

struct SlotHeader {
   std::uint64_t seq;        // even when the slot is stable, odd while the writer changes it
   std::uint64_t changeGen;  // the table generation of the slot's last change
   std::uint32_t state;      // a SlotState
   std::uint32_t hash;       // the key's hash as the table's hash function gave it
};
static_assert(sizeof(SlotHeader) == 24);
static_assert(std::atomic_ref<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free);

constexpr std::size_t roundUp(std::size_t n, std::size_t align) {
   return (n + align - 1) / align * align;
}

constexpr std::size_t slotsOffset() {
   return roundUp(sizeof(DataHeader), cacheLine());
}

// Where a key and a value sit in a slot, and how long a slot is.
struct SlotGeometry {
   std::uint32_t keySize = 0;
   std::uint32_t valueSize = 0;
   std::uint32_t keyOffset = 0;
   std::uint32_t valueOffset = 0;
   std::uint32_t slotSize = 0;
   bool operator==(SlotGeometry const&) const = default;
};

template <class Key, class Value>
constexpr SlotGeometry slotGeometry() {
   static_assert(alignof(Key) <= cacheLine() && alignof(Value) <= cacheLine());
   std::size_t const keyOffset = roundUp(sizeof(SlotHeader), alignof(Key));
   std::size_t const valueOffset = roundUp(keyOffset + sizeof(Key), alignof(Value));
   std::size_t const slotSize = roundUp(valueOffset + sizeof(Value), cacheLine());
   static_assert(sizeof(Key) + sizeof(Value) < (std::size_t{1} << 24), "entries this large");
   return {static_cast<std::uint32_t>(sizeof(Key)), static_cast<std::uint32_t>(sizeof(Value)),
           static_cast<std::uint32_t>(keyOffset), static_cast<std::uint32_t>(valueOffset),
           static_cast<std::uint32_t>(slotSize)};
}

// The shift that home() uses for a table of `slotCount` slots (a power of two).
constexpr unsigned homeShift(std::uint32_t slotCount) {
   return 32u - static_cast<unsigned>(std::countr_zero(slotCount));
}

// The first slot of a key's probe sequence: Fibonacci hashing of the key's hash, so that a hash
// function with poor low bits still spreads keys over the table.
constexpr std::uint32_t home(std::uint32_t hash, unsigned shift) {
   return static_cast<std::uint32_t>((std::uint64_t{hash} * 2654435769u) & 0xffffffffu) >> shift;
}

}  // namespace Mirra::ShmLayout
