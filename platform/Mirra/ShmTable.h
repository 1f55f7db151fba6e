// Mirra: a hash table in POSIX shared memory with one writer process and any number of readers.
//
// The agent writes per-collector statistics with ShmTableWriter on every message it sends; show
// and clear tools in other processes read them with ShmTableReader. Keys and values are fixed-size
// plain data (trivially copyable, standard layout) copied in and out whole; `Hash` is a functor
// returning a std::uint32_t for a key, the same one in the writer and its readers, and keys
// compare with their operator==. ShmLayout.h describes the segments.
//
// Readers never block the writer and never see a torn entry. Each slot carries a sequence number
// that the writer makes odd before it changes the slot and even again after; a reader copies the
// slot, then checks that the sequence was even and has not moved, and copies again if it has. A
// slot that stays mid-write longer than the reader's stall limit (the writer died while writing
// it) makes the read throw instead of spinning forever.
//
// Every change bumps the table generation and stamps the changed slot with it, so a reader can ask
// which keys changed or were deleted since a generation it has seen (changedSince) and can sleep
// until the generation moves (waitForChange, a futex on the shared generation word that the
// writer wakes after every change).
//
// When the slots fill up the writer builds a new data segment (bigger, or the same size without
// the tombstones that deletions leave), moves every entry, publishes it in the control segment
// and unlinks the old one. Readers notice on their next operation and follow; until then they
// keep reading the old segment, which stays mapped and consistent. A rebuild forgets deletions,
// so changedSince() from before it answers with the whole table. When the table cannot grow (its
// maximum capacity is reached or shared memory cannot be had), inserting a new key is refused
// and traced, and the table keeps everything it had.
//
// One writer per table name, decided by the kernel: the writer holds an exclusive advisory lock
// (flock) on its control segment for as long as it lives, and the kernel drops the lock when the
// writer exits or dies, however it dies. A writer that gets the lock on the object the name refers
// to owns the name: it replaces whatever a dead writer left there (a table, or a control segment it
// had only begun to set up) and later unlinks only objects it created and still holds. A writer
// that finds the lock taken is refused. The pid in the control segment is for people and readers
// only; nothing decides on it. The lock belongs to the open control segment, which a child forked
// from the writer shares until it exits or execs (the descriptor closes on exec).
//
// Readers treat every byte of shared memory as untrusted. They believe only segments owned by root
// or by the writer's user (by default the reader's own effective uid) that no other user can
// write, check the size of each segment before every pass over it (a segment cut short while
// mapped would otherwise kill the reader with SIGBUS), validate every header field, count and
// index before use, and bound every walk over the slots. Anything wrong is a Kivo::Exception
// saying, on one line, which segment and what is wrong. The writer bounds its walks too, so that a
// segment damaged by another process of its user cannot make it spin.
//
// Failures to create or open segments are Kivo::ErrnoException; a segment that is not a table of
// these keys and values, or is damaged, is refused with a Kivo::Exception saying what is wrong.
// Calling an operation outside its contract is a KIVO_ASSERT.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "Kivo/Kivo.h"
#include "Mirra/ShmLayout.h"
#include "Mirra/ShmPlace.h"

namespace Mirra {

// One POSIX shared-memory object, open and mapped into this process. The descriptor stays open
// with the mapping, so that the object's size can be checked again later and a lock on it lasts as
// long as the mapping. Destruction unmaps it and closes the descriptor; the object itself stays
// until it is unlinked.
class ShmMapping {
 public:
   ShmMapping() = default;
   ShmMapping(ShmMapping&& o) noexcept;
   ShmMapping& operator=(ShmMapping&& o) noexcept;
   ShmMapping(ShmMapping const&) = delete;
   ShmMapping& operator=(ShmMapping const&) = delete;
   ~ShmMapping();

   // Creates `name`, which must not exist yet, with `bytes` of zeroed memory set aside for it and
   // maps it read-write. The object gets exactly `mode`, whatever the process's umask. Setting the
   // memory aside now turns a shortage into an error here rather than a SIGBUS on first touch.
   // Throws Kivo::ErrnoException (EEXIST when the name is taken); on failure nothing is left
   // behind. REQUIRES: `mode` lets no one but the owner write.
   static ShmMapping create(Kivo::String const& name, std::size_t bytes, mode_t mode);
   // Maps all of an existing object (nothing at all when it is empty). Throws
   // Kivo::ErrnoException.
   static ShmMapping open(Kivo::String const& name, bool writable);
   // Opens an existing object that a reader may believe, mapping nothing yet: it must be owned by
   // root or by `ownerUid`, and no one but its owner may write it. Throws Kivo::ErrnoException
   // when it cannot be opened, Kivo::Exception when it is not to be believed.
   static ShmMapping openTrusted(Kivo::String const& name, bool writable, uid_t ownerUid);
   // Takes over `fd`, an open descriptor of `name` (closed when this goes), and maps its first
   // `bytes` (nothing when 0). Throws as mapPrefix does; `fd` is closed then too.
   static ShmMapping adopt(Kivo::String const& name, int fd, std::size_t bytes, bool writable);

   // Maps the first `bytes` of the object in place of the current mapping. Throws
   // Kivo::Exception when the object is smaller now, Kivo::ErrnoException when mapping fails.
   void mapPrefix(std::size_t bytes);
   // The size of the object now, which may differ from size() if another process resized it.
   // Throws Kivo::ErrnoException.
   std::size_t objectSize() const;
   // The name still refers to this object (it was not unlinked, or replaced by another).
   bool nameIsThisObject() const noexcept;
   // Unlinks the name, but only while it still refers to this object; false when it did not.
   bool unlinkName() const noexcept;

   Kivo::String const& name() const { return name_; }
   std::byte* base() const { return base_; }
   std::size_t size() const { return size_; }

 private:
   void unmap() noexcept;
   void close() noexcept;

   Kivo::String name_;
   std::byte* base_ = nullptr;
   std::size_t size_ = 0;
   int fd_ = -1;
   bool writable_ = false;
};

// Removes the shared-memory object `name`; false when there was none (or it could not be removed).
bool shmUnlink(Kivo::String const& name) noexcept;

// The name of data segment `serial` of the table `baseName`.
Kivo::String shmTableDataName(Kivo::String const& baseName, std::uint32_t serial);

// The part of the writer that does not depend on the key and value types: segments, growth,
// generations and the slot protocol. Keys are bytes here; ShmTableWriter compares them.
class ShmTableWriterCore {
 public:
   // Creates the table `baseName` ("/name": a leading slash and no other) and holds its lock
   // until destroyed. What a writer that is gone left under the name (a table, an empty or
   // half-made control segment) is replaced. Refused with EEXIST: a name whose lock a live writer
   // holds, and an object by that name that is not a table or belongs to another user.
   // REQUIRES: 1 <= initialCapacity <= maxCapacity <= maxCapacityLimit().
   ShmTableWriterCore(Kivo::String baseName, ShmLayout::SlotGeometry geometry,
                      std::uint32_t initialCapacity, std::uint32_t maxCapacity);
   // Marks the table closed, wakes sleeping readers and unlinks its segments (those the names
   // still refer to), then lets the lock go. In a child forked from the writer's process it only
   // unmaps: the table stays its creator's.
   ~ShmTableWriterCore();
   ShmTableWriterCore(ShmTableWriterCore const&) = delete;
   ShmTableWriterCore& operator=(ShmTableWriterCore const&) = delete;

   // The most entries a table can be allowed: what the largest data segment holds at 3/4 load.
   static constexpr std::uint32_t maxCapacityLimit() { return ShmLayout::maxSlots() / 4 * 3; }

   Kivo::String const& baseName() const { return baseName_; }
   Kivo::String const& dataSegmentName() const { return data_.name(); }
   std::uint32_t size() const { return live_; }
   std::uint32_t slotCount() const { return slotCount_; }
   std::uint32_t maxCapacity() const { return maxCapacity_; }
   std::uint64_t generation() const { return generation_; }

   // What a probe returns when it walked every slot without finding the key or an empty slot.
   static constexpr std::uint32_t noSlot() { return ~std::uint32_t{0}; }

   std::uint32_t home(std::uint32_t hash) const { return ShmLayout::home(hash, shift_); }
   std::uint32_t next(std::uint32_t i) const { return (i + 1) & (slotCount_ - 1); }
   ShmLayout::SlotHeader const& header(std::uint32_t i) const { return *headerAt(i); }
   std::byte const* keyAt(std::uint32_t i) const { return slotAt(i) + geometry_.keyOffset; }
   std::byte const* valueAt(std::uint32_t i) const { return slotAt(i) + geometry_.valueOffset; }

   // Each change below is one new generation. Slot indexes are valid until the next change.

   // Adds a key that is not in the table, building a bigger data segment first when the slots
   // are full (or have no empty slot left because another process damaged them). False, with the
   // table unchanged, when the table is at its maximum capacity or cannot grow.
   bool insert(std::uint32_t hash, void const* key, void const* value);
   // Gives the key in slot `i`, live or deleted, this value; a deleted key comes back, unless
   // the table is at its maximum capacity (false, table unchanged).
   bool update(std::uint32_t i, void const* value);
   // Changes the value of live slot `i` in place: fn(value) runs between the two steps of the
   // slot's sequence, as a whole-value update's copy does, so readers never see a change half
   // made, even when fn throws. One generation, like update().
   template <class F>
   void modify(std::uint32_t i, F&& fn) {
      KIVO_ASSERT(iterations_ == 0);
      ShmLayout::SlotHeader* s = headerAt(i);
      KIVO_ASSERT(s->state == ShmLayout::slotLive);
      ++generation_;
      beginWrite(s);
      s->changeGen = generation_;
      struct End {
         ShmTableWriterCore& core;
         ShmLayout::SlotHeader* s;
         ~End() {
            core.endWrite(s);
            core.publish();
         }
      } end{*this, s};
      fn(slotAt(i) + geometry_.valueOffset);
   }
   // The data segment in use; a new one (after growth) moves every slot.
   std::uint32_t serial() const { return serial_; }
   // REQUIRES: slot `i` is live.
   void erase(std::uint32_t i);
   // Deletes every live entry (one generation for all); false when there were none.
   bool eraseAll();

   // While an iteration runs the table must not change (a change may move every slot).
   void iterationBegin() const { ++iterations_; }
   void iterationEnd() const { --iterations_; }

 private:
   std::byte* slotAt(std::uint32_t i) const {
      return data_.base() + ShmLayout::slotsOffset() + std::size_t{i} * geometry_.slotSize;
   }
   ShmLayout::SlotHeader* headerAt(std::uint32_t i) const {
      return reinterpret_cast<ShmLayout::SlotHeader*>(slotAt(i));
   }
   ShmLayout::ControlHeader& control() const {
      return *reinterpret_cast<ShmLayout::ControlHeader*>(control_.base());
   }
   ShmLayout::DataHeader& dataHeader() const {
      return *reinterpret_cast<ShmLayout::DataHeader*>(data_.base());
   }
   void acquireControl_p();
   void retireStale_p(int fd, std::size_t bytes);
   std::uint32_t emptySlot_p(std::uint32_t hash) const;
   ShmMapping createData(std::uint32_t serial, std::uint32_t slotCount);
   bool rebuild();
   void beginWrite(ShmLayout::SlotHeader* s);
   void endWrite(ShmLayout::SlotHeader* s);
   void publish();

   Kivo::String baseName_;
   ShmLayout::SlotGeometry geometry_;
   pid_t pid_;
   std::uint32_t maxCapacity_;
   std::uint32_t maxSlotCount_;
   ShmMapping control_;
   ShmMapping data_;
   std::uint32_t serial_ = 0;
   std::uint32_t slotCount_ = 0;
   unsigned shift_ = 0;
   std::uint32_t live_ = 0;
   std::uint32_t used_ = 0;  // live slots and tombstones
   std::uint64_t generation_ = 0;
   mutable int iterations_ = 0;
};

// The part of the reader that does not depend on the key and value types.
class ShmTableReaderCore {
 public:
   // Opens the table `baseName` and its current data segment. Throws Kivo::ErrnoException when
   // they cannot be opened (ENOENT: no such table) and Kivo::Exception when they are not a table
   // of this geometry, are damaged, or are not owned by root or `writerUid` (by default this
   // process's effective uid) alone. A slot left mid-write for longer than `stallLimitSeconds`
   // makes a read throw.
   ShmTableReaderCore(Kivo::String baseName, ShmLayout::SlotGeometry geometry,
                      double stallLimitSeconds, std::optional<uid_t> writerUid = std::nullopt);
   ShmTableReaderCore(ShmTableReaderCore const&) = delete;
   ShmTableReaderCore& operator=(ShmTableReaderCore const&) = delete;

   // Starts a pass over the table: checks that both segments are still as large as their
   // mappings and moves to the writer's current data segment if it has built a new one. Throws
   // Kivo::Exception when a segment has shrunk. Every operation below that reads the segments
   // calls it (or checks the control segment) first.
   void refresh();

   Kivo::String const& baseName() const { return baseName_; }
   Kivo::String const& dataSegmentName() const { return data_.name(); }
   std::uint32_t slotCount() const { return slotCount_; }
   std::uint32_t home(std::uint32_t hash) const { return ShmLayout::home(hash, shift_); }
   std::uint32_t next(std::uint32_t i) const { return (i + 1) & (slotCount_ - 1); }
   std::uint64_t baseGeneration() const { return baseGeneration_; }
   // The writer's count of entries. Throws Kivo::Exception when it exceeds the slots.
   std::uint32_t liveCount() const;
   std::uint64_t generation() const;
   pid_t writerPid() const;
   bool writerClosed() const;
   std::optional<std::uint64_t> waitForChange(std::uint64_t lastGen, double timeoutSeconds);

   // Runs `copy(slot)` on the bytes of slot `i` until it has run over a stable slot: the slot's
   // sequence was even before and unchanged after. `copy` may run several times, must only copy
   // out of the slot, and must not act on what it copied until readSlot returns.
   template <class F>
   void readSlot(std::uint32_t i, F&& copy) const {
      std::byte const* slot = slotsBase_ + std::size_t{i} * slotSize_;
      std::atomic_ref<std::uint64_t> seq(
          const_cast<ShmLayout::SlotHeader*>(reinterpret_cast<ShmLayout::SlotHeader const*>(slot))
              ->seq);
      std::uint64_t stallStart = 0;
      for (unsigned attempt = 0;; ++attempt) {
         std::uint64_t const before = seq.load(std::memory_order_acquire);
         if ((before & 1) == 0) {
            copy(slot);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (seq.load(std::memory_order_relaxed) == before) {
               return;
            }
         }
         backOff(i, attempt, stallStart);
      }
   }

 private:
   ShmLayout::ControlHeader& control() const {
      return *reinterpret_cast<ShmLayout::ControlHeader*>(control_.base());
   }
   void mapData(std::uint32_t serial);
   void checkControlSize_p() const;
   void checkDataSize_p() const;
   void backOff(std::uint32_t i, unsigned attempt, std::uint64_t& stallStart) const;

   Kivo::String baseName_;
   ShmLayout::SlotGeometry geometry_;
   double stallLimit_;
   uid_t writerUid_;
   ShmMapping control_;
   bool canRegister_ = true;  // control mapped writable: this reader can ask to be woken
   ShmMapping data_;
   std::uint32_t serial_ = 0;
   std::uint32_t slotCount_ = 0;
   unsigned shift_ = 0;
   std::uint32_t slotSize_ = 0;
   std::byte const* slotsBase_ = nullptr;
   std::uint64_t baseGeneration_ = 0;
};

namespace ShmDetail {

// Room for a T copied out of shared memory byte by byte. T is trivially copyable, so copying its
// bytes in makes a T there.
template <class T>
struct Copy {
   alignas(T) unsigned char bytes[sizeof(T)];
   void from(std::byte const* p) { std::memcpy(bytes, p, sizeof(T)); }
   T const& get() const { return *std::launder(reinterpret_cast<T const*>(bytes)); }
};

template <class T>
constexpr bool plainData = (std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T>);

}  // namespace ShmDetail

// What changed in a table since a generation.
template <class Key>
struct ShmTableChanges {
   // The generation this answer is complete up to: pass it to the next changedSince().
   std::uint64_t generation = 0;
   // The writer rebuilt the table since the generation asked about (or the generation is not one
   // of this table's), which forgets deletions: `changed` then lists every live key, and a key
   // the caller knows that is not in it has been deleted.
   bool rebuilt = false;
   std::vector<Key> changed;  // live keys written since
   std::vector<Key> deleted;  // keys deleted since (and not written again)
};

// The writer. One process at a time may write a table; it owns the table's segments and removes
// them when it is destroyed. Used from one thread.
template <class Key, class Value, class Hash>
class ShmTableWriter : public Kivo::Object {
   static_assert(ShmDetail::plainData<Key> && ShmDetail::plainData<Value>);

 public:
   // Creates the table `baseName` ("/name"), sized for `initialCapacity` entries and allowed to
   // grow to `maxCapacity`. Throws Kivo::ErrnoException when the segments cannot be created,
   // EEXIST when another live writer has the table. REQUIRES: 1 <= initialCapacity <=
   // maxCapacity <= maxCapacityLimit().
   ShmTableWriter(Kivo::String baseName, std::uint32_t initialCapacity,
                  std::uint32_t maxCapacity = defaultMaxCapacity(), Hash hash = Hash())
       : hash_(std::move(hash)),
         core_(std::move(baseName), ShmLayout::slotGeometry<Key, Value>(), initialCapacity,
               maxCapacity) {}

   static constexpr std::uint32_t defaultMaxCapacity() { return std::uint32_t{1} << 20; }
   static constexpr std::uint32_t maxCapacityLimit() {
      return ShmTableWriterCore::maxCapacityLimit();
   }

   // The entry for `key` in this writer's mapping, or nullptr. Valid until the next change.
   Value const* find(Key const& key) const {
      auto const [i, found] = probe(key, hash_(key));
      if (!found || core_.header(i).state != ShmLayout::slotLive) {
         return nullptr;
      }
      return std::launder(reinterpret_cast<Value const*>(core_.valueAt(i)));
   }
   std::optional<Value> get(Key const& key) const {
      Value const* v = find(key);
      return v ? std::optional<Value>(*v) : std::nullopt;
   }

   // Inserts or replaces. False when `key` is new and the table cannot take another entry (at
   // its maximum capacity, or out of shared memory); the table is then unchanged.
   bool upsert(Key const& key, Value const& value) {
      std::uint32_t const h = hash_(key);
      auto const [i, found] = probe(key, h);
      if (found) {
         return core_.update(i, &value);
      }
      return core_.insert(h, &key, &value);
   }
   // False when `key` was not there.
   bool del(Key const& key) {
      auto const [i, found] = probe(key, hash_(key));
      if (!found || core_.header(i).state != ShmLayout::slotLive) {
         return false;
      }
      core_.erase(i);
      return true;
   }
   void delAll() { core_.eraseAll(); }

   using Place = ShmPlace<Key>;
   Place placeOf(Key const& key) const {
      Place p;
      p.hash = hash_(key);
      return p;
   }

   // Changes the entry of `key` in place with fn(Value&), under the slot's sequence like any
   // write, as one generation. A key without a live entry gets init() (a Value) changed by fn, as
   // an insert. `place` (from placeOf(key)) is checked against the slot before it is believed,
   // and refreshed when the entry has moved. False, changing nothing, when the key is new and the
   // table cannot take it.
   template <class Init, class F>
   bool modify(Key const& key, Place& place, Init&& init, F&& fn) {
      std::uint32_t i = place.slot;
      if (place.serial != core_.serial() || i >= core_.slotCount() ||
          core_.header(i).state != ShmLayout::slotLive || core_.header(i).hash != place.hash ||
          std::memcmp(core_.keyAt(i), place.slotKey, sizeof(Key)) != 0) {
         // Not where it was, or another process has changed that slot: the probe compares keys
         // as the table does.
         auto const [j, found] = probe(key, place.hash);
         if (!found || core_.header(j).state != ShmLayout::slotLive) {
            Value fresh = init();
            fn(fresh);
            if (!(found ? core_.update(j, &fresh) : core_.insert(place.hash, &key, &fresh))) {
               return false;
            }
            remember_p(place, probe(key, place.hash).first);  // an insert may move every slot
            return true;
         }
         remember_p(place, i = j);
      }
      core_.modify(i,
                   [&](std::byte* value) { fn(*std::launder(reinterpret_cast<Value*>(value))); });
      return true;
   }

   std::uint32_t size() const { return core_.size(); }
   // Calls fn(key, value) for every entry, in no particular order. REQUIRES: fn does not change
   // the table.
   template <class F>
   void forEach(F&& fn) const {
      core_.iterationBegin();
      struct End {
         ShmTableWriterCore const& core;
         ~End() { core.iterationEnd(); }
      } end{core_};
      for (std::uint32_t i = 0; i < core_.slotCount(); ++i) {
         if (core_.header(i).state == ShmLayout::slotLive) {
            fn(keyAt(i), *std::launder(reinterpret_cast<Value const*>(core_.valueAt(i))));
         }
      }
   }

   std::uint64_t generation() const { return core_.generation(); }
   Kivo::String const& baseName() const { return core_.baseName(); }
   Kivo::String const& dataSegmentName() const { return core_.dataSegmentName(); }
   std::uint32_t slotCount() const { return core_.slotCount(); }
   std::uint32_t maxCapacity() const { return core_.maxCapacity(); }

 private:
   void remember_p(Place& place, std::uint32_t i) const {
      place.serial = core_.serial();
      place.slot = i;
      std::memcpy(place.slotKey, core_.keyAt(i), sizeof(Key));
   }
   Key const& keyAt(std::uint32_t i) const {
      return *std::launder(reinterpret_cast<Key const*>(core_.keyAt(i)));
   }
   // The slot holding `key` (live or deleted) and true, or the empty slot ending its probe
   // sequence and false. The writer always leaves an empty slot, but another process may have
   // damaged the segment: the walk visits each slot once at most and then ends with noSlot().
   std::pair<std::uint32_t, bool> probe(Key const& key, std::uint32_t h) const {
      std::uint32_t i = core_.home(h);
      for (std::uint32_t n = 0; n < core_.slotCount(); ++n, i = core_.next(i)) {
         ShmLayout::SlotHeader const& s = core_.header(i);
         if (s.state == ShmLayout::slotEmpty) {
            return {i, false};
         }
         if ((s.state == ShmLayout::slotLive || s.state == ShmLayout::slotDeleted) && s.hash == h &&
             keyAt(i) == key) {
            return {i, true};
         }
      }
      return {ShmTableWriterCore::noSlot(), false};
   }

   Hash hash_;
   ShmTableWriterCore core_;
};

// A reader. Any number of processes may read a table while its writer changes it; `Hash` must be
// the writer's. Each operation first follows the writer to its current data segment. An entry is
// always read whole, but an operation over many entries is not a snapshot: entries may come from
// different moments. Used from one thread.
template <class Key, class Value, class Hash>
class ShmTableReader : public Kivo::Object {
   static_assert(ShmDetail::plainData<Key> && ShmDetail::plainData<Value>);

 public:
   using Changes = ShmTableChanges<Key>;

   // Opens the table `baseName`. Throws Kivo::ErrnoException when there is no such table (ENOENT)
   // or it cannot be opened, Kivo::Exception when the segments are not a table of these keys and
   // values, are damaged, or are owned by anyone but root and `writerUid` (by default this
   // process's effective uid) or writable by anyone else. An operation that finds an entry
   // mid-write for longer than `stallLimitSeconds` throws Kivo::Exception, and so does one that
   // finds a segment shrunk or damaged. Keys and values come out as raw bytes of shared memory:
   // the caller validates them before it relies on them.
   explicit ShmTableReader(Kivo::String baseName, double stallLimitSeconds = 1.0,
                           Hash hash = Hash(), std::optional<uid_t> writerUid = std::nullopt)
       : hash_(std::move(hash)),
         core_(std::move(baseName), ShmLayout::slotGeometry<Key, Value>(), stallLimitSeconds,
               writerUid) {}

   // The value of `key`, or nothing when the table does not hold it.
   std::optional<Value> get(Key const& key) {
      core_.refresh();
      std::uint32_t const h = hash_(key);
      std::uint32_t i = core_.home(h);
      for (std::uint32_t n = 0; n < core_.slotCount(); ++n, i = core_.next(i)) {
         ShmLayout::SlotHeader s;
         ShmDetail::Copy<Key> k;
         ShmDetail::Copy<Value> v;
         bool candidate = false;
         core_.readSlot(i, [&](std::byte const* slot) {
            std::memcpy(&s, slot, sizeof(s));
            candidate = s.state != ShmLayout::slotEmpty && s.hash == h;
            if (candidate) {
               k.from(slot + keyOffset());
               if (s.state == ShmLayout::slotLive) {
                  v.from(slot + valueOffset());
               }
            }
         });
         if (s.state == ShmLayout::slotEmpty) {
            return std::nullopt;
         }
         // A key has at most one slot in its sequence, live or a tombstone.
         if (candidate && k.get() == key) {
            return s.state == ShmLayout::slotLive ? std::optional<Value>(v.get()) : std::nullopt;
         }
      }
      return std::nullopt;
   }

   // The number of entries, as the writer last counted them (at most the number of slots).
   std::uint32_t size() {
      core_.refresh();
      return core_.liveCount();
   }

   // Calls fn(key, value) for every entry, each one read whole.
   template <class F>
   void forEach(F&& fn) {
      core_.refresh();
      for (std::uint32_t i = 0; i < core_.slotCount(); ++i) {
         bool live = false;
         ShmDetail::Copy<Key> k;
         ShmDetail::Copy<Value> v;
         core_.readSlot(i, [&](std::byte const* slot) {
            ShmLayout::SlotHeader s;
            std::memcpy(&s, slot, sizeof(s));
            live = s.state == ShmLayout::slotLive;
            if (live) {
               k.from(slot + keyOffset());
               v.from(slot + valueOffset());
            }
         });
         if (live) {
            fn(k.get(), v.get());
         }
      }
   }

   // The keys written or deleted after generation `since`.
   Changes changedSince(std::uint64_t since) {
      Changes c;
      // The generation first: every change up to it is in the segment found after it.
      c.generation = core_.generation();
      core_.refresh();
      c.rebuilt = since < core_.baseGeneration() || since > c.generation;
      c.generation = std::max(c.generation, core_.baseGeneration());
      for (std::uint32_t i = 0; i < core_.slotCount(); ++i) {
         ShmLayout::SlotHeader s;
         ShmDetail::Copy<Key> k;
         bool wanted = false;
         core_.readSlot(i, [&](std::byte const* slot) {
            std::memcpy(&s, slot, sizeof(s));
            wanted = s.state != ShmLayout::slotEmpty &&
                     (s.changeGen > since || (c.rebuilt && s.state == ShmLayout::slotLive));
            if (wanted) {
               k.from(slot + keyOffset());
            }
         });
         if (wanted) {
            (s.state == ShmLayout::slotLive ? c.changed : c.deleted).push_back(k.get());
         }
      }
      return c;
   }

   // Throws Kivo::Exception when the control segment has shrunk.
   std::uint64_t generation() const { return core_.generation(); }
   // Sleeps until the generation differs from `lastGen` and returns the new one, or returns
   // nothing once `timeoutSeconds` have passed or the writer has closed the table.
   std::optional<std::uint64_t> waitForChange(std::uint64_t lastGen, double timeoutSeconds) {
      return core_.waitForChange(lastGen, timeoutSeconds);
   }

   pid_t writerPid() const { return core_.writerPid(); }
   // The writer has shut down: the table keeps its last contents but will not change again.
   bool writerClosed() const { return core_.writerClosed(); }
   Kivo::String const& dataSegmentName() const { return core_.dataSegmentName(); }

 private:
   static constexpr std::uint32_t keyOffset() {
      return ShmLayout::slotGeometry<Key, Value>().keyOffset;
   }
   static constexpr std::uint32_t valueOffset() {
      return ShmLayout::slotGeometry<Key, Value>().valueOffset;
   }

   Hash hash_;
   ShmTableReaderCore core_;
};

}  // namespace Mirra
