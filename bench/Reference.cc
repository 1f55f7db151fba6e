#include "bench/Reference.h"

#include <arpa/inet.h>
#include <fixbuf/public.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace Bench {

namespace {

constexpr std::size_t msgHeaderLen = 16;
constexpr std::size_t setHeaderLen = 4;

// One information element of a template, by name; libfixbuf never writes through the name.
fbInfoElementSpec_t ie(char const* name, std::uint16_t len) {
   return {const_cast<char*>(name), len, 0};
}

void check(gboolean ok, GError* err, char const* what) {
   if (!ok) {
      std::string const text = std::string(what) + ": " + (err ? err->message : "failed");
      g_clear_error(&err);
      throw std::runtime_error(text);
   }
}

// In-memory layouts libfixbuf transcodes from; padding is named so it is not exported.
struct IntfRec {
   std::uint32_t index;
   std::uint32_t pad;
   fbVarfield_t name;
};
struct FlowKeyRec {
   std::uint64_t flowKeyIndicator;
   std::uint16_t templateId;
   std::uint8_t pad[6];
};

void put16(std::string& m, std::size_t at, std::uint16_t v) {
   v = htons(v);
   std::memcpy(m.data() + at, &v, 2);
}
void put32(std::string& m, std::size_t at, std::uint32_t v) {
   v = htonl(v);
   std::memcpy(m.data() + at, &v, 4);
}

}  // namespace

std::vector<IntfRow> intfRows(std::uint32_t n) {
   std::vector<IntfRow> rows;
   rows.reserve(n);
   for (std::uint32_t i = 1; i <= n; ++i) {
      rows.push_back({i, "Ethernet" + std::to_string(i)});
   }
   return rows;
}

std::vector<FlowKeyRow> flowKeyRows(std::uint32_t n) {
   std::vector<FlowKeyRow> rows;
   rows.reserve(n);
   for (std::uint32_t i = 0; i < n; ++i) {
      rows.push_back({static_cast<std::uint16_t>(260 + i), 0x1234ull * (i + 1)});
   }
   return rows;
}

std::vector<std::string> encodedIntfRecords(std::uint32_t n) {
   std::vector<std::string> records;
   records.reserve(n);
   for (IntfRow const& r : intfRows(n)) {
      std::string rec(5, '\0');
      put32(rec, 0, r.index);
      rec[4] = static_cast<char>(r.name.size());
      records.push_back(rec + r.name);
   }
   return records;
}

void countRecords(benchmark::State& state, std::size_t records, std::vector<Message> const& out) {
   state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * records));
   state.counters["messages"] = static_cast<double>(out.size());
}

Sink::Sink() {
   rx_ = socket(AF_INET, SOCK_DGRAM, 0);
   tx_ = socket(AF_INET, SOCK_DGRAM, 0);
   addr_.sin_family = AF_INET;
   addr_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   socklen_t len = sizeof(addr_);
   if (rx_ < 0 || tx_ < 0 || bind(rx_, reinterpret_cast<sockaddr*>(&addr_), sizeof(addr_)) != 0 ||
       getsockname(rx_, reinterpret_cast<sockaddr*>(&addr_), &len) != 0) {
      throw std::runtime_error("loopback sink: no socket");
   }
}

Sink::Sink(Sink&& o) noexcept : rx_(o.rx_), tx_(o.tx_), addr_(o.addr_) {
   o.rx_ = o.tx_ = -1;
}

Sink::~Sink() {
   if (rx_ >= 0) {
      close(rx_);
   }
   if (tx_ >= 0) {
      close(tx_);
   }
}

void Sink::send(std::string const& datagram) const {
   sendto(tx_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr const*>(&addr_),
          sizeof(addr_));
}

struct FixbufEncoder::Impl {
   Impl(std::uint16_t maxMsgSize, std::uint32_t domain)
       : model(fbInfoModelAlloc()), buf(maxMsgSize), domain(domain) {
      session = newSession();
      exporter = fbExporterAllocBuffer(buf.data(), maxMsgSize);
      fbuf = fBufAllocForExport(session, exporter);
      fBufSetAutomaticMode(fbuf, FALSE);
   }
   ~Impl() {
      fBufFree(fbuf);  // frees the session and the exporter with it
      fbInfoModelFree(model);
   }

   // A session holding the two options templates, each as internal and external template.
   fbSession_t* newSession() {
      fbSession_t* s = fbSessionAlloc(model);
      fbSessionSetDomain(s, domain);
      addPair(
          s, intfTableId, {ie("ingressInterface", 4), ie("interfaceName", FB_IE_VARLEN)},
          {ie("ingressInterface", 4), ie("paddingOctets", 4), ie("interfaceName", FB_IE_VARLEN)});
      addPair(s, flowKeyTableId, {ie("templateId", 2), ie("flowKeyIndicator", 8)},
              {ie("flowKeyIndicator", 8), ie("templateId", 2), ie("paddingOctets", 6)});
      return s;
   }
   void addPair(fbSession_t* s, std::uint16_t id, std::vector<fbInfoElementSpec_t> ext,
                std::vector<fbInfoElementSpec_t> in) {
      GError* err = nullptr;
      ext.push_back(FB_IESPEC_NULL);
      in.push_back(FB_IESPEC_NULL);
      fbTemplate_t* e = fbTemplateAlloc(model);
      check(fbTemplateAppendSpecArray(e, ext.data(), 0, &err), err, "external template");
      fbTemplateSetOptionsScope(e, 1);
      check(fbSessionAddTemplate(s, FALSE, id, e, &err) != 0, err, "add external template");
      fbTemplate_t* i = fbTemplateAlloc(model);
      check(fbTemplateAppendSpecArray(i, in.data(), 0, &err), err, "internal template");
      // The internal template takes the next id after the external ones.
      check(fbSessionAddTemplate(s, TRUE, static_cast<std::uint16_t>(id + 1000), i, &err) != 0, err,
            "add internal template");
   }

   void emit(std::vector<Message>& out) {
      GError* err = nullptr;
      check(fBufEmit(fbuf, &err), err, "emit");
      out.emplace_back(reinterpret_cast<char const*>(buf.data()), fbExporterGetMsgLen(exporter));
   }

   template <class Rec>
   void encode(std::uint16_t id, std::vector<Rec>& recs, std::vector<Message>& out) {
      GError* err = nullptr;
      out.clear();
      check(fBufSetInternalTemplate(fbuf, static_cast<std::uint16_t>(id + 1000), &err), err,
            "internal template");
      check(fBufSetExportTemplate(fbuf, id, &err), err, "export template");
      for (Rec& r : recs) {
         if (!fBufAppend(fbuf, reinterpret_cast<std::uint8_t*>(&r), sizeof(r), &err)) {
            check(g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOM), err, "append");
            g_clear_error(&err);
            emit(out);
            check(fBufAppend(fbuf, reinterpret_cast<std::uint8_t*>(&r), sizeof(r), &err), err,
                  "append to a new message");
         }
      }
      emit(out);
   }

   fbInfoModel_t* model;
   std::vector<std::uint8_t> buf;
   std::uint32_t domain;
   fbSession_t* session = nullptr;
   fbExporter_t* exporter = nullptr;
   fBuf_t* fbuf = nullptr;
   std::vector<IntfRec> intfRecs;
   std::vector<FlowKeyRec> flowKeyRecs;
};

FixbufEncoder::FixbufEncoder(std::uint16_t maxMsgSize, std::uint32_t domain)
    : impl_(std::make_unique<Impl>(maxMsgSize, domain)) {}

FixbufEncoder::~FixbufEncoder() = default;

void FixbufEncoder::intfTable(std::vector<IntfRow> const& rows, std::vector<Message>& out) {
   // The rows as the library reads them; filling them is part of encoding the table.
   auto& recs = impl_->intfRecs;
   recs.resize(rows.size());
   for (std::size_t i = 0; i < rows.size(); ++i) {
      recs[i].index = rows[i].index;
      recs[i].name.len = rows[i].name.size();
      recs[i].name.buf = reinterpret_cast<std::uint8_t*>(const_cast<char*>(rows[i].name.data()));
   }
   impl_->encode(intfTableId, recs, out);
}

void FixbufEncoder::flowKeyTable(std::vector<FlowKeyRow> const& rows, std::vector<Message>& out) {
   auto& recs = impl_->flowKeyRecs;
   recs.resize(rows.size());
   for (std::size_t i = 0; i < rows.size(); ++i) {
      recs[i].flowKeyIndicator = rows[i].flowKeyIndicator;
      recs[i].templateId = rows[i].templateId;
   }
   impl_->encode(flowKeyTableId, recs, out);
}

Message FixbufEncoder::templatesMessage() {
   std::vector<std::uint8_t> buf(65535);
   fbSession_t* s = impl_->newSession();
   fbExporter_t* e = fbExporterAllocBuffer(buf.data(), 65535);
   fBuf_t* b = fBufAllocForExport(s, e);
   GError* err = nullptr;
   check(fbSessionExportTemplates(s, &err), err, "export templates");
   check(fBufEmit(b, &err), err, "emit templates");
   Message m(reinterpret_cast<char const*>(buf.data()), fbExporterGetMsgLen(e));
   fBufFree(b);
   return m;
}

std::size_t FixbufEncoder::buildTemplates(std::uint32_t count) {
   std::vector<std::uint8_t> buf(65535);
   fbSession_t* s = fbSessionAlloc(impl_->model);
   fbExporter_t* e = fbExporterAllocBuffer(buf.data(), 65535);
   fBuf_t* b = fBufAllocForExport(s, e);
   GError* err = nullptr;
   for (std::uint32_t t = 0; t < count; ++t) {
      fbTemplate_t* tmpl = fbTemplateAlloc(impl_->model);
      for (char const* name : templateFieldNames) {
         fbInfoElementSpec_t one[] = {ie(name, 0), FB_IESPEC_NULL};
         check(fbTemplateAppendSpecArray(tmpl, one, 0, &err), err, "template field");
      }
      check(fbSessionAddTemplate(s, FALSE, static_cast<std::uint16_t>(260 + t), tmpl, &err) != 0,
            err, "add template");
   }
   check(fbSessionExportTemplates(s, &err), err, "export templates");
   check(fBufEmit(b, &err), err, "emit templates");
   std::size_t const len = fbExporterGetMsgLen(e);
   fBufFree(b);
   return len;
}

void memcpyPack(std::vector<std::string> const& records, std::uint16_t setId,
                std::uint16_t maxMsgSize, std::uint32_t domain, std::vector<Message>& out) {
   out.clear();
   std::uint32_t seqNo = 0;
   std::uint32_t inMsg = 0;
   Message m;
   auto close = [&] {
      put16(m, 0, 10);
      put16(m, 2, static_cast<std::uint16_t>(m.size()));
      put32(m, 4, 0);
      put32(m, 8, seqNo);
      put32(m, 12, domain);
      put16(m, msgHeaderLen, setId);
      put16(m, msgHeaderLen + 2, static_cast<std::uint16_t>(m.size() - msgHeaderLen));
      seqNo += inMsg;
      out.push_back(std::move(m));
   };
   auto open = [&] {
      m.clear();
      m.reserve(maxMsgSize);
      m.resize(msgHeaderLen + setHeaderLen);
      inMsg = 0;
   };
   open();
   for (std::string const& r : records) {
      if (m.size() + r.size() > maxMsgSize) {
         close();
         open();
      }
      m.append(r);
      ++inMsg;
   }
   close();
}

std::string ipfixDumpRecords(Message const& templates, std::vector<Message> const& messages) {
   char path[] = "/tmp/ipfix-bench-XXXXXX";
   int const fd = mkstemp(path);
   if (fd < 0) {
      throw std::runtime_error("mkstemp failed");
   }
   std::string all = templates;
   for (Message const& m : messages) {
      all += m;
   }
   bool const written = write(fd, all.data(), all.size()) == static_cast<ssize_t>(all.size());
   close(fd);
   std::string out;
   if (written) {
      std::string const cmd = std::string("ipfixDump --data --in ") + path + " 2>&1";
      FILE* p = popen(cmd.c_str(), "r");
      char line[4096];
      while (p && fgets(line, sizeof(line), p)) {
         std::string_view const l(line);
         // Keep the field lines: what the records say. Message framing (export time, sequence
         // number, how records fall into messages) differs between encoders by design.
         if (std::string_view(line).starts_with("\t(")) {
            out += line;
         }
      }
      if (p) {
         pclose(p);
      }
   }
   unlink(path);
   if (!written) {
      throw std::runtime_error("writing the capture failed");
   }
   return out;
}

}  // namespace Bench
