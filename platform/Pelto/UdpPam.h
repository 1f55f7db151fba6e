// Pelto::UdpPam: a UDP packet access module, one socket of one address family.
//
// Configure it, then open it with modeIs():
//   Mode::open   a socket bound at its first send: to that send's source address when it has
//                one and the address is there, by the kernel otherwise; the system picks the
//                local port, and rxPort() reports it from then on;
//   Mode::bound  a socket bound to rxIpAddr / rxIp6Addr and rxPort (port 0: the system picks);
//                rxPort() reports the bound port at once;
//   Mode::closed closes the socket.
// Settings made while open (namespace, family, bind address) apply at the next open.
//
// A module in a network namespace other than the default one creates its socket inside
// /var/run/netns/<netNs> and the calling thread returns to its own namespace right after; the
// socket stays in the namespace it was created in.
//
// Sending: the transmit fields (source, destination, port, type of service) stay as last set, so a
// sender always sets all of them before txPktIs(). A source address other than the one an open
// socket was bound to is applied per packet (IP_PKTINFO / IPV6_PKTINFO); either way it must be an
// address of the socket's namespace. A failed send
// is traced and counted (txErrors(), lastTxErrno()), never thrown.
//
// Peers: once an open-mode socket is bound to its source, each destination (address and port) it
// sends to from that source gets a socket of its own, a peer: made in the same namespace, bound
// to the same address and port (SO_REUSEPORT, so only this user's sockets can join it) and
// connected to the destination, so that the kernel keeps its route instead of looking it up for
// every datagram. A collector sees one source address and port either way. At most maxPeers()
// are kept. A new destination takes the place of the one used longest ago once that one has gone
// peerIdleSends() sends unused (the errors queued on it are reported first); until then it goes
// through the open socket. A destination no peer could be connected to is remembered and goes
// through the open socket, as do other sources and port 0. Reopening closes the peers.
//
// Errors that come back later: every socket asks for ICMP errors (IP_RECVERR / IPV6_RECVERR), so
// that a datagram answered by "port unreachable" (no listener) or "host unreachable" is learned of
// even when the socket is not connected. The kernel queues each on the socket that matches the
// datagram best, the destination's peer when it has one, and fails that socket's next send with
// the error; that send drains the queue (non-blocking, at most maxErrQueueDrain() entries),
// reports every ICMP error with the destination of the datagram it answers, and is retried once,
// so one collector's error is never charged to another collector's datagram. A send that succeeds
// costs one system call. Errors learned this way go to the observer and the trace only;
// txErrors() counts the sends that failed.
//
// Failure observer: one per process (txFailureObserverIs), called on the sending thread for every
// failed send and every ICMP error learned, with the module, the destination and errno. It must
// not send through a module itself.
//
// Opening errors (socket, namespace, bind) throw Kivo::ErrnoException and leave the module closed.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "Kivo/Kivo.h"
#include "Pelto/Address.h"
#include "Pelto/Pkt.h"

namespace Pelto {

// Socket priority (SO_PRIORITY), i.e. the traffic-control band of sent packets.
enum class IpTrafficControl : std::uint8_t {
   bestEffort = 0,
   filler = 1,
   bulk = 2,
   interactiveBulk = 4,
   interactive = 6,
   control = 7,
};

class UdpPam;

// A send that failed, or a datagram an ICMP error came back for.
struct TxFailure {
   UdpPam const* module;
   IpGenAddr dst;
   std::uint16_t dstPort;
   int error;      // errno: of sendmsg, or what the ICMP error means (ECONNREFUSED, ...)
   bool fromIcmp;  // learned from the error queue: the datagram itself had left
};

class UdpPam : public Kivo::Object {
 public:
   enum class Mode : std::uint8_t { closed = 0, open = 1, bound = 3 };

   using TxFailureObserver = std::function<void(TxFailure const&)>;
   // Sets the process-wide observer of failures (an empty function: none). The previous one is
   // replaced. Called on the one thread that sends.
   static void txFailureObserverIs(TxFailureObserver fn);
   static constexpr int maxErrQueueDrain() { return 64; }

   explicit UdpPam(Kivo::String name) : name_(std::move(name)) {}
   ~UdpPam() override;

   Kivo::String const& name() const { return name_; }

   // Network namespace name ("" for the default namespace), a file name in /var/run/netns. At most
   // 150 bytes; longer throws Kivo::RangeException "Pelto::NamespaceName::value::bytes > 150 not
   // allowed". A name that would leave that directory ("." , "..", holding "/" or NUL) throws
   // Kivo::RangeException too. Either way the previous name is kept.
   void netNsIs(Kivo::String const& ns);
   Kivo::String const& netNs() const { return netNs_; }
   void ipv6EnIs(bool v) { ipv6En_ = v; }
   bool ipv6En() const { return ipv6En_; }
   void txPrioIs(IpTrafficControl p);
   IpTrafficControl txPrio() const { return txPrio_; }

   // Bind address and port for Mode::bound (port 0: the system picks one).
   void rxIpAddrIs(IpAddr a) { rxIpAddr_ = a; }
   void rxIp6AddrIs(Ip6Addr const& a) { rxIp6Addr_ = a; }
   void rxPortIs(std::uint16_t p) { rxPortWanted_ = p; }
   // The socket's actual local port: the bound port, or the port the kernel picked on the first
   // send of an unbound socket; 0 while unknown or closed.
   std::uint16_t rxPort() const { return rxPort_; }

   // Opens, rebinds or closes the socket. Any call with a mode other than closed opens a fresh
   // socket, the current one included, so settings made meanwhile take effect. Throws
   // Kivo::ErrnoException when opening fails.
   void modeIs(Mode m);
   Mode mode() const { return mode_; }
   int fd() const { return fd_; }
   // Every socket the module holds: fd() and its peers' (see Peers above), e.g. for a poll.
   std::vector<int> fds() const;
   // The most peers a module keeps (see Peers above).
   static constexpr std::size_t maxPeers() { return 32; }
   // The sends of the module a peer must go unused before another destination takes its place.
   static constexpr std::uint64_t peerIdleSends() { return 8 * maxPeers(); }

   void txSrcIpAddrIs(IpAddr a) { txSrc4_ = a; }
   void txSrcIp6AddrIs(Ip6Addr const& a) { txSrc6_ = a; }
   void txDstIpAddrIs(IpAddr a) { txDst4_ = a; }
   void txDstIp6AddrIs(Ip6Addr const& a) { txDst6_ = a; }
   void txPortIs(std::uint16_t p) { txPort_ = p; }
   // The IPv4 type of service / IPv6 traffic class byte.
   void txTosIs(std::uint8_t tos);
   std::uint8_t txTos() const { return txTos_; }

   // Sends the packet's data as one datagram with the current transmit fields.
   void txPktIs(Kivo::Ptr<Pkt> const& pkt);

   std::uint64_t txPkts() const { return txPkts_; }
   std::uint64_t txBytes() const { return txBytes_; }
   std::uint64_t txErrors() const { return txErrors_; }
   int lastTxErrno() const { return lastTxErrno_; }

 private:
   // A socket connected to one destination, bound to the open socket's address and port.
   struct Peer {
      IpAddr dst4;
      Ip6Addr dst6;
      std::uint16_t port = 0;
      int fd = -1;  // -1: no socket could be connected to this destination
      std::uint8_t tos = 0;
      std::uint64_t lastUse = 0;
      bool is(bool v6, IpAddr const& d4, Ip6Addr const& d6, std::uint16_t p) const;
   };

   int newSocket_(bool v6, Kivo::String const& ns) const;
   void open_();
   void close_();
   void applyTos_(int fd, std::uint8_t& applied);
   void learnPort_();
   void bindSource_();
   Peer* peer_();
   Peer* newPeer_();
   int connectPeer_() const;
   static void closePeer_(Peer& p);
   void closePeers_();
   void txFailed_(int err);
   // Reports and removes what the socket's error queue holds; the number of ICMP errors found.
   int drainErrQueue_(int fd);
   void report_(IpGenAddr const& dst, std::uint16_t port, int err, bool fromIcmp) const;

   Kivo::String name_;
   Kivo::String netNs_;
   bool ipv6En_ = false;
   IpTrafficControl txPrio_ = IpTrafficControl::bestEffort;
   IpAddr rxIpAddr_;
   Ip6Addr rxIp6Addr_;
   std::uint16_t rxPortWanted_ = 0;
   std::uint16_t rxPort_ = 0;
   Mode mode_ = Mode::closed;
   int fd_ = -1;
   bool fdV6_ = false;     // the family fd_ was opened with; ipv6En() may have changed since
   Kivo::String fdNetNs_;  // the namespace fd_ was opened in; netNs() may have changed since

   IpAddr txSrc4_;
   Ip6Addr txSrc6_;
   IpAddr txDst4_;
   Ip6Addr txDst6_;
   std::uint16_t txPort_ = 0;
   std::uint8_t txTos_ = 0;
   std::uint8_t appliedTos_ = 0;
   // Open mode: whether the first send tried to bind the socket to its source, and the source
   // it is bound to (zero: none, every source goes per packet).
   bool srcBindTried_ = false;
   IpAddr boundSrc4_;
   Ip6Addr boundSrc6_;
   // Open mode, once bound to a source: the peers, and the one the last send used.
   bool peersOk_ = false;
   std::vector<Peer> peers_;
   std::size_t lastPeer_ = 0;
   std::uint64_t useClock_ = 0;

   std::uint64_t txPkts_ = 0;
   std::uint64_t txBytes_ = 0;
   std::uint64_t txErrors_ = 0;
   int lastTxErrno_ = 0;
};

}  // namespace Pelto
