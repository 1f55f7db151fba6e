// Building IPFIX messages (RFC 7011) into packet buffers.
//
// A message is a 16-octet message header followed by sets; a set is a 4-octet set header followed
// by records of one template id, back to back, without padding. MessageBuilder writes records
// straight into a packet of `maxSize` octets, opening a new set whenever the template id changes,
// and writes each set length once when the set closes and the message header once when the
// message closes. A record that does not fit is refused (0 is returned) and nothing changes; the
// caller finalizes the message and retries the record in a new one. Records are never split.
//
// A finished Message owns its packet. Its export time and sequence number stay 0 until a sender
// stamps the packet for one collector with Message::pkt(seqNo), just before sending it; one
// message can thus be sent to many collectors, restamped each time.
//
// Misuse (calls out of order, records of 65535 octets or more) is a fatal assertion.
#pragma once

#include <cstdint>
#include <string_view>

#include "Ipfix/FlowTrackingTypes.h"
#include "Kivo/Kivo.h"
#include "Pelto/IpfixWire.h"
#include "Pelto/Pkt.h"

namespace FlowTracking {

// One encoded data record: its octets in wire order. Immutable once shared.
class DataRecord : public Kivo::Object {
 public:
   explicit DataRecord(Kivo::String data) : data_(std::move(data)) {}
   Kivo::String const& data() const { return data_; }
   std::uint32_t dataLen() const { return static_cast<std::uint32_t>(data_.size()); }
   void append(void const* bytes, std::size_t n) {
      data_.append(static_cast<char const*>(bytes), n);
   }

 private:
   Kivo::String data_;
};
Kivo::Ptr<DataRecord> dataRecordFactory(Kivo::String const& data);

class Message : public Kivo::Object {
 public:
   explicit Message(Kivo::Ptr<Pelto::Pkt> pkt);

   // The packet as it stands, without stamping it.
   Kivo::Ptr<Pelto::Pkt> const& pkt() const { return pkt_; }
   // Stamps the export time (current UTC seconds) and `seqNo` into the header and returns the
   // packet. The same packet is returned each time: send it before stamping it again.
   Kivo::Ptr<Pelto::Pkt> pkt(std::uint32_t seqNo);
   Kivo::Ptr<Pelto::MessageHeader> const& msgHdr() const { return msgHdr_; }
   std::uint32_t recordCount() const { return recordCount_; }
   void recordCountIs(std::uint32_t n) { recordCount_ = n; }

 private:
   Kivo::Ptr<Pelto::Pkt> pkt_;
   Kivo::Ptr<Pelto::MessageHeader> msgHdr_;
   std::uint32_t recordCount_ = 0;
};

class MessageBuilder : public Kivo::Object {
 public:
   MessageBuilder(std::uint16_t maxSize, std::uint32_t observationDomainId)
       : maxSize_(maxSize), observationDomainId_(observationDomainId) {}

   // Header octets of a message with `setCount` sets.
   static std::uint32_t calcOverhead(std::uint32_t setCount) {
      return Pelto::IpfixConst::messageHeaderLen() + Pelto::IpfixConst::setHeaderLen() * setCount;
   }

   // REQUIRES: no message under construction.
   void startMsg();
   // Adds one record under set id `id`. Returns the octets written, 0 when the record does not
   // fit in this message. REQUIRES: a message under construction; record shorter than 65535.
   std::uint32_t addSetRecord(TemplateId id, Kivo::Ptr<DataRecord const> const& record);
   std::uint32_t addSetRecordStr(TemplateId id, std::string_view bytes);
   // Closes the open set and the message and hands the message out; the builder is idle again.
   // REQUIRES: at least one record since startMsg().
   Kivo::Ptr<Message> finalizeMsg();
   // A fresh packet of maxSize() octets.
   Kivo::Ptr<Pelto::Pkt> newPkt() const;

   std::uint16_t maxSize() const { return maxSize_; }
   std::uint32_t observationDomainId() const { return observationDomainId_; }
   Kivo::Ptr<Pelto::Pkt> const& pkt() const { return pkt_; }
   std::uint32_t pktBufSize() const { return pktBufSize_; }
   Kivo::Ptr<Pelto::SetHeader> const& setHdr() const { return setHdr_; }
   std::uint32_t offset() const { return offset_; }
   std::uint16_t setLen() const { return setLen_; }
   TemplateId setId() const { return setId_; }
   std::uint32_t recordCount() const { return recordCount_; }

 private:
   friend std::uint32_t addSetRecordBytes(MessageBuilder* builder, TemplateId id,
                                          std::uint8_t const* data, std::uint32_t bytes);
   void startSet_p(TemplateId id);
   void finalizeSet_p();

   std::uint16_t maxSize_;
   std::uint32_t observationDomainId_;
   Kivo::Ptr<Pelto::Pkt> pkt_;
   Kivo::Ptr<Message> pktHolder_p;
   std::uint32_t pktBufSize_ = 0;
   Kivo::Ptr<Pelto::SetHeader> setHdr_;
   std::uint32_t offset_ = 0;
   std::uint16_t setLen_ = 0;
   TemplateId setId_ = 65535;
   std::uint32_t recordCount_ = 0;
};
Kivo::Ptr<MessageBuilder> messageBuilderFactory(std::uint16_t maxSize,
                                                std::uint32_t observationDomainId);

// The worker behind addSetRecord and addSetRecordStr: adds `bytes` octets from `data`.
std::uint32_t addSetRecordBytes(MessageBuilder* builder, TemplateId id, std::uint8_t const* data,
                                std::uint32_t bytes);

}  // namespace FlowTracking
