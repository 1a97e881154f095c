#pragma once
// Must(result): the value of a result that a test needs in order to go on.
//
// Result<T>::Value() on an error checks nothing in a release build (it reads
// through a null pointer), and in a debug build stops with an assertion that
// says nothing of the error. Must says why the value isn't there: it writes
// the error's class, message and origin, and where Must was called, to
// stderr, and aborts. It is for results a test merely expects to succeed;
// a test of an error looks at the error itself.
//
//   GNode a = Must(s->AddChild("a", content, nullptr));   // moved out
//   NodeInfo* info = Must(s->GetMutable(handle, kind));
//   Must(s->EndModification(nullptr, FINALIZE_FLAGS::CLEANUP));
//
// It lives in namespace orvix, so that a call finds it through its argument
// from the namespace of any test.

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>

#include "orvix/host/error.h"
#include "orvix/host/result.h"

namespace orvix {

// The text that Must writes for `error` at the call `where`.
inline std::string MustFailureText(const Error& error, const SourceLocation& where) {
  return fmt::format("{}:{}: Must: the result is an error of class {} ({}): {} in {}",
                     where.file_name(), where.line(), ToString(error.GetClass()),
                     error.GetClassId(), error.Describe(), error.GetLocation().function_name());
}

[[noreturn]] inline void MustFailed(const Error& error, const SourceLocation& where) {
  const std::string text = MustFailureText(error, where);
  std::fprintf(stderr, "%s\n", text.c_str());
  std::fflush(stderr);
  std::abort();
}

template <typename T>
  requires(!std::is_void_v<T>)
T& Must(Result<T>& result, SourceLocation where = SourceLocation::current()) {
  if (!result) MustFailed(result.GetError(), where);
  return result.Value();
}

template <typename T>
  requires(!std::is_void_v<T>)
const T& Must(const Result<T>& result, SourceLocation where = SourceLocation::current()) {
  if (!result) MustFailed(result.GetError(), where);
  return result.Value();
}

// A temporary's value is moved out: a reference into it would dangle at the
// end of the statement.
template <typename T>
  requires(!std::is_void_v<T>)
T Must(Result<T>&& result, SourceLocation where = SourceLocation::current()) {
  if (!result) MustFailed(result.GetError(), where);
  return std::move(result).Value();
}

inline void Must(const Result<void>& result, SourceLocation where = SourceLocation::current()) {
  if (!result) MustFailed(result.GetError(), where);
}

}  // namespace orvix
