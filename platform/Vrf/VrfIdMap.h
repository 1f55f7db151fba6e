// The VRF id map: the number that flow records carry for a VRF, and the VRF's name.
//
// The routing agent writes `Status` as VRFs are created, renamed and deleted; readers iterate it
// in VRF id order and watch `onVrfName()`, which reports the VRF id of every insertion, rename and
// removal. Names are bounded: a name longer than VrfName::maxLength octets is refused with a
// Kivo::RangeException and the table is left unchanged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Kivo/Attr.h"
#include "Kivo/Kivo.h"

namespace Vrf::VrfIdMap {

using VrfId = std::uint32_t;

// A VRF name of 0 to maxLength octets.
class VrfName {
 public:
   static constexpr std::size_t maxLength = 100;

   VrfName() = default;
   // Throws Kivo::RangeException when `name` is longer than maxLength octets.
   explicit VrfName(std::string_view name);

   Kivo::String const& value() const { return value_; }
   std::size_t bytes() const { return value_.size(); }
   bool operator==(VrfName const&) const = default;

 private:
   Kivo::String value_;
};

// The VRFs known to the system, by VRF id.
class Status : public Kivo::Object {
 public:
   // The name of `vrfId`, or null when there is no such VRF.
   VrfName const* vrfName(VrfId vrfId) const { return vrfName_.find(vrfId); }
   // Creates the VRF or renames it; notifies only on a change. Throws Kivo::RangeException for an
   // over-long name, before anything changes.
   void vrfNameIs(VrfId vrfId, std::string_view name) { vrfName_.is(vrfId, VrfName(name)); }
   void vrfNameDel(VrfId vrfId) { vrfName_.del(vrfId); }
   void vrfNameDelAll() { vrfName_.delAll(); }
   std::size_t vrfNames() const { return vrfName_.size(); }
   // Every VRF, in VRF id order.
   Kivo::ValueColl<VrfId, VrfName> const& vrfNameColl() const { return vrfName_; }
   Kivo::Signal<VrfId> const& onVrfName() const { return vrfName_.signal(); }

 private:
   Kivo::ValueColl<VrfId, VrfName> vrfName_;
};

Kivo::Ptr<Status> statusFactory();

}  // namespace Vrf::VrfIdMap
