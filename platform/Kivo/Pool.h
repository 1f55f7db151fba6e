// Small blocks for objects that a large table makes and drops by the thousand: a table's rows,
// the observer slots that follow them and the fields of a tracker's templates.
//
// Blocks of up to 512 octets come from free lists, one per 8-octet size class, carved out of
// 64 KiB chunks: making and dropping a block costs a pop and a push (inline here), and a block
// has no allocator header. Chunks stay for the life of the process; a table that shrinks leaves
// its blocks to the objects made after it. Larger blocks, and every block in builds with
// AddressSanitizer (so that it sees each one), go to the global allocator. The build with atomic
// reference counts, where objects are handed between threads, takes a lock.
// REQUIRES, without atomic reference counts: every pooled object (a data record, a signal's
// slot, a template entry) is made and dropped on one thread.
//
// A block is given back with the size it was asked with, so a class with a virtual destructor
// takes its blocks through the sized operator delete (Pooled below).
#pragma once

#include <array>
#include <cstddef>
#include <new>

#ifdef KIVO_THREAD_SAFE_PTR
#include <mutex>
#endif

// GCC names AddressSanitizer with a macro, clang as a feature.
#if defined(__has_feature)
#define KIVO_HAS_FEATURE(f) __has_feature(f)
#else
#define KIVO_HAS_FEATURE(f) 0
#endif

namespace Kivo {

class Pool {
 public:
   // REQUIRES: an alignment of at most 8 octets.
   static void* alloc(std::size_t n) {
      if (!pooled(n)) {
         return ::operator new(n);
      }
      std::size_t const c = classOf_p(n);
      Lock lock;
      liveBytes_ += blockSize(n);
      if (FreeBlock* const b = free_[c]) {
         free_[c] = b->next;
         return b;
      }
      return carve_p(blockSize(n));
   }
   // REQUIRES: `p` from alloc(n), with the same `n`.
   static void free(void* p, std::size_t n) {
      if (!pooled(n)) {
         ::operator delete(p);
         return;
      }
      std::size_t const c = classOf_p(n);
      Lock lock;
      liveBytes_ -= blockSize(n);
      auto* const b = static_cast<FreeBlock*>(p);
      b->next = free_[c];
      free_[c] = b;
   }

   // The chunks and the octets of them that live blocks take: what pooled objects cost in memory
   // (chunks are never given back, so a heap count alone does not tell).
   struct Storage {
      std::size_t chunkBytes;
      std::size_t liveBytes;
   };
   static Storage storage();
   // Whether blocks of `n` octets come from the pool (not in builds with AddressSanitizer, nor
   // above 512 octets), and the octets such a block takes.
   static bool pooled(std::size_t n) { return enabled && n <= maxPooled; }
   static std::size_t blockSize(std::size_t n) { return (classOf_p(n) + 1) * granule; }

 private:
   static constexpr std::size_t granule = 8;
   static constexpr std::size_t maxPooled = 512;
#if defined(__SANITIZE_ADDRESS__) || KIVO_HAS_FEATURE(address_sanitizer)
   static constexpr bool enabled = false;
#else
   static constexpr bool enabled = true;
#endif
   static std::size_t classOf_p(std::size_t n) {
      return (n + granule - 1) / granule - 1;
   }

#ifdef KIVO_THREAD_SAFE_PTR
   class Lock {
    public:
      Lock() { mutex_p().lock(); }
      ~Lock() { mutex_p().unlock(); }
      Lock(Lock const&) = delete;
      Lock& operator=(Lock const&) = delete;

    private:
      // Never destroyed: objects may be dropped by other objects' destructors at exit.
      static std::mutex& mutex_p() {
         static auto* const m = new std::mutex;
         return *m;
      }
   };
#else
   struct Lock {
      Lock() {}  // user-provided, so that an unused lock is not warned about
   };
#endif
   struct FreeBlock {
      FreeBlock* next;
   };

   // A new block of `size` octets from the current chunk, or from a new one. REQUIRES: the lock.
   static void* carve_p(std::size_t size);

   // Plain words, so that nothing here is torn down at exit while objects may still be dropped.
   static inline std::array<FreeBlock*, maxPooled / granule> free_{};
   static inline std::byte* lastChunk_ = nullptr;
   static inline std::byte* next_ = nullptr;
   static inline std::byte* end_ = nullptr;
   static inline std::size_t chunkCount_ = 0;
   static inline std::size_t liveBytes_ = 0;
};

// Derive from this to allocate a class's objects from the pool.
struct Pooled {
   static void* operator new(std::size_t n) { return Pool::alloc(n); }
   static void operator delete(void* p, std::size_t n) { Pool::free(p, n); }
};

}  // namespace Kivo
