#include "Ipfix/IpfixSm.h"

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::defaultFacility())

namespace Ipfix {

IpfixInitSm::IpfixInitSm() {
   handleInitialized();
}

void IpfixInitSm::handleInitialized() {
   KTRACE(4, "IpfixInitSm::"
                 << "handleInitialized");
   Kivo::Ptr<ElementIdColl> table = elementIdCollFactory();
   elementIdCollection_.is(table);
   table->doInitialize();
   agentInfo_.is(agentInfoFactory());
   initializedIs(true);
}

Kivo::Ptr<IpfixInitSm> ipfixInitSmFactory() {
   return Kivo::make<IpfixInitSm>();
}

}  // namespace Ipfix
