// The agent's control socket: a Unix stream socket, mode 0600, that accepts only processes of
// the agent's own user (or root), checked with SO_PEERCRED. A client sends one JSON object per
// line and gets one JSON object per line back:
//
//   {"request": "status"}
//   {"request": "clear", "tracker": "ft1", "exporter": "e1", "collector": "10.0.0.1:4739"}
//       (every filter optional; absent matches everything)
//
// `status` answers per tracker and exporter the resolved and ready flags and ports of each family,
// per collector its address, sequence number, whether its options templates were sent and its
// send "failures" (per cause, last failure time and text), and the local collector configuration
// of software-export trackers, and under "loop" the event loop's passes (count, longest in
// seconds, and how many were longer than 0.001, 0.01, 0.1, 1 and 10 s); `clear` answers the
// collectors it cleared.
//
// Replies carry "ok": true and the answer, or "ok": false and "error". A request that is not
// JSON, too long, unknown or not allowed gets an error reply and changes nothing.
//
// Nothing a client does can hold up the agent's loop: sockets are non-blocking, a read handles a
// bounded number of requests and the loop comes back for the rest, a line longer than
// maxRequestBytes() closes the connection after its error reply, a client that does not read its
// replies is dropped once maxPendingReplyBytes() are waiting or after maxStall() seconds, and at
// most maxClients() are connected at once.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Orbo/EventLoop.h"
#include "agent/Component.h"

namespace Agent {

// Where the agent of the statistics table `table` (e.g. "/ipfix-collector-stats") listens unless
// told otherwise: /run/ipfix-collector-stats.sock, or under $XDG_RUNTIME_DIR when /run is not
// writable. One name finds both the table and the agent that writes it.
std::string defaultControlSocketPath(std::string const& table);

// A collector as operators write it: "10.0.0.1:4739" or "[2001:db8::1]:4739".
std::string collectorText(Mirra::Ipfix::CollectorInfo const& c);

class ControlSocket {
 public:
   static constexpr std::size_t maxRequestBytes() { return 4096; }
   static constexpr std::size_t maxPendingReplyBytes() { return 1 << 20; }
   static constexpr std::size_t maxClients() { return 16; }
   static constexpr int requestsPerWakeup() { return 32; }
   // How often unwritten replies are tried again, and how long a client may leave them unread.
   static constexpr double flushRetry() { return 0.02; }
   static constexpr double maxStall() { return 5.0; }

   // Listens at `path`. A socket file left there by an agent that is gone is replaced; one that
   // answers belongs to a running agent, and Kivo::Exception says so. The component must outlive
   // the socket, as must the loop.
   ControlSocket(Orbo::EventLoop& loop, Kivo::Ptr<Orbo::TaskScheduler> scheduler, std::string path,
                 Component& component);
   // Closes every connection and removes the socket file.
   ~ControlSocket();
   ControlSocket(ControlSocket const&) = delete;
   ControlSocket& operator=(ControlSocket const&) = delete;

   std::string const& path() const { return path_; }

   // The reply to one request line (without its newline); what a connection does per line.
   std::string handleRequest(std::string const& line);

 private:
   struct Client;

   void handleAccept_();
   void handleReadable_(int fd);
   // Answers the client's complete requests, a bounded number at a time, and writes what it can
   // of the replies; false when the client is to be dropped.
   bool serve_(Client& c);
   bool flush_(Client& c);
   void handleService_();
   void clientDel_(int fd);
   std::string status_();
   std::string clear_(std::string const& tracker, std::string const& exporter,
                      std::string const& collector);

   Orbo::EventLoop& loop_;
   std::string path_;
   Component& component_;
   int fd_ = -1;
   std::map<int, std::unique_ptr<Client>> clients_;
   // Serves clients with requests or replies left over from an earlier wakeup.
   Kivo::Ptr<Orbo::Task> serviceTask_;
};

}  // namespace Agent
