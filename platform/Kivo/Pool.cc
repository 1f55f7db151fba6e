#include "Kivo/Pool.h"

namespace Kivo {

namespace {

constexpr std::size_t chunkSize = 64 * 1024;

}  // namespace

void* Pool::carve_p(std::size_t size) {
   if (size > static_cast<std::size_t>(end_ - next_)) {
      // Chunks are never freed: the pool lives as long as the process. Each begins with the
      // address of the one before, so that all stay reachable (as a leak checker sees it).
      auto* const chunk = static_cast<std::byte*>(::operator new(chunkSize));
      *reinterpret_cast<std::byte**>(chunk) = lastChunk_;
      lastChunk_ = chunk;
      next_ = chunk + granule;
      end_ = chunk + chunkSize;
      ++chunkCount_;
   }
   void* const p = next_;
   next_ += size;
   return p;
}

Pool::Storage Pool::storage() {
   Lock lock;
   return {chunkCount_ * chunkSize, liveBytes_};
}

}  // namespace Kivo
