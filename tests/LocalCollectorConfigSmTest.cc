#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "Ipfix/LocalCollectorConfigSm.h"
#include "support/DeathText.h"
#include "support/NetNs.h"
#include "support/Probes.h"

using namespace FlowTracking;
using HwFlowTracking::ExporterConfig;
using Pelto::IpGenAddr;
using testsupport::traced;

namespace {

auto const ip4 = [](char const* s) { return *Pelto::IpAddr::parse(s); };
auto const ip6 = [](char const* s) { return *Pelto::Ip6Addr::parse(s); };

// Tracker "t1" with software export, the state machine's inputs, and the state machine once
// start() made it. Time only moves through run().
struct Rig {
   Rig() { swConfig->swExportIs(true), Snaplog::clear(); }
   // An exporter with DSCP 46, ready for IPv4 at 127.0.0.1 and/or IPv6 at ::1.
   Kivo::Ptr<ExporterConfig> exporter(char const* name, bool ready4, bool ready6 = false) {
      auto e = ftConfig->expConfigIs(name);
      e->srcIp4Is(ip4("127.0.0.1")), e->srcIp6Is(ip6("::1")), e->dscpIs(Pelto::DscpValue(46));
      e->exporter4ReadyIs(ready4), e->exporter6ReadyIs(ready6);
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
   addrinfo hints{}, *ai = nullptr;
   hints.ai_socktype = SOCK_DGRAM;
   hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
   ASSERT_EQ(getaddrinfo(lcc.destIp().toString().c_str(), std::to_string(lcc.destPort()).c_str(),
                         &hints, &ai),
             0);
   int const fd = socket(ai->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
   ssize_t const sent = sendto(fd, "lc", 2, 0, ai->ai_addr, ai->ai_addrlen);
   close(fd);
   freeaddrinfo(ai);
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
      EXPECT_EQ(LocalCollectorConfigSmProbe::pamRetryTask(*rig.sm)->dueTime(), due);
      rig.run(0.019);
      EXPECT_TRUE(reviewTrace().empty());
      for (std::size_t left : {2u, 1u, 0u}) {
         double const start = LocalCollectorConfigSmProbe::pamRetryTask(*rig.sm)->dueTime();
         rig.clock->nowIs(start);
         rig.scheduler->runUntilIdle();
         EXPECT_EQ(rig.sm->exporterReviewListColl().size(), yieldAlways ? left : 0u);
         if (!yieldAlways) {
            break;
         }
         EXPECT_EQ(LocalCollectorConfigSmProbe::pamRetryTask(*rig.sm)->dueTime(), start + 0.05);
      }
      rig.run(1.0);
      std::string const p = "processing review::", n = "local exporter not ready::",
                        y = "YIELDING::";
      using V = std::vector<std::string>;
      EXPECT_EQ(reviewTrace(), (yieldAlways ? V{p, n, y, p, n, y, p, n, y, "nothing to review ::"}
                                            : V{p, n, n, n, "review done ::"}));
      EXPECT_FALSE(LocalCollectorConfigSmProbe::pamRetryTask(*rig.sm)->scheduled());
   }
}

// The first exporter in name order ready for either family is used, IPv4 first within it; an
// observer sees "ready" only once ports and DSCP are written, and the published port receives.
// Then one change: which ones rebuild, with the reason traced.
TEST(LocalCollectorConfigSm, ChoosesFirstReadyExporterAndRebuildsOnlyOnItsChanges) {
   using Change = void (*)(ExporterConfig & e1, ExporterConfig & e2);
   struct Case {
      bool e1v4, e1v6, e2v4;  // ready for IPv4, IPv6; e2 for IPv4
      char const* pam;
      Change change;
      char const* reason;  // null: the configuration is left untouched
   };
   Change const none = [](auto&, auto&) {};
   char const *v4 = "StftPam4-t1-e1", *v6 = "StftPam6-t1-e1";
   Case const cases[] = {
       {1, 1, 1, v4, none, nullptr},
       {0, 1, 1, v6, none, nullptr},
       {0, 0, 1, "StftPam4-t1-e2", none, nullptr},
       {1, 0, 1, v4,
        [](auto&, auto& e2) {  // another exporter
           e2.srcIp4Is(ip4("127.0.0.9")), e2.dscpIs(Pelto::DscpValue(10));
           e2.vrfNameIs("default"), e2.exporter4ReadyIs(false);
        },
        nullptr},
       {1, 0, 1, v4, [](auto& e1, auto&) { e1.srcIp6Is(ip6("::2")); }, nullptr},
       {1, 0, 1, v4, [](auto& e1, auto&) { e1.srcIp4Is(ip4("127.0.0.2")); }, "SrcIp changed::"},
       {1, 0, 1, v4, [](auto& e1, auto&) { e1.vrfNameIs("default"); }, "VRF name changed::"},
       {1, 0, 1, v4, [](auto& e1, auto&) { e1.dscpIs(Pelto::DscpValue(10)); },
        "dscp value changed::"},
       {0, 1, 1, v6, [](auto& e1, auto&) { e1.srcIp6Is(ip6("::")); }, "SrcIp6 changed::"},
       {0, 1, 1, v6, [](auto& e1, auto&) { e1.exporter6ReadyIs(false), e1.exporter4ReadyIs(true); },
        "exporter6 not ready::"},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(&c - cases);
      Rig rig;
      auto e1 = rig.exporter("e1", c.e1v4, c.e1v6);
      auto e2 = rig.exporter("e2", c.e2v4);
      auto const& used = std::string(c.pam).ends_with("e1") ? *e1 : *e2;
      auto expected = [&](Pelto::UdpPam const& pam) {
         std::string const at =
             (pam.ipv6En() ? IpGenAddr(used.srcIp6()) : used.srcIp4()).toString() + ":" +
             std::to_string(pam.rxPort());
         return std::string(c.pam).substr(12) + "/" + used.vrfName() + "/" + at + "/" + at + "/" +
                used.dscp().toString() + "/ready";
      };
      std::vector<std::string> atReady;
      Kivo::Reactor r;
      r.watch(rig.lcc().onExporterReady(), [&] { atReady.push_back(describe(rig.lcc())); });
      rig.start();
      rig.run();
      auto const before = rig.pam();
      ASSERT_TRUE(before && rig.lcc().exporterReady());
      EXPECT_EQ(before->name(), c.pam);
      EXPECT_TRUE(before->ipv6En() ? rig.pams->udpPam6Ready() : rig.pams->udpPam4Ready());
      std::string const was = expected(*before);
      EXPECT_EQ(atReady, std::vector<std::string>{was});
      expectDatagramReachesPam(rig.lcc(), *before);

      Snaplog::clear();
      c.change(*e1, *e2);
      rig.run();
      auto const after = rig.pam();
      ASSERT_TRUE(after);
      EXPECT_EQ(describe(rig.lcc()), expected(*after));
      if (!c.reason) {
         EXPECT_TRUE(after == before && before->mode() == Pelto::UdpPam::Mode::bound);
         EXPECT_EQ(atReady.size(), 1u);
         continue;
      }
      EXPECT_EQ(reviewTrace(),
                (std::vector<std::string>{"processing review::", c.reason, "review done ::"}));
      ASSERT_EQ(atReady.size(), 3u);
      EXPECT_TRUE(atReady[1].ends_with("/not ready")) << atReady[1];
      EXPECT_EQ(atReady[2], expected(*after));
      EXPECT_EQ(before->mode(), Pelto::UdpPam::Mode::closed);
      EXPECT_NE(after, before);
      expectDatagramReachesPam(rig.lcc(), *after);
   }
}

// Removing the exporter in use clears the configuration; another ready one takes over; the state
// machine going closes its socket.
TEST(LocalCollectorConfigSm, RemovingTheExporterInUseClearsTheConfiguration) {
   Rig rig;
   rig.exporter("e1", true);
   rig.exporter("e2", false);
   rig.start();
   rig.run();
   auto const pam = rig.pam();
   rig.ftConfig->expConfigDel("e1");
   EXPECT_TRUE(rig.lcc().exporterReady());  // not before the task runs
   rig.run();
   EXPECT_EQ(traced("exporter doesn't exist::"), 1u);
   EXPECT_TRUE(!rig.lcc().exporterReady() && rig.lcc().expName().empty());
   EXPECT_TRUE(rig.lcc().destIp().isZero() && rig.lcc().dscpValue() == Pelto::DscpValue(0));
   EXPECT_FALSE(rig.pams->udpPam4() || rig.pams->udpPam6() || rig.pams->udpPam4Ready());
   EXPECT_EQ(pam->mode(), Pelto::UdpPam::Mode::closed);

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
   e1->vrfNameIs("red"), e1->srcIp4Is(ip4("198.51.100.7"));
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

// Other failures to open are raised to the task that runs the review, not retried until the next
// change.
TEST(LocalCollectorConfigSm, OtherOpenFailuresAreRaisedAndLeaveItNotReady) {
   Rig rig;
   rig.vrfStatus->vrfNetNsIs("blue", "lctest-no-such-ns-" + std::to_string(getpid()));
   auto e1 = rig.exporter("e1", true);
   e1->vrfNameIs("blue");
   rig.start();
   Snaplog::clear();
   rig.run();
   EXPECT_EQ(traced("Caught ErrnoException: ", "(errno 2)"), 1u);
   EXPECT_EQ(traced("Caught exception in task ipfixLocalCollectorTask: ", "(errno 2)"), 1u);
   EXPECT_FALSE(rig.lcc().exporterReady() || rig.pams->udpPam4Ready());
   EXPECT_FALSE(LocalCollectorConfigSmProbe::pamRetryTask(*rig.sm)->scheduled());
   e1->vrfNameIs("");
   rig.run();
   EXPECT_TRUE(rig.lcc().exporterReady());
}
