// The test decoder on hand-made messages: every end-to-end test relies on it.
#include <gtest/gtest.h>

#include "support/IpfixDecoder.h"

using testsupport::Bytes;
using testsupport::DecodeError;
using testsupport::Decoder;

namespace {

// Options template 257: scope ingressInterface (10, 4 octets), field 82 with the enterprise bit,
// variable length, enterprise number 32473.
Bytes const templateMsg = {0,    10,   0,    38,   0, 0, 0,    0,   0, 0, 0, 0, 0, 0, 0, 9,  //
                           0,    3,    0,    22,                                             //
                           1,    1,    0,    2,    0, 1,                                     //
                           0,    10,   0,    4,                                              //
                           0x80, 0x52, 0xff, 0xff, 0, 0, 0x7e, 0xd9};

// Two records of set 257: (5, "abc") and (6, 300 octets in the three-octet length form).
Bytes dataMsg() {
   Bytes m = {0, 10, 0, 0, 0, 0,   0,   0,   0, 0, 0, 7, 0,   0, 0, 9, 1, 1, 0, 0,  //
              0, 0,  0, 5, 3, 'a', 'b', 'c', 0, 0, 0, 6, 255, 1, 44};
   m.insert(m.end(), 300, 'n');
   m[2] = static_cast<std::uint8_t>(m.size() >> 8);
   m[3] = static_cast<std::uint8_t>(m.size());
   m[18] = static_cast<std::uint8_t>((m.size() - 16) >> 8);
   m[19] = static_cast<std::uint8_t>(m.size() - 16);
   return m;
}

}  // namespace

TEST(IpfixDecoder, SplitsDataByTheTemplateIncludingBothVariableLengthForms) {
   Decoder d;
   auto const t = d.decode(templateMsg).templates();
   ASSERT_EQ(t.size(), 1u);
   EXPECT_EQ(t[0].id, 257);
   EXPECT_EQ(t[0].scopeFieldCount, 1);
   EXPECT_EQ(t[0].fields,
             (std::vector<testsupport::FieldSpec>{{10, 4, false, 0}, {82, 65535, true, 32473}}));
   auto const m = d.decode(dataMsg());
   EXPECT_EQ(m.sequenceNumber, 7u);
   ASSERT_EQ(m.dataRecordCount(), 2u);
   auto const& recs = m.sets.at(0).records;
   EXPECT_EQ(testsupport::fieldValue(recs[0].fields[0]), 5u);
   EXPECT_EQ(testsupport::fieldText(recs[0].fields[1]), "abc");
   EXPECT_EQ(testsupport::fieldText(recs[1].fields[1]), std::string(300, 'n'));
   // Without the template the records stay undecoded but the set is kept.
   EXPECT_EQ(Decoder().decode(dataMsg()).dataRecordCount(), 0u);
}

// Bad input made by editing octets of the good messages is refused with the reason. The template
// message (edited or not) is decoded first, then the data message (edited or not).
TEST(IpfixDecoder, RefusesDamagedMessages) {
   struct Edit {
      std::size_t offset;
      std::uint8_t value;
   };
   struct Case {
      char const* what;
      std::vector<Edit> templateEdits;
      std::vector<Edit> dataEdits;
      std::size_t templateSize;  // cut the template message to this size; 0 keeps it whole
      char const* reason;
   };
   Case const cases[] = {
       {"version 9", {{1, 9}}, {}, 0, "version"},
       {"message length", {{3, 39}}, {}, 0, "message length"},
       {"set length", {{19, 3}}, {}, 0, "set length"},
       {"third field specifier missing", {{23, 3}}, {}, 0, "truncated"},
       {"no scope fields", {{25, 0}}, {}, 0, "scope field count"},
       {"template id 1", {{20, 0}}, {}, 0, "below 256"},
       {"name longer than the set", {}, {{24, 200}}, 0, "truncated"},
       // Records that take no octets would never use up the set.
       {"fields of 0 octets", {{29, 0}, {32, 0}, {33, 0}}, {}, 0, "records of 0 octets"},
       {"template without fields",
        {{3, 24}, {17, 2}, {19, 8}, {23, 0}},
        {},
        24,
        "records of 0 octets"},
   };
   for (Case const& c : cases) {
      SCOPED_TRACE(c.what);
      Bytes tmpl = templateMsg;
      Bytes data = dataMsg();
      for (Edit const& e : c.templateEdits) {
         tmpl.at(e.offset) = e.value;
      }
      for (Edit const& e : c.dataEdits) {
         data.at(e.offset) = e.value;
      }
      if (c.templateSize != 0) {
         tmpl.resize(c.templateSize);
      }
      Decoder d;
      try {
         d.decode(tmpl);
         d.decode(data);
         ADD_FAILURE() << "accepted a damaged message";
      } catch (DecodeError const& e) {
         EXPECT_NE(std::string(e.what()).find(c.reason), std::string::npos) << e.what();
      }
   }
}
