#include "agent/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Kivo/Kivo.h"
#include "agent/Log.h"

namespace Agent {

namespace {

using nlohmann::json;

// Longest tracker or exporter name the statistics table holds.
constexpr std::size_t maxNameBytes = 128;

sockaddr_un socketAddress(std::string const& path) {
   sockaddr_un sa{};
   sa.sun_family = AF_UNIX;
   if (path.size() >= sizeof(sa.sun_path)) {
      throw Kivo::Exception("control socket path too long (at most " +
                            std::to_string(sizeof(sa.sun_path) - 1) + " bytes): " + path);
   }
   std::memcpy(sa.sun_path, path.c_str(), path.size() + 1);
   return sa;
}

// Whether an agent answers at `path`.
bool answers(sockaddr_un const& sa) {
   int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd < 0) {
      return false;
   }
   bool const ok = connect(fd, reinterpret_cast<sockaddr const*>(&sa), sizeof(sa)) == 0;
   close(fd);
   return ok;
}

// One reply line. Texts that are not UTF-8 (a client's bytes quoted back in an error, a name cut
// at 64 bytes in the middle of a character) are written with U+FFFD in place of the bad bytes:
// every request gets its reply.
std::string replyText(json const& reply) {
   return reply.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string errorReply(std::string const& text) {
   return replyText(json{{"ok", false}, {"error", text}});
}

json familyStatus(bool resolved, bool ready, std::uint16_t port) {
   return json{{"resolved", resolved}, {"ready", ready}, {"port", port}};
}

std::string addrText(Pelto::IpGenAddr const& a) {
   std::ostringstream os;
   os << a;
   return os.str();
}

}  // namespace

std::string defaultControlSocketPath(std::string const& table) {
   std::string dir = "/run";
   if (access(dir.c_str(), W_OK) != 0) {
      char const* runtime = std::getenv("XDG_RUNTIME_DIR");
      dir = runtime && *runtime ? runtime : "/tmp";
   }
   return dir + table + ".sock";
}

std::string collectorText(Mirra::Ipfix::CollectorInfo const& c) {
   if (c.addr.isV4()) {
      return Pelto::IpAndPort(c.addr.v4(), c.port).toString();
   }
   if (c.addr.isV6()) {
      return Pelto::Ip6AndPort(c.addr.v6(), c.port).toString();
   }
   return ":" + std::to_string(c.port);
}

struct ControlSocket::Client {
   int fd = -1;
   std::string in;
   std::string out;
   bool closing = false;     // close once `out` is written
   double stalledSince = 0;  // when a reply first could not be written whole; 0: it could
};

ControlSocket::ControlSocket(Orbo::EventLoop& loop, Kivo::Ptr<Orbo::TaskScheduler> scheduler,
                             std::string path, Component& component)
    : loop_(loop), path_(std::move(path)), component_(component) {
   serviceTask_ = Kivo::make<Orbo::Task>(std::move(scheduler), 3, "controlServiceTask",
                                         [this] { handleService_(); });
   sockaddr_un const sa = socketAddress(path_);
   struct stat st {};
   if (lstat(path_.c_str(), &st) == 0) {
      if (!S_ISSOCK(st.st_mode)) {
         throw Kivo::Exception("control socket path exists and is not a socket: " + path_);
      }
      if (answers(sa)) {
         throw Kivo::Exception("another agent answers on the control socket " + path_);
      }
      unlink(path_.c_str());  // left by an agent that is gone
   }
   fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (fd_ < 0) {
      throw Kivo::ErrnoException(errno, "control socket");
   }
   // Made with mode 0600 from the start: no moment when another user could connect.
   mode_t const old = umask(0177);
   int const rc = bind(fd_, reinterpret_cast<sockaddr const*>(&sa), sizeof(sa));
   int const err = errno;
   umask(old);
   if (rc != 0 || listen(fd_, 16) != 0) {
      int const e = rc != 0 ? err : errno;
      close(fd_);
      throw Kivo::ErrnoException(e, "control socket " + path_);
   }
   loop_.fdIs(fd_, [this] { handleAccept_(); });
}

ControlSocket::~ControlSocket() {
   serviceTask_ = nullptr;
   while (!clients_.empty()) {
      clientDel_(clients_.begin()->first);
   }
   loop_.fdDel(fd_);
   close(fd_);
   unlink(path_.c_str());
}

void ControlSocket::handleAccept_() {
   for (int i = 0; i < requestsPerWakeup(); ++i) {
      int const fd = accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
         return;
      }
      ucred cred{};
      socklen_t len = sizeof(cred);
      bool const allowed = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 &&
                           (cred.uid == geteuid() || cred.uid == 0);
      if (!allowed || clients_.size() >= maxClients()) {
         std::string const reply =
             errorReply(allowed ? "too many connections" : "permission denied") + "\n";
         (void)send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
         close(fd);
         continue;
      }
      auto c = std::make_unique<Client>();
      c->fd = fd;
      clients_[fd] = std::move(c);
      loop_.fdIs(fd, [this, fd] { handleReadable_(fd); });
   }
}

void ControlSocket::handleReadable_(int fd) {
   auto it = clients_.find(fd);
   if (it == clients_.end()) {
      return;
   }
   Client& c = *it->second;
   char buf[4096];
   ssize_t const n = recv(fd, buf, sizeof(buf), 0);
   if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
      clientDel_(fd);
      return;
   }
   if (n > 0) {
      c.in.append(buf, static_cast<std::size_t>(n));
   }
   if (!serve_(c)) {
      clientDel_(fd);
   }
}

bool ControlSocket::serve_(Client& c) {
   int handled = 0;
   std::size_t nl = 0;
   while (!c.closing && (nl = c.in.find('\n')) != std::string::npos) {
      if (handled++ == requestsPerWakeup()) {
         // The rest on a later pass, so that other work runs in between.
         serviceTask_->scheduleTask();
         break;
      }
      std::string const line = c.in.substr(0, nl);
      c.in.erase(0, nl + 1);
      if (line.size() > maxRequestBytes()) {
         c.out +=
             errorReply("request longer than " + std::to_string(maxRequestBytes()) + " bytes") +
             "\n";
         c.closing = true;
         break;
      }
      c.out += handleRequest(line) + "\n";
   }
   if (!c.closing && c.in.find('\n') == std::string::npos && c.in.size() > maxRequestBytes()) {
      c.out +=
          errorReply("request longer than " + std::to_string(maxRequestBytes()) + " bytes") + "\n";
      c.closing = true;
   }
   return flush_(c);
}

bool ControlSocket::flush_(Client& c) {
   while (!c.out.empty()) {
      ssize_t const n = send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0) {
         if (errno != EAGAIN && errno != EINTR) {
            return false;
         }
         // The client reads slowly: try again shortly. One that does not read at all, or lets
         // too much pile up, is dropped.
         double const now = Kivo::currentTime();
         if (c.stalledSince == 0) {
            c.stalledSince = now;
         }
         serviceTask_->scheduleTaskLowestDelay(flushRetry());
         return c.out.size() <= maxPendingReplyBytes() && now - c.stalledSince < maxStall();
      }
      c.out.erase(0, static_cast<std::size_t>(n));
   }
   c.stalledSince = 0;
   return !c.closing;
}

void ControlSocket::handleService_() {
   std::vector<int> drop;
   for (auto& [fd, c] : clients_) {
      if (!serve_(*c)) {
         drop.push_back(fd);
      }
   }
   for (int fd : drop) {
      clientDel_(fd);
   }
}

void ControlSocket::clientDel_(int fd) {
   loop_.fdDel(fd);
   close(fd);
   clients_.erase(fd);
}

std::string ControlSocket::handleRequest(std::string const& line) {
   json req;
   try {
      req = json::parse(line);
   } catch (json::exception const& e) {
      return errorReply(std::string("not JSON: ") + e.what());
   }
   if (!req.is_object() || !req.contains("request") || !req["request"].is_string()) {
      return errorReply("a request is an object with a \"request\" string");
   }
   std::string const what = req["request"];
   auto text = [&](char const* key) -> std::optional<std::string> {
      if (!req.contains(key)) {
         return std::string();
      }
      if (!req[key].is_string()) {
         return std::nullopt;
      }
      return req[key].get<std::string>();
   };
   if (what == "status") {
      return status_();
   }
   if (what == "clear") {
      auto const ft = text("tracker");
      auto const exp = text("exporter");
      auto const coll = text("collector");
      if (!ft || !exp || !coll) {
         return errorReply("\"tracker\", \"exporter\" and \"collector\" are strings");
      }
      return clear_(*ft, *exp, *coll);
   }
   return errorReply("unknown request \"" + what.substr(0, 64) + "\" (status, clear)");
}

std::string ControlSocket::status_() {
   json trackers = json::array();
   auto const& hw = component_.hwConfig();
   auto const& info = component_.info();
   for (auto const& [ftName, ft] : component_.config().trackers) {
      auto ftCfg = hw->ftConfig(ftName);
      auto ftInfo = info->ftInfo(ftName);
      json exporters = json::array();
      for (auto const& [expName, exp] : ft.exporters) {
         auto e = ftCfg ? ftCfg->expConfig(expName) : nullptr;
         auto ei = ftInfo ? ftInfo->expInfo(expName) : nullptr;
         if (!e) {
            continue;
         }
         json collectors = json::array();
         for (auto const& [collName, addr] : exp.collectors) {
            json c{{"name", collName}};
            c["address"] =
                std::visit([](auto const& a) { return std::string(a.toString()); }, addr);
            if (auto ci = ei ? ei->collInfo(collName) : nullptr) {
               c["sequenceNumber"] = ci->ipfixMsgSeqNo().value;
               c["optionsTemplateSent"] = ci->optTemplateSent();
            }
            auto const where = std::visit(
                [](auto const& a) {
                   return Mirra::Ipfix::CollectorInfo{a.ipAddr(), a.port()};
                },
                addr);
            c["failures"] = failuresJson(component_.health()
                                             .health(HealthKey(ftName, expName, where))
                                             .value_or(CollectorHealth{}));
            collectors.push_back(std::move(c));
         }
         exporters.push_back(
             json{{"name", expName},
                  {"vrf", exp.vrf.empty() ? "default" : exp.vrf},
                  {"ipv4", familyStatus(e->exporter4Resolved(), e->exporter4Ready(), e->rxPort4())},
                  {"ipv6", familyStatus(e->exporter6Resolved(), e->exporter6Ready(), e->rxPort6())},
                  {"collectors", std::move(collectors)}});
      }
      json t{{"name", ftName}, {"id", ft.id}, {"exporters", std::move(exporters)}};
      if (ft.softwareExport && ftCfg) {
         auto const& lc = ftCfg->localCollectorConfig();
         t["localCollector"] = json{{"exporter", lc->expName()},
                                    {"vrf", lc->vrfName()},
                                    {"source", addrText(lc->srcIp())},
                                    {"sourcePort", lc->srcPort()},
                                    {"destination", addrText(lc->destIp())},
                                    {"destinationPort", lc->destPort()},
                                    {"dscp", lc->dscpValue().value()},
                                    {"ready", lc->exporterReady()}};
      }
      trackers.push_back(std::move(t));
   }
   // The event loop's passes: how long the agent was deaf to everything else at worst.
   auto const& passes = loop_.passStats();
   json longer = json::object();
   for (std::size_t i = 0; i < passes.bounds.size(); ++i) {
      longer[json(passes.bounds[i]).dump()] = passes.longerThan[i];
   }
   json loop{{"passes", passes.passes},
             {"maxPassSeconds", passes.maxSeconds},
             {"passesLongerThan", std::move(longer)}};
   return replyText(
       json{{"ok", true}, {"trackers", std::move(trackers)}, {"loop", std::move(loop)}});
}

std::string ControlSocket::clear_(std::string const& tracker, std::string const& exporter,
                                  std::string const& collector) {
   if (tracker.size() > maxNameBytes || exporter.size() > maxNameBytes) {
      return errorReply("tracker and exporter names are at most " + std::to_string(maxNameBytes) +
                        " bytes");
   }
   FlowTracking::ClearCountersReq req;
   std::optional<Mirra::Ipfix::CollectorInfo> healthOf;
   req.ftName = tracker;
   req.expName = exporter;
   if (!collector.empty()) {
      if (auto a4 = Pelto::IpAndPort::parse(collector)) {
         req.collector = a4->ipAddr();
         req.collectorPort = a4->port();
      } else if (auto a6 = Pelto::Ip6AndPort::parse(collector)) {
         req.collector = a6->ipAddr();
         req.collectorPort = a6->port();
      } else {
         return errorReply("collector is ADDRESS:PORT or [ADDRESS6]:PORT: " +
                           collector.substr(0, 64));
      }
   }
   // Report what the request covers, as the component will match it.
   json cleared = json::array();
   component_.collStats()->forEachStats([&](Mirra::Ipfix::CollectorStatisticsEntry const& e) {
      auto const& k = e.key;
      if (k.tracker().empty() && k.exporter().empty()) {
         return;  // the entry that records when counters were last cleared
      }
      bool const match = (tracker.empty() || tracker == k.tracker()) &&
                         (exporter.empty() || exporter == k.exporter()) &&
                         (collector.empty() || (req.collector == k.collector.addr &&
                                                req.collectorPort == k.collector.port));
      if (match) {
         cleared.push_back(json{{"tracker", k.tracker()},
                                {"exporter", k.exporter()},
                                {"collector", collectorText(k.collector)}});
      }
   });
   if (!collector.empty()) {
      healthOf = Mirra::Ipfix::CollectorInfo{req.collector, req.collectorPort};
   }
   req.requestTime = Kivo::currentTime();
   component_.health().clear(tracker, exporter, healthOf);
   component_.configReq()->clearCountersReqIs(req);
   return replyText(json{{"ok", true}, {"cleared", std::move(cleared)}});
}

}  // namespace Agent
