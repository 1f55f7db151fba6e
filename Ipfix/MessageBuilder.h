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
//
// The records themselves are encoded by RecordWriter, field after field as a list of RecordField
// describes them: each number in the length its element has in the element table, big-endian,
// and each variable-length value in the short form of RFC 7011 section 7 (one length octet, then
// the octets). The same field list makes the options template that announces the records, so
// the two cannot disagree.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>

#include "Ipfix/FlowTrackingTypes.h"
#include "Ipfix/Ipfix.h"
#include "Kivo/Kivo.h"
#include "Pelto/IpfixWire.h"
#include "Pelto/Pkt.h"

namespace FlowTracking {

class DataRecordColl;

// One encoded data record: its octets in wire order. Immutable once made; held through
// Kivo::Ptr like an entity.
//
// A table holds one of these per row, so a record is kept small: a 12-octet header (reference
// count, the slot of the table holding it, the length) with the octets right behind it, in one
// block from Kivo::Pool. Only dataRecordNew and a RecordWriter make one.
class DataRecord {
 public:
   // A record of `data`'s octets. REQUIRES: fewer than 65535 octets, as any record in a set.
   static Kivo::Ptr<DataRecord> dataRecordNew(std::string_view data);

   DataRecord(DataRecord const&) = delete;
   DataRecord& operator=(DataRecord const&) = delete;

   std::string_view data() const { return {octets_p(), len_}; }
   std::uint32_t dataLen() const { return len_; }

   void ref() const noexcept { refs_.inc(); }
   // Gives the block back to the pool with the last reference.
   void unref() const noexcept {
      if (refs_.dec()) {
         free_p();
      }
   }
   std::uint32_t refCount() const noexcept { return refs_.count(); }

 private:
   friend class DataRecordColl;
   friend class RecordWriter;

   // A record of `len` octets, not yet written. REQUIRES: len below 65535.
   static Kivo::Ptr<DataRecord> make_p(std::size_t len);
   explicit DataRecord(std::uint16_t len) : len_(len) {}
   ~DataRecord() = default;
   void free_p() const;
   char* octets_p() { return reinterpret_cast<char*>(this + 1); }
   char const* octets_p() const { return reinterpret_cast<char const*>(this + 1); }

   Kivo::RefCount refs_;
   // Where the table holding the record keeps it (DataRecordColl): a record is in one table.
   mutable std::uint32_t slot_ = Kivo::maxU32();
   std::uint16_t len_;
};
static_assert(sizeof(DataRecord) == 12, "a row's overhead is part of every table's memory");
Kivo::Ptr<DataRecord> dataRecordFactory(Kivo::String const& data);

// One field of a data record as its template lists it: the element, its length from the element
// table (Pelto::IpfixConst::varLen() for a variable-length one) and whether it is a scope field.
struct RecordField {
   Ipfix::RecordType element;
   std::uint16_t len;
   bool scope;

   constexpr bool isVarLen() const { return len == Pelto::IpfixConst::varLen(); }
};

// The field of the named element. Numbers are written in 1, 2, 4 or 8 octets; an element of
// another fixed length cannot be a record field, and neither can a name outside the table.
consteval RecordField recordField(std::string_view name, bool scope = false) {
   Ipfix::ElementRow const row = Ipfix::elementRow(name);
   if (row.len != Pelto::IpfixConst::varLen() && row.len != 1 && row.len != 2 && row.len != 4 &&
       row.len != 8) {
      throw "a record field is a number of 1, 2, 4 or 8 octets or a variable-length value";
   }
   return {Ipfix::RecordType{row.id}, row.len, scope};
}

// Octets of a record of these fields whose variable-length values take `varOctets` together:
// each number its length, each variable-length value its length octet and its octets.
constexpr std::size_t recordLen(std::span<RecordField const> fields, std::size_t varOctets) {
   std::size_t len = varOctets;
   for (RecordField const& f : fields) {
      len += f.isVarLen() ? 1 : f.len;
   }
   return len;
}
// The longest record of these fields: every variable-length value as long as the short form allows.
constexpr std::size_t maxRecordLen(std::span<RecordField const> fields) {
   std::size_t len = recordLen(fields, 0);
   for (RecordField const& f : fields) {
      len += f.isVarLen() ? Pelto::IpfixConst::maxShortVarLen() : 0;
   }
   return len;
}

// The element writers RecordWriter is made of. Each writes one value at `*pos`, advances `*pos`
// past it and aborts when the value would pass `max`, the end of the record.
// A number, big-endian, in sizeof(BaseType) octets.
template <std::unsigned_integral BaseType>
void addElement(std::uint8_t** pos, std::uint8_t const* max, BaseType value) {
   // clang-format off
   KIVO_ASSERT(*pos + sizeof( BaseType ) <= max);
   // clang-format on
   *pos = Pelto::storeBe(*pos, value);
}
// The length octet of the short variable-length form.
inline void addElementLen(std::uint8_t** pos, std::uint8_t const* max, std::size_t elementLen) {
   // The short variable-length form: a single length octet, so at most 254 octets.
   KIVO_ASSERT(elementLen < 255);
   addElement(pos, max, static_cast<std::uint8_t>(elementLen));
}
// The octets of a variable-length value, after its length.
inline void addElementOctets(std::uint8_t** pos, std::uint8_t const* max, std::string_view value) {
   std::size_t const elementLen = value.size();
   KIVO_ASSERT(*pos + elementLen <= max);
   std::size_t const rc = value.copy(reinterpret_cast<char*>(*pos), elementLen);
   KIVO_ASSERT(rc == elementLen);
   *pos += rc;
}
// One length octet, then the octets of `value`. Aborts for 255 octets or more.
void addElement(std::uint8_t** pos, std::uint8_t const* max, std::string_view value);

// Encodes one record straight into a new DataRecord of recordLen(fields, varOctets) octets, one
// field after the other in the order of `fields`. The record is allocated once, up front, and
// nothing is dispatched per field beyond the length of the field. Writing a number into a
// variable-length field or the reverse, a number too large for its field, a field more than the
// list has, or handing out a record before its last field has filled it is a fatal assertion.
class RecordWriter {
 public:
   // Where the next field goes and where the record ends.
   struct Cursor {
      std::uint8_t* pos;
      std::uint8_t const* max;
   };

   // REQUIRES: recordLen(fields, varOctets) below 65535, as any record in a set.
   RecordWriter(std::span<RecordField const> fields, std::size_t varOctets)
       : fields_(fields), record_(DataRecord::make_p(recordLen(fields, varOctets))) {
      cursor_.pos = reinterpret_cast<std::uint8_t*>(record_->octets_p());
      cursor_.max = cursor_.pos + record_->dataLen();
   }

   // The live cursor: it moves as fields are written.
   Cursor const& cursor() const { return cursor_; }

   // The next field, a number, in the length the element table gives it.
   template <class V>
   requires std::unsigned_integral<V> || std::is_enum_v<V>
   void add(V value) { addNumber_p(static_cast<std::uint64_t>(value)); }
   // The next field, a variable-length value: addLength then addOctets.
   void add(std::string_view value) {
      addLength(value.size());
      addOctets(value);
   }
   // The two halves of a variable-length field, for callers that check the record between them.
   void addLength(std::size_t len) {
      RecordField const& field = nextField_p();
      KIVO_ASSERT(field.isVarLen());
      addElementLen(&cursor_.pos, cursor_.max, len);
   }
   void addOctets(std::string_view value) { addElementOctets(&cursor_.pos, cursor_.max, value); }

   // The record written, handed out once. REQUIRES: every field written.
   Kivo::Ptr<DataRecord const> dataRecord() {
      KIVO_ASSERT(next_ == fields_.size());
      KIVO_ASSERT(cursor_.pos == cursor_.max);
      return std::move(record_);
   }

 private:
   // Inline, as the writers are called once per field of every record of a table build.
   RecordField const& nextField_p() {
      KIVO_ASSERT(next_ < fields_.size());
      return fields_[next_++];
   }
   void addNumber_p(std::uint64_t value) {
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

   std::span<RecordField const> fields_;
   std::size_t next_ = 0;
   Kivo::Ptr<DataRecord> record_;
   Cursor cursor_;
};

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
   std::uint32_t addSetRecord(TemplateId id, Kivo::Ptr<DataRecord const> const& record) {
      std::string_view const d = record->data();
      auto const bytes = static_cast<std::uint32_t>(d.size());
      // Inline, the case of nearly every record of a table: one more record of the open set,
      // with room left. The message's octets are all the packet's (startMsg), so no check of
      // the packet is needed beyond the size.
      if (setHdr_ && id == setId_ && offset_ + bytes <= maxSize_) {
         std::memcpy(data_ + offset_, d.data(), bytes);
         offset_ += bytes;
         setLen_ = static_cast<std::uint16_t>(setLen_ + bytes);
         ++recordCount_;
         return bytes;
      }
      return addSetRecordBytes(this, id, reinterpret_cast<std::uint8_t const*>(d.data()), bytes);
   }
   std::uint32_t addSetRecordStr(TemplateId id, std::string_view bytes);
   // Closes the open set and the message and hands the message out; the builder is idle again.
   // REQUIRES: at least one record since startMsg().
   Kivo::Ptr<Message> finalizeMsg();
   // Records added to the message under construction.
   std::uint32_t recordCount() const { return recordCount_; }

 private:
   friend struct MessageBuilderProbe;
   friend std::uint32_t addSetRecordBytes(MessageBuilder* builder, TemplateId id,
                                          std::uint8_t const* data, std::uint32_t bytes);

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
   void startSet_p(TemplateId id);
   void finalizeSet_p();

   std::uint16_t maxSize_;
   std::uint32_t observationDomainId_;
   Kivo::Ptr<Pelto::Pkt> pkt_;
   // The packet's octets while a message is open.
   std::uint8_t* data_ = nullptr;
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
