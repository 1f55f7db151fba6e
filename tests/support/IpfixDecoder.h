// An IPFIX (RFC 7011) decoder for tests, written independently of the encoder: it checks every
// length it reads and throws DecodeError (with the offset) instead of trusting the input.
// Templates and options templates it sees are remembered per observation domain, so data sets
// that follow are split into records and fields, variable-length fields included; a data set whose
// template makes records of 0 octets (no fields, or only fixed fields of length 0) is refused.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace testsupport {

struct DecodeError : std::runtime_error {
   using std::runtime_error::runtime_error;
};

struct FieldSpec {
   std::uint16_t id = 0;  // without the enterprise bit
   std::uint16_t length = 0;
   bool enterprise = false;
   std::uint32_t enterpriseNumber = 0;
   bool operator==(FieldSpec const&) const = default;
};

struct TemplateRecord {
   std::uint16_t id = 0;
   std::uint16_t scopeFieldCount = 0;  // 0 for a plain template
   std::vector<FieldSpec> fields;      // scope fields first
};

using Bytes = std::vector<std::uint8_t>;

struct DataRecord {
   std::vector<Bytes> fields;  // one value per field of the template
};

struct Set {
   std::uint16_t id = 0;
   std::uint16_t length = 0;
   std::vector<TemplateRecord> templates;  // set ids 2 and 3
   std::vector<DataRecord> records;        // data sets with a known template
   Bytes body;                             // everything after the set header
};

struct Message {
   std::uint16_t version = 0;
   std::uint16_t length = 0;
   std::uint32_t exportTime = 0;
   std::uint32_t sequenceNumber = 0;
   std::uint32_t observationDomainId = 0;
   std::vector<Set> sets;

   std::size_t dataRecordCount() const;
   std::vector<TemplateRecord> templates() const;
};

class Decoder {
 public:
   Message decode(std::span<std::uint8_t const> bytes);
   // The template last seen for (domain, id), or null.
   TemplateRecord const* knownTemplate(std::uint32_t domain, std::uint16_t id) const;

 private:
   std::map<std::pair<std::uint32_t, std::uint16_t>, TemplateRecord> templates_;
};

std::uint64_t fieldValue(Bytes const& b);  // unsigned big-endian value of up to 8 octets
std::string fieldText(Bytes const& b);

}  // namespace testsupport
