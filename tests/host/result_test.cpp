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

Result<int> PassOn(const Result<int>& named) {
  ORVIX_TRY(named);
  ORVIX_CHECK_STATE(*named > 0);
  return *named + 1;
}

TEST(Result, ValuesAndErrorsPropagate) {
  EXPECT_EQ(*Quarter(8), 2);
  Result<int> r = Quarter(6);
  ASSERT_FALSE(r);
  EXPECT_EQ(r.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
  // ORVIX_TRY on a named result leaves it intact.
  EXPECT_FALSE(PassOn(r));
  EXPECT_EQ(r.GetError().GetMessage(), "Illegal argument: Condition v % 2 == 0 not fulfilled. ");
  EXPECT_EQ(*PassOn(Half(4)), 3);
  EXPECT_EQ(PassOn(Half(0)).GetError().GetMessage(),
            "Illegal state: Condition *named > 0 not fulfilled. ");
}

TEST(Result, ErrorClassFollowsTheId) {
  EXPECT_EQ(Error(std::string(ERROR_ID_UNSUPPORTED_OPERATION), "nope").GetClass(),
            ERROR_CLASS::UNSUPPORTED_OPERATION);
  Error custom("net.orvix.error.custom", "custom");
  EXPECT_EQ(custom.GetClass(), ERROR_CLASS::REGISTERED);
  EXPECT_EQ(custom.GetClassId(), "net.orvix.error.custom");
}

TEST(Format, MarksTakeArgumentsInOrderAndSparesAreLeftAlone) {
  EXPECT_EQ(FormatMessage("a @ b @", "x"), "a x b @");
  EXPECT_EQ(FormatMessage("@@ and no more", true, std::string("s"), 3), "trues and no more");
}

}  // namespace
}  // namespace orvix
