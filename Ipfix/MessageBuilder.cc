#include "Ipfix/MessageBuilder.h"

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#ifdef KIVO_THREAD_SAFE_PTR
#include <mutex>
#endif

namespace FlowTracking {

using Pelto::IpfixConst;

// GCC names AddressSanitizer with a macro, clang as a feature.
#if defined(__has_feature)
#define IPFIX_HAS_FEATURE(f) __has_feature(f)
#else
#define IPFIX_HAS_FEATURE(f) 0
#endif

namespace {

// Where records live. Blocks of up to maxPooled octets come from free lists, one per 8-octet size
// class, carved out of 64 KiB chunks: making and dropping a table's rows costs a pop and a push
// each, and a block has no allocator header. Chunks stay for the life of the process; a table
// that shrinks leaves its blocks to the records made after it. Larger records, and every record
// in builds with AddressSanitizer (so that it sees each block), go to the global allocator.
// Records are made and dropped on the component's thread; the build with atomic reference
// counts, where tests hand records between threads, takes a lock.
class RecordPool {
 public:
   static void* alloc(std::size_t n) {
      if (!pooled(n)) {
         return ::operator new(n);
      }
      Lock lock(pool().mutex_);
      return pool().alloc_p(classOf(n));
   }
   static void free(void* p, std::size_t n) {
      if (!pooled(n)) {
         ::operator delete(p);
         return;
      }
      Lock lock(pool().mutex_);
      pool().free_p(p, classOf(n));
   }
   static DataRecord::Storage storage() {
      Lock lock(pool().mutex_);
      return {pool().chunks_.size() * chunkSize, pool().liveBytes_};
   }

 private:
   static constexpr std::size_t granule = 8;
   static constexpr std::size_t maxPooled = 512;
   static constexpr std::size_t chunkSize = 64 * 1024;
   static_assert(alignof(DataRecord) <= granule);

#if defined(__SANITIZE_ADDRESS__) || IPFIX_HAS_FEATURE(address_sanitizer)
   static constexpr bool enabled = false;
#else
   static constexpr bool enabled = true;
#endif
   static bool pooled(std::size_t n) {
      return enabled && n <= maxPooled;
   }
   static std::size_t classOf(std::size_t n) {
      return (n + granule - 1) / granule - 1;
   }

#ifdef KIVO_THREAD_SAFE_PTR
   using Mutex = std::mutex;
   using Lock = std::lock_guard<std::mutex>;
#else
   struct Mutex {};
   struct Lock {
      explicit Lock(Mutex&) {}
   };
#endif

   struct FreeBlock {
      FreeBlock* next;
   };

   // Never destroyed: records may be dropped by other objects' destructors at exit.
   static RecordPool& pool() {
      static RecordPool* const p = new RecordPool;
      return *p;
   }

   void* alloc_p(std::size_t c) {
      std::size_t const size = (c + 1) * granule;
      liveBytes_ += size;
      if (FreeBlock* const b = free_[c]) {
         free_[c] = b->next;
         return b;
      }
      if (size > static_cast<std::size_t>(end_ - next_)) {
         chunks_.push_back(std::make_unique_for_overwrite<std::byte[]>(chunkSize));
         next_ = chunks_.back().get();
         end_ = next_ + chunkSize;
      }
      void* const p = next_;
      next_ += size;
      return p;
   }
   void free_p(void* p, std::size_t c) {
      liveBytes_ -= (c + 1) * granule;
      auto* const b = static_cast<FreeBlock*>(p);
      b->next = free_[c];
      free_[c] = b;
   }

   Mutex mutex_;
   std::array<FreeBlock*, maxPooled / granule> free_{};
   std::vector<std::unique_ptr<std::byte[]>> chunks_;
   std::byte* next_ = nullptr;
   std::byte* end_ = nullptr;
   std::size_t liveBytes_ = 0;
};

}  // namespace

Kivo::Ptr<DataRecord> DataRecord::make_p(std::size_t len) {
   KIVO_ASSERT(len < Kivo::maxU16());
   void* const mem = RecordPool::alloc(sizeof(DataRecord) + len);
   return Kivo::Ptr<DataRecord>(new (mem) DataRecord(static_cast<std::uint16_t>(len)));
}

Kivo::Ptr<DataRecord> DataRecord::dataRecordNew(std::string_view data) {
   Kivo::Ptr<DataRecord> r = make_p(data.size());
   std::memcpy(r->octets_p(), data.data(), data.size());
   return r;
}

DataRecord::Storage DataRecord::storage() {
   return RecordPool::storage();
}

void DataRecord::free_p() const {
   std::size_t const size = sizeof(DataRecord) + len_;
   auto* const self = const_cast<DataRecord*>(this);
   self->~DataRecord();
   RecordPool::free(self, size);
}

Kivo::Ptr<DataRecord> dataRecordFactory(Kivo::String const& data) {
   return DataRecord::dataRecordNew(data);
}

void addElement(std::uint8_t** pos, std::uint8_t const* max, std::string_view value) {
   addElementLen(pos, max, value.size());
   addElementOctets(pos, max, value);
}

Message::Message(Kivo::Ptr<Pelto::Pkt> pkt)
    : pkt_(std::move(pkt)), msgHdr_(Kivo::make<Pelto::MessageHeader>(pkt_, 0)) {}

Kivo::Ptr<Pelto::Pkt> Message::pkt(std::uint32_t seqNo) {
   msgHdr_->exportTimeIs(static_cast<std::uint32_t>(std::trunc(Kivo::currentTime())));
   msgHdr_->sequenceNumberIs(seqNo);
   return pkt_;
}

Kivo::Ptr<MessageBuilder> messageBuilderFactory(std::uint16_t maxSize,
                                                std::uint32_t observationDomainId) {
   return Kivo::make<MessageBuilder>(maxSize, observationDomainId);
}

Kivo::Ptr<Pelto::Pkt> MessageBuilder::newPkt() const {
   return Kivo::make<Pelto::Pkt>(maxSize_);
}

void MessageBuilder::startMsg() {
   KIVO_ASSERT(!pkt());
   KIVO_ASSERT(offset() == 0);
   pkt_ = newPkt();
   pktBufSize_ = static_cast<std::uint32_t>(pkt_->capacity());
   // The whole buffer becomes the packet's data so headers and records are written in place;
   // finalizeMsg gives back what the message did not use.
   pkt_->tailGrow(pktBufSize_);
   KIVO_ASSERT(pktBufSize_ >= maxSize_);
   data_ = pkt_->data();
   pktHolder_p = Kivo::make<Message>(pkt_);
   offset_ = IpfixConst::messageHeaderLen();
}

void MessageBuilder::startSet_p(TemplateId id) {
   KIVO_ASSERT(pkt());
   KIVO_ASSERT(!setHdr());
   setHdr_ = Kivo::make<Pelto::SetHeader>(pkt_, offset_);
   setHdr_->setIdIs(id);
   offset_ += IpfixConst::setHeaderLen();
   setLen_ = IpfixConst::setHeaderLen();
   setId_ = id;
}

void MessageBuilder::finalizeSet_p() {
   KIVO_ASSERT(pkt());
   KIVO_ASSERT(setHdr());
   setHdr_->lengthIs(setLen_);
   setLen_ = 0;
   setHdr_ = nullptr;
}

std::uint32_t addSetRecordBytes(MessageBuilder* builder, TemplateId id, std::uint8_t const* data,
                                std::uint32_t bytes) {
   KIVO_ASSERT(builder->pkt());
   KIVO_ASSERT(bytes < Kivo::maxU16());
   // A record that opens a set also needs room for the set header. The sum is taken in 16 bits,
   // as the set length field is; the hard bound below still catches anything that slips through.
   auto const withSetHeader = static_cast<std::uint16_t>(bytes + IpfixConst::setHeaderLen());
   if (!builder->setHdr()) {
      if (builder->offset_ + withSetHeader > builder->maxSize_) {
         return 0;
      }
      ++builder->recordCount_;
      builder->startSet_p(id);
   } else if (builder->setId_ != id) {
      if (builder->offset_ + withSetHeader > builder->maxSize_) {
         return 0;
      }
      ++builder->recordCount_;
      builder->finalizeSet_p();
      builder->startSet_p(id);
   } else {
      if (builder->offset_ + bytes > builder->maxSize_) {
         return 0;
      }
      ++builder->recordCount_;
   }
   KIVO_ASSERT(builder->offset() + bytes <= builder->pktBufSize());
   builder->pkt_->write(builder->offset_, data, bytes);
   builder->offset_ += bytes;
   builder->setLen_ = static_cast<std::uint16_t>(builder->setLen_ + bytes);
   return bytes;
}

std::uint32_t MessageBuilder::addSetRecordStr(TemplateId id, std::string_view bytes) {
   return addSetRecordBytes(this, id, reinterpret_cast<std::uint8_t const*>(bytes.data()),
                            static_cast<std::uint32_t>(bytes.size()));
}

Kivo::Ptr<Message> MessageBuilder::finalizeMsg() {
   if (setHdr()) {
      finalizeSet_p();
   }
   KIVO_ASSERT(pkt());
   KIVO_ASSERT(offset() > IpfixConst::messageHeaderLen());
   std::uint32_t const msgLen = offset_;
   Pelto::MessageHeader& hdr = *pktHolder_p->msgHdr();
   hdr.versionIs(IpfixConst::version());
   hdr.lengthIs(static_cast<std::uint16_t>(msgLen));
   hdr.exportTimeIs(0);
   hdr.sequenceNumberIs(0);
   hdr.observationDomainIdIs(observationDomainId_);
   offset_ = 0;

   Kivo::Ptr<Message> msg = std::move(pktHolder_p);
   msg->recordCountIs(recordCount_);
   recordCount_ = 0;
   Kivo::Ptr<Pelto::Pkt> _pkt = std::move(pkt_);
   data_ = nullptr;
   KIVO_ASSERT(msgLen <= pktBufSize());
   _pkt->tailTrim(pktBufSize_ - msgLen);
   KIVO_ASSERT(_pkt->bytes() == msgLen);
   return msg;
}

}  // namespace FlowTracking
