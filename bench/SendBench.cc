// Sending one full-size datagram through the packet access module, beside the bare sendto of
// the same datagram (BM_SendOne_Sendto), with the fast trace ring on as it ships.
#include <benchmark/benchmark.h>

#include "Pelto/UdpPam.h"
#include "Trace/Snaplog.h"
#include "bench/Reference.h"

namespace {

void BM_SendOne_UdpPam(benchmark::State& state) {
   Snaplog::enabledIs(true);
   Bench::Sink sink;
   auto pam = Kivo::make<Pelto::UdpPam>("bench");
   pam->modeIs(Pelto::UdpPam::Mode::open);
   pam->txSrcIpAddrIs(*Pelto::IpAddr::parse("127.0.0.1"));
   pam->txDstIpAddrIs(*Pelto::IpAddr::parse("127.0.0.1"));
   pam->txPortIs(sink.port());
   auto pkt = Kivo::make<Pelto::Pkt>(Bench::maxMsgSize);
   pkt->tailGrow(Bench::maxMsgSize);
   for (auto _ : state) {
      pam->txPktIs(pkt);
   }
   state.SetItemsProcessed(state.iterations());
   if (pam->txErrors() != 0) {
      state.SkipWithError("sends failed");
   }
}
BENCHMARK(BM_SendOne_UdpPam);

}  // namespace
