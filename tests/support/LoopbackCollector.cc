#include "support/LoopbackCollector.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace testsupport {

LoopbackCollector::LoopbackCollector(bool ipv6, std::uint16_t port) : ipv6_(ipv6) {
   fd_ = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
   }
   int const on = 1;
   sockaddr_storage ss{};
   socklen_t len = 0;
   if (ipv6) {
      setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof(on));
      auto* sa = reinterpret_cast<sockaddr_in6*>(&ss);
      sa->sin6_family = AF_INET6;
      sa->sin6_addr = in6addr_loopback;
      sa->sin6_port = htons(port);
      len = sizeof(*sa);
   } else {
      setsockopt(fd_, IPPROTO_IP, IP_RECVTOS, &on, sizeof(on));
      auto* sa = reinterpret_cast<sockaddr_in*>(&ss);
      sa->sin_family = AF_INET;
      sa->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      sa->sin_port = htons(port);
      len = sizeof(*sa);
   }
   if (bind(fd_, reinterpret_cast<sockaddr*>(&ss), len) != 0 ||
       getsockname(fd_, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
      int const err = errno;
      close(fd_);
      throw std::runtime_error(std::string("bind: ") + std::strerror(err));
   }
   port_ = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port
                      : reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
}

LoopbackCollector::~LoopbackCollector() {
   close(fd_);
}

Pelto::IpAndPort LoopbackCollector::ipAndPort() const {
   return {*Pelto::IpAddr::parse("127.0.0.1"), port_};
}

Pelto::Ip6AndPort LoopbackCollector::ip6AndPort() const {
   return {*Pelto::Ip6Addr::parse("::1"), port_};
}

std::vector<Received> LoopbackCollector::drain(int timeoutMs) {
   std::vector<Received> out;
   pollfd p{fd_, POLLIN, 0};
   if (poll(&p, 1, timeoutMs) <= 0) {
      return out;
   }
   for (;;) {
      Received r;
      r.payload.resize(65536);
      sockaddr_storage from{};
      char control[64];
      iovec iov{r.payload.data(), r.payload.size()};
      msghdr msg{};
      msg.msg_name = &from;
      msg.msg_namelen = sizeof(from);
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof(control);
      ssize_t const n = recvmsg(fd_, &msg, 0);
      if (n < 0) {
         break;
      }
      r.payload.resize(static_cast<std::size_t>(n));
      char text[INET6_ADDRSTRLEN] = {};
      if (from.ss_family == AF_INET6) {
         auto const* sa = reinterpret_cast<sockaddr_in6 const*>(&from);
         inet_ntop(AF_INET6, &sa->sin6_addr, text, sizeof(text));
         r.srcPort = ntohs(sa->sin6_port);
      } else {
         auto const* sa = reinterpret_cast<sockaddr_in const*>(&from);
         inet_ntop(AF_INET, &sa->sin_addr, text, sizeof(text));
         r.srcPort = ntohs(sa->sin_port);
      }
      r.srcAddr = text;
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
         if ((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS)) {
            r.tos = *reinterpret_cast<unsigned char*>(CMSG_DATA(c));
         } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
            int v = 0;
            std::memcpy(&v, CMSG_DATA(c), sizeof(v));
            r.tos = v;
         }
      }
      out.push_back(std::move(r));
   }
   return out;
}

std::vector<Message> LoopbackCollector::messages(int timeoutMs) {
   std::vector<Message> out;
   for (auto const& r : drain(timeoutMs)) {
      out.push_back(decoder_.decode(r.payload));
   }
   return out;
}

}  // namespace testsupport
