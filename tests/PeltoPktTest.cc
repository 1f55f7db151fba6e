#include <gtest/gtest.h>

#include "Pelto/IpfixWire.h"
#include "Pelto/Pkt.h"
#include "support/DeathText.h"

using Pelto::Pkt;

namespace {

std::string text(Pkt const& p) {
   return {reinterpret_cast<char const*>(p.data()), p.bytes()};
}

void append(Kivo::Ptr<Pkt> const& p, std::string_view s) {
   std::size_t const at = p->bytes();
   p->tailGrow(s.size());
   p->write(at, s.data(), s.size());
}

}  // namespace

// Prepending with and without head room: the data must survive the move intact.
TEST(PeltoPkt, HeadGrowKeepsDataWhetherOrNotItMoves) {
   struct Case {
      std::size_t headroom;
      std::size_t grow;
   };
   for (Case c : {Case{8, 4}, Case{4, 4}, Case{2, 6}, Case{0, 10}}) {
      auto p = Kivo::make<Pkt>(20, c.headroom);
      append(p, "records");
      p->headGrow(c.grow);
      EXPECT_EQ(p->bytes(), 7 + c.grow);
      EXPECT_EQ(text(*p), std::string(c.grow, '\0') + "records") << c.headroom << "/" << c.grow;
      EXPECT_EQ(p->headroom() + p->bytes() + p->tailroom(), 20u);
   }
}

TEST(PeltoPkt, TailGrowZeroesAndTrimsGiveBackOctets) {
   auto p = Kivo::make<Pkt>(16, 4);
   append(p, "abcdef");
   p->tailTrim(2);
   p->tailGrow(3);
   EXPECT_EQ(text(*p), std::string("abcd\0\0\0", 7));
   p->headTrim(1);
   EXPECT_EQ(text(*p).substr(0, 3), "bcd");
   EXPECT_EQ(p->hexdump(), "0000: 62 63 64 00 00 00");
}

TEST(PeltoPkt, ViewsWriteBigEndianAndFollowMovedData) {
   auto p = Kivo::make<Pkt>(64, 0);
   p->tailGrow(16);
   Pelto::MessageHeader hdr(p, 0);
   hdr.lengthIs(0x1234), hdr.observationDomainIdIs(0x01020304);
   p->headGrow(4);  // no head room: the data moves back and the view still addresses offset 0
   EXPECT_EQ(hdr.length(), 0);
   Pelto::MessageHeader moved(p, 4);
   EXPECT_EQ(moved.length(), 0x1234);
   EXPECT_EQ(p->data()[4 + 2], 0x12);
   EXPECT_EQ(p->data()[4 + 15], 0x04);

   Pelto::FieldSpecifier plain(p, 0, false);
   plain.elementIdIs(1029), plain.fieldLenIs(2);
   EXPECT_EQ(plain.size(), 4u);
   Pelto::FieldSpecifier ent(p, 4, true);
   ent.elementIdIs(1024), ent.fieldLenIs(4), ent.entNumIs(32473);
   EXPECT_EQ(ent.elementId(), 1024);
   std::uint8_t const expected[] = {0x04, 0x05, 0x00, 0x02, 0x84, 0x00,
                                    0x00, 0x04, 0x00, 0x00, 0x7e, 0xd9};
   EXPECT_EQ(std::vector<std::uint8_t>(p->data(), p->data() + 12),
             std::vector<std::uint8_t>(std::begin(expected), std::end(expected)));
}

using PeltoPktDeathTest = ::testing::Test;

TEST_F(PeltoPktDeathTest, GrowingPastCapacityOrViewingPastTheDataStops) {
   auto p = Kivo::make<Pkt>(8, 2);
   append(p, "abcdef");
   EXPECT_DEATH(p->tailGrow(1), testsupport::deathText("n <= tailroom()"));
   EXPECT_DEATH(p->headGrow(3), testsupport::deathText("bytes() + n <= capacity()"));
   EXPECT_DEATH(Pelto::MessageHeader(p, 0).length(),
                testsupport::deathText("offset_ + sizeof(W) <= pkt_->bytes()"));
   EXPECT_DEATH(Pelto::FieldSpecifier(p, 0, false).elementIdIs(0x8000),
                testsupport::deathText("id < IpfixConst::enterpriseBit()"));
}
