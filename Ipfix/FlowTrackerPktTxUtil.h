// The only place where a packet access module's transmit fields are set: every IPFIX message of
// the system goes out through sendPkt4 or sendPkt6. A module keeps its last transmit settings, so
// these always set all of them. Nothing is reported back; a failed send is counted on the module.
#pragma once

#include "Kivo/Kivo.h"
#include "Pelto/Address.h"
#include "Pelto/Pkt.h"
#include "Pelto/UdpPam.h"

namespace FlowTracking {

// The DSCP goes into the upper six bits of the type-of-service byte; the ECN bits stay 0.
void sendPkt4(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,
              Pelto::IpAddr src, Pelto::IpAndPort const& dst, Pelto::DscpValue dscp);
void sendPkt6(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,
              Pelto::Ip6Addr const& src, Pelto::Ip6AndPort const& dst, Pelto::DscpValue dscp);

}  // namespace FlowTracking
