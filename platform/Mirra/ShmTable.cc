#include "Mirra/ShmTable.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("Mirra"))

namespace Mirra {

using namespace ShmLayout;
using Kivo::String;

namespace {

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
// Only for messages: whether a writer lives is its lock's to say.
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

String octal(unsigned v) {
   char buf[16];
   std::snprintf(buf, sizeof(buf), "0%03o", v);
   return buf;
}

[[noreturn]] void refuse(String const& name, String const& what) {
   throw Kivo::Exception("shared-memory table " + name + ": " + what);
}

// Another process may have removed the name, or put another object under it, since `fd` was
// opened.
bool nameRefersTo(String const& name, int fd) noexcept {
   struct stat mine {};
   struct stat named {};
   if (fd < 0 || fstat(fd, &mine) != 0) {
      return false;
   }
   int const other = shm_open(name.c_str(), O_RDONLY | O_NONBLOCK, 0);
   if (other < 0) {
      return false;
   }
   bool const same =
       fstat(other, &named) == 0 && named.st_dev == mine.st_dev && named.st_ino == mine.st_ino;
   close(other);
   return same;
}

// Who holds the lock of a table, for the message that refuses a second writer. The pid is only
// what the holder wrote: it may be missing while the holder sets the table up.
String lockHolder(int fd) {
   ControlHeader c{};
   ssize_t const got = pread(fd, &c, sizeof(c), 0);
   if (got >= static_cast<ssize_t>(offsetof(ControlHeader, writerPid) + sizeof(c.writerPid)) &&
       c.writerPid > 0) {
      return "writer pid " + std::to_string(c.writerPid);
   }
   return "a writer that is still setting it up";
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

// Checks that `m`, whose header is mapped, is data segment `serial` of a table with this geometry
// and that all of its slots lie inside the object's `bytes`, and returns its header.
DataHeader checkData(ShmMapping const& m, SlotGeometry const& g, std::uint32_t serial,
                     std::size_t bytes) {
   KIVO_ASSERT(m.size() >= sizeof(DataHeader));
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
   if (needed > bytes) {
      refuse(m.name(), "capacity of " + str(h.slotCount) + " slots needs " + str(needed) +
                           " bytes but the segment has " + str(bytes));
   }
   return h;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ShmMapping

ShmMapping::ShmMapping(ShmMapping&& o) noexcept
    : name_(std::move(o.name_)),
      base_(std::exchange(o.base_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      fd_(std::exchange(o.fd_, -1)),
      writable_(o.writable_) {}

ShmMapping& ShmMapping::operator=(ShmMapping&& o) noexcept {
   if (this != &o) {
      unmap();
      close();
      name_ = std::move(o.name_);
      base_ = std::exchange(o.base_, nullptr);
      size_ = std::exchange(o.size_, 0);
      fd_ = std::exchange(o.fd_, -1);
      writable_ = o.writable_;
   }
   return *this;
}

ShmMapping::~ShmMapping() {
   unmap();
   close();
}

void ShmMapping::unmap() noexcept {
   if (base_) {
      munmap(base_, size_);
   }
   base_ = nullptr;
   size_ = 0;
}

void ShmMapping::close() noexcept {
   if (fd_ >= 0) {
      ::close(fd_);
   }
   fd_ = -1;
}

ShmMapping ShmMapping::create(String const& name, std::size_t bytes, mode_t mode) {
   KIVO_ASSERT((mode & (S_IWGRP | S_IWOTH)) == 0);
   int const fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
   if (fd < 0) {
      throw Kivo::ErrnoException(errno, "creating shared-memory object " + name);
   }
   ShmMapping m;
   m.name_ = name;
   m.fd_ = fd;
   m.writable_ = true;
   int error = 0;
   char const* step = nullptr;
   // The umask has had its say in shm_open; the mode is the table's own, so set it exactly.
   if (fchmod(fd, mode) != 0) {
      error = errno;
      step = "setting the mode of";
   } else if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
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
   if (step) {
      m.unlinkName();
      throw Kivo::ErrnoException(
          error, String(step) + " shared-memory object " + name + " (" + str(bytes) + " bytes)");
   }
   return m;
}

ShmMapping ShmMapping::open(String const& name, bool writable) {
   int const fd = shm_open(name.c_str(), (writable ? O_RDWR : O_RDONLY) | O_NONBLOCK, 0);
   if (fd < 0) {
      throw Kivo::ErrnoException(errno, "opening shared-memory object " + name);
   }
   ShmMapping m = adopt(name, fd, 0, writable);
   if (std::size_t const bytes = m.objectSize(); bytes > 0) {
      m.mapPrefix(bytes);
   }
   return m;
}

// Not blocking: a FIFO under the name would otherwise hang the open; it is refused below.
ShmMapping ShmMapping::openTrusted(String const& name, bool writable, uid_t ownerUid) {
   int const fd = shm_open(name.c_str(), (writable ? O_RDWR : O_RDONLY) | O_NONBLOCK, 0);
   if (fd < 0) {
      throw Kivo::ErrnoException(errno, "opening shared-memory object " + name);
   }
   ShmMapping m = adopt(name, fd, 0, writable);
   struct stat st {};
   if (fstat(fd, &st) != 0) {
      throw Kivo::ErrnoException(errno, "examining shared-memory object " + name);
   }
   if (!S_ISREG(st.st_mode)) {
      refuse(name, "not a shared-memory object (mode " + octal(st.st_mode) + ")");
   }
   if (st.st_uid != 0 && st.st_uid != ownerUid) {
      refuse(name, "owned by uid " + str(st.st_uid) + ", not by root or the writer's uid " +
                       str(ownerUid));
   }
   if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
      refuse(name,
             "writable by users other than its owner (mode " + octal(st.st_mode & 07777) + ")");
   }
   return m;
}

ShmMapping ShmMapping::adopt(String const& name, int fd, std::size_t bytes, bool writable) {
   ShmMapping m;
   m.name_ = name;
   m.fd_ = fd;
   m.writable_ = writable;
   if (bytes > 0) {
      m.mapPrefix(bytes);
   }
   return m;
}

void ShmMapping::mapPrefix(std::size_t bytes) {
   KIVO_ASSERT(fd_ >= 0 && bytes > 0);
   std::size_t const now = objectSize();
   if (now < bytes) {
      refuse(name_, "object of " + str(now) + " bytes is too small to map " + str(bytes));
   }
   void* p = mmap(nullptr, bytes, PROT_READ | (writable_ ? PROT_WRITE : 0), MAP_SHARED, fd_, 0);
   if (p == MAP_FAILED) {
      throw Kivo::ErrnoException(errno, "mapping shared-memory object " + name_);
   }
   unmap();
   base_ = static_cast<std::byte*>(p);
   size_ = bytes;
}

std::size_t ShmMapping::objectSize() const {
   struct stat st {};
   if (fstat(fd_, &st) != 0) {
      throw Kivo::ErrnoException(errno, "examining shared-memory object " + name_);
   }
   return static_cast<std::size_t>(st.st_size);
}

bool ShmMapping::nameIsThisObject() const noexcept {
   return nameRefersTo(name_, fd_);
}

bool ShmMapping::unlinkName() const noexcept {
   return nameIsThisObject() && shm_unlink(name_.c_str()) == 0;
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
   acquireControl_p();
   std::uint32_t const slots = slotsFor(initialCapacity);
   try {
      data_ = createData(1, slots);
   } catch (...) {
      control_.unlinkName();
      throw;
   }
   serial_ = 1;
   slotCount_ = slots;
   shift_ = homeShift(slots);
   ControlHeader& c = control();
   store(c.dataSerial, serial_);
   store(c.magic, controlMagic());  // the table is ready for readers
   KTRACE(3, "created shared-memory table " << baseName_ << ": " << slots << " slots of "
                                            << geometry_.slotSize << " bytes, at most "
                                            << maxCapacity_ << " entries");
}

ShmTableWriterCore::~ShmTableWriterCore() {
   if (getpid() != pid_) {
      return;
   }
   ControlHeader& c = control();
   store(c.closed, 1u, std::memory_order_seq_cst);
   // A new generation too, so that a reader about to sleep on the old one does not.
   store(c.generation, generation_ + 1, std::memory_order_seq_cst);
   // Still under the lock, which goes with control_ after this: no other writer can have put
   // anything under these names, and the checks keep it that way should one misbehave.
   data_.unlinkName();
   control_.unlinkName();
   wakeAll(c.generation);
   KTRACE(3, "closed shared-memory table " << baseName_);
}

// Makes this writer the one writer of the table name. The name is opened (created when missing)
// and locked without waiting: the lock says whether a writer lives, whatever the control segment
// says. Once locked, the object must still be the one under the name (a writer that closed, or
// one that cleared away what a dead writer left, unlinks the object it locked); then this writer
// owns it and sets it up when it is empty, or removes what a dead writer left and starts again.
void ShmTableWriterCore::acquireControl_p() {
   // Each round that does not end here found the name replaced or removed what was left there.
   // With one writer at a time that takes two rounds; a name changing more often than this is
   // being fought over.
   constexpr int rounds = 16;
   for (int round = 0; round < rounds; ++round) {
      int const fd = shm_open(baseName_.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, 0644);
      if (fd < 0) {
         throw Kivo::ErrnoException(errno, "opening shared-memory table " + baseName_);
      }
      // Closes the descriptor, and with it the lock, on every way out but success.
      ShmMapping held = ShmMapping::adopt(baseName_, fd, 0, true);
      struct stat st {};
      if (fstat(fd, &st) != 0) {
         throw Kivo::ErrnoException(errno, "examining shared-memory table " + baseName_);
      }
      if (!S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
         throw Kivo::ErrnoException(EEXIST, "creating shared-memory table " + baseName_ +
                                                ": the name is taken by an object of uid " +
                                                str(st.st_uid) + ", mode " + octal(st.st_mode) +
                                                "; this writer runs as uid " + str(geteuid()));
      }
      if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
         int const error = errno;
         if (error == EWOULDBLOCK) {
            throw Kivo::ErrnoException(EEXIST, "creating shared-memory table " + baseName_ +
                                                   ": in use by " + lockHolder(fd));
         }
         throw Kivo::ErrnoException(error, "locking shared-memory table " + baseName_);
      }
      if (!held.nameIsThisObject()) {
         continue;  // removed (or replaced) by the writer that held it before
      }
      std::size_t const bytes = held.objectSize();
      if (bytes > 0) {
         retireStale_p(fd, bytes);
         held.unlinkName();
         continue;
      }
      // Empty: created by this writer a moment ago, or by one that died before sizing it.
      if (fchmod(fd, 0644) != 0 || ftruncate(fd, sizeof(ControlHeader)) != 0) {
         int const error = errno;
         held.unlinkName();
         throw Kivo::ErrnoException(error, "sizing shared-memory table " + baseName_);
      }
      if (int const error = posix_fallocate(fd, 0, sizeof(ControlHeader)); error != 0) {
         held.unlinkName();
         throw Kivo::ErrnoException(error, "allocating shared-memory table " + baseName_);
      }
      held.mapPrefix(sizeof(ControlHeader));
      control_ = std::move(held);
      ControlHeader& c = control();
      c.layoutVersion = layoutVersion();
      c.headerSize = sizeof(ControlHeader);
      c.writerPid = getpid();
      c.keySize = geometry_.keySize;
      c.valueSize = geometry_.valueSize;
      return;
   }
   throw Kivo::ErrnoException(EAGAIN, "creating shared-memory table " + baseName_ +
                                          ": the name kept changing under this writer");
}

// This writer holds the lock of `fd`, the object under the name, which has `bytes` in it: what a
// writer that is gone left there. A table (of any layout version) or a control segment set up
// only part way (sized, magic not yet written) is cleared away, with the data segments it names;
// anything else is not this writer's to remove.
void ShmTableWriterCore::retireStale_p(int fd, std::size_t bytes) {
   ControlHeader c{};
   ssize_t const got = pread(fd, &c, sizeof(c), 0);
   bool const table = got >= static_cast<ssize_t>(sizeof(c.magic)) && c.magic == controlMagic();
   bool const partial =
       bytes == sizeof(c) && got == static_cast<ssize_t>(sizeof(c)) && c.magic == 0;
   if (!table && !partial) {
      throw Kivo::ErrnoException(EEXIST, "creating shared-memory table " + baseName_ +
                                             ": the name is taken by something else");
   }
   KTRACE(1, "replacing shared-memory table " << baseName_ << " left behind by writer pid "
                                              << c.writerPid
                                              << (!table     ? " (not set up)"
                                                  : c.closed ? " (closed)"
                                                             : " (gone)"));
   bool const thisLayout = got == static_cast<ssize_t>(sizeof(c)) &&
                           c.layoutVersion == layoutVersion() && c.headerSize == sizeof(c);
   if (!table || !thisLayout) {
      return;
   }
   // Its current data segment, and the next one in case it died while building it.
   shmUnlink(shmTableDataName(baseName_, c.dataSerial));
   shmUnlink(shmTableDataName(baseName_, c.dataSerial + 1));
   // Readers still on it learn that it will not change again.
   void* p = mmap(nullptr, sizeof(c), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (p != MAP_FAILED) {
      auto& shared = *static_cast<ControlHeader*>(p);
      store(shared.closed, 1u, std::memory_order_seq_cst);
      store(shared.generation, load(shared.generation) + 1, std::memory_order_seq_cst);
      wakeAll(shared.generation);
      munmap(p, sizeof(c));
   }
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
      KTRACE(1, "shared-memory table " << baseName_ << " holds its maximum of " << maxCapacity_
                                       << " entries; insert refused");
      return false;
   }
   if ((std::uint64_t{used_} + 1) * 4 > std::uint64_t{slotCount_} * 3 && !rebuild()) {
      return false;
   }
   std::uint32_t i = emptySlot_p(hash);
   if (i == noSlot()) {
      // The count leaves room, so another process has damaged the slots; a rebuild keeps what is
      // live in them and starts a clean segment.
      KTRACE(1, "shared-memory table " << data_.name() << " has no empty slot left for " << live_
                                       << " entries; rebuilding it");
      if (!rebuild() || (i = emptySlot_p(hash)) == noSlot()) {
         return false;
      }
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

// The first empty slot of the probe sequence of `hash`, or noSlot() when a walk over every slot
// found none.
std::uint32_t ShmTableWriterCore::emptySlot_p(std::uint32_t hash) const {
   std::uint32_t i = home(hash);
   for (std::uint32_t n = 0; n < slotCount_; ++n, i = next(i)) {
      if (headerAt(i)->state == slotEmpty) {
         return i;
      }
   }
   return noSlot();
}

bool ShmTableWriterCore::update(std::uint32_t i, void const* value) {
   KIVO_ASSERT(iterations_ == 0);
   SlotHeader* s = headerAt(i);
   KIVO_ASSERT(s->state == slotLive || s->state == slotDeleted);
   if (s->state == slotDeleted) {
      if (live_ >= maxCapacity_) {
         KTRACE(1, "shared-memory table " << baseName_ << " holds its maximum of " << maxCapacity_
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
// slots as live entries when the maximum allows, leaving the tombstones behind. The live slots
// are counted in the segment rather than taken from live_, which another process that damaged
// the segment cannot change; entries beyond what the largest segment holds are dropped.
bool ShmTableWriterCore::rebuild() {
   std::uint32_t liveSlots = 0;
   for (std::uint32_t i = 0; i < slotCount_; ++i) {
      liveSlots += headerAt(i)->state == slotLive ? 1 : 0;
   }
   std::uint64_t want = slotCount_;
   while ((std::uint64_t{liveSlots} + 1) * 2 > want && want < maxSlotCount_) {
      want *= 2;
   }
   auto const slots = static_cast<std::uint32_t>(want);
   ShmMapping next;
   try {
      next = createData(serial_ + 1, slots);
   } catch (Kivo::ErrnoException const& e) {
      KTRACE(1, "shared-memory table " << baseName_ << " cannot grow to " << slots
                                       << " slots: " << e.what() << "; insert refused");
      return false;
   }
   unsigned const shift = homeShift(slots);
   std::byte* const slotsBase = next.base() + slotsOffset();
   auto newHeader = [&](std::uint32_t j) {
      return reinterpret_cast<SlotHeader*>(slotsBase + std::size_t{j} * geometry_.slotSize);
   };
   std::uint32_t moved = 0;
   for (std::uint32_t i = 0; i < slotCount_ && moved + 1 < slots; ++i) {
      SlotHeader const* s = headerAt(i);
      if (s->state != slotLive) {
         continue;
      }
      std::uint32_t j = ShmLayout::home(s->hash, shift);
      while (newHeader(j)->state != slotEmpty) {  // ends: one slot at least is still empty
         j = (j + 1) & (slots - 1);
      }
      std::memcpy(newHeader(j), slotAt(i), geometry_.slotSize);
      ++moved;
   }
   if (moved < liveSlots) {
      KTRACE(1, "shared-memory table " << baseName_ << " dropped " << liveSlots - moved
                                       << " entries of a damaged segment that did not fit");
   }
   reinterpret_cast<DataHeader*>(next.base())->liveCount = moved;
   // From here on readers that look at the control segment go to the new segment; readers still
   // on the old one keep their mapping of it after the name is gone.
   store(dataHeader().successor, serial_ + 1);
   store(control().dataSerial, serial_ + 1);
   ShmMapping const old = std::exchange(data_, std::move(next));
   old.unlinkName();
   ++serial_;
   slotCount_ = slots;
   shift_ = shift;
   live_ = moved;
   used_ = moved;
   KTRACE(3, "shared-memory table " << baseName_ << " moved to " << data_.name() << ": " << slots
                                    << " slots for " << live_ << " entries");
   return true;
}

// ---------------------------------------------------------------------------------------------
// ShmTableReaderCore

ShmTableReaderCore::ShmTableReaderCore(String baseName, SlotGeometry geometry,
                                       double stallLimitSeconds, std::optional<uid_t> writerUid)
    : baseName_(std::move(baseName)),
      geometry_(geometry),
      stallLimit_(stallLimitSeconds),
      writerUid_(writerUid.value_or(geteuid())) {
   KIVO_ASSERT(stallLimitSeconds > 0);
   // Writable only to register in `waiters`; a reader without write access polls instead.
   try {
      control_ = ShmMapping::openTrusted(baseName_, true, writerUid_);
   } catch (Kivo::ErrnoException const& e) {
      if (e.error() != EACCES) {
         throw;
      }
      control_ = ShmMapping::openTrusted(baseName_, false, writerUid_);
      canRegister_ = false;
   }
   if (std::size_t const bytes = control_.objectSize(); bytes < sizeof(ControlHeader)) {
      refuse(baseName_, "control segment of " + str(bytes) +
                            " bytes is too small for a table control header of " +
                            str(sizeof(ControlHeader)) + " bytes");
   }
   control_.mapPrefix(sizeof(ControlHeader));
   checkControl(control_, geometry_);
   mapData(load(control().dataSerial));
}

void ShmTableReaderCore::refresh() {
   checkControlSize_p();
   std::uint32_t const serial = load(control().dataSerial);
   if (serial != serial_) {
      mapData(serial);
   }
   checkDataSize_p();
}

// A segment cut short under a mapping turns every access past its new end into SIGBUS, so each
// pass first makes sure the whole mapping is still backed. (A segment can only be cut short by
// its owner, the writer's user or root, which readers trust not to do so in the middle of a pass.)
void ShmTableReaderCore::checkControlSize_p() const {
   if (std::size_t const bytes = control_.objectSize(); bytes < control_.size()) {
      refuse(control_.name(), "control segment shrank to " + str(bytes) + " bytes, below the " +
                                  str(control_.size()) + " bytes of its header");
   }
}

void ShmTableReaderCore::checkDataSize_p() const {
   if (std::size_t const bytes = data_.objectSize(); bytes < data_.size()) {
      refuse(data_.name(), "data segment shrank to " + str(bytes) + " bytes, below the " +
                               str(data_.size()) + " bytes its " + str(slotCount_) + " slots need");
   }
}

void ShmTableReaderCore::mapData(std::uint32_t serial) {
   for (int attempt = 0;; ++attempt) {
      try {
         ShmMapping m =
             ShmMapping::openTrusted(shmTableDataName(baseName_, serial), false, writerUid_);
         std::size_t const bytes = m.objectSize();
         if (bytes < sizeof(DataHeader)) {
            refuse(m.name(), "data segment of " + str(bytes) +
                                 " bytes is too small for a table data header of " +
                                 str(sizeof(DataHeader)) + " bytes");
         }
         m.mapPrefix(sizeof(DataHeader));
         DataHeader const h = checkData(m, geometry_, serial, bytes);
         // Only the slots: whatever lies past them is none of this reader's business.
         m.mapPrefix(h.slotsOffset + std::size_t{h.slotCount} * h.slotSize);
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
   std::uint32_t const n = load(reinterpret_cast<DataHeader const*>(data_.base())->liveCount);
   if (n > slotCount_) {
      refuse(data_.name(), "live count " + str(n) + " exceeds the " + str(slotCount_) + " slots");
   }
   return n;
}

std::uint64_t ShmTableReaderCore::generation() const {
   checkControlSize_p();
   return load(control().generation);
}

pid_t ShmTableReaderCore::writerPid() const {
   checkControlSize_p();
   return load(control().writerPid);
}

bool ShmTableReaderCore::writerClosed() const {
   checkControlSize_p();
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
      checkControlSize_p();
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
