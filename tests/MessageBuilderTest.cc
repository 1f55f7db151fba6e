#include <gtest/gtest.h>

#include "Ipfix/MessageBuilder.h"
#include "support/DeathText.h"
#include "support/IpfixDecoder.h"
#include "support/Probes.h"

using FlowTracking::MessageBuilder;
using FlowTracking::MessageBuilderProbe;
using FlowTracking::RecordField;
using FlowTracking::recordField;
using FlowTracking::RecordWriter;
using testsupport::Bytes;

namespace {

std::string record(std::size_t n, char fill = 'r') {
   return std::string(n, fill);
}

Bytes bytes(Kivo::Ptr<FlowTracking::DataRecord const> const& r) {
   return Bytes(r->data().begin(), r->data().end());
}

// One field of every width a number can have, and a variable-length one between them.
constexpr RecordField everyWidth[] = {
    recordField("protocolIdentifier", true),  // 1 octet
    recordField("sourceTransportPort"),       // 2
    recordField("interfaceName"),             // variable
    recordField("ingressInterface"),          // 4
    recordField("octetDeltaCount"),           // 8
};

testsupport::Message decode(Kivo::Ptr<FlowTracking::Message> const& m) {
   testsupport::Decoder d;
   return d.decode(m->pkt()->span());
}

}  // namespace

TEST(MessageBuilder, OneRecordMessageHasExactLengthsAndZeroStamps) {
   auto b = FlowTracking::messageBuilderFactory(1400, 77);
   b->startMsg();
   EXPECT_EQ(b->addSetRecord(256, FlowTracking::dataRecordFactory(record(10))), 10u);
   auto msg = b->finalizeMsg();
   EXPECT_EQ(msg->recordCount(), 1u);
   EXPECT_EQ(msg->pkt()->bytes(), 30u);
   auto const m = decode(msg);
   EXPECT_EQ(std::tuple(m.length, m.observationDomainId, m.exportTime, m.sequenceNumber),
             std::tuple(30, 77u, 0u, 0u));
   ASSERT_EQ(m.sets.size(), 1u);
   EXPECT_EQ(std::tuple(m.sets[0].id, m.sets[0].length, m.sets[0].body),
             std::tuple(256, 14, Bytes(10, 'r')));
   // The builder is idle again and starts the next message from scratch.
   EXPECT_FALSE(MessageBuilderProbe::pkt(*b));
   EXPECT_EQ(std::tuple(MessageBuilderProbe::offset(*b), b->recordCount()), std::tuple(0u, 0u));
}

TEST(MessageBuilder, ConsecutiveRecordsOfOneIdShareASet) {
   auto b = FlowTracking::messageBuilderFactory(1400, 1);
   b->startMsg();
   b->addSetRecordStr(300, "a1");
   b->addSetRecordStr(300, "a2");
   b->addSetRecordStr(301, "b1b");
   b->addSetRecordStr(300, "a3");
   auto msg = b->finalizeMsg();
   EXPECT_EQ(msg->recordCount(), 4u);
   auto const m = decode(msg);
   ASSERT_EQ(m.sets.size(), 3u);
   EXPECT_EQ(std::tuple(m.sets[0].id, m.sets[1].id, m.sets[2].id), std::tuple(300, 301, 300));
   EXPECT_EQ(testsupport::fieldText(m.sets[0].body), "a1a2");
   EXPECT_EQ(m.sets[1].length, 7);
   EXPECT_EQ(testsupport::fieldText(m.sets[2].body), "a3");
   EXPECT_EQ(m.length, 16 + (4 + 4) + (4 + 3) + (4 + 2));
}

// With maxSize 100 and the message filled to offset 90: a record of the open set's id needs only
// its own octets, one of another id also needs a set header.
TEST(MessageBuilder, RoomTestAtTheExactBoundary) {
   struct Case {
      FlowTracking::TemplateId id;
      std::size_t len;
      bool fits;
   };
   Case const cases[] = {{256, 10, true}, {256, 11, false}, {257, 6, true}, {257, 7, false}};
   for (Case const& c : cases) {
      auto b = FlowTracking::messageBuilderFactory(100, 1);
      b->startMsg();
      ASSERT_EQ(b->addSetRecordStr(256, record(70)), 70u);
      ASSERT_EQ(MessageBuilderProbe::offset(*b), 90u);
      std::uint32_t const written = b->addSetRecordStr(c.id, record(c.len, 'x'));
      SCOPED_TRACE(std::to_string(c.id) + "/" + std::to_string(c.len));
      // A refused record changes nothing: the open set stays open.
      EXPECT_EQ(std::tuple(written, MessageBuilderProbe::offset(*b), b->recordCount()),
                c.fits ? std::tuple(std::uint32_t(c.len), 100u, 2u) : std::tuple(0u, 90u, 1u));
      EXPECT_EQ(MessageBuilderProbe::setId(*b), c.fits ? c.id : FlowTracking::TemplateId(256));
      auto const m = decode(b->finalizeMsg());
      EXPECT_EQ(std::tuple(m.length, m.sets.size()),
                (std::tuple<std::uint16_t, std::size_t>(c.fits ? 100 : 90,
                                                        c.fits && c.id == 257 ? 2 : 1)));
   }
}

TEST(MessageBuilder, RefusedRecordGoesIntoTheNextMessageWhole) {
   auto b = FlowTracking::messageBuilderFactory(64, 9);
   std::vector<Kivo::Ptr<FlowTracking::Message>> msgs;
   b->startMsg();
   for (int i = 0; i < 5; ++i) {
      auto rec = FlowTracking::dataRecordFactory(record(20, static_cast<char>('a' + i)));
      if (b->addSetRecord(400, rec) == 0) {
         msgs.push_back(b->finalizeMsg());
         b->startMsg();
         ASSERT_EQ(b->addSetRecord(400, rec), 20u);
      }
   }
   msgs.push_back(b->finalizeMsg());
   ASSERT_EQ(msgs.size(), 3u);  // 16 + 4 + 2 * 20 = 60 octets hold two records
   std::string all;
   std::uint32_t records = 0;
   for (auto const& msg : msgs) {
      auto const m = decode(msg);
      EXPECT_LE(m.length, 64);
      all += testsupport::fieldText(m.sets.at(0).body);
      records += msg->recordCount();
   }
   EXPECT_EQ(records, 5u);
   EXPECT_EQ(all, record(20, 'a') + record(20, 'b') + record(20, 'c') + record(20, 'd') +
                      record(20, 'e'));
}

TEST(MessageBuilder, StampingWritesTimeAndSequenceNumberPerSend) {
   Kivo::ScopedManualClock clock(1'700'000'123.9);
   auto b = FlowTracking::messageBuilderFactory(1400, 5);
   b->startMsg();
   b->addSetRecordStr(256, "abcd");
   auto msg = b->finalizeMsg();
   Bytes const before(msg->pkt()->span().begin(), msg->pkt()->span().end());

   auto pkt = msg->pkt(41);
   EXPECT_EQ(pkt.get(), msg->pkt().get());  // the same packet, restamped
   auto m = decode(msg);
   EXPECT_EQ(std::tuple(m.exportTime, m.sequenceNumber), std::tuple(1'700'000'123u, 41u));
   clock->advance(2);
   msg->pkt(0xffffffffu);
   m = decode(msg);
   EXPECT_EQ(std::tuple(m.exportTime, m.sequenceNumber), std::tuple(1'700'000'125u, 0xffffffffu));
   // Nothing but the two stamped fields changed.
   Bytes after(msg->pkt()->span().begin(), msg->pkt()->span().end());
   std::fill(after.begin() + 4, after.begin() + 12, 0);
   EXPECT_EQ(after, before);
}

TEST(RecordWriter, NumbersTakeTheirElementsWidthBigEndianAndNamesTheShortForm) {
   RecordWriter w(everyWidth, 3);
   w.add(std::uint8_t{0x11});
   w.add(0x2233u);
   w.add(std::string_view("Et1"));
   w.add(std::uint8_t{0x44});  // a narrow value still fills its field
   w.add(std::uint64_t{0x0102030405060708});
   EXPECT_EQ(bytes(w.dataRecord()),
             (Bytes{0x11, 0x22, 0x33, 3, 'E', 't', '1', 0, 0, 0, 0x44, 1, 2, 3, 4, 5, 6, 7, 8}));
   // An empty name is its length octet alone.
   constexpr RecordField nameOnly[] = {recordField("VRFname")};
   RecordWriter empty(nameOnly, 0);
   empty.add(std::string_view());
   EXPECT_EQ(bytes(empty.dataRecord()), Bytes{0});
}

// Each number its width, each variable-length value one length octet and its octets.
TEST(RecordWriter, RecordLengthsComeFromTheFieldList) {
   std::pair<std::size_t, std::size_t> const cases[] = {{0, 16}, {3, 19}, {254, 270}};
   for (auto const& [varOctets, len] : cases) {
      EXPECT_EQ(FlowTracking::recordLen(everyWidth, varOctets), len) << varOctets;
   }
   EXPECT_EQ(FlowTracking::maxRecordLen(everyWidth), 270u);
   constexpr RecordField numbersOnly[] = {recordField("templateId"),
                                          recordField("flowKeyIndicator")};
   EXPECT_EQ(FlowTracking::maxRecordLen(numbersOnly), 10u);
}

using RecordWriterDeathTest = ::testing::Test;

// A record that does not follow its field list stops before anything wrong is handed out.
TEST_F(RecordWriterDeathTest, RecordsThatDisagreeWithTheirFieldsStop) {
   using testsupport::assertText;
   constexpr RecordField portAndName[] = {recordField("sourceTransportPort"),
                                          recordField("interfaceName")};
   auto writer = [&] { return RecordWriter(portAndName, 2); };
   EXPECT_DEATH(writer().add(0x10000u),
                assertText("field.len == 8 || value >> (8 * field.len) == 0"));
   EXPECT_DEATH(writer().add(std::string_view("ab")), assertText("field.isVarLen()"));
   EXPECT_DEATH((void)writer().dataRecord(), assertText("next_ == fields_.size()"));
   auto w = writer();
   w.add(1u);
   EXPECT_DEATH(w.add(2u), assertText("!field.isVarLen()"));
   EXPECT_DEATH(w.add(std::string(255, 'x')), assertText("elementLen < 255"));
   EXPECT_DEATH(w.add(std::string_view("abc")), assertText("*pos + elementLen <= max"));
   w.add(std::string_view("ab"));
   EXPECT_DEATH(w.add(3u), assertText("next_ < fields_.size()"));
   EXPECT_EQ(bytes(w.dataRecord()), (Bytes{0, 1, 2, 'a', 'b'}));
}

using MessageBuilderDeathTest = ::testing::Test;

// Each misuse names its own condition; the texts are matched whole from "ASSERTION FAILED: " to
// the end of the line, so "pkt()" is not satisfied by "builder->pkt()" or "!pkt()".
TEST_F(MessageBuilderDeathTest, MisuseStopsWithTheConditionText) {
   using testsupport::assertText;
   auto b = FlowTracking::messageBuilderFactory(100, 1);
   EXPECT_DEATH(b->addSetRecordStr(256, "x"), assertText("builder->pkt()"));
   EXPECT_DEATH(b->finalizeMsg(), assertText("pkt()"));
   b->startMsg();
   EXPECT_DEATH(b->startMsg(), assertText("!pkt()"));
   EXPECT_DEATH(b->finalizeMsg(), assertText("offset() > IpfixConst::messageHeaderLen()"));
   EXPECT_DEATH(b->addSetRecordStr(256, record(65535)), assertText("bytes < Kivo::maxU16()"));
   // 65533 + 4 wraps to 1 in the 16-bit room test; the hard bound still stops the write.
   EXPECT_DEATH(b->addSetRecordStr(256, record(65533)),
                assertText("builder->offset() + bytes <= builder->pktBufSize()"));
}
