#include "Mirra/ShmTable.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>

#include "Trace/Trace.h"

namespace Mirra {

using namespace ShmLayout;
using Kivo::String;

namespace {

Dualog::Facility& facility() {
   static Dualog::Facility& f = Dualog::facility("Mirra");
   return f;
}

// Words that another process reads or writes at the same time are accessed atomically.
template <class T>
T load(T const& word, std::memory_order order = std::memory_order_acquire) {
   return std::atomic_ref<T>(const_cast<T&>(word)).load(order);
}
template <class T>
void store(T& word, T value, std::memory_order order = std::memory_order_release) {
   std::atomic_ref<T>(word).store(value, order);
}

// Readers sleep on the low 32 bits of the 64-bit generation (a futex is 32 bits). They change
// with every change of the generation short of 2^32 changes between a reader's look and its sleep.
std::uint32_t* futexWord(std::uint64_t& generation) {
   return reinterpret_cast<std::uint32_t*>(&generation) +
          (std::endian::native == std::endian::little ? 0 : 1);
}

// Not FUTEX_PRIVATE_FLAG: the word is in memory shared between processes.
long futex(std::uint32_t* word, int op, std::uint32_t value, timespec const* timeout) {
   return syscall(SYS_futex, word, op, value, timeout, nullptr, 0);
}

void wakeAll(std::uint64_t& generation) {
   futex(futexWord(generation), FUTEX_WAKE, INT_MAX, nullptr);
}

std::uint64_t monotonicNs() {
   timespec ts{};
   clock_gettime(CLOCK_MONOTONIC, &ts);
   return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000u +
          static_cast<std::uint64_t>(ts.tv_nsec);
}

void cpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
   __builtin_ia32_pause();
#endif
}

// No such process. A pid of 0 or less was never a writer's (and kill() would signal a group).
bool processGone(pid_t pid) {
   return pid <= 0 || (kill(pid, 0) != 0 && errno == ESRCH);
}

// The fewest slots (a power of two, at least minSlots()) that hold `entries` at 3/4 load.
std::uint32_t slotsFor(std::uint32_t entries) {
   std::uint64_t slots = minSlots();
   while (slots * 3 < std::uint64_t{entries} * 4) {
      slots *= 2;
   }
   return static_cast<std::uint32_t>(slots);
}

String hex(std::uint64_t v) {
   char buf[24];
   std::snprintf(buf, sizeof(buf), "0x%016llx", static_cast<unsigned long long>(v));
   return buf;
}

String str(std::uint64_t v) {
   return std::to_string(v);
}

[[noreturn]] void refuse(String const& name, String const& what) {
   throw Kivo::Exception("shared-memory table " + name + ": " + what);
}

// Checks that `m` is the control segment of a table with this geometry.
void checkControl(ShmMapping const& m, SlotGeometry const& g) {
   if (m.size() < sizeof(ControlHeader)) {
      refuse(m.name(), "control segment of " + str(m.size()) +
                           " bytes is too small for a table control header of " +
                           str(sizeof(ControlHeader)) + " bytes");
   }
   auto const& shared = *reinterpret_cast<ControlHeader const*>(m.base());
   std::uint64_t const magic = load(shared.magic);  // written last, once the rest is there
   if (magic != controlMagic()) {
      refuse(m.name(), "bad magic " + hex(magic) + ", not a table control segment");
   }
   ControlHeader c;
   std::memcpy(&c, &shared, sizeof(c));
   if (c.layoutVersion != layoutVersion()) {
      refuse(m.name(), "layout version " + str(c.layoutVersion) + ", this reader knows version " +
                           str(layoutVersion()));
   }
   if (c.headerSize != sizeof(ControlHeader)) {
      refuse(m.name(), "control header size " + str(c.headerSize) + ", expected " +
                           str(sizeof(ControlHeader)));
   }
   if (c.keySize != g.keySize) {
      refuse(m.name(), "key size " + str(c.keySize) + " bytes, expected " + str(g.keySize));
   }
   if (c.valueSize != g.valueSize) {
      refuse(m.name(), "value size " + str(c.valueSize) + " bytes, expected " + str(g.valueSize));
   }
}

// Checks that `m` is data segment `serial` of a table with this geometry and that all of its
// slots lie inside the mapping, and returns its header.
DataHeader checkData(ShmMapping const& m, SlotGeometry const& g, std::uint32_t serial) {
   if (m.size() < sizeof(DataHeader)) {
      refuse(m.name(), "data segment of " + str(m.size()) +
                           " bytes is too small for a table data header of " +
                           str(sizeof(DataHeader)) + " bytes");
   }
   // The segment was complete before it was published; copy the header once and check the copy.
   DataHeader h;
   std::memcpy(&h, m.base(), sizeof(h));
   if (h.magic != dataMagic()) {
      refuse(m.name(), "bad magic " + hex(h.magic) + ", not a table data segment");
   }
   if (h.layoutVersion != layoutVersion()) {
      refuse(m.name(), "layout version " + str(h.layoutVersion) + ", this reader knows version " +
                           str(layoutVersion()));
   }
   if (h.headerSize != sizeof(DataHeader)) {
      refuse(m.name(),
             "data header size " + str(h.headerSize) + ", expected " + str(sizeof(DataHeader)));
   }
   if (h.keySize != g.keySize) {
      refuse(m.name(), "key size " + str(h.keySize) + " bytes, expected " + str(g.keySize));
   }
   if (h.valueSize != g.valueSize) {
      refuse(m.name(), "value size " + str(h.valueSize) + " bytes, expected " + str(g.valueSize));
   }
   if (h.keyOffset != g.keyOffset || h.valueOffset != g.valueOffset || h.slotSize != g.slotSize) {
      refuse(m.name(), "slot layout (key at " + str(h.keyOffset) + ", value at " +
                           str(h.valueOffset) + ", " + str(h.slotSize) +
                           " bytes a slot), expected (" + str(g.keyOffset) + ", " +
                           str(g.valueOffset) + ", " + str(g.slotSize) + ")");
   }
   if (h.serial != serial) {
      refuse(m.name(), "data segment says it is number " + str(h.serial));
   }
   if (!std::has_single_bit(h.slotCount) || h.slotCount < minSlots() || h.slotCount > maxSlots()) {
      refuse(m.name(), "capacity of " + str(h.slotCount) + " slots is not a power of two from " +
                           str(minSlots()) + " to " + str(maxSlots()));
   }
   if (h.slotsOffset != slotsOffset()) {
      refuse(m.name(),
             "slots at offset " + str(h.slotsOffset) + ", expected " + str(slotsOffset()));
   }
   std::uint64_t const needed = h.slotsOffset + std::uint64_t{h.slotCount} * h.slotSize;
   if (needed > m.size()) {
      refuse(m.name(), "capacity of " + str(h.slotCount) + " slots needs " + str(needed) +
                           " bytes but the segment has " + str(m.size()));
   }
   return h;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ShmMapping

ShmMapping::ShmMapping(ShmMapping&& o) noexcept
    : name_(std::move(o.name_)),
      base_(std::exchange(o.base_, nullptr)),
      size_(std::exchange(o.size_, 0)) {}

ShmMapping& ShmMapping::operator=(ShmMapping&& o) noexcept {
   if (this != &o) {
      unmap();
      name_ = std::move(o.name_);
      base_ = std::exchange(o.base_, nullptr);
      size_ = std::exchange(o.size_, 0);
   }
   return *this;
}

ShmMapping::~ShmMapping() {
   unmap();
}

void ShmMapping::unmap() noexcept {
   if (base_) {
      munmap(base_, size_);
   }
   base_ = nullptr;
   size_ = 0;
}

ShmMapping ShmMapping::create(String const& name, std::size_t bytes, mode_t mode) {
   int const fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
   if (fd < 0) {
      throw Kivo::ErrnoException(errno, "creating shared-memory object " + name);
   }
   ShmMapping m;
   m.name_ = name;
   int error = 0;
   char const* step = nullptr;
   if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
      error = errno;
      step = "sizing";
   } else if ((error = posix_fallocate(fd, 0, static_cast<off_t>(bytes))) != 0) {
      step = "allocating";
   } else {
      void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      if (p == MAP_FAILED) {
         error = errno;
         step = "mapping";
      } else {
         m.base_ = static_cast<std::byte*>(p);
         m.size_ = bytes;
      }
   }
   close(fd);
   if (step) {
      shm_unlink(name.c_str());
      throw Kivo::ErrnoException(
          error, String(step) + " shared-memory object " + name + " (" + str(bytes) + " bytes)");
   }
   return m;
}

ShmMapping ShmMapping::open(String const& name, bool writable) {
   int const fd = shm_open(name.c_str(), writable ? O_RDWR : O_RDONLY, 0);
   if (fd < 0) {
      throw Kivo::ErrnoException(errno, "opening shared-memory object " + name);
   }
   ShmMapping m;
   m.name_ = name;
   struct stat st {};
   int error = 0;
   char const* step = nullptr;
   if (fstat(fd, &st) != 0) {
      error = errno;
      step = "examining";
   } else if (st.st_size > 0) {
      auto const bytes = static_cast<std::size_t>(st.st_size);
      void* p = mmap(nullptr, bytes, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED, fd, 0);
      if (p == MAP_FAILED) {
         error = errno;
         step = "mapping";
      } else {
         m.base_ = static_cast<std::byte*>(p);
         m.size_ = bytes;
      }
   }
   close(fd);
   if (step) {
      throw Kivo::ErrnoException(error, String(step) + " shared-memory object " + name);
   }
   return m;
}

bool shmUnlink(String const& name) noexcept {
   return shm_unlink(name.c_str()) == 0;
}

String shmTableDataName(String const& baseName, std::uint32_t serial) {
   return baseName + "." + str(serial);
}

// ---------------------------------------------------------------------------------------------
// ShmTableWriterCore

ShmTableWriterCore::ShmTableWriterCore(String baseName, SlotGeometry geometry,
                                       std::uint32_t initialCapacity, std::uint32_t maxCapacity)
    : baseName_(std::move(baseName)),
      geometry_(geometry),
      pid_(getpid()),
      maxCapacity_(maxCapacity),
      maxSlotCount_(0) {
   KIVO_ASSERT(baseName_.size() > 1 && baseName_[0] == '/' &&
               baseName_.find('/', 1) == String::npos);
   KIVO_ASSERT(1 <= initialCapacity && initialCapacity <= maxCapacity &&
               maxCapacity <= maxCapacityLimit());
   maxSlotCount_ = slotsFor(maxCapacity_);
   createControl();
   std::uint32_t const slots = slotsFor(initialCapacity);
   try {
      data_ = createData(1, slots);
   } catch (...) {
      shmUnlink(baseName_);
      throw;
   }
   serial_ = 1;
   slotCount_ = slots;
   shift_ = homeShift(slots);
   ControlHeader& c = control();
   store(c.dataSerial, serial_);
   store(c.magic, controlMagic());  // the table is ready for readers
   KTRACE(facility(), 3,
          "created shared-memory table " << baseName_ << ": " << slots << " slots of "
                                         << geometry_.slotSize << " bytes, at most " << maxCapacity_
                                         << " entries");
}

ShmTableWriterCore::~ShmTableWriterCore() {
   if (getpid() != pid_) {
      return;
   }
   ControlHeader& c = control();
   store(c.closed, 1u, std::memory_order_seq_cst);
   // A new generation too, so that a reader about to sleep on the old one does not.
   store(c.generation, generation_ + 1, std::memory_order_seq_cst);
   shmUnlink(data_.name());
   shmUnlink(baseName_);
   wakeAll(c.generation);
   KTRACE(facility(), 3, "closed shared-memory table " << baseName_);
}

void ShmTableWriterCore::createControl() {
   for (int attempt = 0;; ++attempt) {
      try {
         control_ = ShmMapping::create(baseName_, sizeof(ControlHeader), 0644);
         break;
      } catch (Kivo::ErrnoException const& e) {
         if (e.error() != EEXIST || attempt == 2) {
            throw;
         }
      }
      replaceStale();
   }
   ControlHeader& c = control();
   c.layoutVersion = layoutVersion();
   c.headerSize = sizeof(ControlHeader);
   c.writerPid = getpid();
   c.keySize = geometry_.keySize;
   c.valueSize = geometry_.valueSize;
}

// The name is taken. Removes the table there if its writer is gone; refuses anything else.
void ShmTableWriterCore::replaceStale() {
   ShmMapping old;
   try {
      old = ShmMapping::open(baseName_, false);
   } catch (Kivo::ErrnoException const& e) {
      if (e.error() == ENOENT) {
         return;  // gone already
      }
      throw;
   }
   auto const& c = *reinterpret_cast<ControlHeader const*>(old.base());
   if (old.size() < sizeof(ControlHeader) || load(c.magic) != controlMagic()) {
      throw Kivo::ErrnoException(EEXIST, "creating shared-memory table " + baseName_ +
                                             ": the name is taken by something else");
   }
   pid_t const pid = load(c.writerPid);
   bool const closed = load(c.closed) != 0;
   if (!closed && !processGone(pid)) {
      throw Kivo::ErrnoException(EEXIST, "creating shared-memory table " + baseName_ +
                                             ": in use by writer pid " + std::to_string(pid));
   }
   std::uint32_t const serial = load(c.dataSerial);
   KTRACE(facility(), 1,
          "replacing shared-memory table " << baseName_ << " left behind by writer pid " << pid
                                           << (closed ? " (closed)" : " (gone)"));
   // Its current data segment, and the next one in case it died while building it.
   shmUnlink(shmTableDataName(baseName_, serial));
   shmUnlink(shmTableDataName(baseName_, serial + 1));
   shmUnlink(baseName_);
}

ShmMapping ShmTableWriterCore::createData(std::uint32_t serial, std::uint32_t slotCount) {
   String const name = shmTableDataName(baseName_, serial);
   std::size_t const bytes = slotsOffset() + std::size_t{slotCount} * geometry_.slotSize;
   ShmMapping m;
   try {
      m = ShmMapping::create(name, bytes, 0644);
   } catch (Kivo::ErrnoException const& e) {
      if (e.error() != EEXIST) {
         throw;
      }
      // Left behind by a writer of this table that died; this writer owns the name now.
      shmUnlink(name);
      m = ShmMapping::create(name, bytes, 0644);
   }
   // Fresh memory is zero: every slot is empty.
   DataHeader& h = *reinterpret_cast<DataHeader*>(m.base());
   h.magic = dataMagic();
   h.layoutVersion = layoutVersion();
   h.headerSize = sizeof(DataHeader);
   h.keySize = geometry_.keySize;
   h.valueSize = geometry_.valueSize;
   h.keyOffset = geometry_.keyOffset;
   h.valueOffset = geometry_.valueOffset;
   h.slotSize = geometry_.slotSize;
   h.slotCount = slotCount;
   h.slotsOffset = slotsOffset();
   h.baseGeneration = generation_;
   h.serial = serial;
   return m;
}

void ShmTableWriterCore::beginWrite(SlotHeader* s) {
   std::atomic_ref<std::uint64_t> seq(s->seq);
   seq.store(seq.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
   // Readers that see any of the writes below also see the odd sequence.
   std::atomic_thread_fence(std::memory_order_release);
}

void ShmTableWriterCore::endWrite(SlotHeader* s) {
   std::atomic_ref<std::uint64_t> seq(s->seq);
   seq.store(seq.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

void ShmTableWriterCore::publish() {
   store(dataHeader().liveCount, live_);
   ControlHeader& c = control();
   // Sequentially consistent with the readers' registration in waiters: either a reader sees the
   // new generation before it sleeps, or this sees the reader waiting and wakes it.
   store(c.generation, generation_, std::memory_order_seq_cst);
   if (load(c.waiters, std::memory_order_seq_cst) != 0) {
      wakeAll(c.generation);
   }
}

bool ShmTableWriterCore::insert(std::uint32_t hash, void const* key, void const* value) {
   KIVO_ASSERT(iterations_ == 0);
   if (live_ >= maxCapacity_) {
      KTRACE(facility(), 1,
             "shared-memory table " << baseName_ << " holds its maximum of " << maxCapacity_
                                    << " entries; insert refused");
      return false;
   }
   if ((std::uint64_t{used_} + 1) * 4 > std::uint64_t{slotCount_} * 3 && !rebuild()) {
      return false;
   }
   std::uint32_t i = home(hash);
   while (headerAt(i)->state != slotEmpty) {
      i = next(i);
   }
   SlotHeader* s = headerAt(i);
   ++generation_;
   beginWrite(s);
   s->state = slotLive;
   s->hash = hash;
   s->changeGen = generation_;
   std::memcpy(slotAt(i) + geometry_.keyOffset, key, geometry_.keySize);
   std::memcpy(slotAt(i) + geometry_.valueOffset, value, geometry_.valueSize);
   endWrite(s);
   ++live_;
   ++used_;
   publish();
   return true;
}

bool ShmTableWriterCore::update(std::uint32_t i, void const* value) {
   KIVO_ASSERT(iterations_ == 0);
   SlotHeader* s = headerAt(i);
   KIVO_ASSERT(s->state == slotLive || s->state == slotDeleted);
   if (s->state == slotDeleted) {
      if (live_ >= maxCapacity_) {
         KTRACE(facility(), 1,
                "shared-memory table " << baseName_ << " holds its maximum of " << maxCapacity_
                                       << " entries; insert refused");
         return false;
      }
      ++live_;
   }
   ++generation_;
   beginWrite(s);
   s->state = slotLive;
   s->changeGen = generation_;
   std::memcpy(slotAt(i) + geometry_.valueOffset, value, geometry_.valueSize);
   endWrite(s);
   publish();
   return true;
}

void ShmTableWriterCore::erase(std::uint32_t i) {
   KIVO_ASSERT(iterations_ == 0);
   SlotHeader* s = headerAt(i);
   KIVO_ASSERT(s->state == slotLive);
   ++generation_;
   beginWrite(s);
   s->state = slotDeleted;
   s->changeGen = generation_;
   endWrite(s);
   --live_;
   publish();
}

bool ShmTableWriterCore::eraseAll() {
   KIVO_ASSERT(iterations_ == 0);
   if (live_ == 0) {
      return false;
   }
   ++generation_;
   for (std::uint32_t i = 0; i < slotCount_; ++i) {
      SlotHeader* s = headerAt(i);
      if (s->state == slotLive) {
         beginWrite(s);
         s->state = slotDeleted;
         s->changeGen = generation_;
         endWrite(s);
      }
   }
   live_ = 0;
   publish();
   return true;
}

// Moves the live entries to a new data segment with room for at least one more, twice as many
// slots as live entries when the maximum allows, leaving the tombstones behind.
bool ShmTableWriterCore::rebuild() {
   std::uint64_t want = slotCount_;
   while ((std::uint64_t{live_} + 1) * 2 > want && want < maxSlotCount_) {
      want *= 2;
   }
   auto const slots = static_cast<std::uint32_t>(want);
   ShmMapping next;
   try {
      next = createData(serial_ + 1, slots);
   } catch (Kivo::ErrnoException const& e) {
      KTRACE(facility(), 1,
             "shared-memory table " << baseName_ << " cannot grow to " << slots
                                    << " slots: " << e.what() << "; insert refused");
      return false;
   }
   unsigned const shift = homeShift(slots);
   std::byte* const slotsBase = next.base() + slotsOffset();
   for (std::uint32_t i = 0; i < slotCount_; ++i) {
      SlotHeader const* s = headerAt(i);
      if (s->state != slotLive) {
         continue;
      }
      std::uint32_t j = ShmLayout::home(s->hash, shift);
      while (
          reinterpret_cast<SlotHeader*>(slotsBase + std::size_t{j} * geometry_.slotSize)->state !=
          slotEmpty) {
         j = (j + 1) & (slots - 1);
      }
      std::memcpy(slotsBase + std::size_t{j} * geometry_.slotSize, slotAt(i), geometry_.slotSize);
   }
   reinterpret_cast<DataHeader*>(next.base())->liveCount = live_;
   // From here on readers that look at the control segment go to the new segment; readers still
   // on the old one keep their mapping of it after the name is gone.
   store(dataHeader().successor, serial_ + 1);
   store(control().dataSerial, serial_ + 1);
   String const old = data_.name();
   data_ = std::move(next);
   shmUnlink(old);
   ++serial_;
   slotCount_ = slots;
   shift_ = shift;
   used_ = live_;
   KTRACE(facility(), 3,
          "shared-memory table " << baseName_ << " moved to " << data_.name() << ": " << slots
                                 << " slots for " << live_ << " entries");
   return true;
}

// ---------------------------------------------------------------------------------------------
// ShmTableReaderCore

ShmTableReaderCore::ShmTableReaderCore(String baseName, SlotGeometry geometry,
                                       double stallLimitSeconds)
    : baseName_(std::move(baseName)), geometry_(geometry), stallLimit_(stallLimitSeconds) {
   KIVO_ASSERT(stallLimitSeconds > 0);
   // Writable only to register in `waiters`; a reader without write access polls instead.
   try {
      control_ = ShmMapping::open(baseName_, true);
   } catch (Kivo::ErrnoException const& e) {
      if (e.error() != EACCES) {
         throw;
      }
      control_ = ShmMapping::open(baseName_, false);
      canRegister_ = false;
   }
   checkControl(control_, geometry_);
   mapData(load(control().dataSerial));
}

void ShmTableReaderCore::refresh() {
   std::uint32_t const serial = load(control().dataSerial);
   if (serial != serial_) {
      mapData(serial);
   }
}

void ShmTableReaderCore::mapData(std::uint32_t serial) {
   for (int attempt = 0;; ++attempt) {
      try {
         ShmMapping m = ShmMapping::open(shmTableDataName(baseName_, serial), false);
         DataHeader const h = checkData(m, geometry_, serial);
         data_ = std::move(m);
         serial_ = serial;
         slotCount_ = h.slotCount;
         shift_ = homeShift(h.slotCount);
         slotSize_ = h.slotSize;
         slotsBase_ = data_.base() + h.slotsOffset;
         baseGeneration_ = h.baseGeneration;
         return;
      } catch (Kivo::ErrnoException const& e) {
         // Gone because the writer has moved on again while this reader was on its way: follow.
         std::uint32_t const now = load(control().dataSerial);
         if (e.error() != ENOENT || now == serial || attempt >= 100) {
            throw;
         }
         serial = now;
      }
   }
}

std::uint32_t ShmTableReaderCore::liveCount() const {
   return load(reinterpret_cast<DataHeader const*>(data_.base())->liveCount);
}

std::uint64_t ShmTableReaderCore::generation() const {
   return load(control().generation);
}

pid_t ShmTableReaderCore::writerPid() const {
   return load(control().writerPid);
}

bool ShmTableReaderCore::writerClosed() const {
   return load(control().closed) != 0;
}

std::optional<std::uint64_t> ShmTableReaderCore::waitForChange(std::uint64_t lastGen,
                                                               double timeoutSeconds) {
   KIVO_ASSERT(timeoutSeconds >= 0);
   constexpr std::uint64_t pollNs = 10'000'000;  // for a reader that cannot register
   ControlHeader& c = control();
   auto const timeoutNs = static_cast<std::uint64_t>(std::min(timeoutSeconds, 1e9) * 1e9);
   std::uint64_t const deadline = monotonicNs() + timeoutNs;
   for (;;) {
      if (load(c.closed, std::memory_order_seq_cst) != 0) {
         return std::nullopt;
      }
      std::uint64_t const g = load(c.generation, std::memory_order_seq_cst);
      if (g != lastGen) {
         return g;
      }
      std::uint64_t const now = monotonicNs();
      if (now >= deadline) {
         return std::nullopt;
      }
      std::uint64_t const sleepNs =
          canRegister_ ? deadline - now : std::min(deadline - now, pollNs);
      timespec const ts{static_cast<time_t>(sleepNs / 1'000'000'000u),
                        static_cast<long>(sleepNs % 1'000'000'000u)};
      if (canRegister_) {
         std::atomic_ref<std::uint32_t>(c.waiters).fetch_add(1, std::memory_order_seq_cst);
      }
      // The kernel sleeps only while the word still holds lastGen's low half.
      if (load(c.generation, std::memory_order_seq_cst) == lastGen) {
         futex(futexWord(c.generation), FUTEX_WAIT, static_cast<std::uint32_t>(lastGen), &ts);
      }
      if (canRegister_) {
         std::atomic_ref<std::uint32_t>(c.waiters).fetch_sub(1, std::memory_order_seq_cst);
      }
   }
}

void ShmTableReaderCore::backOff(std::uint32_t i, unsigned attempt,
                                 std::uint64_t& stallStart) const {
   if (attempt == 0) {
      stallStart = monotonicNs();
   }
   if (attempt < 64) {
      cpuRelax();
      return;
   }
   if (attempt < 1024) {
      sched_yield();
   } else {
      timespec const pause{0, 100'000};  // long stuck: stop burning a CPU on it
      nanosleep(&pause, nullptr);
   }
   if (attempt % 16 != 0 || static_cast<double>(monotonicNs() - stallStart) < stallLimit_ * 1e9) {
      return;
   }
   pid_t const pid = writerPid();
   char limit[32];
   std::snprintf(limit, sizeof(limit), "%g", stallLimit_);
   refuse(data_.name(), "slot " + str(i) + " has been mid-write for over " + limit +
                            " s; writer pid " + std::to_string(pid) +
                            (processGone(pid) ? " is gone" : " is alive but stalled"));
}

}  // namespace Mirra
