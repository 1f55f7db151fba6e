// The tests' IPFIX decoder on arbitrary datagrams. The input is cut into datagrams at the length
// each one's message header claims (clamped to what is left), so that real captures decode as a
// stream whose templates carry over to the data sets after them. Every datagram decodes or
// throws DecodeError; a decoded one accounts for every octet it was given.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "support/IpfixDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
   testsupport::Decoder decoder;
   std::span<std::uint8_t const> rest(data, size);
   while (!rest.empty()) {
      std::size_t n = rest.size() >= 4 ? std::size_t{rest[2]} << 8 | rest[3] : rest.size();
      n = std::clamp<std::size_t>(n, 1, rest.size());
      try {
         testsupport::Message const m = decoder.decode(rest.first(n));
         std::size_t octets = 16;
         for (testsupport::Set const& s : m.sets) {
            FUZZ_CHECK(s.body.size() + 4 == s.length);
            octets += s.length;
            for (testsupport::TemplateRecord const& t : s.templates) {
               FUZZ_CHECK(decoder.knownTemplate(m.observationDomainId, t.id) != nullptr);
            }
            for (testsupport::DataRecord const& r : s.records) {
               for (testsupport::Bytes const& f : r.fields) {
                  if (f.size() <= 8) {
                     (void)testsupport::fieldValue(f);
                  }
                  (void)testsupport::fieldText(f);
               }
            }
         }
         FUZZ_CHECK(octets == n && m.length == n);
         (void)m.dataRecordCount();
         (void)m.templates();
      } catch (testsupport::DecodeError const&) {
      }
      rest = rest.subspan(n);
   }
   return 0;
}
