// Value types of flow tracking that the hardware records carry and the export component reads.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>

namespace HwFlowTracking {

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
std::ostream& operator<<(std::ostream& os, TemplateId id);  // its number

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

}  // namespace HwFlowTracking

template <>
struct std::hash<HwFlowTracking::TemplateId> {
   std::size_t operator()(HwFlowTracking::TemplateId id) const noexcept {
      return std::hash<std::uint16_t>()(id.value());
   }
};
