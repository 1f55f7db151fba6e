#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "Ipfix/LocalCollectorConfigSm.h"
#include "Trace/Snaplog.h"
#include "support/DeathText.h"
#include "support/NetNs.h"

using namespace FlowTracking;
using HwFlowTracking::ExporterConfig;
using Pelto::IpGenAddr;

namespace {

Pelto::IpAddr ip4(char const* s) {
   return *Pelto::IpAddr::parse(s);
}
Pelto::Ip6Addr ip6(char const* s) {
   return *Pelto::Ip6Addr::parse(s);
}

// Tracker "t1" with software export, the state machine's inputs, and the state machine once
// start() made it. Time only moves through run().
struct Rig {
   Rig() {
      swConfig->swExportIs(true);
      Snaplog::clear();
   }
   // An exporter, ready for IPv4 at 127.0.0.1 and/or IPv6 at ::1.
   Kivo::Ptr<ExporterConfig> exporter(char const* name, bool ready4, bool ready6 = false) {
      auto e = ftConfig->expConfigIs(name);
      e->srcIp4Is(ip4("127.0.0.1"));
      e->srcIp6Is(ip6("::1"));
      e->exporter4ReadyIs(ready4);
      e->exporter6ReadyIs(ready6);
      return e;
   }
   void start() {
      sm = localCollectorConfigSmFactory("t1", swConfig, ftConfig, pams, vrfStatus, scheduler);
   }
   void run(double seconds = 0.05) { scheduler->runFor(*clock, seconds); }
   HwFlowTracking::LocalCollectorConfig& lcc() const { return *ftConfig->localCollectorConfig(); }
   Kivo::Ptr<Pelto::UdpPam> pam() const {
      return pams->udpPam4() ? pams->udpPam4() : pams->udpPam6();
   }

   Kivo::ScopedManualClock clock;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<FlowTracking::Config> swConfig = Kivo::make<FlowTracking::Config>();
   Kivo::Ptr<HwFlowTracking::FtConfig> ftConfig = Kivo::make<HwFlowTracking::FtConfig>("t1");
   Kivo::Ptr<LocalCollectorPams> pams = Kivo::make<LocalCollectorPams>("t1");
   Kivo::Ptr<Ip::AllVrfStatusLocal> vrfStatus = Ip::allVrfStatusLocalFactory();
   Kivo::Ptr<LocalCollectorConfigSm> sm;
};

// The review's own trace lines ("processing review::", "YIELDING::", the reasons...), in order.
std::vector<std::string> reviewTrace() {
   std::vector<std::string> out;
   for (auto const& l : Snaplog::lines()) {
      if (l.ends_with("::")) {
         out.push_back(l);
      }
   }
   return out;
}

std::size_t traced(std::string_view prefix, std::string_view part = "") {
   std::size_t n = 0;
   for (auto const& l : Snaplog::lines()) {
      n += l.starts_with(prefix) && l.find(part) != std::string::npos;
   }
   return n;
}

std::string describe(HwFlowTracking::LocalCollectorConfig const& c) {
   return c.expName() + "/" + c.vrfName() + "/" + c.srcIp().toString() + ":" +
          std::to_string(c.srcPort()) + "/" + c.destIp().toString() + ":" +
          std::to_string(c.destPort()) + "/" + c.dscpValue().toString() + "/" +
          (c.exporterReady() ? "ready" : "not ready");
}

// Sends a datagram to destIp:destPort from the calling thread's namespace and reads it on the
// module's socket: the published port is where the local collector really listens.
void expectDatagramReachesPam(HwFlowTracking::LocalCollectorConfig const& lcc,
                              Pelto::UdpPam const& pam) {
   bool const v6 = lcc.destIp().isV6();
   sockaddr_storage ss{};
   if (v6) {
      *reinterpret_cast<sockaddr_in6*>(&ss) =
          Pelto::Ip6AndPort(lcc.destIp().v6(), lcc.destPort()).toSockaddr();
   } else {
      *reinterpret_cast<sockaddr_in*>(&ss) =
          Pelto::IpAndPort(lcc.destIp().v4(), lcc.destPort()).toSockaddr();
   }
   int const fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   ssize_t const sent = sendto(fd, "lc", 2, 0, reinterpret_cast<sockaddr const*>(&ss),
                               v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
   close(fd);
   ASSERT_EQ(sent, 2) << std::strerror(errno);
   pollfd p{pam.fd(), POLLIN, 0};
   ASSERT_EQ(poll(&p, 1, 2000), 1);
   char buf[8];
   EXPECT_EQ(recv(pam.fd(), buf, sizeof(buf), 0), 2);
}

}  // namespace

TEST(LocalCollectorConfigSm, RequiresSoftwareExport) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   Rig rig;
   rig.swConfig->swExportIs(false);
   EXPECT_DEATH(rig.start(), testsupport::assertText("config()->swExport()"));
}

// Nothing happens in the reacting handler; the list is worked through 0.05 s later, one entry
// per run when every check says yield, all at once otherwise.
TEST(LocalCollectorConfigSm, ReviewListRunsAfterRetryIntervalAndYieldsWhenAsked) {
   for (bool yieldAlways : {true, false}) {
      SCOPED_TRACE(yieldAlways ? "time slice 0" : "default time slice");
      Rig rig;
      rig.scheduler->timeSliceIs(yieldAlways ? 0 : 0.01);
      for (char const* name : {"e3", "e1", "e2"}) {
         rig.exporter(name, false);
      }
      rig.start();
      EXPECT_EQ(rig.sm->exporterReviewListColl().keys(),
                (std::vector<std::string>{"e1", "e2", "e3"}));
      EXPECT_EQ(traced("scheduling review:: e2"), 1u);
      double const due = rig.clock->now() + 0.05;
      rig.run(0.03);
      rig.ftConfig->expConfig("e1")->dscpIs(Pelto::DscpValue(8));  // the earlier run is kept
      EXPECT_EQ(rig.sm->pamRetryTask()->dueTime(), due);
      rig.run(0.019);
      EXPECT_TRUE(reviewTrace().empty());

      std::vector<std::string> expected;
      for (std::size_t left : {2u, 1u, 0u}) {
         double const start = rig.sm->pamRetryTask()->dueTime();
         rig.clock->nowIs(start);
         rig.scheduler->runUntilIdle();
         expected.insert(expected.end(), {"processing review::", "local exporter not ready::"});
         if (!yieldAlways) {
            expected.insert(expected.end(), 2, "local exporter not ready::");
            expected.push_back("review done ::");
            break;
         }
         expected.push_back("YIELDING::");
         EXPECT_EQ(rig.sm->exporterReviewListColl().size(), left);
         EXPECT_EQ(rig.sm->pamRetryTask()->dueTime(), start + 0.05);
      }
      rig.run(1.0);
      if (yieldAlways) {
         expected.push_back("nothing to review ::");
      }
      EXPECT_EQ(reviewTrace(), expected);
      EXPECT_FALSE(rig.sm->pamRetryTask()->scheduled());
   }
}

// The first exporter in name order that is ready for either family, IPv4 first within it. An
// observer sees "ready" only once ports and DSCP are written.
TEST(LocalCollectorConfigSm, ChoosesFirstReadyExporterAndPublishesItsBoundPort) {
   struct Case {
      bool e1v4, e1v6, e2v4;
      char const* pamName;
      char const* addr;
   };
   for (Case c : {Case{true, true, true, "StftPam4-t1-e1", "127.0.0.1"},
                  Case{false, true, true, "StftPam6-t1-e1", "::1"},
                  Case{false, false, true, "StftPam4-t1-e2", "127.0.0.1"}}) {
      SCOPED_TRACE(c.pamName);
      Rig rig;
      rig.exporter("e1", c.e1v4, c.e1v6)->dscpIs(Pelto::DscpValue(46));
      rig.exporter("e2", c.e2v4)->dscpIs(Pelto::DscpValue(46));
      std::vector<std::string> atReady;
      Kivo::Reactor r;
      r.watch(rig.lcc().onExporterReady(), [&] { atReady.push_back(describe(rig.lcc())); });
      rig.start();
      rig.run();
      auto pam = rig.pam();
      ASSERT_TRUE(pam && rig.lcc().exporterReady());
      std::string const port = std::to_string(pam->rxPort());
      std::string const exp = std::string(c.pamName).substr(12);
      EXPECT_EQ(atReady, std::vector<std::string>{exp + "//" + c.addr + ":" + port + "/" + c.addr +
                                                  ":" + port + "/46/ready"});
      EXPECT_EQ(pam->name(), c.pamName);
      EXPECT_EQ(pam->mode(), Pelto::UdpPam::Mode::bound);
      EXPECT_TRUE(pam->ipv6En() ? rig.pams->udpPam6Ready() : rig.pams->udpPam4Ready());
      EXPECT_EQ(traced(std::string("Created Pam: ") + c.pamName +
                       ", txPrio: 2, fd: " + std::to_string(pam->fd())),
                1u);
      EXPECT_EQ(traced(std::string(" Resolved ip/port ") + c.addr + " : " + port), 1u);
      expectDatagramReachesPam(rig.lcc(), *pam);
   }
}

// Changes after the local collector is ready: which ones rebuild it, and the reason traced.
TEST(LocalCollectorConfigSm, OnlyRelevantChangesOfTheExporterInUseRebuild) {
   struct Case {
      char const* what;
      bool v6InUse;
      void (*change)(ExporterConfig& e1, ExporterConfig& e2);
      char const* reason;  // null: the configuration is left untouched
   };
   Case const cases[] = {
       {"other exporter", false,
        [](auto&, auto& e2) {
           e2.srcIp4Is(ip4("127.0.0.9"));
           e2.dscpIs(Pelto::DscpValue(10));
           e2.vrfNameIs("default");
           e2.exporter4ReadyIs(false);
        },
        nullptr},
       {"IPv6 source, IPv4 in use", false, [](auto& e1, auto&) { e1.srcIp6Is(ip6("::2")); },
        nullptr},
       {"source", false, [](auto& e1, auto&) { e1.srcIp4Is(ip4("127.0.0.2")); }, "SrcIp changed::"},
       {"VRF", false, [](auto& e1, auto&) { e1.vrfNameIs("default"); }, "VRF name changed::"},
       {"DSCP only", false, [](auto& e1, auto&) { e1.dscpIs(Pelto::DscpValue(46)); },
        "dscp value changed::"},
       {"IPv6 source", true, [](auto& e1, auto&) { e1.srcIp6Is(ip6("::")); }, "SrcIp6 changed::"},
       {"IPv6 readiness", true,
        [](auto& e1, auto&) {
           e1.exporter6ReadyIs(false);
           e1.exporter4ReadyIs(true);
        },
        "exporter6 not ready::"},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.what);
      Rig rig;
      auto e1 = rig.exporter("e1", !c.v6InUse, c.v6InUse);
      auto e2 = rig.exporter("e2", true);
      rig.start();
      rig.run();
      auto const before = rig.pam();
      std::string const was = describe(rig.lcc());
      std::vector<bool> readySeen;
      Kivo::Reactor r;
      r.watch(rig.lcc().onExporterReady(), [&] { readySeen.push_back(rig.lcc().exporterReady()); });
      Snaplog::clear();
      c.change(*e1, *e2);
      rig.run();
      auto const after = rig.pam();
      if (!c.reason) {
         EXPECT_EQ(describe(rig.lcc()), was);
         EXPECT_TRUE(after == before && before->mode() == Pelto::UdpPam::Mode::bound);
         EXPECT_TRUE(readySeen.empty());
         continue;
      }
      EXPECT_EQ(reviewTrace(),
                (std::vector<std::string>{"processing review::", c.reason, "review done ::"}));
      EXPECT_EQ(readySeen, (std::vector<bool>{false, true}));
      EXPECT_EQ(before->mode(), Pelto::UdpPam::Mode::closed);
      ASSERT_TRUE(after && after != before);
      Pelto::IpGenAddr const src = after->ipv6En() ? IpGenAddr(e1->srcIp6()) : e1->srcIp4();
      std::string const port = std::to_string(after->rxPort());
      EXPECT_EQ(describe(rig.lcc()), "e1/" + e1->vrfName() + "/" + src.toString() + ":" + port +
                                         "/" + src.toString() + ":" + port + "/" +
                                         e1->dscp().toString() + "/ready");
      expectDatagramReachesPam(rig.lcc(), *after);
   }
}

TEST(LocalCollectorConfigSm, RemovingTheExporterInUseClearsTheConfiguration) {
   Rig rig;
   rig.exporter("e1", true)->dscpIs(Pelto::DscpValue(46));
   rig.exporter("e2", false);
   rig.start();
   rig.run();
   auto const pam = rig.pam();
   ASSERT_TRUE(rig.lcc().exporterReady());
   rig.ftConfig->expConfigDel("e1");
   EXPECT_TRUE(rig.lcc().exporterReady());  // not before the task runs
   rig.run();
   EXPECT_EQ(traced("exporter doesn't exist::"), 1u);
   EXPECT_FALSE(rig.lcc().exporterReady());
   EXPECT_EQ(rig.lcc().expName(), "");
   EXPECT_TRUE(rig.lcc().destIp().isZero());
   EXPECT_EQ(rig.lcc().dscpValue(), Pelto::DscpValue(0));
   EXPECT_FALSE(rig.pams->udpPam4() || rig.pams->udpPam6() || rig.pams->udpPam4Ready());
   EXPECT_EQ(pam->mode(), Pelto::UdpPam::Mode::closed);

   // Another exporter becoming ready takes over; the state machine going closes it.
   rig.ftConfig->expConfig("e2")->exporter4ReadyIs(true);
   rig.run();
   EXPECT_EQ(rig.lcc().expName(), "e2");
   auto const e2Pam = rig.pam();
   rig.sm = nullptr;
   EXPECT_FALSE(rig.lcc().exporterReady() || rig.pams->udpPam4());
   EXPECT_EQ(e2Pam->mode(), Pelto::UdpPam::Mode::closed);
}

// The exporter's source address exists only inside the VRF's namespace, and only once the test
// assigns it: until then binding fails with EADDRNOTAVAIL and is retried every 0.05 s.
TEST(LocalCollectorConfigSm, UnassignedSourceAddressIsRetriedUntilAssigned) {
   std::string whyNot;
   auto ns = testsupport::NetNs::create("lctest-" + std::to_string(getpid()), &whyNot);
   if (!ns) {
      GTEST_SKIP() << whyNot;
   }
   Rig rig;
   rig.vrfStatus->vrfNetNsIs("red", ns->name());
   auto e1 = rig.exporter("e1", true);
   e1->vrfNameIs("red");
   e1->srcIp4Is(ip4("198.51.100.7"));
   rig.start();
   auto attempts = [] { return traced("Caught ErrnoException: ", "bind 198.51.100.7:0"); };
   rig.run(0.05);
   EXPECT_EQ(traced("Caught ErrnoException: ", "(errno 99)"), 1u);
   rig.run(0.525);  // 0.10 to 0.55
   EXPECT_EQ(attempts(), 11u);
   EXPECT_FALSE(rig.lcc().exporterReady() || rig.pams->udpPam4());
   EXPECT_TRUE(rig.sm->exporterReviewList("e1"));

   ns->ip({"addr", "add", "198.51.100.7/32", "dev", "lo"});
   rig.run(0.05);
   ASSERT_TRUE(rig.lcc().exporterReady());
   EXPECT_EQ(rig.pam()->netNs(), ns->name());
   ns->run([&] { expectDatagramReachesPam(rig.lcc(), *rig.pam()); });
   rig.run(1.0);
   EXPECT_EQ(attempts(), 11u);  // none after it bound
}

TEST(LocalCollectorConfigSm, OtherOpenFailuresAreRaisedAndLeaveItNotReady) {
   Rig rig;
   rig.vrfStatus->vrfNetNsIs("blue", "lctest-no-such-ns-" + std::to_string(getpid()));
   auto e1 = rig.exporter("e1", true);
   e1->vrfNameIs("blue");
   rig.start();
   try {
      rig.run();
      ADD_FAILURE() << "opened in a missing namespace";
   } catch (Kivo::ErrnoException const& e) {
      EXPECT_EQ(e.error(), ENOENT) << e.what();
   }
   EXPECT_FALSE(rig.lcc().exporterReady() || rig.pams->udpPam4Ready());
   EXPECT_FALSE(rig.sm->pamRetryTask()->scheduled());  // no retry until the next change
   e1->dscpIs(Pelto::DscpValue(1));
   EXPECT_THROW(rig.run(), Kivo::ErrnoException);
   e1->vrfNameIs(std::string(101, 'v'));
   EXPECT_THROW(rig.run(), Kivo::RangeException);
   e1->vrfNameIs("");
   rig.run();
   EXPECT_TRUE(rig.lcc().exporterReady());
}

TEST(LocalCollectorVrfStatus, DefaultAndUnknownVrfsUseTheDefaultNamespace) {
   auto t = Ip::allVrfStatusLocalFactory();
   std::string const longest(100, 'v');
   t->vrfNetNsIs("red", "ns-red");
   t->vrfNetNsIs("default", "ns-elsewhere");
   t->vrfNetNsIs(longest, "ns-long");
   for (auto [vrf, ns] : std::vector<std::pair<std::string, std::string>>{
            {"red", "ns-red"}, {"", ""}, {"default", ""}, {"blue", ""}, {longest, "ns-long"}}) {
      EXPECT_EQ(t->netNs(vrf), ns) << vrf;
   }
   try {
      t->vrfNetNsIs(longest + "v", "x");
      ADD_FAILURE() << "101 bytes accepted";
   } catch (Kivo::RangeException const& e) {
      EXPECT_STREQ(e.what(), "L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed");
   }
   EXPECT_THROW(t->netNs(longest + "v"), Kivo::RangeException);
   EXPECT_EQ(t->vrfNetNsColl().size(), 3u);
}
