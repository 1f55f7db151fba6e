// Value types of flow tracking shared across the export component.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>

#include "Kivo/Kivo.h"

namespace FlowTracking {

// A 16-bit IPFIX set id / template id. Set ids 2 and 3 carry templates and options templates;
// data sets use template ids from 256 up.
class TemplateId {
 public:
   constexpr TemplateId() = default;
   constexpr TemplateId(std::uint16_t v) : v_(v) {}
   constexpr std::uint16_t value() const { return v_; }
   constexpr operator std::uint16_t() const { return v_; }

 private:
   std::uint16_t v_ = 0;
};
std::ostream& operator<<(std::ostream& os, TemplateId id);

// Intervals that configuration and status carry in milliseconds.
struct ActiveInterval {
   std::uint32_t ms = 0;
   double seconds() const { return ms / 1000.0; }
   bool operator==(ActiveInterval const&) const = default;
};
struct InactiveTimeout {
   std::uint32_t ms = 0;
   double seconds() const { return ms / 1000.0; }
   bool operator==(InactiveTimeout const&) const = default;
};

// Flow tracker number; also the IPFIX observation domain id of everything a tracker exports.
using FtId = std::uint32_t;

// The kind of flow tracking of a tracker. It travels unchanged from configuration into the info
// records and the flow tracker table.
enum class FlowTrackingType : std::uint8_t {
   none = 0,
   sampled = 1,
   hardware = 2,
};
std::ostream& operator<<(std::ostream& os, FlowTrackingType t);

// The options tables with template ids of their own.
enum class StaticTemplateId : std::uint8_t {
   vrfTable = 0,
   intfTable = 1,
   flowKey = 2,
   flowTrackerTable = 3,
};

namespace Constants {

// Options-table template ids sit just above the reserved range, below every id the hardware
// gives its data templates.
constexpr TemplateId reservedTemplateId(StaticTemplateId id) {
   return TemplateId(static_cast<std::uint16_t>(256 + static_cast<std::uint16_t>(id)));
}
// The first template id the hardware uses for its data templates.
constexpr TemplateId firstDynamicTemplateId() {
   return TemplateId(260);
}

// Private enterprise number written into the field specifier of every enterprise-specific
// element. 32473 is the number set aside for documentation and examples; a deployment
// substitutes the number registered to its maker here, and nowhere else.
constexpr std::uint32_t enterpriseNumber() {
   return 32473;
}

}  // namespace Constants

}  // namespace FlowTracking

template <>
struct std::hash<FlowTracking::TemplateId> {
   std::size_t operator()(FlowTracking::TemplateId id) const noexcept {
      return std::hash<std::uint16_t>()(id.value());
   }
};
