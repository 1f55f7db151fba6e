#include <gtest/gtest.h>

#include "Ipfix/FlowTrackerInfoSm.h"
#include "Ipfix/FlowTrackerPktTxUtil.h"
#include "Trace/Snaplog.h"
#include "support/LoopbackCollector.h"

using namespace FlowTracking;
using HwFlowTracking::ExporterConfig;

namespace {

// One tracker "t1" with one exporter "e1", its IPv4 source resolved, and the info tree on it.
class InfoTree : public ::testing::Test {
 protected:
   void SetUp() override {
      exp = config->ftConfigIs("t1")->expConfigIs("e1");
      exp->srcIp4Is(*Pelto::IpAddr::parse("127.0.0.1"));
      exp->exporter4ResolvedIs(true);
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
   EXPECT_FALSE(info->ftInfo("t1")->expInfo("e1"));
   EXPECT_FALSE(sm->ftInfoSm("t1")->expInfoSm("e1"));

   config->ftConfigDel("t1");
   EXPECT_FALSE(info->ftInfo("t1"));
   EXPECT_FALSE(sm->ftInfoSm("t1"));
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
   EXPECT_EQ(exp->rxPort4(), port);
   EXPECT_TRUE(exp->exporter4Ready());
   exp->exporter4ResolvedIs(false);
   EXPECT_FALSE(expInfo()->udpPam4());
   EXPECT_EQ(exp->rxPort4(), 0);
   EXPECT_EQ(seen, (std::vector<std::pair<bool, std::uint16_t>>{
                       {false, port}, {true, port}, {false, port}, {false, 0}}));
   // A new module has a new port: not ready until it has sent again.
   exp->exporter4ResolvedIs(true);
   EXPECT_TRUE(expInfo()->udpPam4());
   EXPECT_FALSE(exp->exporter4Ready());
   EXPECT_EQ(exp->rxPort4(), 0);
}

TEST_F(InfoTree, MultiThreadedAgentPublishesNothingButRemovalStillClears) {
   agentInfo->multiThreadedIs(true);
   exp->rxPort4Is(1234);  // as left by an earlier owner
   exp->exporter4ReadyIs(true);
   expInfo()->rxPort4Is(5555);
   EXPECT_EQ(exp->rxPort4(), 1234);
   EXPECT_TRUE(exp->exporter4Ready());
   config->ftConfig("t1")->expConfigDel("e1");
   EXPECT_EQ(exp->rxPort4(), 0);
   EXPECT_FALSE(exp->exporter4Ready());
}

TEST_F(InfoTree, VrfPicksTheNetworkNamespace) {
   struct Case {
      char const* vrf;
      char const* netNs;
   };
   for (Case c : {Case{"", ""}, Case{"default", ""}}) {
      exp->vrfNameIs(c.vrf);
      exp->exporter6ResolvedIs(true);
      EXPECT_EQ(expInfo()->udpPam6()->netNs(), c.netNs) << c.vrf;
      EXPECT_EQ(expInfo()->udpPam6()->name(), "udpPam6-t1-e1");
      exp->exporter6ResolvedIs(false);
   }
   // A VRF without a namespace on this machine: the error reaches whoever changed the
   // configuration, and the family stays without a module, so it is not ready.
   Snaplog::clear();
   exp->vrfNameIs("ipfix-test-no-such-vrf");
   EXPECT_THROW(exp->exporter6ResolvedIs(true), Kivo::ErrnoException);
   EXPECT_FALSE(expInfo()->udpPam6());
   EXPECT_FALSE(exp->exporter6Ready());
   bool traced = false;
   for (auto const& l : Snaplog::lines()) {
      traced |= l.starts_with("Caught ErrnoException: ") &&
                l.find("ns-ipfix-test-no-such-vrf") != std::string::npos;
   }
   EXPECT_TRUE(traced);

   exp->vrfNameIs(std::string(101, 'v'));
   try {
      exp->exporter4ResolvedIs(false);
      exp->exporter4ResolvedIs(true);
      FAIL() << "a 101-byte VRF name was accepted";
   } catch (Kivo::RangeException const& e) {
      EXPECT_STREQ(e.what(), "L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed");
   }
}

TEST(FlowTrackerInfoSm, ExporterLogMessagesFormatTheirFiveArguments) {
   EXPECT_EQ(formatLogMessage(flowTrackingExporterActive, "IPv4", "e1", "red", "sampled", "t1"),
             "IPv4 exporter e1 in VRF red, in sampled flow tracker t1 is active.");
   EXPECT_EQ(formatLogMessage(flowTrackingExporterInactive, "IPv6", "e%s", "", "hardware", "t"),
             "IPv6 exporter e%s in VRF , in hardware flow tracker t is inactive.");
}
