#include "support/IpfixDecoder.h"

#include <numeric>

namespace testsupport {

namespace {

class Reader {
 public:
   Reader(std::span<std::uint8_t const> b, std::size_t base) : b_(b), base_(base) {}
   bool done() const { return pos_ == b_.size(); }
   std::size_t left() const { return b_.size() - pos_; }
   std::size_t pos() const { return base_ + pos_; }
   void need(std::size_t n, char const* what) const {
      if (left() < n) {
         throw DecodeError(std::string(what) + " truncated at offset " + std::to_string(pos()) +
                           ": need " + std::to_string(n) + ", have " + std::to_string(left()));
      }
   }
   std::uint64_t u(std::size_t n, char const* what) {
      need(n, what);
      std::uint64_t v = 0;
      for (std::size_t i = 0; i < n; ++i) {
         v = (v << 8) | b_[pos_++];
      }
      return v;
   }
   Bytes bytes(std::size_t n, char const* what) {
      need(n, what);
      Bytes out(b_.begin() + static_cast<long>(pos_), b_.begin() + static_cast<long>(pos_ + n));
      pos_ += n;
      return out;
   }

 private:
   std::span<std::uint8_t const> b_;
   std::size_t base_;
   std::size_t pos_ = 0;
};

TemplateRecord readTemplate(Reader& r, bool options) {
   TemplateRecord t;
   t.id = static_cast<std::uint16_t>(r.u(2, "template id"));
   auto const count = r.u(2, "field count");
   if (options) {
      t.scopeFieldCount = static_cast<std::uint16_t>(r.u(2, "scope field count"));
      if (t.scopeFieldCount == 0 || t.scopeFieldCount > count) {
         throw DecodeError("options template " + std::to_string(t.id) + " has scope field count " +
                           std::to_string(t.scopeFieldCount) + " of " + std::to_string(count));
      }
   }
   if (t.id < 256) {
      throw DecodeError("template id " + std::to_string(t.id) + " below 256");
   }
   for (std::uint64_t i = 0; i < count; ++i) {
      FieldSpec f;
      auto const id = r.u(2, "field specifier");
      f.enterprise = (id & 0x8000) != 0;
      f.id = static_cast<std::uint16_t>(id & 0x7fff);
      f.length = static_cast<std::uint16_t>(r.u(2, "field length"));
      if (f.enterprise) {
         f.enterpriseNumber = static_cast<std::uint32_t>(r.u(4, "enterprise number"));
      }
      t.fields.push_back(f);
   }
   return t;
}

// The fewest octets a record of `t` can take: its fixed lengths and one length octet per
// variable-length field.
std::size_t minRecordLength(TemplateRecord const& t) {
   return std::accumulate(
       t.fields.begin(), t.fields.end(), std::size_t{0},
       [](std::size_t n, FieldSpec const& f) { return n + (f.length == 65535 ? 1 : f.length); });
}

}  // namespace

Message Decoder::decode(std::span<std::uint8_t const> bytes) {
   Reader r(bytes, 0);
   Message m;
   m.version = static_cast<std::uint16_t>(r.u(2, "message header"));
   m.length = static_cast<std::uint16_t>(r.u(2, "message header"));
   m.exportTime = static_cast<std::uint32_t>(r.u(4, "message header"));
   m.sequenceNumber = static_cast<std::uint32_t>(r.u(4, "message header"));
   m.observationDomainId = static_cast<std::uint32_t>(r.u(4, "message header"));
   if (m.version != 10) {
      throw DecodeError("version " + std::to_string(m.version));
   }
   if (m.length != bytes.size()) {
      throw DecodeError("message length " + std::to_string(m.length) + " but " +
                        std::to_string(bytes.size()) + " octets");
   }
   while (!r.done()) {
      Set s;
      std::size_t const start = r.pos();
      s.id = static_cast<std::uint16_t>(r.u(2, "set header"));
      s.length = static_cast<std::uint16_t>(r.u(2, "set header"));
      if (s.length < 4) {
         throw DecodeError("set length " + std::to_string(s.length) + " at offset " +
                           std::to_string(start));
      }
      s.body = r.bytes(s.length - 4u, "set");
      Reader body(s.body, start + 4);
      if (s.id == 2 || s.id == 3) {
         while (!body.done()) {
            s.templates.push_back(readTemplate(body, s.id == 3));
            templates_[{m.observationDomainId, s.templates.back().id}] = s.templates.back();
         }
      } else if (s.id < 256) {
         throw DecodeError("reserved set id " + std::to_string(s.id));
      } else if (TemplateRecord const* t = knownTemplate(m.observationDomainId, s.id)) {
         // Records are back to back; octets that do not make a whole record are an error. A
         // template whose records may take no octets at all cannot split anything.
         if (!body.done() && minRecordLength(*t) == 0) {
            throw DecodeError("template " + std::to_string(t->id) + " makes records of 0 octets, " +
                              "cannot split the " + std::to_string(body.left()) +
                              " octets of the set at offset " + std::to_string(start));
         }
         while (!body.done()) {
            DataRecord rec;
            for (FieldSpec const& f : t->fields) {
               std::size_t len = f.length;
               if (len == 65535) {
                  len = body.u(1, "variable length");
                  if (len == 255) {
                     len = body.u(2, "variable length");
                  }
               }
               rec.fields.push_back(body.bytes(len, "field"));
            }
            s.records.push_back(std::move(rec));
         }
      }
      m.sets.push_back(std::move(s));
   }
   return m;
}

TemplateRecord const* Decoder::knownTemplate(std::uint32_t domain, std::uint16_t id) const {
   auto it = templates_.find({domain, id});
   return it == templates_.end() ? nullptr : &it->second;
}

std::size_t Message::dataRecordCount() const {
   return std::accumulate(sets.begin(), sets.end(), std::size_t{0},
                          [](std::size_t n, Set const& s) { return n + s.records.size(); });
}

std::vector<TemplateRecord> Message::templates() const {
   std::vector<TemplateRecord> out;
   for (Set const& s : sets) {
      out.insert(out.end(), s.templates.begin(), s.templates.end());
   }
   return out;
}

std::uint64_t fieldValue(Bytes const& b) {
   if (b.size() > 8) {
      throw DecodeError("field of " + std::to_string(b.size()) + " octets is not a number");
   }
   std::uint64_t v = 0;
   for (auto x : b) {
      v = (v << 8) | x;
   }
   return v;
}

std::string fieldText(Bytes const& b) {
   return std::string(b.begin(), b.end());
}

}  // namespace testsupport
