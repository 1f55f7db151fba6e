// Flow-tracking types shared between the hardware layer and the export component.
#pragma once

#include <cstdint>

#include "Kivo/Kivo.h"
#include "Kivo/Pool.h"

namespace Ipfix {

// An IPFIX information element id. Its numeric value is what goes on the wire; the export
// component's element table gives the names, lengths and enterprise flags.
enum class RecordType : std::uint32_t {};

}  // namespace Ipfix

namespace HwFlowTracking {

// One field of a template: which element, how many octets on the wire (65535: variable length),
// whether it is enterprise-specific, its position in the template and whether it belongs to the
// flow key. Length and enterprise flag are filled from the element table when the template is
// configured. A tracker's templates hold tens of thousands of them, read one after the other by
// every build of its flow key table: they come from the small-block pool, packed together.
class FtTemplateEntry : public Kivo::Object, public Kivo::Pooled {
 public:
   FtTemplateEntry(std::uint32_t position, Ipfix::RecordType fieldId)
       : position_(position), fieldId_(fieldId) {}

   std::uint32_t position() const { return position_; }
   Ipfix::RecordType fieldId() const { return fieldId_; }
   std::uint16_t fieldLen() const { return fieldLen_; }
   void fieldLenIs(std::uint16_t len) { fieldLen_ = len; }
   bool enterpriseIe() const { return enterpriseIe_; }
   void enterpriseIeIs(bool e) { enterpriseIe_ = e; }
   bool flowKey() const { return flowKey_; }
   void flowKeyIs(bool k) { flowKey_ = k; }

 private:
   std::uint32_t position_;
   Ipfix::RecordType fieldId_;
   std::uint16_t fieldLen_ = 0;
   bool enterpriseIe_ = false;
   bool flowKey_ = false;
};

}  // namespace HwFlowTracking
