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

namespace {

// An IPv4 or IPv6 socket address, seen as either.
union SockAddr {
   sockaddr sa;
   sockaddr_in v4;
   sockaddr_in6 v6;
   sockaddr_storage storage;
   std::uint16_t port() const {
      return ntohs(sa.sa_family == AF_INET6 ? v6.sin6_port : v4.sin_port);
   }
};

}  // namespace

LoopbackCollector::LoopbackCollector(bool ipv6, std::uint16_t port) {
   fd_ = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
   }
   int const on = 1;
   setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
   SockAddr a{};
   if (ipv6) {
      setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof(on));
      a.v6.sin6_family = AF_INET6, a.v6.sin6_port = htons(port), a.v6.sin6_addr = in6addr_loopback;
   } else {
      setsockopt(fd_, IPPROTO_IP, IP_RECVTOS, &on, sizeof(on));
      a.v4.sin_family = AF_INET, a.v4.sin_port = htons(port);
      a.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   }
   socklen_t len = ipv6 ? sizeof(a.v6) : sizeof(a.v4);
   if (bind(fd_, &a.sa, len) != 0 || getsockname(fd_, &a.sa, &len) != 0) {
      int const err = errno;
      close(fd_);
      throw std::runtime_error(std::string("bind: ") + std::strerror(err));
   }
   port_ = a.port();
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

void LoopbackCollector::rcvBufIs(int bytes) const {
   setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
}

std::vector<Received> LoopbackCollector::drain(int timeoutMs, std::size_t max) {
   std::vector<Received> out;
   pollfd p{fd_, POLLIN, 0};
   if (poll(&p, 1, timeoutMs) <= 0) {
      return out;
   }
   thread_local std::uint8_t buffer[65536];
   while (out.size() < max) {
      Received r;
      SockAddr from{};
      alignas(cmsghdr) char control[128];
      iovec iov{buffer, sizeof(buffer)};
      msghdr msg{.msg_name = &from,
                 .msg_namelen = sizeof(from),
                 .msg_iov = &iov,
                 .msg_iovlen = 1,
                 .msg_control = control,
                 .msg_controllen = sizeof(control),
                 .msg_flags = 0};
      ssize_t const n = recvmsg(fd_, &msg, 0);
      if (n < 0) {
         break;
      }
      r.payload.assign(buffer, buffer + n);
      char text[INET6_ADDRSTRLEN] = {};
      bool const v6 = from.sa.sa_family == AF_INET6;
      inet_ntop(from.sa.sa_family, v6 ? static_cast<void*>(&from.v6.sin6_addr) : &from.v4.sin_addr,
                text, sizeof(text));
      r.srcAddr = text;
      r.srcPort = from.port();
      for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
         if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) {
            r.tos = *reinterpret_cast<unsigned char*>(CMSG_DATA(c));
         } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
            std::memcpy(&r.tos, CMSG_DATA(c), sizeof(r.tos));
         } else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            timespec ts{};
            std::memcpy(&ts, CMSG_DATA(c), sizeof(ts));
            r.rxTime = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
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
