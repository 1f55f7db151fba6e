// KIVO_ASSERT and KIVO_ABSTRACT stop the process and say exactly which condition failed.
#include <gtest/gtest.h>

#include <regex.h>

#include <string>
#include <vector>

#include "Kivo/Assert.h"
#include "Trace/Trace.h"
#include "support/DeathText.h"

using testsupport::assertText;
using testsupport::deathText;

// The expected texts are only as good as their escaping: an unescaped `+` or `(` would also
// accept a different condition.
TEST(AssertDeathTest, DeathTextMatchesOnlyTheLiteral) {
   auto matches = [](std::string_view literal, std::string const& text) {
      regex_t re;  // the engine EXPECT_DEATH uses here
      EXPECT_EQ(regcomp(&re, deathText(literal).c_str(), REG_EXTENDED | REG_NOSUB), 0);
      bool const found = regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
      regfree(&re);
      return found;
   };
   std::string const tricky = "a + b <= c[i] && (x.y || *p) ? \"s|t\" : f({1}) ^ $\\";
   EXPECT_TRUE(matches(tricky, "FAILED: " + tricky + "\n"));
   EXPECT_FALSE(matches("a + b", "aa b"));
   EXPECT_FALSE(matches("(!(x))", "!x"));
   EXPECT_FALSE(matches("a.c", "abc"));
}

TEST(AssertDeathTest, AssertReportsTheConditionAsWritten) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   int a = 2, b = 3, c = 4;
   std::vector<int> v{1};
   EXPECT_DEATH(KIVO_ASSERT(a + b <= c), assertText("a + b <= c"));
   // clang-format off
   EXPECT_DEATH(KIVO_ASSERT(a   +
                            b<=c), assertText("a + b<=c"));  // blanks fold into one
   // clang-format on
   EXPECT_DEATH(KIVO_ASSERT(v[0] == (a * 2) || v.empty()),
                assertText("v[0] == (a * 2) || v.empty()"));
   EXPECT_DEATH(KIVO_ABSTRACT("taskPrefix"), assertText(R"((!("taskPrefix")))"));
   KIVO_ASSERT(a + b > c);  // a true condition does nothing
}

TEST(AssertDeathTest, AssertDumpsTheNewestTraceLines) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   EXPECT_DEATH(
       {
          KTRACE_FAST("last words " << 42);
          KIVO_ASSERT(false);
       },
       assertText("false") + ".*" + deathText("  last words 42\n"));
}
