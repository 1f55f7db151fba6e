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

// Bad input made by editing one octet of a good message is refused with the reason.
TEST(IpfixDecoder, RefusesDamagedMessages) {
   struct Case {
      bool data;
      std::size_t offset;
      std::uint8_t value;
      char const* reason;
   };
   Case const cases[] = {
       {false, 1, 9, "version"},
       {false, 3, 39, "message length"},
       {false, 19, 3, "set length"},
       {false, 23, 3, "truncated"},          // a third field specifier that is not there
       {false, 25, 0, "scope field count"},  // an options template without scope fields
       {false, 20, 0, "below 256"},          // template id 1
       {true, 24, 200, "truncated"},         // a name longer than the set
   };
   for (Case const& c : cases) {
      Bytes bad = c.data ? dataMsg() : templateMsg;
      bad[c.offset] = c.value;
      Decoder d;
      d.decode(templateMsg);
      try {
         d.decode(bad);
         ADD_FAILURE() << "accepted a damaged message, offset " << c.offset;
      } catch (DecodeError const& e) {
         EXPECT_NE(std::string(e.what()).find(c.reason), std::string::npos) << e.what();
      }
   }
}
