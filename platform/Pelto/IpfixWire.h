// IPFIX (RFC 7011) wire layouts and the views that write them into a packet in place.
//
// A view is bound to (packet, offset) and looks the bytes up on every access, so it stays valid
// when the packet moves its data (Pkt::headGrow). Every access checks that the structure lies
// inside the packet's data.
#pragma once

#include <cstdint>

#include "Kivo/Kivo.h"
#include "Pelto/Endian.h"
#include "Pelto/Pkt.h"

namespace Pelto {

struct IpfixConst {
   static constexpr std::uint16_t version() { return 10; }
   static constexpr std::uint16_t templateSetId() { return 2; }
   static constexpr std::uint16_t optionsTemplateSetId() { return 3; }
   static constexpr std::uint16_t minDataSetId() { return 256; }
   static constexpr std::uint32_t messageHeaderLen() { return 16; }
   static constexpr std::uint32_t setHeaderLen() { return 4; }
   static constexpr std::uint16_t varLen() { return 65535; }
   // The longest value the short variable-length form carries: its one length octet, 255, is
   // the escape to the three-octet form.
   static constexpr std::uint16_t maxShortVarLen() { return 254; }
   static constexpr std::uint16_t enterpriseBit() { return 0x8000; }
   static constexpr std::uint16_t udpPort() { return 4739; }
};

struct MessageHeaderWire {
   Be16 version;
   Be16 length;
   Be32 exportTime;
   Be32 sequenceNumber;
   Be32 observationDomainId;
};
static_assert(sizeof(MessageHeaderWire) == 16);

struct SetHeaderWire {
   Be16 setId;
   Be16 length;
};
static_assert(sizeof(SetHeaderWire) == 4);

struct TemplateHeaderWire {
   Be16 templateId;
   Be16 fieldCount;
};
static_assert(sizeof(TemplateHeaderWire) == 4);

struct OptionsTemplateHeaderWire {
   Be16 templateId;
   Be16 fieldCount;
   Be16 scopeFieldCount;
};
static_assert(sizeof(OptionsTemplateHeaderWire) == 6);

struct FieldSpecifierWire {
   Be16 elementId;  // bit 15: enterprise bit
   Be16 fieldLength;
};
static_assert(sizeof(FieldSpecifierWire) == 4);

struct EnterpriseFieldSpecifierWire {
   FieldSpecifierWire head;
   Be32 enterpriseNumber;
};
static_assert(sizeof(EnterpriseFieldSpecifierWire) == 8);

// Common part of the views: a wire struct W at `offset` of `pkt`'s data.
template <class W>
class WireView : public Kivo::Object {
 public:
   WireView(Kivo::Ptr<Pkt> pkt, std::size_t offset) : pkt_(std::move(pkt)), offset_(offset) {}
   Kivo::Ptr<Pkt> const& pkt() const { return pkt_; }
   std::size_t offset() const { return offset_; }

 protected:
   W* wire() const {
      KIVO_ASSERT(offset_ + sizeof(W) <= pkt_->bytes());
      return reinterpret_cast<W*>(pkt_->data() + offset_);
   }

 private:
   Kivo::Ptr<Pkt> pkt_;
   std::size_t offset_;
};

class MessageHeader : public WireView<MessageHeaderWire> {
 public:
   using WireView::WireView;
   std::uint16_t version() const { return wire()->version.get(); }
   void versionIs(std::uint16_t v) { wire()->version.set(v); }
   std::uint16_t length() const { return wire()->length.get(); }
   void lengthIs(std::uint16_t v) { wire()->length.set(v); }
   std::uint32_t exportTime() const { return wire()->exportTime.get(); }
   void exportTimeIs(std::uint32_t v) { wire()->exportTime.set(v); }
   std::uint32_t sequenceNumber() const { return wire()->sequenceNumber.get(); }
   void sequenceNumberIs(std::uint32_t v) { wire()->sequenceNumber.set(v); }
   std::uint32_t observationDomainId() const { return wire()->observationDomainId.get(); }
   void observationDomainIdIs(std::uint32_t v) { wire()->observationDomainId.set(v); }
};

class SetHeader : public WireView<SetHeaderWire> {
 public:
   using WireView::WireView;
   std::uint16_t setId() const { return wire()->setId.get(); }
   void setIdIs(std::uint16_t v) { wire()->setId.set(v); }
   std::uint16_t length() const { return wire()->length.get(); }
   void lengthIs(std::uint16_t v) { wire()->length.set(v); }
};

// Template id and field count, the head both kinds of template record share.
template <class W>
class TemplateHeaderView : public WireView<W> {
 public:
   using WireView<W>::WireView;
   std::uint16_t templateId() const { return this->wire()->templateId.get(); }
   void templateIdIs(std::uint16_t v) { this->wire()->templateId.set(v); }
   std::uint16_t fieldCount() const { return this->wire()->fieldCount.get(); }
   void fieldCountIs(std::uint16_t v) { this->wire()->fieldCount.set(v); }
};

class TemplateHeader : public TemplateHeaderView<TemplateHeaderWire> {
 public:
   using TemplateHeaderView::TemplateHeaderView;
};

class OptionsTemplateHeader : public TemplateHeaderView<OptionsTemplateHeaderWire> {
 public:
   using TemplateHeaderView::TemplateHeaderView;
   std::uint16_t scopeFieldCount() const { return wire()->scopeFieldCount.get(); }
   void scopeFieldCountIs(std::uint16_t v) { wire()->scopeFieldCount.set(v); }
};

// A field specifier: 4 octets, or 8 with the enterprise bit set and the enterprise number after.
// The enterprise bit is fixed when the view is made; elementIdIs writes it with the id.
class FieldSpecifier : public WireView<FieldSpecifierWire> {
 public:
   FieldSpecifier(Kivo::Ptr<Pkt> pkt, std::size_t offset, bool enterprise)
       : WireView(std::move(pkt), offset), enterprise_(enterprise) {
      KIVO_ASSERT(offset + size() <= this->pkt()->bytes());
   }
   bool enterprise() const { return enterprise_; }
   std::size_t size() const { return enterprise_ ? 8 : 4; }

   // REQUIRES: id < 0x8000 (bit 15 is the enterprise bit).
   void elementIdIs(std::uint16_t id) {
      KIVO_ASSERT(id < IpfixConst::enterpriseBit());
      specifier()->elementId.set(enterprise_ ? id | IpfixConst::enterpriseBit() : id);
   }
   std::uint16_t elementId() const {
      return specifier()->elementId.get() & ~IpfixConst::enterpriseBit() & 0xffff;
   }
   void fieldLenIs(std::uint16_t len) { specifier()->fieldLength.set(len); }
   std::uint16_t fieldLen() const { return specifier()->fieldLength.get(); }
   // REQUIRES: enterprise().
   void entNumIs(std::uint32_t n) {
      KIVO_ASSERT(enterprise_);
      reinterpret_cast<EnterpriseFieldSpecifierWire*>(specifier())->enterpriseNumber.set(n);
   }

 private:
   FieldSpecifierWire* specifier() const { return wire(); }
   bool enterprise_;
};

}  // namespace Pelto
