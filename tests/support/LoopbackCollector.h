// A collector for end-to-end tests: a UDP socket on 127.0.0.1 or ::1 that the exporter sends to.
// Receiving never blocks for long: every wait is bounded by a timeout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Pelto/Address.h"
#include "support/IpfixDecoder.h"

namespace testsupport {

struct Received {
   Bytes payload;
   std::string srcAddr;
   std::uint16_t srcPort = 0;
   int tos = -1;       // type of service / traffic class, -1 when not reported
   double rxTime = 0;  // when the kernel received it, seconds since the epoch
};

class LoopbackCollector {
 public:
   // Binds `port` (0: an ephemeral one) on the loopback address of the family, in the network
   // namespace of the calling thread. Throws on failure.
   explicit LoopbackCollector(bool ipv6 = false, std::uint16_t port = 0);
   ~LoopbackCollector();
   LoopbackCollector(LoopbackCollector const&) = delete;
   LoopbackCollector& operator=(LoopbackCollector const&) = delete;

   std::uint16_t port() const { return port_; }
   int fd() const { return fd_; }
   // A loopback port that nobody listens on: one a collector had a moment ago.
   static std::uint16_t unusedPort(bool ipv6) { return LoopbackCollector(ipv6).port(); }
   Pelto::IpAndPort ipAndPort() const;
   Pelto::Ip6AndPort ip6AndPort() const;

   // Every datagram already queued, up to `max` (waits up to `timeoutMs` for the first one).
   std::vector<Received> drain(int timeoutMs = 0, std::size_t max = SIZE_MAX);
   // A receive buffer of `bytes`, beyond the system's limit (needs CAP_NET_ADMIN; else ignored).
   void rcvBufIs(int bytes) const;
   // Decodes every datagram queued; templates carry over between calls.
   std::vector<Message> messages(int timeoutMs = 0);

 private:
   int fd_ = -1;
   std::uint16_t port_ = 0;
   Decoder decoder_;
};

}  // namespace testsupport
