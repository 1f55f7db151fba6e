#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <functional>

#include "Ipfix/CollectorStats.h"
#include "Mirra/ShmTable.h"
#include "support/DeathText.h"

using namespace Mirra::Ipfix;
using testsupport::errorOf;

namespace {

CollectorStatisticsKey key(std::string_view tracker = "t1", std::string_view exporter = "e1") {
   return {tracker, exporter,
           CollectorInfo::fromIpAndPort(*Pelto::IpAndPort::parse("192.0.2.10:4739"))};
}

CollectorSetStatisticsEntry set(std::uint16_t id, std::uint64_t flows = 0) {
   return {id, flows, 0};
}

}  // namespace

// The slot freed last is reused first even when a lower slot is free; only then the lowest free
// slot, then appending.
TEST(CollectorStats, LastFreedSlotIsReusedBeforeALowerFreeOne) {
   CollectorStatisticsEntry e(key());
   for (std::uint16_t id : {256, 257, 258, 259, 260}) {
      e.setEntryIs(set(id, id));
   }
   e.setEntryDel(SetId(257));                                           // slot 1
   EXPECT_EQ(e.setEntryDel(SetId(259)).exportedFlowRecordCount, 259u);  // slot 3, freed last
   EXPECT_EQ(std::tuple(e.setEntryCount, e.nextIdx, e.maybeNewIndexForSetId(SetId(2))),
             std::tuple(5, 3, 3));
   e.setEntryIs(set(2, 1)), e.setEntryIs(set(3, 1)), e.setEntryIs(set(261, 1));
   EXPECT_EQ(std::tuple(e.indexForSetId(SetId(2)), e.indexForSetId(SetId(3)),
                        e.indexForSetId(SetId(261)), e.setEntryCount),
             std::tuple(3, 1, 5, 6));
   // Slot 0 freed first and slot 4 last: slot 4 again, then slot 0.
   e.setEntryDel(SetId(256)), e.setEntryDel(SetId(260));
   e.setEntryIs(set(262)), e.setEntryIs(set(263));
   EXPECT_EQ(std::tuple(e.indexForSetId(SetId(262)), e.indexForSetId(SetId(263))),
             std::tuple(4, 0));
}

TEST(CollectorStats, UnknownSetIdReadsAsZeroAndChangesNothing) {
   CollectorStatisticsEntry e(key());
   e.setEntryIs(set(3, 7));
   CollectorStatisticsEntry const before = e;
   EXPECT_EQ(e.setEntry(SetId(256)), CollectorSetStatisticsEntry());
   EXPECT_EQ(e.setEntryDel(SetId(256)), CollectorSetStatisticsEntry());
   EXPECT_EQ(e, before);
}

TEST(CollectorStats, TwentyThirdSetIdIsARangeError) {
   CollectorStatisticsEntry e(key());
   for (std::uint16_t id = 256; id < 256 + 22; ++id) {
      e.setEntryIs(set(id));
   }
   EXPECT_EQ(errorOf([&] { e.setEntryIs(set(1000)); }),
             "Mirra::Ipfix::SetIndex::value < Mirra::Ipfix::SetIndex::min or > "
             "Mirra::Ipfix::SetIndex::max not allowed");
   e.setEntryIs(set(256, 9));  // an existing id still updates in place
   EXPECT_EQ(e.setEntry(SetId(256)).exportedFlowRecordCount, 9u);
   EXPECT_THROW(StringIndex(128), Kivo::RangeException);
   EXPECT_EQ(StringIndex(127).value, 127);
}

TEST(CollectorStats, KeyHashOnFixedVectorsAndEquality) {
   // The hash is shared with reader processes, so its values must not drift. The vectors were
   // computed by a separate implementation of the algorithm (FNV-1a names, one-at-a-time mix).
   EXPECT_NE(key("t1", "e1").hash(), key("t1", "e2").hash());
   EXPECT_NE(key("t1", "e1").hash(), key("e1", "t1").hash());
   CollectorStatisticsKey v6(
       "t1", "e1", CollectorInfo::fromIp6AndPort(*Pelto::Ip6AndPort::parse("[::1]:4739")));
   struct Vector {
      CollectorStatisticsKey k;
      std::uint32_t hash;
   };
   Vector const vectors[] = {
       {CollectorStatisticsKey("", "", CollectorInfo{}), 0xf23a58fdu},
       {key(), 0xd96d5775u},
       {v6, 0xbc558c82u},
   };
   for (auto const& v : vectors) {
      EXPECT_EQ(v.k.hash(), v.hash) << std::hex << v.k.hash() << " " << v.k;
   }
}

TEST(CollectorStats, TextForms) {
   CollectorStatisticsEntry e(key("it's", "e1"));
   e.exportedMessageTotalCount = 3;
   e.setEntryIs({256, 10, 0}), e.setEntryIs({2, 0, 4});
   EXPECT_EQ(e.key.toString(),
             "Value('Mirra::Ipfix::CollectorStatisticsKey', ** {'collector': "
             "Value('Mirra::Ipfix::CollectorInfo', ** {'addr': 192.0.2.10, 'port': 4739}), "
             "'trackerStorage': 'it\\'s', 'exporterStorage': 'e1'})");
   EXPECT_EQ(e.setEntryStorage[1].toString(),
             "Value('Mirra::Ipfix::CollectorSetStatisticsEntry', ** {'setId': 2, "
             "'exportedFlowRecordCount': 0, 'exportedTemplateCount': 4})");
   EXPECT_EQ(e.mirraString(),
             "msgs: 3, flows: 0, octets: 0, last message: 0.000000, template: 0.000000, data: "
             "0.000000, options data: 0.000000, cleared: 0.000000, set256: (flows: 10, "
             "templates: 0), set2: (flows: 0, templates: 4)");
   EXPECT_NE(e.toString().find("'nextIdx': 255, 'setEntryStorage': [Value("), std::string::npos);
}

using CollectorStatsDeathTest = ::testing::Test;

TEST_F(CollectorStatsDeathTest, InvalidSetIdsAndLongNamesStop) {
   std::string const setIdText =
       "value() == Pelto::IpfixConst::optionsTemplateSetId() || value() == "
       "Pelto::IpfixConst::templateSetId()";
   for (std::uint16_t bad : {0, 1, 4, 255}) {
      EXPECT_DEATH(SetId{bad}, testsupport::deathText(setIdText)) << bad;
   }
   for (std::uint16_t good : {2, 3, 256, 65535}) {
      EXPECT_EQ(SetId(good).value(), good);
   }
   EXPECT_NO_FATAL_FAILURE(key(std::string(128, 'x')));
   EXPECT_DEATH(key(std::string(129, 'x')), testsupport::deathText("sz <= StringIndex::max() + 1"));
}

namespace {

using Damage = std::function<void(CollectorStatisticsEntry&)>;

struct Damaged {
   char const* what;
   Damage damage;
   char const* text;
};

// Ways another process could have changed an entry in shared memory, and what is wrong then.
std::vector<Damaged> damagedEntries() {
   using E = CollectorStatisticsEntry;
   return {
       {"long tracker name", [](E& e) { e.key.trackerStorage.len = 200; },
        "tracker name length 200 exceeds 128"},
       {"long exporter name", [](E& e) { e.key.exporterStorage.len = 129; },
        "exporter name length 129 exceeds 128"},
       {"address family",
        [](E& e) { e.key.collector.addr.family = static_cast<Pelto::IpGenAddr::Family>(9); },
        "collector address family 9 is neither IPv4 nor IPv6"},
       {"set count", [](E& e) { e.setEntryCount = 23; }, "set entry count 23 exceeds 22"},
       {"set count, all ones", [](E& e) { e.setEntryCount = 255; },
        "set entry count 255 exceeds 22"},
       {"slot to reuse", [](E& e) { e.nextIdx = 22; },
        "slot to reuse 22 is past the 22 set entries"},
       {"set id", [](E& e) { e.setEntryStorage[0].setId = 255; },
        "set entry 0 has set id 255, neither a template set id nor a data set id"},
       {"time past year 9999", [](E& e) { e.lastSentTime = 5.08765e+59; },
        "last sent time 5.08765e+59 is not a time"},
       {"negative time", [](E& e) { e.lastOptionsDataSentTime = -1; },
        "last options data sent time -1 is not a time"},
       {"time not a number", [](E& e) { e.lastClearedTime = std::nan(""); },
        "last cleared time nan is not a time"},
   };
}

CollectorStatisticsEntry goodEntry() {
   CollectorStatisticsEntry e(key());
   e.exportedMessageTotalCount = 4;
   e.setEntryIs(set(2, 0)), e.setEntryIs(set(256, 7));
   return e;
}

// Runs `fn` on the one live entry of the table `name`, in its shared memory.
void inSharedMemory(std::string const& name, std::function<void(CollectorStatisticsEntry&)> fn) {
   int const fd = shm_open(Mirra::shmTableDataName(name, 1).c_str(), O_RDWR, 0);
   struct stat st {};
   ASSERT_TRUE(fd >= 0 && fstat(fd, &st) == 0);
   void* p = mmap(nullptr, st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   close(fd);
   ASSERT_NE(p, MAP_FAILED);
   auto* base = static_cast<std::byte*>(p);
   auto const& h = *reinterpret_cast<Mirra::ShmLayout::DataHeader*>(base);
   int live = 0;
   for (std::uint32_t i = 0; i < h.slotCount; ++i) {
      std::byte* slot = base + h.slotsOffset + std::size_t{i} * h.slotSize;
      if (reinterpret_cast<Mirra::ShmLayout::SlotHeader*>(slot)->state ==
          Mirra::ShmLayout::slotLive) {
         fn(*reinterpret_cast<CollectorStatisticsEntry*>(slot + h.valueOffset));
         ++live;
      }
   }
   munmap(p, st.st_size);
   EXPECT_EQ(live, 1);
}

struct CollectorStatsTableTest : ::testing::Test {
   std::string name = "/ipfix-test-collstats-" + std::to_string(getpid()) + "-" +
                      ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

}  // namespace

// An entry damaged in shared memory never makes its own operations read or write past its
// storage, and says what is wrong with it.
TEST(CollectorStats, DamagedEntryStaysInsideItsStorageAndSaysWhatIsWrong) {
   EXPECT_EQ(goodEntry().validationError(), "");
   for (auto const& d : damagedEntries()) {
      SCOPED_TRACE(d.what);
      CollectorStatisticsEntry e = goodEntry();
      d.damage(e);
      EXPECT_EQ(e.validationError(), d.text);
      // Whatever the counts say, nothing goes past the 22 slots or the 128 name bytes.
      EXPECT_LE(std::max(e.key.tracker().size(), e.key.exporter().size()), 128u);
      EXPECT_NE(e.toString().find("'exportedMessageTotalCount': 4"), std::string::npos);
      EXPECT_NE(e.mirraString().find("msgs: 4"), std::string::npos);
      EXPECT_EQ(e.setEntry(SetId(256)).exportedFlowRecordCount, 7u);
      EXPECT_EQ(e.indexForSetId(SetId(300)), SetIndex::none());
   }
}

// The writer's own table damaged by another process: the damaged entry reads as absent, so that
// the exporter's next count replaces it instead of building on it.
TEST_F(CollectorStatsTableTest, WriterTreatsADamagedEntryAsAbsent) {
   for (auto const& d : damagedEntries()) {
      SCOPED_TRACE(d.what);
      auto table = Kivo::make<CollectorStatistics>(name);
      ASSERT_TRUE(table->statsIs(goodEntry()));
      inSharedMemory(name, d.damage);
      EXPECT_EQ(table->stats(key()), std::nullopt);
      ASSERT_TRUE(table->statsIs(goodEntry()));
      EXPECT_EQ(table->stats(key()), goodEntry());
      // Counting in place starts over from an empty entry too.
      CollectorStatisticsPlace place(key());
      inSharedMemory(name, d.damage);
      ASSERT_TRUE(table->statsModify(place, [](auto& e) { e.exportedMessageTotalCount += 1; }));
      CollectorStatisticsEntry expected(key());
      expected.exportedMessageTotalCount = 1;
      EXPECT_EQ(table->stats(key()), expected);
   }
}

// A writer counting in place into the entry it found once keeps counting into that key's entry
// when the table moves it (growth), and starts from an empty entry when it was deleted; readers
// see each count whole.
TEST_F(CollectorStatsTableTest, CountingInPlaceFollowsTheEntryThroughGrowthAndDeletion) {
   struct Case {
      char const* what;
      std::function<void(CollectorStatistics&)> event;
      std::uint64_t msgsAfter;
   } const cases[] = {
       {"nothing", [](CollectorStatistics&) {}, 2},
       {"growth",
        [](CollectorStatistics& t) {
           for (int i = 0; i < 300; ++i) {
              ASSERT_TRUE(t.statsIs(CollectorStatisticsEntry(key("x" + std::to_string(i)))));
           }
        },
        2},
       {"deletion", [](CollectorStatistics& t) { t.statsDel(key()); }, 1},
       {"all deleted", [](CollectorStatistics& t) { t.statsDelAll(); }, 1},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.what);
      auto table = Kivo::make<CollectorStatistics>(name, 4);
      CollectorStatisticsReader reader(name);
      CollectorStatisticsPlace place(key());
      auto count = [&] {
         std::uint64_t const before = reader.generation();
         ASSERT_TRUE(table->statsModify(place, [](CollectorStatisticsEntry& e) {
            e.exportedMessageTotalCount += 1;
            e.flowRecordCountInc(SetId(256), 5);
         }));
         EXPECT_EQ(reader.generation(), before + 1);
      };
      count();
      c.event(*table);
      count();
      CollectorStatisticsEntry expected(key());
      expected.exportedMessageTotalCount = c.msgsAfter;
      expected.setEntryIs(set(256, 5 * c.msgsAfter));
      EXPECT_EQ(reader.stats(key()), expected);
      EXPECT_EQ(table->stats(key()), expected);
      EXPECT_EQ(reader.allStats().size(), table->statsCount());
   }
}

// Each case damages one field of the entry of a good table; a reader refuses it with the reason.
TEST_F(CollectorStatsTableTest, ReaderRefusesADamagedEntryWithTheReason) {
   auto cases = damagedEntries();
   cases.push_back({"key", [](CollectorStatisticsEntry& e) { e.key.exporterIs("e2"); },
                    "its key differs from the key of its slot"});
   for (auto const& d : cases) {
      SCOPED_TRACE(d.what);
      auto table = Kivo::make<CollectorStatistics>(name);
      ASSERT_TRUE(table->statsIs(goodEntry()));
      CollectorStatisticsReader reader(name);
      EXPECT_EQ(reader.stats(key()), goodEntry());
      inSharedMemory(name, d.damage);
      std::string const expected =
          "collector statistics table " + name + ": damaged entry: " + d.text;
      EXPECT_EQ(errorOf([&] { reader.allStats(); }), expected);
      EXPECT_EQ(errorOf([&] { reader.stats(key()); }), expected);
      EXPECT_EQ(reader.stats(key("t2")), std::nullopt);  // other keys still read
   }
}
