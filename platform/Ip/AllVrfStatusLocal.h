// The VRFs of this system and the network namespace each one lives in.
//
// The routing agent writes an entry when a VRF's namespace exists and removes it when the VRF
// goes; sockets of a VRF are created in its namespace. The default VRF ("" or "default") always
// lives in the default namespace, whatever the table says, and so does a VRF the table does not
// know. A namespace name "" also means the default namespace.
//
// VRF names are bounded as everywhere in the system: a name over Vrf::VrfIdMap::VrfName::maxLength
// octets is refused with Kivo::RangeException "L3::VrfName::value::bytes > L3::VrfName::maxLength
// not allowed", by writes (the table is left unchanged) and by lookups alike.
//
// `onVrfNetNs()` reports the VRF name of every insertion, change and removal.
#pragma once

#include <string_view>

#include "Kivo/Attr.h"
#include "Kivo/Kivo.h"
#include "Vrf/VrfIdMap.h"

namespace Ip {

class AllVrfStatusLocal : public Kivo::Object {
 public:
   static constexpr std::string_view defaultVrfName() { return "default"; }
   static bool isDefaultVrf(std::string_view vrfName) {
      return vrfName.empty() || vrfName == defaultVrfName();
   }

   // The namespace sockets of `vrfName` belong in; "" for the default namespace. Throws
   // Kivo::RangeException for an over-long name.
   Kivo::String netNs(std::string_view vrfName) const {
      Vrf::VrfIdMap::VrfName const name(vrfName);
      if (isDefaultVrf(name.value())) {
         return {};
      }
      Kivo::String const* ns = vrfNetNs_.find(name.value());
      return ns ? *ns : Kivo::String();
   }

   // The table's entry for `vrfName`, or null.
   Kivo::String const* vrfNetNs(Kivo::String const& vrfName) const {
      return vrfNetNs_.find(vrfName);
   }
   // Creates or changes the entry; notifies only on a change. Throws Kivo::RangeException for an
   // over-long VRF name, before anything changes.
   void vrfNetNsIs(std::string_view vrfName, Kivo::String netNs) {
      Vrf::VrfIdMap::VrfName const name(vrfName);
      vrfNetNs_.is(name.value(), std::move(netNs));
   }
   void vrfNetNsDel(Kivo::String const& vrfName) { vrfNetNs_.del(vrfName); }
   void vrfNetNsDelAll() { vrfNetNs_.delAll(); }
   // Every entry, in VRF name order.
   Kivo::ValueColl<Kivo::String, Kivo::String> const& vrfNetNsColl() const { return vrfNetNs_; }
   Kivo::Signal<Kivo::String> const& onVrfNetNs() const { return vrfNetNs_.signal(); }

 private:
   Kivo::ValueColl<Kivo::String, Kivo::String> vrfNetNs_;
};

inline Kivo::Ptr<AllVrfStatusLocal> allVrfStatusLocalFactory() {
   return Kivo::make<AllVrfStatusLocal>();
}

}  // namespace Ip
