// Ipfix::IpfixInitSm builds the element table and the agent record once, at construction, and
// publishes them. Users wait for `initialized` before reading the outputs. A later run replaces
// both outputs with new objects, so holders of the old pointers keep a consistent old table.
#pragma once

#include "Ipfix/Ipfix.h"
#include "Kivo/Attr.h"

namespace Ipfix {

class IpfixInitSm : public Kivo::Object {
 public:
   IpfixInitSm();

   Kivo::Ptr<ElementIdColl> elementIdCollection() const { return elementIdCollection_.get(); }
   Kivo::Ptr<AgentInfo> agentInfo() const { return agentInfo_.get(); }
   bool initialized() const { return initialized_.get(); }

   Kivo::Signal<> const& onElementIdCollection() const { return elementIdCollection_.signal(); }
   Kivo::Signal<> const& onAgentInfo() const { return agentInfo_.signal(); }
   Kivo::Signal<> const& onInitialized() const { return initialized_.signal(); }

   void handleInitialized();

 private:
   void initializedIs(bool v) { initialized_.is(v); }

   Kivo::Value<Kivo::Ptr<ElementIdColl>> elementIdCollection_;
   Kivo::Value<Kivo::Ptr<AgentInfo>> agentInfo_;
   Kivo::Value<bool> initialized_;
};

Kivo::Ptr<IpfixInitSm> ipfixInitSmFactory();

}  // namespace Ipfix
