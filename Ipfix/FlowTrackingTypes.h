// Value types of flow tracking shared across the export component.
#pragma once

#include <cstdint>

#include "HwFlowTracking/FtTypes.h"
#include "Kivo/Kivo.h"

namespace FlowTracking {

// The value types the hardware records carry, under the names the component uses.
using HwFlowTracking::ActiveInterval;
using HwFlowTracking::FlowTrackingType;
using HwFlowTracking::FtId;
using HwFlowTracking::InactiveTimeout;
using HwFlowTracking::TemplateId;

// The network namespace the sockets of VRF `vrf` live in: "" for the default VRF (empty name or
// "default"), otherwise "ns-" + the name. The one rule for every socket the component opens and
// for the VRF status table the agent fills.
// Throws Kivo::RangeException for a name longer than Vrf::VrfIdMap::VrfName::maxLength, and for
// one that cannot be a file name in /var/run/netns (".", "..", or holding "/" or NUL).
Kivo::String netNsForVrf(Kivo::String const& vrf);

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
