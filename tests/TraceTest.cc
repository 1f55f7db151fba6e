// KTRACE and the two traces it feeds: the Snaplog ring and the Dualog text trace.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Trace/Trace.h"
#include "support/DeathText.h"

KTRACE_FACILITY(::Dualog::facility("TraceTest.ktrace"))

using Lines = std::vector<std::string>;

TEST(TraceKtrace, SnaplogAlwaysDualogOnlyUpToTheFacilityLevel) {
   testsupport::TextTrace sink;
   Snaplog::clear();
   Dualog::Facility& fac = ktraceFacility_p();
   fac.levelIs(3);
   for (int level : {0, 3, 4, 9}) {
      KTRACE(level, "at " << level << ' ' << 2.5 << ' ' << true << ' ' << std::string("s"));
   }
   fac.levelIs(Dualog::off());
   KTRACE(0, "off");
   EXPECT_EQ(Snaplog::lines(), (Lines{"at 0 2.5 true s", "at 3 2.5 true s", "at 4 2.5 true s",
                                      "at 9 2.5 true s", "off"}));
   EXPECT_EQ(sink.lines,
             (Lines{"TraceTest.ktrace/0 at 0 2.5 true s", "TraceTest.ktrace/3 at 3 2.5 true s"}));

   // Nothing keeps the line: it is not even formatted.
   int formatted = 0;
   Snaplog::enabledIs(false);
   KTRACE(0, ++formatted);
   KTRACE_FAST(++formatted);
   KTRACE_TEXT(0, ++formatted);
   Snaplog::enabledIs(true);
   EXPECT_EQ(formatted, 0);
   EXPECT_EQ(Snaplog::lines().size(), 5u);

   // The level is evaluated once, whichever sinks take the line; text-only detail stays out of
   // the fast ring.
   sink.lines.clear(), Snaplog::clear();
   fac.levelIs(9);
   int evaluations = 0;
   KTRACE((++evaluations, 4), "both");
   KTRACE_TEXT((++evaluations, 9), "dump");
   fac.levelIs(Dualog::off());
   EXPECT_EQ(evaluations, 2);
   EXPECT_EQ(Snaplog::lines(), (Lines{"both"}));
   EXPECT_EQ(sink.lines, (Lines{"TraceTest.ktrace/4 both", "TraceTest.ktrace/9 dump"}));
}

// An enable string is applied whole or not at all; "*" sets the facilities it does not name.
TEST(TraceDualog, EnableStringAppliedWholeOrNotAtAll) {
   struct Case {
      char const* text;
      bool ok;
      int a, b, other;  // levels of TraceTest.a, TraceTest.b and TraceTest.other after
   } const cases[] = {
       {"TraceTest.a/4,TraceTest.b", true, 4, 9, -1},
       {"TraceTest.a/4,TraceTest.b/9,*/2", true, 4, 9, 2},
       {"*/2,TraceTest.a/0", true, 0, 2, 2},
       {"", true, -1, -1, -1},
       {"TraceTest.a/10", false, -1, -1, -1},
       {"TraceTest.a/", false, -1, -1, -1},
       {"TraceTest.a/x", false, -1, -1, -1},
       {"/3", false, -1, -1, -1},
       {",TraceTest.a", false, -1, -1, -1},
       {"TraceTest.a,,TraceTest.b", false, -1, -1, -1},
       {"TraceTest.a/5,", false, -1, -1, -1},
       {"TraceTest.a/5,TraceTest.b/x", false, -1, -1, -1},
   };
   for (auto const& c : cases) {
      SCOPED_TRACE(c.text);
      Dualog::enable("*", Dualog::off());
      EXPECT_EQ(Dualog::validSpec(c.text), c.ok);
      EXPECT_EQ(Dualog::enableFromSpec(c.text), c.ok);
      EXPECT_EQ(Dualog::facility("TraceTest.a").level(), c.a);
      EXPECT_EQ(Dualog::facility("TraceTest.b").level(), c.b);
      EXPECT_EQ(Dualog::facility("TraceTest.other").level(), c.other);
   }
   Dualog::enable("*", 3);  // also the level of facilities created from now on
   EXPECT_EQ(Dualog::facility("TraceTest.createdAfterwards").level(), 3);
   Dualog::enable("*", Dualog::off());
}

TEST(TraceSnaplog, RingKeepsTheNewestLinesEachTruncated) {
   Snaplog::clear();
   EXPECT_TRUE(Snaplog::lines().empty());
   std::size_t const total = Snaplog::ringLines() + 10;
   for (std::size_t i = 0; i < total; ++i) {
      Snaplog::record("line " + std::to_string(i));
   }
   Lines all = Snaplog::lines();
   ASSERT_EQ(all.size(), Snaplog::ringLines());
   EXPECT_EQ(all.front(), "line 10");
   EXPECT_EQ(all.back(), "line " + std::to_string(total - 1));
   EXPECT_EQ(Snaplog::lines(2), (Lines{"line " + std::to_string(total - 2), all.back()}));
   std::string const longLine(Snaplog::lineCapacity() + 50, 'x');
   Snaplog::record(longLine);
   EXPECT_EQ(Snaplog::lines(1), Lines{longLine.substr(0, Snaplog::lineCapacity())});
   Snaplog::clear();
}

TEST(TraceLine, TruncatesAtCapacityWithoutOverflow) {
   Trace::Line line;
   std::string const fill(Trace::Line::capacity() - 3, 'a');
   line << fill << 123456 << "tail";
   EXPECT_EQ(line.view(), fill + "123");
   line << 'z' << 7.5 << std::string(5000, 'b') << static_cast<char const*>(nullptr);
   EXPECT_EQ(line.view(), fill + "123");
   Trace::Line empty;
   empty << static_cast<char const*>(nullptr) << ' ' << -12 << ' ' << 18446744073709551615ull;
   EXPECT_EQ(empty.view(), "(null) -12 18446744073709551615");
}
