#include "Pelto/UdpPam.h"

#include <fcntl.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "Trace/Trace.h"

KTRACE_FACILITY(::Dualog::facility("UdpPam"))

namespace Pelto {

namespace {

constexpr std::size_t maxNetNsBytes = 150;
constexpr char const* netNsDir = "/var/run/netns/";
constexpr char const* threadNetNs = "/proc/thread-self/ns/net";

UdpPam::TxFailureObserver& txFailureObserver() {
   static UdpPam::TxFailureObserver observer;
   return observer;
}

// Owns a descriptor until it is released; closes it otherwise.
class FdGuard {
 public:
   explicit FdGuard(int fd) : fd_(fd) {}
   ~FdGuard() {
      if (fd_ >= 0) {
         ::close(fd_);
      }
   }
   FdGuard(FdGuard const&) = delete;
   FdGuard& operator=(FdGuard const&) = delete;
   int get() const { return fd_; }
   int release() { return std::exchange(fd_, -1); }

 private:
   int fd_;
};

[[noreturn]] void throwErrno(int err, Kivo::String const& module, Kivo::String const& step) {
   throw Kivo::ErrnoException(err, module + ": " + step);
}

char const* familyName(int family) {
   return family == AF_INET6 ? "AF_INET6" : "AF_INET";
}

void intOptIs(int fd, int level, int opt, int value, Kivo::String const& module,
              char const* optName) {
   if (setsockopt(fd, level, opt, &value, sizeof(value)) != 0) {
      throwErrno(errno, module,
                 Kivo::String("setsockopt ") + optName + " " + std::to_string(value));
   }
}

int newSocket(int family) {
   return ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Creates a socket inside the named namespace. The calling thread enters the namespace only for
// the socket() call; the socket keeps the namespace for its whole life.
int newSocketInNetNs(int family, Kivo::String const& ns, Kivo::String const& module) {
   Kivo::String const path = netNsDir + ns;
   FdGuard target(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
   if (target.get() < 0) {
      throwErrno(errno, module, "open " + path);
   }
   FdGuard home(::open(threadNetNs, O_RDONLY | O_CLOEXEC));
   if (home.get() < 0) {
      throwErrno(errno, module, Kivo::String("open ") + threadNetNs);
   }
   if (setns(target.get(), CLONE_NEWNET) != 0) {
      throwErrno(errno, module, "setns " + path);
   }
   int const fd = newSocket(family);
   int const err = errno;
   // A thread stuck in a foreign namespace would silently put every later socket there.
   bool const backHome = setns(home.get(), CLONE_NEWNET) == 0;
   KIVO_ASSERT(backHome);
   if (fd < 0) {
      throwErrno(err, module, Kivo::String("socket ") + familyName(family) + " in " + path);
   }
   return fd;
}

// The local port of a socket; 0 when the system has not given it one yet.
bool localPort(int fd, std::uint16_t* port) {
   sockaddr_storage ss{};
   socklen_t len = sizeof(ss);
   if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
      return false;
   }
   *port = ss.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6 const*>(&ss)->sin6_port)
                                    : ntohs(reinterpret_cast<sockaddr_in const*>(&ss)->sin_port);
   return true;
}

}  // namespace

void UdpPam::txFailureObserverIs(TxFailureObserver fn) {
   txFailureObserver() = std::move(fn);
}

UdpPam::~UdpPam() {
   close_();
}

void UdpPam::netNsIs(Kivo::String const& ns) {
   if (ns.size() > maxNetNsBytes) {
      throw Kivo::RangeException("Pelto::NamespaceName::value::bytes > 150 not allowed");
   }
   // The name is used as a file name in netNsDir: it may not leave that directory.
   if (ns == "." || ns == ".." || ns.find('/') != Kivo::String::npos ||
       ns.find('\0') != Kivo::String::npos) {
      throw Kivo::RangeException(Kivo::String("Pelto::NamespaceName::value is not a name in ") +
                                 netNsDir + ": " + ns);
   }
   netNs_ = ns;
}

void UdpPam::txPrioIs(IpTrafficControl p) {
   txPrio_ = p;
   int const v = static_cast<int>(p);
   for (int fd : fds()) {
      if (setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &v, sizeof(v)) != 0) {
         int const err = errno;
         KTRACE(2, name_ << ": setting priority " << v << " failed: " << std::strerror(err));
      }
   }
}

std::vector<int> UdpPam::fds() const {
   std::vector<int> out;
   if (fd_ >= 0) {
      out.push_back(fd_);
   }
   for (Peer const& p : peers_) {
      if (p.fd >= 0) {
         out.push_back(p.fd);
      }
   }
   return out;
}

void UdpPam::txTosIs(std::uint8_t tos) {
   // Applied to the socket before the next send.
   txTos_ = tos;
}

void UdpPam::modeIs(Mode m) {
   close_();
   mode_ = Mode::closed;
   if (m == Mode::closed) {
      return;
   }
   mode_ = m;
   try {
      open_();
   } catch (...) {
      mode_ = Mode::closed;
      throw;
   }
}

// A socket of the family in the namespace (the default one for ""), with the options every socket
// of a module has: priority, type of service and ICMP errors on the error queue. Throws
// Kivo::ErrnoException.
int UdpPam::newSocket_(bool v6, Kivo::String const& ns) const {
   int const family = v6 ? AF_INET6 : AF_INET;
   int fd = -1;
   if (ns.empty()) {
      fd = newSocket(family);
      if (fd < 0) {
         throwErrno(errno, name_, Kivo::String("socket ") + familyName(family));
      }
   } else {
      fd = newSocketInNetNs(family, ns, name_);
   }
   FdGuard sock(fd);
   intOptIs(fd, SOL_SOCKET, SO_PRIORITY, static_cast<int>(txPrio_), name_, "SO_PRIORITY");
   if (v6) {
      intOptIs(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1, name_, "IPV6_V6ONLY");
      intOptIs(fd, IPPROTO_IPV6, IPV6_TCLASS, txTos_, name_, "IPV6_TCLASS");
      intOptIs(fd, IPPROTO_IPV6, IPV6_RECVERR, 1, name_, "IPV6_RECVERR");
   } else {
      intOptIs(fd, IPPROTO_IP, IP_TOS, txTos_, name_, "IP_TOS");
      intOptIs(fd, IPPROTO_IP, IP_RECVERR, 1, name_, "IP_RECVERR");
   }
   return sock.release();
}

void UdpPam::open_() {
   int const fd = newSocket_(ipv6En_, netNs_);
   FdGuard sock(fd);

   std::uint16_t port = 0;
   if (mode_ == Mode::bound) {
      int rc = 0;
      Kivo::String where;
      if (ipv6En_) {
         Ip6AndPort const local(rxIp6Addr_, rxPortWanted_);
         sockaddr_in6 const sa = local.toSockaddr();
         rc = bind(fd, reinterpret_cast<sockaddr const*>(&sa), sizeof(sa));
         where = local.toString();
      } else {
         IpAndPort const local(rxIpAddr_, rxPortWanted_);
         sockaddr_in const sa = local.toSockaddr();
         rc = bind(fd, reinterpret_cast<sockaddr const*>(&sa), sizeof(sa));
         where = local.toString();
      }
      if (rc != 0) {
         throwErrno(errno, name_, "bind " + where);
      }
      if (!localPort(fd, &port)) {
         throwErrno(errno, name_, "getsockname");
      }
   }

   fd_ = sock.release();
   fdV6_ = ipv6En_;
   fdNetNs_ = netNs_;
   appliedTos_ = txTos_;
   rxPort_ = port;
   KTRACE(4, "Created Pam: " << name_ << ", fd: " << fd_ << ", mode: " << static_cast<int>(mode_)
                             << ", netNs: '" << netNs_ << "', port: " << rxPort_);
}

void UdpPam::close_() {
   closePeers_();
   if (fd_ >= 0) {
      KTRACE(4, "Closed Pam: " << name_ << ", fd: " << fd_);
      ::close(fd_);
   }
   fd_ = -1;
   rxPort_ = 0;
   srcBindTried_ = false;
   boundSrc4_ = IpAddr();
   boundSrc6_ = Ip6Addr();
}

// Binds an open-mode socket to the source of its first send, port chosen by the system. Sends
// from that source then need no per-packet source; the kernel would otherwise route every
// IP_PKTINFO datagram to check its source (about a fifth of a send's cost). Tried once per
// socket: a socket that could not be bound (the address is not there yet, or a link-local IPv6
// one) keeps the per-packet source, which works for any address.
void UdpPam::bindSource_() {
   srcBindTried_ = true;
   int rc = -1;
   if (fdV6_ && !txSrc6_.isZero()) {
      sockaddr_in6 const sa = Ip6AndPort(txSrc6_, 0).toSockaddr();
      rc = bind(fd_, reinterpret_cast<sockaddr const*>(&sa), sizeof(sa));
   } else if (!fdV6_ && !txSrc4_.isZero()) {
      sockaddr_in const sa = IpAndPort(txSrc4_, 0).toSockaddr();
      rc = bind(fd_, reinterpret_cast<sockaddr const*>(&sa), sizeof(sa));
   }
   if (rc != 0) {
      return;
   }
   if (fdV6_) {
      boundSrc6_ = txSrc6_;
   } else {
      boundSrc4_ = txSrc4_;
   }
   learnPort_();
   // Set after the bind, so that the system picked a port nobody else had; the peers set it
   // before theirs, to join it. Only sockets of this user can.
   int const one = 1;
   peersOk_ = rxPort_ != 0 && setsockopt(fd_, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one)) == 0;
}

void UdpPam::applyTos_(int fd, std::uint8_t& applied) {
   int const v = txTos_;
   int const rc = fdV6_ ? setsockopt(fd, IPPROTO_IPV6, IPV6_TCLASS, &v, sizeof(v))
                        : setsockopt(fd, IPPROTO_IP, IP_TOS, &v, sizeof(v));
   if (rc != 0) {
      // Left unapplied, so the next send tries again; this packet goes with the old value.
      int const err = errno;
      KTRACE(2, name_ << ": setting tos " << v << " failed: " << std::strerror(err));
      return;
   }
   applied = txTos_;
}

bool UdpPam::Peer::is(bool v6, IpAddr const& d4, Ip6Addr const& d6, std::uint16_t p) const {
   return port == p && (v6 ? dst6 == d6 : dst4 == d4);
}

// The peer of the current destination, opened on its first send. Null when the current source is
// not the one the peers are bound to, or when no socket could be connected to the destination
// (remembered, so that a destination that cannot be connected costs nothing more than the open
// socket's send).
UdpPam::Peer* UdpPam::peer_() {
   bool const ownSource = fdV6_ ? txSrc6_.isZero() || txSrc6_ == boundSrc6_
                                : txSrc4_.isZero() || txSrc4_ == boundSrc4_;
   // Port 0 is refused by a send that names it, but a socket connected to it would send there.
   if (!ownSource || txPort_ == 0) {
      return nullptr;
   }
   ++useClock_;
   Peer* found = nullptr;
   if (lastPeer_ < peers_.size() && peers_[lastPeer_].is(fdV6_, txDst4_, txDst6_, txPort_)) {
      found = &peers_[lastPeer_];
   } else {
      for (std::size_t i = 0; i < peers_.size(); ++i) {
         if (peers_[i].is(fdV6_, txDst4_, txDst6_, txPort_)) {
            lastPeer_ = i;
            found = &peers_[i];
            break;
         }
      }
   }
   if (!found && !(found = newPeer_())) {
      return nullptr;
   }
   found->lastUse = useClock_;
   return found->fd >= 0 ? found : nullptr;
}

// A peer for the current destination, in a free place or in that of the peer used longest ago
// once that one has been idle for peerIdleSends(); null while every peer is busier than that, so
// that more destinations than peers, sent to in turn, do not open and close a socket a datagram.
UdpPam::Peer* UdpPam::newPeer_() {
   std::size_t i = peers_.size();
   if (peers_.size() < maxPeers()) {
      peers_.emplace_back();
   } else {
      i = 0;
      for (std::size_t j = 1; j < peers_.size(); ++j) {
         if (peers_[j].lastUse < peers_[i].lastUse) {
            i = j;
         }
      }
      if (useClock_ - peers_[i].lastUse < peerIdleSends()) {
         return nullptr;
      }
      // Errors the kernel queued on it are about its destination's datagrams: reported now, or
      // never.
      if (peers_[i].fd >= 0) {
         drainErrQueue_(peers_[i].fd);
      }
      closePeer_(peers_[i]);
   }
   lastPeer_ = i;
   Peer& p = peers_[i];
   p.dst4 = txDst4_;
   p.dst6 = txDst6_;
   p.port = txPort_;
   p.tos = txTos_;
   p.fd = connectPeer_();
   return &p;
}

// A socket in the open socket's namespace, bound to its address and port and connected to the
// current destination; -1 when that cannot be done (traced).
int UdpPam::connectPeer_() const {
   int fd = -1;
   try {
      fd = newSocket_(fdV6_, fdNetNs_);
   } catch (Kivo::ErrnoException const& e) {
      KTRACE(2, name_ << ": no socket for a peer: " << e.what());
      return -1;
   }
   FdGuard sock(fd);
   int const one = 1;
   int rc = setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one));
   char const* what = "SO_REUSEPORT";
   // bind() or connect() with an address of the socket's family.
   auto const call = [&](auto fn, IpAddr const& a4, Ip6Addr const& a6, std::uint16_t port) {
      if (fdV6_) {
         sockaddr_in6 const sa = Ip6AndPort(a6, port).toSockaddr();
         return fn(fd, reinterpret_cast<sockaddr const*>(&sa), socklen_t{sizeof(sa)});
      }
      sockaddr_in const sa = IpAndPort(a4, port).toSockaddr();
      return fn(fd, reinterpret_cast<sockaddr const*>(&sa), socklen_t{sizeof(sa)});
   };
   if (rc == 0) {
      what = "bind";
      rc = call(::bind, boundSrc4_, boundSrc6_, rxPort_);
   }
   if (rc == 0) {
      what = "connect";
      rc = call(::connect, txDst4_, txDst6_, txPort_);
   }
   int const err = rc != 0 ? errno : 0;  // before anything else can change it
   Kivo::String const dst =
       fdV6_ ? Ip6AndPort(txDst6_, txPort_).toString() : IpAndPort(txDst4_, txPort_).toString();
   if (rc != 0) {
      KTRACE(2, name_ << ": no connected socket to " << dst << ": " << what << ": "
                      << std::strerror(err));
      return -1;
   }
   KTRACE(4, "Connected Pam: " << name_ << ", fd: " << fd << " to " << dst);
   return sock.release();
}

void UdpPam::closePeer_(Peer& p) {
   if (p.fd >= 0) {
      ::close(p.fd);
   }
   p.fd = -1;
}

void UdpPam::closePeers_() {
   for (Peer& p : peers_) {
      closePeer_(p);
   }
   peers_.clear();
   lastPeer_ = 0;
   peersOk_ = false;
}

void UdpPam::learnPort_() {
   std::uint16_t port = 0;
   if (!localPort(fd_, &port)) {
      int const err = errno;
      KTRACE(2, name_ << ": getsockname failed: " << std::strerror(err));
      return;
   }
   rxPort_ = port;
}

void UdpPam::report_(IpGenAddr const& dst, std::uint16_t port, int err, bool fromIcmp) const {
   if (auto const& observer = txFailureObserver()) {
      observer(TxFailure{this, dst, port, err, fromIcmp});
   }
}

void UdpPam::txFailed_(int err) {
   ++txErrors_;
   lastTxErrno_ = err;
   KTRACE(2, name_ << ": txPkt failed: " << std::strerror(err));
   // A closed module has no socket family yet: the one it is set to open with.
   if (fd_ >= 0 ? fdV6_ : ipv6En_) {
      report_(txDst6_, txPort_, err, false);
   } else {
      report_(txDst4_, txPort_, err, false);
   }
}

int UdpPam::drainErrQueue_(int fd) {
   int icmp = 0;
   for (int i = 0; i < maxErrQueueDrain(); ++i) {
      sockaddr_storage from{};
      char data[1];
      iovec iov{data, sizeof(data)};
      alignas(cmsghdr) unsigned char control[256];
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof(from);
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof(control);
      if (recvmsg(fd, &msg, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
         return icmp;  // EAGAIN: empty
      }
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
         bool const isErr = (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_RECVERR) ||
                            (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_RECVERR);
         if (!isErr || c->cmsg_len < CMSG_LEN(sizeof(sock_extended_err))) {
            continue;
         }
         sock_extended_err ee{};
         std::memcpy(&ee, CMSG_DATA(c), sizeof(ee));
         // Local errors (EMSGSIZE) were also the failed send's own errno: reported there.
         if (ee.ee_origin != SO_EE_ORIGIN_ICMP && ee.ee_origin != SO_EE_ORIGIN_ICMP6) {
            continue;
         }
         ++icmp;
         int const err = static_cast<int>(ee.ee_errno);
         if (from.ss_family == AF_INET6) {
            auto const& sa = *reinterpret_cast<sockaddr_in6 const*>(&from);
            Ip6AndPort const dst = Ip6AndPort::fromSockaddr(sa);
            KTRACE(2, name_ << ": error from " << dst.toString() << ": " << std::strerror(err));
            report_(dst.ipAddr(), dst.port(), err, true);
         } else {
            auto const& sa = *reinterpret_cast<sockaddr_in const*>(&from);
            IpAndPort const dst = IpAndPort::fromSockaddr(sa);
            KTRACE(2, name_ << ": error from " << dst.toString() << ": " << std::strerror(err));
            report_(dst.ipAddr(), dst.port(), err, true);
         }
      }
   }
   return icmp;
}

void UdpPam::txPktIs(Kivo::Ptr<Pkt> const& pkt) {
   KIVO_ASSERT(pkt);
   if (fd_ < 0) {
      txFailed_(EBADF);
      return;
   }
   if (mode_ == Mode::open && !srcBindTried_) {
      bindSource_();
   }
   int fd = fd_;
   Peer* const peer = peersOk_ ? peer_() : nullptr;
   if (peer) {
      fd = peer->fd;
      if (txTos_ != peer->tos) {
         applyTos_(fd, peer->tos);
      }
   } else if (txTos_ != appliedTos_) {
      applyTos_(fd_, appliedTos_);
   }

   iovec iov{const_cast<std::uint8_t*>(pkt->data()), pkt->bytes()};
   msghdr msg{};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   union {
      sockaddr_in v4;
      sockaddr_in6 v6;
   } dst;
   alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};

   if (peer) {
      // Connected: the kernel keeps the destination and its route.
   } else if (fdV6_) {
      dst.v6 = Ip6AndPort(txDst6_, txPort_).toSockaddr();
      msg.msg_name = &dst.v6;
      msg.msg_namelen = sizeof(dst.v6);
      if (!txSrc6_.isZero() && txSrc6_ != boundSrc6_) {
         msg.msg_control = control;
         msg.msg_controllen = CMSG_SPACE(sizeof(in6_pktinfo));
         cmsghdr* c = CMSG_FIRSTHDR(&msg);
         c->cmsg_level = IPPROTO_IPV6;
         c->cmsg_type = IPV6_PKTINFO;
         c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
         in6_pktinfo info{};
         info.ipi6_addr = txSrc6_.toIn6Addr();
         std::memcpy(CMSG_DATA(c), &info, sizeof(info));
      }
   } else {
      dst.v4 = IpAndPort(txDst4_, txPort_).toSockaddr();
      msg.msg_name = &dst.v4;
      msg.msg_namelen = sizeof(dst.v4);
      if (!txSrc4_.isZero() && txSrc4_ != boundSrc4_) {
         msg.msg_control = control;
         msg.msg_controllen = CMSG_SPACE(sizeof(in_pktinfo));
         cmsghdr* c = CMSG_FIRSTHDR(&msg);
         c->cmsg_level = IPPROTO_IP;
         c->cmsg_type = IP_PKTINFO;
         c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
         in_pktinfo const info{0, txSrc4_.toInAddr(), {}};  // any interface, this source
         std::memcpy(CMSG_DATA(c), &info, sizeof(info));
      }
   }

   ssize_t n = sendmsg(fd, &msg, 0);
   if (n < 0) {
      int err = errno;
      // An ICMP error queued since the last send fails this send with its errno: it belongs to an
      // earlier datagram, so report what the queue holds and send this one again. A send that
      // succeeds had nothing queued before it, so the queue is read only here.
      if (drainErrQueue_(fd) > 0) {
         n = sendmsg(fd, &msg, 0);
         err = errno;
      }
      if (n < 0) {
         // EAGAIN included: a full send buffer drops the packet rather than blocking the sender.
         txFailed_(err);
         return;
      }
   }
   ++txPkts_;
   txBytes_ += static_cast<std::uint64_t>(n);
   if (mode_ == Mode::open && rxPort_ == 0) {
      learnPort_();
   }
}

}  // namespace Pelto
