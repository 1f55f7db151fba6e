#include "Ipfix/FlowTrackerPktTxUtil.h"

namespace FlowTracking {

void sendPkt4(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,
              Pelto::IpAddr src, Pelto::IpAndPort const& dst, Pelto::DscpValue dscp) {
   pam->txSrcIpAddrIs(src);
   pam->txDstIpAddrIs(dst.ipAddr());
   pam->txPortIs(dst.port());
   pam->txTosIs(static_cast<std::uint8_t>((dscp.value() << 2) & 0xff));
   pam->txPktIs(pkt);
}

void sendPkt6(Kivo::Ptr<Pelto::Pkt> const& pkt, Kivo::Ptr<Pelto::UdpPam> const& pam,
              Pelto::Ip6Addr const& src, Pelto::Ip6AndPort const& dst, Pelto::DscpValue dscp) {
   pam->txSrcIp6AddrIs(src);
   pam->txDstIp6AddrIs(dst.ipAddr());
   pam->txPortIs(dst.port());
   pam->txTosIs(static_cast<std::uint8_t>((dscp.value() << 2) & 0xff));
   pam->txPktIs(pkt);
}

}  // namespace FlowTracking
