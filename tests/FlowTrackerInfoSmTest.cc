#include <gtest/gtest.h>

#include <unistd.h>

#include <optional>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "support/DeathText.h"
#include "support/ExportFixture.h"
#include "support/LoopbackCollector.h"
#include "support/NetNs.h"

using namespace FlowTracking;
using HwFlowTracking::ExporterConfig;

namespace {

// One tracker "t1" with one exporter "e1", its IPv4 source resolved, and the info tree on it.
class InfoTree : public ::testing::Test {
 protected:
   void SetUp() override {
      exp = config->ftConfigIs("t1")->expConfigIs("e1");
      exp->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1")), exp->exporter4ResolvedIs(true);
      sm = Kivo::make<FlowTrackingInfoSm>(scheduler, config, info, agentInfo);
   }
   Kivo::Ptr<ExporterInfo> expInfo() const {
      auto ft = info->ftInfo("t1");
      return ft ? ft->expInfo("e1") : nullptr;
   }
   Kivo::Ptr<CollectorInfo> coll(Kivo::String const& name) const {
      return expInfo()->collInfo(name);
   }

   Kivo::ScopedManualClock clock;
   Kivo::Ptr<Orbo::TaskScheduler> scheduler = Kivo::make<Orbo::TaskScheduler>();
   Kivo::Ptr<HwFlowTracking::Config> config = Kivo::make<HwFlowTracking::Config>();
   Kivo::Ptr<FlowTrackingInfo> info = Kivo::make<FlowTrackingInfo>(FlowTrackingType::sampled);
   Kivo::Ptr<Ipfix::AgentInfo> agentInfo = Ipfix::agentInfoFactory();
   Kivo::Ptr<ExporterConfig> exp;
   Kivo::Ptr<FlowTrackingInfoSm> sm;
};

Pelto::IpAndPort v4(char const* s) {
   return *Pelto::IpAndPort::parse(s);
}
Pelto::Ip6AndPort v6(char const* s) {
   return *Pelto::Ip6AndPort::parse(s);
}

}  // namespace

TEST_F(InfoTree, TreeFollowsConfigurationAndStateMachinesGoFirst) {
   ASSERT_TRUE(expInfo());
   ASSERT_TRUE(sm->ftInfoSm("t1"));
   EXPECT_TRUE(sm->ftInfoSm("t1")->expInfoSm("e1"));
   EXPECT_EQ(expInfo()->udpPam4()->name(), "udpPam4-t1-e1");
   EXPECT_FALSE(expInfo()->udpPam6());

   // When the exporter goes, its state machine has closed the module before the record goes.
   Kivo::Ptr<Pelto::UdpPam> pam = expInfo()->udpPam4();
   bool recordGoneWithPamOpen = false;
   Kivo::Reactor r;
   r.watch(info->ftInfo("t1")->onExpInfo(), [&](Kivo::String const&) {
      recordGoneWithPamOpen = pam->mode() != Pelto::UdpPam::Mode::closed;
   });
   config->ftConfig("t1")->expConfigDel("e1");
   EXPECT_FALSE(recordGoneWithPamOpen);
   EXPECT_EQ(pam->mode(), Pelto::UdpPam::Mode::closed);
   EXPECT_FALSE(info->ftInfo("t1")->expInfo("e1") || sm->ftInfoSm("t1")->expInfoSm("e1"));

   config->ftConfigDel("t1");
   EXPECT_FALSE(info->ftInfo("t1") || sm->ftInfoSm("t1"));
}

// Scripts of collector configuration changes and the sequence number each collector ends with.
TEST_F(InfoTree, SequenceNumberLifecycle) {
   exp->collector4Is("c", v4("192.0.2.1:4739"));
   coll("c")->ipfixMsgSeqNoInc({5});
   exp->collector4Is("c", v4("192.0.2.2:4739"));  // address change: kept
   EXPECT_EQ(coll("c")->ipfixMsgSeqNo().value, 5u);
   exp->collector6Is("c", v6("[2001:db8::1]:4739"));  // in both families: one record
   exp->collector4Del("c");                           // still in the IPv6 collection: kept
   EXPECT_EQ(coll("c")->ipfixMsgSeqNo().value, 5u);
   exp->collector6Del("c");  // in neither: removed
   EXPECT_FALSE(coll("c"));
   exp->collector4Is("c", v4("192.0.2.1:4739"));  // configured again: starts over
   EXPECT_EQ(coll("c")->ipfixMsgSeqNo().value, 0u);
   EXPECT_EQ(expInfo()->collInfoColl().size(), 1u);
}

TEST_F(InfoTree, SequenceNumberWrapsAndZeroDeltaNotifiesNobody) {
   exp->collector4Is("c", v4("192.0.2.1:4739"));
   auto c = coll("c");
   int notified = 0;
   Kivo::Reactor r;
   r.watch(c->onIpfixMsgSeqNo(), [&] { ++notified; });
   EXPECT_EQ(c->ipfixMsgSeqNoInc({0}).value, 0u);
   EXPECT_EQ(notified, 0);
   c->ipfixMsgSeqNoIs({0xffffffffu});
   EXPECT_EQ(c->ipfixMsgSeqNoInc({2}).value, 1u);
   EXPECT_EQ(notified, 2);
}

// Every state of the exporter configuration that a reactor sees: never ready with a zero port or
// a port other than the module's.
TEST_F(InfoTree, ReadinessIsPublishedPortFirstAndWithdrawnReadyFirst) {
   std::vector<std::pair<bool, std::uint16_t>> seen;
   auto record = [&] { seen.emplace_back(exp->exporter4Ready(), exp->rxPort4()); };
   Kivo::Reactor r;
   r.watch(exp->onExporter4Ready(), record);
   r.watch(exp->onRxPort4(), record);

   // A real send on loopback teaches the module its port, as the template sender does.
   testsupport::LoopbackCollector rx;
   auto pkt = Kivo::make<Pelto::Pkt>(64);
   pkt->tailGrow(8);
   sendPkt4(pkt, expInfo()->udpPam4(), exp->srcIp4(), rx.ipAndPort(), Pelto::DscpValue(46));
   auto const got = rx.drain(1000);
   ASSERT_EQ(got.size(), 1u);
   EXPECT_EQ(got[0].tos, 184);
   EXPECT_TRUE(seen.empty());  // an open module without a known port is not ready
   expInfo()->rxPort4Is(expInfo()->udpPam4()->rxPort());

   std::uint16_t const port = got[0].srcPort;
   EXPECT_EQ(std::tuple(exp->exporter4Ready(), exp->rxPort4()), std::tuple(true, port));
   exp->exporter4ResolvedIs(false);
   EXPECT_FALSE(expInfo()->udpPam4());
   EXPECT_EQ(seen, (std::vector<std::pair<bool, std::uint16_t>>{
                       {false, port}, {true, port}, {false, port}, {false, 0}}));
   // A new module has a new port: not ready until it has sent again.
   exp->exporter4ResolvedIs(true);
   EXPECT_TRUE(expInfo()->udpPam4());
   EXPECT_EQ(std::tuple(exp->exporter4Ready(), exp->rxPort4()),
             std::tuple(false, std::uint16_t(0)));
}

TEST_F(InfoTree, MultiThreadedAgentPublishesNothingButRemovalStillClears) {
   agentInfo->multiThreadedIs(true);
   exp->rxPort4Is(1234);  // as left by an earlier owner
   exp->exporter4ReadyIs(true);
   expInfo()->rxPort4Is(5555);
   EXPECT_EQ(std::tuple(exp->exporter4Ready(), exp->rxPort4()),
             std::tuple(true, std::uint16_t(1234)));
   config->ftConfig("t1")->expConfigDel("e1");
   EXPECT_EQ(std::tuple(exp->exporter4Ready(), exp->rxPort4()),
             std::tuple(false, std::uint16_t(0)));
}

// "" and "default" are the default namespace; any other VRF has "ns-" + its name, as long as that
// stays one file name in /var/run/netns.
TEST(FlowTrackerInfoSm, VrfNameToNetworkNamespace) {
   struct Case {
      std::string vrf;
      std::optional<std::string> netNs;  // none: refused
   };
   std::string const longest(100, 'v');
   Case const cases[] = {
       {"", ""},
       {"default", ""},
       {"red", "ns-red"},
       {"..red", "ns-..red"},  // dots inside a name are fine
       {longest, "ns-" + longest},
       {longest + "v", std::nullopt},
       {".", std::nullopt},
       {"..", std::nullopt},
       {"../red", std::nullopt},
       {"a/b", std::nullopt},
       {"/", std::nullopt},
       {std::string("re\0d", 4), std::nullopt},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.vrf.size() > 20 ? std::to_string(c.vrf.size()) + " bytes" : c.vrf);
      if (c.netNs) {
         EXPECT_EQ(netNsForVrf(c.vrf), *c.netNs);
      } else {
         EXPECT_THROW(netNsForVrf(c.vrf), Kivo::RangeException);
      }
   }
   try {
      netNsForVrf(longest + "v");
   } catch (Kivo::RangeException const& e) {
      EXPECT_STREQ(e.what(), "L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed");
   }
}

// A VRF whose namespace cannot be used stops nothing: the failure is traced, the family has no
// module and is not ready, and the next change of the VRF or the resolved flag tries again.
TEST_F(InfoTree, UnusableVrfLeavesTheFamilyWithoutModuleAndNotReady) {
   struct Case {
      std::string vrf;
      char const* traceStart;
      char const* traceHas;
   };
   Case const cases[] = {
       {"ipfix-test-no-such-vrf", "Caught ErrnoException: ", "ns-ipfix-test-no-such-vrf"},
       {"..", "Caught RangeException: ", "cannot name a network namespace"},
       {"../../proc/self/ns/net", "Caught RangeException: ", "cannot name a network namespace"},
       {std::string(101, 'v'), "Caught RangeException: ", "L3::VrfName::maxLength"},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.vrf);
      // The port is published, as after a first send: the change must take it back.
      expInfo()->rxPort4Is(4321);
      ASSERT_TRUE(exp->exporter4Ready());
      Snaplog::clear();
      EXPECT_NO_THROW(exp->vrfNameIs(c.vrf));  // reopens the resolved family in the new VRF
      EXPECT_FALSE(expInfo()->udpPam4());
      EXPECT_EQ(std::tuple(exp->exporter4Ready(), exp->rxPort4()),
                std::tuple(false, std::uint16_t(0)));
      EXPECT_EQ(testsupport::traced(c.traceStart, c.traceHas), 1u);
      EXPECT_NO_THROW(exp->exporter6ResolvedIs(true));
      EXPECT_FALSE(expInfo()->udpPam6());
      exp->exporter6ResolvedIs(false);
      // A usable VRF again: a module in the default namespace.
      exp->vrfNameIs("default");
      ASSERT_TRUE(expInfo()->udpPam4());
      EXPECT_EQ(expInfo()->udpPam4()->netNs(), "");
   }
   exp->exporter6ResolvedIs(true);
   ASSERT_TRUE(expInfo()->udpPam6());
   EXPECT_EQ(std::tuple(expInfo()->udpPam6()->name(), expInfo()->udpPam6()->netNs()),
             std::tuple(Kivo::String("udpPam6-t1-e1"), Kivo::String()));
}

// Trackers "t1" (exporters "e1", "e2") and "t2" (exporter "e3"): "e2" is in a VRF whose namespace
// does not exist yet when the tree is built.
class MissingNamespace : public testsupport::ExportFixture {
 protected:
   MissingNamespace() {
      auto e3 = hwConfig->ftConfigIs("t2")->expConfigIs("e3");
      e3->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1")), e3->exporter4ResolvedIs(true);
      exporter("e2")->vrfNameIs(vrf);
   }
   std::string const vrf = "ipfixtest-" + std::to_string(getpid());
};

TEST_F(MissingNamespace, OnlyItsExporterStaysNotReadyUntilTheResolvedFlagChanges) {
   Snaplog::clear();
   start();
   EXPECT_TRUE(exporter("e1")->exporter4Ready() && exporter("e1")->exporter6Ready());
   EXPECT_FALSE(a.messages(1000).empty() || v6.messages(1000).empty());
   auto e2 = info->ftInfo("t1")->expInfo("e2");
   ASSERT_TRUE(e2 && infoSm->ftInfoSm("t1")->expInfoSm("e2"));
   ASSERT_TRUE(infoSm->ftInfoSm("t2") && infoSm->ftInfoSm("t2")->expInfoSm("e3"));
   EXPECT_TRUE(info->ftInfo("t2")->expInfo("e3")->udpPam4());
   EXPECT_FALSE(e2->udpPam4() || e2->udpPam6());
   EXPECT_FALSE(exporter("e2")->exporter4Ready() || exporter("e2")->exporter6Ready());
   EXPECT_EQ(testsupport::traced("Caught ErrnoException: ", "ns-" + vrf), 2u);  // one per family
   EXPECT_TRUE(b.messages(100).empty());

   std::string whyNot;
   auto ns = testsupport::NetNs::create("ns-" + vrf, &whyNot);
   if (!ns) {
      GTEST_SKIP() << whyNot;
   }
   auto inside = ns->run([] { return std::make_unique<testsupport::LoopbackCollector>(false); });
   exporter("e2")->collector4Is("b", inside->ipAndPort());
   scheduler->runFor(*clock, 60.0);  // nothing retries on its own
   EXPECT_FALSE(e2->udpPam4() || exporter("e2")->exporter4Ready());

   exporter("e2")->exporter4ResolvedIs(false), exporter("e2")->exporter4ResolvedIs(true);
   ASSERT_TRUE(scheduler->runUntilIdle());
   ASSERT_TRUE(e2->udpPam4());
   EXPECT_EQ(e2->udpPam4()->netNs(), "ns-" + vrf);
   EXPECT_EQ(std::tuple(exporter("e2")->exporter4Ready(), exporter("e2")->rxPort4()),
             std::tuple(true, e2->udpPam4()->rxPort()));
   EXPECT_FALSE(exporter("e2")->exporter6Ready());  // its flag did not change
   auto const msgs = inside->messages(1000);
   ASSERT_FALSE(msgs.empty() || msgs[0].templates().empty());
   EXPECT_EQ(msgs[0].observationDomainId, 7u);
   templateSm = nullptr;  // before the namespace goes
   infoSm = nullptr;
}

TEST(FlowTrackerInfoSm, ExporterLogMessagesFormatTheirFiveArguments) {
   EXPECT_EQ(formatLogMessage(flowTrackingExporterActive, "IPv4", "e1", "red", "sampled", "t1"),
             "IPv4 exporter e1 in VRF red, in sampled flow tracker t1 is active.");
   EXPECT_EQ(formatLogMessage(flowTrackingExporterInactive, "IPv6", "e%s", "", "hardware", "t"),
             "IPv6 exporter e%s in VRF , in hardware flow tracker t is inactive.");
}

// Each family's description reaches that family's attributes and never the other's: written
// through the description, read back under the platform's own names.
TEST(FlowTrackerInfoSm, FamilyDescriptionTouchesOnlyItsOwnFamily) {
   // Resolved, ready, the ports of the configuration and of the info, and the module.
   auto seen = [](ExporterConfig const& c, ExporterInfo const& i, bool v4) {
      return v4 ? std::tuple(c.exporter4Resolved(), c.exporter4Ready(), c.rxPort4(), i.rxPort4(),
                             static_cast<bool>(i.udpPam4()))
                : std::tuple(c.exporter6Resolved(), c.exporter6Ready(), c.rxPort6(), i.rxPort6(),
                             static_cast<bool>(i.udpPam6()));
   };
   using Seen = std::tuple<bool, bool, std::uint16_t, std::uint16_t, bool>;
   for (Family const family : {Family::v4, Family::v6}) {
      ExporterConfig cfg("e");
      ExporterInfo info("e");
      withFamily(family, [&]<class F>(F) {
         F::resolvedIs(cfg, true);
         F::readyIs(cfg, true);
         F::rxPortIs(cfg, 7);
         F::rxPortIs(info, 9);
         F::udpPamIs(info, Kivo::make<Pelto::UdpPam>("p"));
         EXPECT_TRUE(F::resolved(cfg) && F::ready(cfg) && F::rxPort(cfg) == 7 && F::udpPam(info));
      });
      bool const v4 = family == Family::v4;
      EXPECT_EQ(seen(cfg, info, v4), Seen(true, true, 7, 9, true)) << v4;
      EXPECT_EQ(seen(cfg, info, !v4), Seen(false, false, 0, 0, false)) << v4;
   }
}
