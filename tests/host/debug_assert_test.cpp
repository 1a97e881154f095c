// The debug assertion: a false invariant stops a debug build with its text
// and place; a release build neither evaluates nor reports it.

#include "orvix/host/debug_assert.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace orvix {
namespace {

#ifndef NDEBUG
constexpr bool DEBUG_BUILD = true;
#else
constexpr bool DEBUG_BUILD = false;
#endif

TEST(DebugAssert, AHoldingConditionIsEvaluatedOnceInDebugAndNeverInRelease) {
  int evaluated = 0;
  ORVIX_DEBUG_ASSERT(++evaluated == 1, "counted once");
  EXPECT_EQ(evaluated, DEBUG_BUILD ? 1 : 0);
  // A statement of its own, also where a brace-less if/else would otherwise
  // take the macro's inner if.
  if (evaluated < 0)
    ORVIX_DEBUG_ASSERT(false, "never reached");
  else
    ORVIX_DEBUG_ASSERT(evaluated >= 0, "a count");
  EXPECT_EQ(evaluated, DEBUG_BUILD ? 1 : 0);
}

TEST(DebugAssertDeathTest, AFailingConditionAbortsWithItsTextReasonAndPlace) {
  if (!DEBUG_BUILD) {
    int evaluated = 0;
    ORVIX_DEBUG_ASSERT(++evaluated == 2, "never checked in release");
    EXPECT_EQ(evaluated, 0);
    return;
  }
  const int line = __LINE__ + 3;
  const std::string expected = fmt::format(
      "debug_assert_test.cpp:{}: debug assertion `1 + 1 == 3` failed: arithmetic", line);
  EXPECT_DEATH(ORVIX_DEBUG_ASSERT(1 + 1 == 3, "arithmetic"), ::testing::HasSubstr(expected));
}

}  // namespace
}  // namespace orvix
