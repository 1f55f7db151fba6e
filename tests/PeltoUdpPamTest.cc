#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Pelto/UdpPam.h"
#include "Trace/Dualog.h"
#include "support/NetNs.h"

using Pelto::Ip6Addr;
using Pelto::IpAddr;
using Pelto::UdpPam;

namespace {

IpAddr ip4(char const* s) {
   return *IpAddr::parse(s);
}
Ip6Addr ip6(char const* s) {
   return *Ip6Addr::parse(s);
}

Kivo::Ptr<Pelto::Pkt> pkt(std::string_view text) {
   auto p = Kivo::make<Pelto::Pkt>(text.size() + 16, 16);
   p->tailGrow(text.size());
   p->write(0, text.data(), text.size());
   return p;
}

struct Datagram {
   std::string payload;
   std::string src;
   std::uint16_t srcPort = 0;
   int tos = -1;
};

// A UDP socket on an ephemeral port of the loopback address of one family, in the namespace of
// the thread creating it. It reports the source and type of service of what it receives.
class Receiver {
 public:
   explicit Receiver(bool ipv6) {
      fd_ = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      int const on = 1;
      sockaddr_in6 sa6 = Pelto::Ip6AndPort(ip6("::1"), 0).toSockaddr();
      sockaddr_in sa4 = Pelto::IpAndPort(ip4("127.0.0.1"), 0).toSockaddr();
      socklen_t len = ipv6 ? sizeof(sa6) : sizeof(sa4);
      auto* sa = ipv6 ? reinterpret_cast<sockaddr*>(&sa6) : reinterpret_cast<sockaddr*>(&sa4);
      if (fd_ < 0 ||
          setsockopt(fd_, ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, ipv6 ? IPV6_RECVTCLASS : IP_RECVTOS,
                     &on, sizeof(on)) != 0 ||
          bind(fd_, sa, len) != 0 || getsockname(fd_, sa, &len) != 0) {
         int const err = errno;
         close(fd_);
         throw std::runtime_error(std::string("receiver: ") + std::strerror(err));
      }
      port_ = ipv6 ? ntohs(sa6.sin6_port) : ntohs(sa4.sin_port);
   }
   ~Receiver() { close(fd_); }
   Receiver(Receiver const&) = delete;
   Receiver& operator=(Receiver const&) = delete;

   std::uint16_t port() const { return port_; }

   std::optional<Datagram> next(int timeoutMs = 2000) {
      pollfd p{fd_, POLLIN, 0};
      char buf[2048];
      sockaddr_storage from{};
      alignas(cmsghdr) char control[128];
      iovec iov{buf, sizeof(buf)};
      msghdr msg{&from, sizeof(from), &iov, 1, control, sizeof(control), 0};
      ssize_t const n = poll(&p, 1, timeoutMs) == 1 ? recvmsg(fd_, &msg, 0) : -1;
      if (n < 0) {
         return std::nullopt;
      }
      Datagram d;
      d.payload.assign(buf, static_cast<std::size_t>(n));
      if (from.ss_family == AF_INET6) {
         auto const a = Pelto::Ip6AndPort::fromSockaddr(*reinterpret_cast<sockaddr_in6*>(&from));
         d.src = a.ipAddr().toString();
         d.srcPort = a.port();
      } else {
         auto const a = Pelto::IpAndPort::fromSockaddr(*reinterpret_cast<sockaddr_in*>(&from));
         d.src = a.ipAddr().toString();
         d.srcPort = a.port();
      }
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
         if (c->cmsg_type == IP_TOS && c->cmsg_level == IPPROTO_IP) {
            d.tos = *CMSG_DATA(c);  // one octet
         } else if (c->cmsg_type == IPV6_TCLASS && c->cmsg_level == IPPROTO_IPV6) {
            std::memcpy(&d.tos, CMSG_DATA(c), sizeof(d.tos));  // an int
         }
      }
      return d;
   }

 private:
   int fd_ = -1;
   std::uint16_t port_ = 0;
};

void aimAtLoopback(UdpPam& pam, std::uint16_t port) {
   pam.txDstIpAddrIs(ip4("127.0.0.1"));
   pam.txDstIp6AddrIs(ip6("::1"));
   pam.txPortIs(port);
}

// Collects the text trace of UdpPam for the life of the object.
class TraceCapture {
 public:
   TraceCapture() : level_(Dualog::facility("UdpPam").level()) {
      Dualog::sinkIs([this](Dualog::Facility const&, int, std::string_view l) { text += l; });
      Dualog::enable("UdpPam", 9);
   }
   ~TraceCapture() {
      Dualog::enable("UdpPam", level_);
      Dualog::sinkIs({});
   }
   std::string text;

 private:
   int level_;
};

}  // namespace

TEST(PeltoUdpPam, OpenModeDeliversLearnsPortOnFirstSendAndAppliesTosChanges) {
   for (bool v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
      Receiver rx(v6);
      UdpPam pam("udpPam4-t1-e1");
      pam.ipv6EnIs(v6);
      pam.txPrioIs(Pelto::IpTrafficControl::interactive);
      pam.modeIs(UdpPam::Mode::open);
      EXPECT_EQ(pam.rxPort(), 0);
      int prio = -1;
      socklen_t len = sizeof(prio);
      ASSERT_EQ(getsockopt(pam.fd(), SOL_SOCKET, SO_PRIORITY, &prio, &len), 0);
      EXPECT_EQ(prio, 6);

      aimAtLoopback(pam, rx.port());
      pam.txPktIs(pkt("first"));
      auto first = rx.next();
      ASSERT_TRUE(first);
      EXPECT_EQ(first->payload, "first");
      EXPECT_EQ(first->src, v6 ? "::1" : "127.0.0.1");
      EXPECT_EQ(first->tos, 0);
      EXPECT_NE(first->srcPort, 0);
      EXPECT_EQ(pam.rxPort(), first->srcPort);

      pam.txTosIs(Pelto::DscpValue(46).tos());
      pam.txPktIs(pkt("second!"));
      auto second = rx.next();
      ASSERT_TRUE(second);
      EXPECT_EQ(second->payload, "second!");
      EXPECT_EQ(second->tos, 184);
      EXPECT_EQ(second->srcPort, first->srcPort);
      EXPECT_EQ(pam.rxPort(), first->srcPort);
      EXPECT_EQ(pam.txPkts(), 2u);
      EXPECT_EQ(pam.txBytes(), 12u);
   }
}

// 127/8 is local as a whole, so any address in it can be a source without configuration.
TEST(PeltoUdpPam, Ipv4SourceAddressFollowsEachChange) {
   Receiver rx(false);
   UdpPam pam("udpPam4-t1-e1");
   pam.modeIs(UdpPam::Mode::open);
   aimAtLoopback(pam, rx.port());
   for (auto [src, seen] : {std::pair{"127.0.0.2", "127.0.0.2"},
                            {"127.0.0.3", "127.0.0.3"},
                            {"0.0.0.0", "127.0.0.1"}}) {
      pam.txSrcIpAddrIs(ip4(src));
      pam.txPktIs(pkt(src));
      auto d = rx.next();
      ASSERT_TRUE(d) << src;
      EXPECT_EQ(d->payload, src);
      EXPECT_EQ(d->src, seen);
   }
}

// 192.0.2.0/24 and 2001:db8::/32 are documentation ranges: assigned nowhere, never sent to.
TEST(PeltoUdpPam, BoundModeReceivesOnItsPortAndAnAddressNotAssignedLeavesItClosed) {
   for (bool v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
      UdpPam pam("udpPam4-t1-e1");
      pam.ipv6EnIs(v6);
      pam.rxIpAddrIs(ip4("127.0.0.1"));
      pam.rxIp6AddrIs(ip6("::1"));
      pam.modeIs(UdpPam::Mode::bound);
      ASSERT_NE(pam.rxPort(), 0);
      UdpPam peer("udpPam-peer");
      peer.ipv6EnIs(v6);
      peer.modeIs(UdpPam::Mode::open);
      aimAtLoopback(peer, pam.rxPort());
      peer.txPktIs(pkt("to bound"));
      pollfd p{pam.fd(), POLLIN, 0};
      ASSERT_EQ(poll(&p, 1, 2000), 1);
      char buf[64];
      ASSERT_EQ(recv(pam.fd(), buf, sizeof(buf), 0), 8);
      EXPECT_EQ(std::string(buf, 8), "to bound");

      pam.rxIpAddrIs(ip4("192.0.2.1"));
      pam.rxIp6AddrIs(ip6("2001:db8::1"));
      try {
         pam.modeIs(UdpPam::Mode::bound);
         ADD_FAILURE() << "bind succeeded";
      } catch (Kivo::ErrnoException const& e) {
         EXPECT_EQ(e.error(), EADDRNOTAVAIL);
         EXPECT_NE(std::string(e.what()).find(v6 ? "udpPam4-t1-e1: bind [2001:db8::1]:0"
                                                 : "udpPam4-t1-e1: bind 192.0.2.1:0"),
                   std::string::npos)
             << e.what();
      }
      EXPECT_EQ(pam.fd(), -1);
      EXPECT_EQ(pam.mode(), UdpPam::Mode::closed);
      EXPECT_EQ(pam.rxPort(), 0);
   }
}

TEST(PeltoUdpPam, FailedSendsAreCountedAndTracedNeverThrown) {
   struct Case {
      char const* what;
      bool v6;
      bool open;
      char const* dst;
      std::uint16_t port;
      char const* src;
      int error;
      int olderKernelError = 0;  // what some kernel versions give instead
   };
   Case const cases[] = {
       {"closed", false, false, "127.0.0.1", 9, "0.0.0.0", EBADF},
       {"port 0", false, true, "127.0.0.1", 0, "0.0.0.0", EINVAL},
       {"source not local", false, true, "127.0.0.1", 9, "192.0.2.1", ENETUNREACH, EINVAL},
       {"IPv6 source not local", true, true, "::1", 9, "2001:db8::1", EINVAL},
       {"IPv4-mapped on an IPv6-only socket", true, true, "::ffff:127.0.0.1", 9, "::", ENETUNREACH},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.what);
      TraceCapture trace;
      UdpPam pam("udpPamErr");
      pam.ipv6EnIs(c.v6);
      if (c.open) {
         pam.modeIs(UdpPam::Mode::open);
      }
      if (c.v6) {
         pam.txDstIp6AddrIs(ip6(c.dst));
         pam.txSrcIp6AddrIs(ip6(c.src));
      } else {
         pam.txDstIpAddrIs(ip4(c.dst));
         pam.txSrcIpAddrIs(ip4(c.src));
      }
      pam.txPortIs(c.port);
      EXPECT_NO_THROW(pam.txPktIs(pkt("lost")));
      EXPECT_EQ(pam.txErrors(), 1u);
      EXPECT_EQ(pam.txPkts(), 0u);
      EXPECT_EQ(pam.rxPort(), 0);
      int const err = pam.lastTxErrno();
      EXPECT_TRUE(err == c.error || (c.olderKernelError && err == c.olderKernelError))
          << std::strerror(err);
      EXPECT_NE(trace.text.find(std::string("udpPamErr: txPkt failed: ") + std::strerror(err)),
                std::string::npos)
          << trace.text;
   }
}

TEST(PeltoUdpPam, FamilyChangeWhileOpenWaitsForTheNextOpen) {
   Receiver rx4(false);
   Receiver rx6(true);
   UdpPam pam("udpPamFam");
   pam.modeIs(UdpPam::Mode::open);
   pam.ipv6EnIs(true);
   aimAtLoopback(pam, rx4.port());
   pam.txPktIs(pkt("still v4"));
   ASSERT_TRUE(rx4.next());
   pam.modeIs(UdpPam::Mode::open);
   EXPECT_EQ(pam.rxPort(), 0);  // a fresh socket has no port yet
   aimAtLoopback(pam, rx6.port());
   pam.txPktIs(pkt("now v6"));
   auto d = rx6.next();
   ASSERT_TRUE(d);
   EXPECT_EQ(d->payload, "now v6");
}

TEST(PeltoUdpPam, NamespaceNameOver150BytesIsRejectedAndAMissingOneIsEnoent) {
   ino_t const home = testsupport::NetNs::currentInode();
   UdpPam pam("udpPamNs");
   try {
      pam.netNsIs(std::string(151, 'n'));
      ADD_FAILURE() << "151 bytes accepted";
   } catch (Kivo::RangeException const& e) {
      EXPECT_STREQ(e.what(), "Pelto::NamespaceName::value::bytes > 150 not allowed");
   }
   pam.netNsIs(std::string(150, 'n'));
   EXPECT_EQ(pam.netNs(), std::string(150, 'n'));
   try {
      pam.modeIs(UdpPam::Mode::open);
      ADD_FAILURE() << "opened in a missing namespace";
   } catch (Kivo::ErrnoException const& e) {
      EXPECT_EQ(e.error(), ENOENT) << e.what();
   }
   EXPECT_EQ(pam.fd(), -1);
   EXPECT_EQ(pam.mode(), UdpPam::Mode::closed);
   EXPECT_EQ(testsupport::NetNs::currentInode(), home);
}

// The socket is made in the namespace, so it reaches the namespace's own loopback and binds to
// addresses only the namespace has; the test thread itself never leaves home.
TEST(PeltoUdpPam, SocketLivesInItsNamespaceWhileTheThreadStaysHome) {
   std::string whyNot;
   auto ns = testsupport::NetNs::create("ipfixtest-" + std::to_string(getpid()), &whyNot);
   if (!ns) {
      GTEST_SKIP() << whyNot;
   }
   ns->ip({"addr", "add", "198.51.100.1/32", "dev", "lo"});
   ino_t const home = testsupport::NetNs::currentInode();
   Receiver outside(false);
   auto inside = ns->run([] { return std::make_unique<Receiver>(false); });

   UdpPam pam("udpPamNs");
   pam.netNsIs(ns->name());
   pam.modeIs(UdpPam::Mode::open);
   EXPECT_EQ(testsupport::NetNs::currentInode(), home);
   aimAtLoopback(pam, outside.port());
   pam.txPktIs(pkt("to outside"));  // nobody listens on that port in the namespace
   aimAtLoopback(pam, inside->port());
   pam.txPktIs(pkt("to inside"));
   auto d = inside->next();
   ASSERT_TRUE(d);
   EXPECT_EQ(d->payload, "to inside");
   EXPECT_EQ(d->srcPort, pam.rxPort());
   EXPECT_FALSE(outside.next(100));

   pam.rxIpAddrIs(ip4("198.51.100.1"));
   EXPECT_NO_THROW(pam.modeIs(UdpPam::Mode::bound));
   EXPECT_NE(pam.rxPort(), 0);
   pam.netNsIs("");
   EXPECT_THROW(pam.modeIs(UdpPam::Mode::bound), Kivo::ErrnoException);
   EXPECT_EQ(testsupport::NetNs::currentInode(), home);
}
