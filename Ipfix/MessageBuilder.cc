#include "Ipfix/MessageBuilder.h"

#include <cmath>
#include <cstring>
#include <new>

#include "Kivo/Pool.h"

namespace FlowTracking {

using Pelto::IpfixConst;

Kivo::Ptr<DataRecord> DataRecord::make_p(std::size_t len) {
   KIVO_ASSERT(len < Kivo::maxU16());
   void* const mem = Kivo::Pool::alloc(sizeof(DataRecord) + len);
   return Kivo::Ptr<DataRecord>(new (mem) DataRecord(static_cast<std::uint16_t>(len)));
}

Kivo::Ptr<DataRecord> DataRecord::dataRecordNew(std::string_view data) {
   Kivo::Ptr<DataRecord> r = make_p(data.size());
   std::memcpy(r->octets_p(), data.data(), data.size());
   return r;
}

void DataRecord::free_p() const {
   std::size_t const size = sizeof(DataRecord) + len_;
   auto* const self = const_cast<DataRecord*>(this);
   self->~DataRecord();
   Kivo::Pool::free(self, size);
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
