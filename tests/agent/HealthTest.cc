// Collector health: errno to cause, the health table's writer and reader, the monitor that turns a
// module's failure into a collector's, and a removed collector's failures going with it.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "agent/AgentProcess.h"
#include "agent/AgentScenario.h"
#include "agent/CollectorHealth.h"
#include "agent/ControlSocket.h"

namespace testsupport {
namespace {

using namespace std::chrono_literals;
using Agent::CollectorHealth;
using Agent::HealthKey;
using Agent::SendFailureCause;

TEST(CollectorHealth, ErrnoMapsToItsCause) {
   struct Case {
      int err;
      SendFailureCause cause;
      char const* text;
   } const cases[] = {
       {EMSGSIZE, SendFailureCause::messageTooLong, "message too long"},
       {ECONNREFUSED, SendFailureCause::connectionRefused, "connection refused"},
       {ENETUNREACH, SendFailureCause::unreachable, "unreachable"},
       {EHOSTUNREACH, SendFailureCause::unreachable, "unreachable"},
       {EPERM, SendFailureCause::permission, "permission"},
       {EACCES, SendFailureCause::permission, "permission"},
       {ENOBUFS, SendFailureCause::noBufferSpace, "no buffer space"},
       {EAGAIN, SendFailureCause::noBufferSpace, "no buffer space"},
       {EWOULDBLOCK, SendFailureCause::noBufferSpace, "no buffer space"},
       {EINVAL, SendFailureCause::other, "other"},
       {EBADF, SendFailureCause::other, "other"},
       {0, SendFailureCause::other, "other"},
   };
   for (Case const& c : cases) {
      EXPECT_EQ(Agent::sendFailureCause(c.err), c.cause) << c.err;
      EXPECT_STREQ(Agent::causeText(Agent::sendFailureCause(c.err)), c.text) << c.err;
   }
}

// What another process left in an entry: a reader leaves out entries that fail validation, so
// the formats never get a time past what RFC 3339 writes (5.08765e+59 once overflowed it).
TEST(CollectorHealth, ValidationRefusesTimesThatAreNotTimesAndNegativeErrnos) {
   struct Case {
      double time;
      int err;
      char const* error;
   } const cases[] = {
       {0, 0, ""},
       {1.7e9, ECONNREFUSED, ""},
       {253402300799.0, 0, ""},
       {253402300800.0, 0, "last failure time is not a time"},
       {5.08765e+59, 0, "last failure time is not a time"},
       {-1, 0, "last failure time is not a time"},
       {std::nan(""), 0, "last failure time is not a time"},
       {HUGE_VAL, 0, "last failure time is not a time"},
       {1.7e9, -1, "negative errno -1"},
   };
   for (Case const& c : cases) {
      CollectorHealth h;
      h.lastFailureTime = c.time;
      h.lastFailureErrno = c.err;
      EXPECT_EQ(h.validationError(), c.error) << c.time << " " << c.err;
   }
   EXPECT_EQ(Agent::rfc3339(253402300799.0), "9999-12-31T23:59:59.000Z");
}

HealthKey key(char const* ft, char const* exp, char const* addr, std::uint16_t port) {
   return HealthKey(ft, exp, {*Pelto::IpGenAddr::parse(addr), port});
}

// Counting, removal of collectors that went, and clear requests by tracker, exporter and
// collector, as a reader in another process would see them.
TEST(CollectorHealth, TableCountsRetainsAndClearsWhatTheRequestNames) {
   std::string const stats = "/ipfix-health-test-" + uniqueSuffix();
   Agent::CollectorHealthTable table(stats);
   EXPECT_EQ(table.name(), stats + "-health");
   auto const a = key("ft1", "e1", "10.0.0.1", 4739);
   auto const b = key("ft1", "e2", "10.0.0.1", 4739);
   auto const c = key("ft2", "e1", "2001:db8::1", 4739);
   table.failureIs(a, ECONNREFUSED, 100);
   table.failureIs(a, ECONNREFUSED, 101);
   table.failureIs(a, EMSGSIZE, 102.5);
   table.failureIs(b, ENETUNREACH, 50);
   table.failureIs(c, EPERM, 60);

   auto const h = table.health(a);
   ASSERT_TRUE(h);
   EXPECT_EQ(h->count(SendFailureCause::connectionRefused), 2u);
   EXPECT_EQ(h->count(SendFailureCause::messageTooLong), 1u);
   EXPECT_EQ(h->total(), 3u);
   EXPECT_EQ(h->lastFailureTime, 102.5);
   EXPECT_EQ(h->lastFailureErrno, EMSGSIZE);
   EXPECT_EQ(h->text(), std::strerror(EMSGSIZE));
   EXPECT_TRUE(Agent::failuresJson(CollectorHealth{})["lastFailureText"].is_null());

   Agent::CollectorHealthReader reader(stats);
   EXPECT_EQ(reader.all().size(), 3u);

   table.clear("", "", Mirra::Ipfix::CollectorInfo{*Pelto::IpGenAddr::parse("10.0.0.1"), 4738});
   EXPECT_EQ(table.size(), 3u) << "another port is another collector";
   table.clear("ft1", "e2", std::nullopt);
   EXPECT_FALSE(table.health(b));
   EXPECT_TRUE(table.health(a) && table.health(c));
   table.retain([&](HealthKey const& k) { return k.tracker() == "ft1"; });
   EXPECT_FALSE(table.health(c));
   ASSERT_EQ(reader.all().size(), 1u);
   EXPECT_TRUE(reader.all()[0].first == a);
   table.clear("", "", std::nullopt);
   EXPECT_EQ(table.size(), 0u);
}

// The monitor finds the exporter by its module and the collector by the destination; failures
// of modules it does not know, or to addresses that are not the exporter's collectors, are not
// counted.
TEST(CollectorHealth, MonitorChargesTheExportersCollectorOnly) {
   std::string const stats = "/ipfix-health-test-" + uniqueSuffix();
   Agent::CollectorHealthTable table(stats);
   auto info = Kivo::make<FlowTracking::FlowTrackingInfo>(FlowTracking::FlowTrackingType::sampled);
   auto config = Kivo::make<HwFlowTracking::Config>();
   auto pam4 = Kivo::make<Pelto::UdpPam>("e1v4");
   auto pam6 = Kivo::make<Pelto::UdpPam>("e1v6");
   pam6->ipv6EnIs(true);
   auto exp = info->ftInfoIs("ft1")->expInfoIs("e1");
   exp->udpPam4Is(pam4);
   exp->udpPam6Is(pam6);
   auto expCfg = config->ftConfigIs("ft1")->expConfigIs("e1");
   expCfg->collector4Is("c4", *Pelto::IpAndPort::parse("127.0.0.1:4739"));
   expCfg->collector6Is("c6", *Pelto::Ip6AndPort::parse("[::1]:4740"));
   Agent::CollectorHealthMonitor monitor(info, config, table);

   // Closed modules: every send fails with EBADF, reported through the observer.
   auto send = [](Kivo::Ptr<Pelto::UdpPam> const& pam, char const* dst, std::uint16_t port) {
      if (auto a4 = Pelto::IpAddr::parse(dst)) {
         pam->txDstIpAddrIs(*a4);
      } else {
         pam->txDstIp6AddrIs(*Pelto::Ip6Addr::parse(dst));
      }
      pam->txPortIs(port);
      auto p = Kivo::make<Pelto::Pkt>(32, 16);
      p->tailGrow(4);
      pam->txPktIs(p);
   };
   send(pam4, "127.0.0.1", 4739);
   send(pam4, "127.0.0.1", 4739);
   send(pam6, "::1", 4740);
   send(pam4, "127.0.0.2", 4739);  // not a collector of e1
   send(pam4, "127.0.0.1", 4740);  // nor is this port
   send(Kivo::make<Pelto::UdpPam>("stranger"), "127.0.0.1", 4739);
   EXPECT_EQ(table.size(), 2u);
   auto const h4 = table.health(key("ft1", "e1", "127.0.0.1", 4739));
   auto const h6 = table.health(key("ft1", "e1", "::1", 4740));
   ASSERT_TRUE(h4 && h6);
   EXPECT_EQ(h4->count(SendFailureCause::other), 2u);
   EXPECT_EQ(h6->count(SendFailureCause::other), 1u);
   EXPECT_EQ(h4->lastFailureErrno, EBADF);
}

// A collector taken out of the configuration takes its failures with it; the others keep theirs.
TEST(CollectorHealthAgent, RemovedCollectorLeavesTheHealthTable) {
   LoopbackCollector live(false);
   ConfigText cfg;
   std::string const dead = "127.0.0.1:" + std::to_string(LoopbackCollector::unusedPort(false));
   cfg.collectors = v4Collector("live", live) + "          dead: " + dead + "\n";
   AgentProcess agent(cfg.text());
   auto deadFailures = [&]() -> std::uint64_t {
      try {
         Agent::CollectorHealthReader reader(cfg.table);
         for (auto const& [k, h] : reader.all()) {
            if (Agent::collectorText(k.collector) == dead) {
               return h.total();
            }
         }
      } catch (Kivo::Exception const&) {
         // not made yet
      }
      return 0;
   };
   for (int i = 0; i < 100 && deadFailures() == 0; ++i) {
      live.drain(50);
   }
   ASSERT_GT(deadFailures(), 0u) << agent.log();

   cfg.collectors = v4Collector("live", live);
   agent.rewriteConfig(cfg.text());
   ASSERT_TRUE(agent.waitForLog("configuration reloaded", 3s)) << agent.log();
   EXPECT_EQ(deadFailures(), 0u);
   EXPECT_EQ(Agent::CollectorHealthReader(cfg.table).all().size(), 0u);
   EXPECT_EQ(agent.stop(), 0) << agent.log();
}

}  // namespace
}  // namespace testsupport
