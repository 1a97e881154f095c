#include <gtest/gtest.h>

#include "orvix/host/error.h"
#include "orvix/host/format.h"
#include "orvix/host/result.h"

namespace orvix {
namespace {

Result<int> Half(int v) {
  ORVIX_CHECK_ARGUMENT(v % 2 == 0);
  return v / 2;
}

Result<int> Quarter(int v) {
  ORVIX_TRY_ASSIGN(int h, Half(v));
  ORVIX_TRY_ASSIGN(int q, Half(h));
  return q;
}

Result<void> CheckPositive(int v) {
  ORVIX_CHECK_STATE(v > 0);
  return Ok();
}

Result<int> PassOn(const Result<int>& named) {
  ORVIX_TRY(named);
  return *named + 1;
}

TEST(Result, ValuesAndErrorsPropagate) {
  EXPECT_EQ(*Quarter(8), 2);
  Result<int> r = Quarter(6);
  ASSERT_FALSE(r);
  EXPECT_EQ(r.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
  EXPECT_EQ(r.GetError().GetMessage(), "Illegal argument: Condition v % 2 == 0 not fulfilled. ");
  EXPECT_TRUE(CheckPositive(1));
  EXPECT_EQ(CheckPositive(0).GetError().GetMessage(),
            "Illegal state: Condition v > 0 not fulfilled. ");
  // ORVIX_TRY on a named result leaves it intact.
  EXPECT_FALSE(PassOn(r));
  EXPECT_EQ(r.GetError().GetMessage(), "Illegal argument: Condition v % 2 == 0 not fulfilled. ");
  EXPECT_EQ(*PassOn(Half(4)), 3);
}

TEST(Result, ErrorCarriesClassIdAndLocation) {
  Error e(std::string(ERROR_ID_UNSUPPORTED_OPERATION), "nope");
  EXPECT_EQ(e.GetClass(), ERROR_CLASS::UNSUPPORTED_OPERATION);
  Error reg("net.orvix.error.custom", "custom");
  EXPECT_EQ(reg.GetClass(), ERROR_CLASS::REGISTERED);
  EXPECT_EQ(reg.GetClassId(), "net.orvix.error.custom");
  EXPECT_NE(std::string(reg.GetLocation().file_name()).find("result_test.cpp"), std::string::npos);
}

TEST(Format, MarksTakeArgumentsInOrder) {
  EXPECT_EQ(FormatMessage("Count @ out of bounds for start position @.", -3, 2),
            "Count -3 out of bounds for start position 2.");
  EXPECT_EQ(FormatMessage("a @ b @", "x"), "a x b @");
  EXPECT_EQ(FormatMessage("no marks", 1, 2), "no marks");
  EXPECT_EQ(FormatMessage("@@", true, std::string("s")), "trues");
}

}  // namespace
}  // namespace orvix
