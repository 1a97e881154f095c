#include <gtest/gtest.h>

#include <string>

#include "orvix/host/function_ref.h"

namespace orvix {
namespace {

int Twice(FunctionRef<int(int)> f, int value) {
  return f(f(value));
}

TEST(FunctionRef, CallsTheObjectItRefersToNotACopy) {
  int calls = 0;
  auto counted = [&calls](int v) {
    ++calls;
    return v + 1;
  };
  EXPECT_EQ(Twice(counted, 1), 3);
  EXPECT_EQ(calls, 2);
  // A mutable lambda keeps its state in the one object.
  auto numbered = [n = 0](int v) mutable { return v * 10 + ++n; };
  EXPECT_EQ(Twice(numbered, 0), 12);
  EXPECT_EQ(numbered(0), 3);
  // A temporary lives until the end of the call it is passed to; the result
  // converts to the signature's.
  EXPECT_EQ(Twice([](long v) { return v * 3; }, 2), 18);
  // Kept, it refers to an object that outlives it, and passes references on.
  const auto appendX = [](std::string& s) { s += "x"; };
  const FunctionRef<void(std::string&)> append = appendX;
  std::string text;
  append(text);
  append(text);
  EXPECT_EQ(text, "xx");
}

}  // namespace
}  // namespace orvix
