#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Pelto/UdpPam.h"
#include "support/DeathText.h"
#include "support/LoopbackCollector.h"
#include "support/NetNs.h"

using Pelto::UdpPam;
using testsupport::LoopbackCollector;
using testsupport::NetNs;

namespace {

auto const ip4 = [](char const* s) { return *Pelto::IpAddr::parse(s); };
auto const ip6 = [](char const* s) { return *Pelto::Ip6Addr::parse(s); };

Kivo::Ptr<Pelto::Pkt> pkt(std::string_view text) {
   auto p = Kivo::make<Pelto::Pkt>(text.size() + 16, 16);
   p->tailGrow(text.size());
   p->write(0, text.data(), text.size());
   return p;
}

// The one datagram `rx` receives within 2 s, expected to carry `payload`.
testsupport::Received receive(LoopbackCollector& rx, std::string_view payload) {
   auto all = rx.drain(2000);
   EXPECT_EQ(all.size(), 1u) << payload;
   all.resize(1);
   EXPECT_EQ(std::string(all[0].payload.begin(), all[0].payload.end()), payload);
   return all[0];
}

// The exception of type E that `fn` throws, if any.
template <class E = Kivo::ErrnoException, class Fn>
std::optional<E> thrown(Fn fn) {
   try {
      fn();
   } catch (E const& e) {
      return e;
   }
   return std::nullopt;
}

void aimAtLoopback(UdpPam& pam, std::uint16_t port) {
   pam.txDstIpAddrIs(ip4("127.0.0.1")), pam.txDstIp6AddrIs(ip6("::1")), pam.txPortIs(port);
}

// Every failure the process-wide observer hears while this lives.
struct FailureLog {
   FailureLog() {
      UdpPam::txFailureObserverIs([this](Pelto::TxFailure const& f) { seen.push_back(f); });
   }
   ~FailureLog() { UdpPam::txFailureObserverIs({}); }
   std::vector<Pelto::TxFailure> seen;
};

// Waits (bounded) until the kernel has queued an error on one of the module's sockets.
bool errorQueued(UdpPam const& pam) {
   std::vector<pollfd> p;
   for (int fd : pam.fds()) {
      p.push_back({fd, 0, 0});
   }
   return poll(p.data(), p.size(), 2000) > 0 &&
          std::ranges::any_of(p, [](pollfd const& q) { return q.revents & POLLERR; });
}

// The destination ports of the module's connected sockets, sorted.
std::vector<std::uint16_t> peerPorts(UdpPam const& pam) {
   std::vector<std::uint16_t> ports;
   for (int fd : pam.fds()) {
      sockaddr_storage ss{};
      socklen_t len = sizeof(ss);
      if (getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) == 0) {
         ports.push_back(ntohs(ss.ss_family == AF_INET6
                                   ? reinterpret_cast<sockaddr_in6 const*>(&ss)->sin6_port
                                   : reinterpret_cast<sockaddr_in const*>(&ss)->sin_port));
      }
   }
   std::ranges::sort(ports);
   return ports;
}

// A fresh namespace whose loopback also has 198.51.100.1 (a documentation address, local to it
// alone); null, with the reason, where namespaces cannot be made.
std::unique_ptr<NetNs> namespaceWith198_51_100_1(std::string const& prefix, std::string* whyNot) {
   auto ns = NetNs::create(prefix + std::to_string(getpid()), whyNot);
   if (ns) {
      ns->ip({"addr", "add", "198.51.100.1/32", "dev", "lo"});
   }
   return ns;
}

void sourceIsLoopback(UdpPam& pam) {
   pam.txSrcIpAddrIs(ip4("127.0.0.1")), pam.txSrcIp6AddrIs(ip6("::1"));
}

}  // namespace

TEST(PeltoUdpPam, OpenModeDeliversLearnsPortOnFirstSendAndAppliesTosAndSourceChanges) {
   for (bool v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
      LoopbackCollector rx(v6);
      UdpPam pam("udpPam4-t1-e1");
      pam.ipv6EnIs(v6), pam.txPrioIs(Pelto::IpTrafficControl::interactive);
      pam.modeIs(UdpPam::Mode::open);
      EXPECT_EQ(pam.rxPort(), 0);
      int prio = -1;
      socklen_t len = sizeof(prio);
      ASSERT_EQ(getsockopt(pam.fd(), SOL_SOCKET, SO_PRIORITY, &prio, &len), 0);
      EXPECT_EQ(prio, 6);

      aimAtLoopback(pam, rx.port());
      pam.txPktIs(pkt("first"));
      auto const first = receive(rx, "first");
      EXPECT_EQ(first.srcAddr, v6 ? "::1" : "127.0.0.1");
      EXPECT_TRUE(first.tos == 0 && first.srcPort != 0 && pam.rxPort() == first.srcPort);

      pam.txTosIs(Pelto::DscpValue(46).tos());
      pam.txPktIs(pkt("second!"));
      auto const second = receive(rx, "second!");
      EXPECT_EQ(second.tos, 184);
      EXPECT_TRUE(second.srcPort == first.srcPort && pam.rxPort() == first.srcPort);
      EXPECT_TRUE(pam.txPkts() == 2u && pam.txBytes() == 12u);
      // 127/8 is local as a whole, so any address in it can be a source without configuration.
      for (std::string const src : {"127.0.0.2", "127.0.0.3", "0.0.0.0"}) {
         if (!v6) {
            pam.txSrcIpAddrIs(ip4(src.c_str()));
            pam.txPktIs(pkt(src));
            EXPECT_EQ(receive(rx, src).srcAddr, src == "0.0.0.0" ? "127.0.0.1" : src);
         }
      }
   }
}

// The first send's source becomes the socket's own address; any other source still goes per
// packet, and the bound one again after it.
TEST(PeltoUdpPam, OpenModeIsBoundToItsFirstSourceAndOtherSourcesStillApply) {
   LoopbackCollector rx(false);
   UdpPam pam("udpPam4-t1-e1");
   pam.modeIs(UdpPam::Mode::open);
   aimAtLoopback(pam, rx.port());
   for (std::string const src : {"127.0.0.2", "127.0.0.3", "127.0.0.2"}) {
      pam.txSrcIpAddrIs(ip4(src.c_str()));
      pam.txPktIs(pkt(src));
      auto const got = receive(rx, src);
      EXPECT_TRUE(got.srcAddr == src && got.srcPort == pam.rxPort()) << src;
   }
   sockaddr_in local{};
   socklen_t len = sizeof(local);
   ASSERT_EQ(getsockname(pam.fd(), reinterpret_cast<sockaddr*>(&local), &len), 0);
   EXPECT_EQ(Pelto::IpAddr::fromInAddr(local.sin_addr), ip4("127.0.0.2"));
}

// 192.0.2.0/24 and 2001:db8::/32 are documentation ranges: assigned nowhere, never sent to.
TEST(PeltoUdpPam, BoundModeReceivesOnItsPortAndAnAddressNotAssignedLeavesItClosed) {
   for (bool v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
      UdpPam pam("udpPam4-t1-e1"), peer("udpPam-peer");
      pam.ipv6EnIs(v6), pam.rxIpAddrIs(ip4("127.0.0.1")), pam.rxIp6AddrIs(ip6("::1"));
      pam.modeIs(UdpPam::Mode::bound);
      ASSERT_NE(pam.rxPort(), 0);
      peer.ipv6EnIs(v6), peer.modeIs(UdpPam::Mode::open);
      aimAtLoopback(peer, pam.rxPort());
      peer.txPktIs(pkt("to bound"));
      pollfd p{pam.fd(), POLLIN, 0};
      ASSERT_EQ(poll(&p, 1, 2000), 1);
      char buf[64];
      ASSERT_EQ(recv(pam.fd(), buf, sizeof(buf), 0), 8);
      EXPECT_EQ(std::string(buf, 8), "to bound");

      pam.rxIpAddrIs(ip4("192.0.2.1")), pam.rxIp6AddrIs(ip6("2001:db8::1"));
      auto const e = thrown([&] { pam.modeIs(UdpPam::Mode::bound); });
      ASSERT_TRUE(e) << "bind succeeded";
      EXPECT_EQ(e->error(), EADDRNOTAVAIL);
      EXPECT_NE(std::string(e->what()).find(v6 ? "udpPam4-t1-e1: bind [2001:db8::1]:0"
                                               : "udpPam4-t1-e1: bind 192.0.2.1:0"),
                std::string::npos)
          << e->what();
      EXPECT_TRUE(pam.fd() == -1 && pam.mode() == UdpPam::Mode::closed && pam.rxPort() == 0);
   }
}

TEST(PeltoUdpPam, FailedSendsAreCountedAndTracedNeverThrown) {
   // Error, then what some kernel versions give instead; EBADF: the socket stays closed.
   for (auto [dst, port, src, error, older] :
        {std::tuple{"127.0.0.1", 9, "0.0.0.0", EBADF, 0},
         {"127.0.0.1", 0, "0.0.0.0", EINVAL, 0},
         {"127.0.0.1", 9, "192.0.2.1", ENETUNREACH, EINVAL},  // source not local
         {"::1", 9, "2001:db8::1", EINVAL, 0},
         {"::ffff:127.0.0.1", 9, "::", ENETUNREACH, 0}}) {  // IPv4-mapped, IPv6-only socket
      SCOPED_TRACE(std::string(dst) + " from " + src);
      testsupport::TextTrace trace({{&Dualog::facility("UdpPam"), 9}});
      FailureLog failures;
      UdpPam pam("udpPamErr");
      bool const v6 = std::strchr(src, ':');
      pam.ipv6EnIs(v6);
      if (error != EBADF) {
         pam.modeIs(UdpPam::Mode::open);
      }
      if (v6) {
         pam.txDstIp6AddrIs(ip6(dst)), pam.txSrcIp6AddrIs(ip6(src));
      } else {
         pam.txDstIpAddrIs(ip4(dst)), pam.txSrcIpAddrIs(ip4(src));
      }
      pam.txPortIs(static_cast<std::uint16_t>(port));
      EXPECT_NO_THROW(pam.txPktIs(pkt("lost")));
      EXPECT_TRUE(pam.txErrors() == 1u && pam.txPkts() == 0u && pam.rxPort() == 0);
      int const err = pam.lastTxErrno();
      EXPECT_TRUE(err == error || (older && err == older)) << std::strerror(err);
      EXPECT_EQ(std::ranges::count(trace.lines, "UdpPam/2 udpPamErr: txPkt failed: " +
                                                    std::string(std::strerror(err))),
                1)
          << ::testing::PrintToString(trace.lines);
      // The observer hears it with the destination it was for.
      ASSERT_EQ(failures.seen.size(), 1u);
      Pelto::TxFailure const& f = failures.seen[0];
      EXPECT_TRUE(f.module == &pam && f.error == err && !f.fromIcmp && f.dstPort == port);
      EXPECT_EQ(f.dst, v6 ? Pelto::IpGenAddr(ip6(dst)) : Pelto::IpGenAddr(ip4(dst)));
   }
}

TEST(PeltoUdpPam, FamilyChangeWhileOpenWaitsForTheNextOpen) {
   LoopbackCollector rx4(false), rx6(true);
   UdpPam pam("udpPamFam");
   pam.modeIs(UdpPam::Mode::open);
   pam.ipv6EnIs(true);  // while open
   aimAtLoopback(pam, rx4.port());
   pam.txPktIs(pkt("still v4"));
   receive(rx4, "still v4");
   pam.modeIs(UdpPam::Mode::open);
   EXPECT_EQ(pam.rxPort(), 0);  // a fresh socket has no port yet
   aimAtLoopback(pam, rx6.port());
   pam.txPktIs(pkt("now v6"));
   receive(rx6, "now v6");
}

// A namespace name is one file name in /var/run/netns of at most 150 bytes; a refused name leaves
// the previous one in place.
TEST(PeltoUdpPam, NamespaceNameOver150BytesOrLeavingTheNetnsDirIsRejectedAndAMissingOneIsEnoent) {
   ino_t const home = NetNs::currentInode();
   UdpPam pam("udpPamNs");
   auto const tooLong = thrown<Kivo::RangeException>([&] { pam.netNsIs(std::string(151, 'n')); });
   ASSERT_TRUE(tooLong) << "151 bytes accepted";
   EXPECT_STREQ(tooLong->what(), "Pelto::NamespaceName::value::bytes > 150 not allowed");
   pam.netNsIs(std::string(150, 'n'));
   EXPECT_EQ(pam.netNs(), std::string(150, 'n'));
   std::vector<std::string> const badNames = {
       ".", "..", "a/b", "../../proc/1/ns/net", "/", std::string("n\0s", 3)};
   for (std::string const& bad : badNames) {
      auto const e = thrown<Kivo::RangeException>([&] { pam.netNsIs(bad); });
      ASSERT_TRUE(e) << bad << " accepted";
      EXPECT_NE(std::string(e->what()).find("is not a name in /var/run/netns/"), std::string::npos)
          << e->what();
      EXPECT_EQ(pam.netNs(), std::string(150, 'n'));
   }
   auto const missing = thrown([&] { pam.modeIs(UdpPam::Mode::open); });
   ASSERT_TRUE(missing) << "opened in a missing namespace";
   EXPECT_EQ(missing->error(), ENOENT) << missing->what();
   EXPECT_TRUE(pam.fd() == -1 && pam.mode() == UdpPam::Mode::closed);
   EXPECT_EQ(NetNs::currentInode(), home);
}

// The socket is made in the namespace, so it reaches the namespace's own loopback and binds to
// addresses only the namespace has; the test thread itself never leaves home.
TEST(PeltoUdpPam, SocketLivesInItsNamespaceWhileTheThreadStaysHome) {
   std::string whyNot;
   auto const ns = namespaceWith198_51_100_1("ipfixtest-", &whyNot);
   if (!ns) {
      GTEST_SKIP() << whyNot;
   }
   ino_t const home = NetNs::currentInode();
   LoopbackCollector outside(false);
   auto inside = ns->run([] { return std::make_unique<LoopbackCollector>(false); });

   UdpPam pam("udpPamNs");
   pam.netNsIs(ns->name()), pam.modeIs(UdpPam::Mode::open);
   EXPECT_EQ(NetNs::currentInode(), home);
   aimAtLoopback(pam, outside.port());
   pam.txPktIs(pkt("to outside"));  // nobody listens on that port in the namespace
   aimAtLoopback(pam, inside->port());
   pam.txPktIs(pkt("to inside"));
   EXPECT_EQ(receive(*inside, "to inside").srcPort, pam.rxPort());
   EXPECT_TRUE(outside.drain(100).empty());

   pam.rxIpAddrIs(ip4("198.51.100.1"));
   EXPECT_NO_THROW(pam.modeIs(UdpPam::Mode::bound));
   EXPECT_NE(pam.rxPort(), 0);
   pam.netNsIs("");
   EXPECT_THROW(pam.modeIs(UdpPam::Mode::bound), Kivo::ErrnoException);
   EXPECT_EQ(NetNs::currentInode(), home);
}

// With a source, every destination is sent to from a socket connected to it; the collectors see
// the module's one port, and priority and type of service reach every socket. Reopening closes
// them.
TEST(PeltoUdpPam, EachDestinationOfABoundSourceHasAConnectedSocketOnTheModulesPort) {
   for (bool v6 : {false, true}) {
      SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
      LoopbackCollector a(v6), b(v6);
      UdpPam pam("udpPamPeers");
      pam.ipv6EnIs(v6), pam.txPrioIs(Pelto::IpTrafficControl::interactive);
      pam.modeIs(UdpPam::Mode::open);
      sourceIsLoopback(pam);
      for (auto [rx, payload] : {std::pair{&a, "to a"}, {&b, "to b"}, {&a, "a again"}}) {
         aimAtLoopback(pam, rx->port());
         pam.txPktIs(pkt(payload));
         EXPECT_EQ(receive(*rx, payload).srcPort, pam.rxPort()) << payload;
      }
      EXPECT_EQ(peerPorts(pam),
                (std::vector{std::min(a.port(), b.port()), std::max(a.port(), b.port())}));
      pam.txPrioIs(Pelto::IpTrafficControl::control);
      for (int fd : pam.fds()) {
         int prio = -1;
         socklen_t len = sizeof(prio);
         ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_PRIORITY, &prio, &len), 0);
         EXPECT_EQ(prio, 7);
      }
      pam.txTosIs(Pelto::DscpValue(46).tos());
      for (LoopbackCollector* rx : {&b, &a}) {
         aimAtLoopback(pam, rx->port());
         pam.txPktIs(pkt("ef"));
         EXPECT_EQ(receive(*rx, "ef").tos, 184);
      }
      EXPECT_EQ(std::tuple(pam.txPkts(), pam.txErrors()), std::tuple(5u, 0u));
      pam.modeIs(UdpPam::Mode::open);
      EXPECT_EQ(pam.fds().size(), 1u);
   }
}

// A collector without a listener answers with ICMP port unreachable, which the kernel queues on
// the socket the datagram left from. Without a source that is the module's one unconnected
// socket, so the next send, to a live collector, reports it; with one, each collector has its own
// connected socket, so the error waits for the next send to the dead collector. Either way it is
// reported against the datagram's own destination, and the send that learns of it still goes out.
TEST(PeltoUdpPam, PortUnreachableIsReportedAtItsSocketsNextSendAgainstItsOwnDestination) {
   for (auto [v6, withSource] :
        {std::pair{false, false}, {true, false}, {false, true}, {true, true}}) {
      SCOPED_TRACE(std::string(v6 ? "IPv6" : "IPv4") + (withSource ? " with a source" : ""));
      std::uint16_t const deadPort = LoopbackCollector::unusedPort(v6);
      LoopbackCollector live(v6);
      FailureLog failures;
      UdpPam pam("udpPamIcmp");
      pam.ipv6EnIs(v6), pam.modeIs(UdpPam::Mode::open);
      if (withSource) {
         sourceIsLoopback(pam);
      }
      aimAtLoopback(pam, deadPort);
      pam.txPktIs(pkt("to nobody"));
      EXPECT_TRUE(pam.txErrors() == 0 && failures.seen.empty());
      ASSERT_TRUE(errorQueued(pam));

      aimAtLoopback(pam, live.port());
      pam.txPktIs(pkt("to someone"));
      receive(live, "to someone");
      EXPECT_EQ(failures.seen.size(), withSource ? 0u : 1u);
      aimAtLoopback(pam, deadPort);
      pam.txPktIs(pkt("to nobody again"));
      EXPECT_EQ(std::tuple(pam.txErrors(), pam.txPkts()), std::tuple(0u, 3u));
      ASSERT_EQ(failures.seen.size(), 1u);
      Pelto::TxFailure const& f = failures.seen[0];
      EXPECT_EQ(std::tuple(f.module, f.error, f.fromIcmp, f.dstPort, f.dst),
                std::tuple(&pam, ECONNREFUSED, true, deadPort,
                           v6 ? Pelto::IpGenAddr(ip6("::1")) : Pelto::IpGenAddr(ip4("127.0.0.1"))))
          << std::strerror(f.error);
   }
}

// Past maxPeers() destinations every datagram still arrives from the module's port. While every
// peer is in use a new destination goes through the open socket; once the peer used longest ago
// has been idle for peerIdleSends(), it makes room, and the error queued on it (here its
// collector's port unreachable) is reported then, against that collector.
TEST(PeltoUdpPam, PastMaxPeersBusyPeersStayAndTheLeastRecentlyUsedIdleOneMakesRoom) {
   std::vector<std::unique_ptr<LoopbackCollector>> rx;
   for (std::size_t i = 0; i < UdpPam::maxPeers() + 1; ++i) {
      rx.push_back(std::make_unique<LoopbackCollector>(false));
   }
   std::uint16_t const deadPort = LoopbackCollector::unusedPort(false);
   FailureLog failures;
   UdpPam pam("udpPamMany");
   pam.modeIs(UdpPam::Mode::open);
   sourceIsLoopback(pam);
   auto const sendTo = [&](std::size_t i) {
      aimAtLoopback(pam, rx[i]->port());
      pam.txPktIs(pkt("n" + std::to_string(i)));
      EXPECT_EQ(receive(*rx[i], "n" + std::to_string(i)).srcPort, pam.rxPort()) << i;
   };
   // The peers' destinations before the dead port's peer makes room, and after.
   std::vector<std::uint16_t> before{deadPort};
   for (std::size_t i = 0; i < UdpPam::maxPeers(); ++i) {
      if (i != 1) {
         before.push_back(rx[i]->port());
      }
   }
   std::vector<std::uint16_t> after = before;
   std::erase(after, deadPort);
   after.push_back(rx[UdpPam::maxPeers()]->port());
   std::ranges::sort(before), std::ranges::sort(after);
   // Collector 1 is the dead port: its peer holds the error.
   for (std::size_t i = 0; i < UdpPam::maxPeers(); ++i) {
      if (i == 1) {
         aimAtLoopback(pam, deadPort), pam.txPktIs(pkt("to nobody"));
      } else {
         sendTo(i);
      }
   }
   ASSERT_TRUE(errorQueued(pam));
   sendTo(0);  // now the most recent: the dead port's peer is the one used longest ago
   sendTo(UdpPam::maxPeers());
   EXPECT_EQ(peerPorts(pam), before);  // every peer stayed: the new destination has none
   EXPECT_TRUE(failures.seen.empty());
   for (std::uint64_t n = 0; n < UdpPam::peerIdleSends(); ++n) {
      aimAtLoopback(pam, rx[2]->port()), pam.txPktIs(pkt("keeping 2 busy"));
   }
   rx[2]->drain(100);
   sendTo(UdpPam::maxPeers());
   EXPECT_EQ(peerPorts(pam), after);
   ASSERT_EQ(failures.seen.size(), 1u);
   EXPECT_EQ(
       std::tuple(failures.seen[0].error, failures.seen[0].fromIcmp, failures.seen[0].dstPort),
       std::tuple(ECONNREFUSED, true, deadPort));
   EXPECT_EQ(pam.txErrors(), 0u);
}

// Peers are made in the namespace the module was opened in, even after its name changed.
TEST(PeltoUdpPam, PeersLiveInTheNamespaceTheModuleWasOpenedIn) {
   std::string whyNot;
   auto const ns = namespaceWith198_51_100_1("ipfixpeer-", &whyNot);
   if (!ns) {
      GTEST_SKIP() << whyNot;
   }
   auto first = ns->run([] { return std::make_unique<LoopbackCollector>(false); });
   auto second = ns->run([] { return std::make_unique<LoopbackCollector>(false); });
   UdpPam pam("udpPamPeerNs");
   pam.netNsIs(ns->name()), pam.modeIs(UdpPam::Mode::open);
   pam.txSrcIpAddrIs(ip4("198.51.100.1"));
   aimAtLoopback(pam, first->port());
   pam.txPktIs(pkt("first"));
   pam.netNsIs("");  // for the next open only
   aimAtLoopback(pam, second->port());
   pam.txPktIs(pkt("second"));
   for (auto [rx, payload] : {std::pair{first.get(), "first"}, {second.get(), "second"}}) {
      auto const got = receive(*rx, payload);
      EXPECT_TRUE(got.srcAddr == "198.51.100.1" && got.srcPort == pam.rxPort()) << payload;
   }
   EXPECT_EQ(pam.fds().size(), 3u);
}
