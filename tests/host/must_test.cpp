// Must: the value of a result a test needs, or a stop that says which error
// came instead.

#include "must.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "orvix/host/error.h"
#include "orvix/host/result.h"

namespace orvix {
namespace {

constexpr int ERROR_LINE = __LINE__ + 3;
Result<int> Halve(int v) {
  // The error is made on this line.
  ORVIX_CHECK_ARGUMENT(v % 2 == 0);
  return v / 2;
}

Result<void> Check(bool ok) {
  if (!ok) return Error(ERROR_CLASS::ILLEGAL_STATE, "Not ok.");
  return Ok();
}

TEST(Must, GivesTheValueInPlaceOfANamedResultAndMovesItOutOfATemporary) {
  Result<int> named = Halve(8);
  int& value = Must(named);
  EXPECT_EQ(&value, &named.Value());
  value = 7;
  EXPECT_EQ(*named, 7);
  const Result<int>& constant = named;
  EXPECT_EQ(&Must(constant), &named.Value());

  EXPECT_EQ(Must(Halve(6)), 3);
  // Only movable: the value leaves the temporary.
  std::unique_ptr<int> moved = Must(Result<std::unique_ptr<int>>(std::make_unique<int>(5)));
  ASSERT_TRUE(moved);
  EXPECT_EQ(*moved, 5);
  Must(Check(true));
}

TEST(Must, TheTextNamesTheCallTheClassTheMessageAndTheErrorsOrigin) {
  const Result<int> failed = Halve(3);
  ASSERT_FALSE(failed);
  const SourceLocation at = SourceLocation::current();
  const std::string text = MustFailureText(failed.GetError(), at);
  EXPECT_THAT(text, ::testing::StartsWith(fmt::format(
                        "{}:{}: Must: the result is an error of class illegal argument "
                        "(net.orvix.error.illegalargument): Illegal argument: Condition v % 2 == "
                        "0 not fulfilled.  ({}:{}) in ",
                        __FILE__, at.line(), __FILE__, ERROR_LINE)));
  EXPECT_THAT(text, ::testing::HasSubstr("Halve"));
}

TEST(MustDeathTest, AnErrorStopsTheTestWithItsText) {
  const std::string expected = fmt::format(
      "must_test.cpp:{}: Must: the result is an error of class illegal argument", __LINE__ + 1);
  EXPECT_DEATH(Must(Halve(5)), ::testing::HasSubstr(expected));
  EXPECT_DEATH(
      Must(Check(false)),
      ::testing::HasSubstr("of class illegal state (net.orvix.error.illegalstate): Not ok."));
  Result<int> named = Halve(1);
  EXPECT_DEATH(static_cast<void>(Must(named)), ::testing::HasSubstr("Condition v % 2 == 0"));
}

}  // namespace
}  // namespace orvix
