#include "Ipfix/MessageBuilder.h"

#include <cmath>
#include <cstring>
#include <new>

namespace FlowTracking {

using Pelto::IpfixConst;

Kivo::Ptr<DataRecord> DataRecord::dataRecordNew(std::string_view data) {
   KIVO_ASSERT(data.size() < Kivo::maxU16());
   static_assert(alignof(DataRecord) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);
   void* const mem = ::operator new(sizeof(DataRecord) + data.size());
   auto* const r = new (mem) DataRecord(static_cast<std::uint16_t>(data.size()));
   std::memcpy(r->octets_p(), data.data(), data.size());
   return Kivo::Ptr<DataRecord>(r);
}

Kivo::Ptr<DataRecord> dataRecordFactory(Kivo::String const& data) {
   return DataRecord::dataRecordNew(data);
}

namespace {

// The length octet of the short variable-length form.
void addElementLen(std::uint8_t** pos, std::uint8_t const* max, std::size_t elementLen) {
   // The short variable-length form: a single length octet, so at most 254 octets.
   KIVO_ASSERT(elementLen < 255);
   addElement(pos, max, static_cast<std::uint8_t>(elementLen));
}

void addElementOctets(std::uint8_t** pos, std::uint8_t const* max, std::string_view value) {
   std::size_t const elementLen = value.size();
   KIVO_ASSERT(*pos + elementLen <= max);
   std::size_t const rc = value.copy(reinterpret_cast<char*>(*pos), elementLen);
   KIVO_ASSERT(rc == elementLen);
   *pos += rc;
}

}  // namespace

void addElement(std::uint8_t** pos, std::uint8_t const* max, std::string_view value) {
   addElementLen(pos, max, value.size());
   addElementOctets(pos, max, value);
}

RecordField const& RecordWriter::nextField_p() {
   KIVO_ASSERT(next_ < fields_.size());
   return fields_[next_++];
}

void RecordWriter::addNumber_p(std::uint64_t value) {
   RecordField const& field = nextField_p();
   KIVO_ASSERT(!field.isVarLen());
   KIVO_ASSERT(field.len == 8 || value >> (8 * field.len) == 0);
   switch (field.len) {
      case 1:
         addElement(&cursor_.pos, cursor_.max, static_cast<std::uint8_t>(value));
         break;
      case 2:
         addElement(&cursor_.pos, cursor_.max, static_cast<std::uint16_t>(value));
         break;
      case 4:
         addElement(&cursor_.pos, cursor_.max, static_cast<std::uint32_t>(value));
         break;
      default:
         addElement(&cursor_.pos, cursor_.max, value);
         break;
   }
}

void RecordWriter::add(std::string_view value) {
   addLength(value.size());
   addOctets(value);
}

void RecordWriter::addLength(std::size_t len) {
   RecordField const& field = nextField_p();
   KIVO_ASSERT(field.isVarLen());
   addElementLen(&cursor_.pos, cursor_.max, len);
}

void RecordWriter::addOctets(std::string_view value) {
   addElementOctets(&cursor_.pos, cursor_.max, value);
}

Kivo::Ptr<DataRecord const> RecordWriter::dataRecord() const {
   KIVO_ASSERT(next_ == fields_.size());
   return DataRecord::dataRecordNew(std::string_view(
       reinterpret_cast<char const*>(begin_), static_cast<std::size_t>(cursor_.pos - begin_)));
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

std::uint32_t MessageBuilder::addSetRecord(TemplateId id,
                                           Kivo::Ptr<DataRecord const> const& record) {
   auto const& d = record->data();
   return addSetRecordBytes(this, id, reinterpret_cast<std::uint8_t const*>(d.data()),
                            record->dataLen());
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
   KIVO_ASSERT(msgLen <= pktBufSize());
   _pkt->tailTrim(pktBufSize_ - msgLen);
   KIVO_ASSERT(_pkt->bytes() == msgLen);
   return msg;
}

}  // namespace FlowTracking
