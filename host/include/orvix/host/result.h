#pragma once
// Result<T>: a value or an Error. The one way an operation reports failure.

#include <cassert>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "orvix/host/error.h"

namespace orvix {

template <typename T>
class [[nodiscard]] Result {
 public:
  using value_type = T;

  Result(const T& value) : _v(std::in_place_index<0>, value) {}
  Result(T&& value) : _v(std::in_place_index<0>, std::move(value)) {}
  template <typename U>
    requires(std::is_constructible_v<T, U &&> && !std::is_same_v<std::decay_t<U>, T> &&
             !std::is_same_v<std::decay_t<U>, Error> && !std::is_same_v<std::decay_t<U>, Result>)
  Result(U&& value) : _v(std::in_place_index<0>, std::forward<U>(value)) {}
  Result(Error error) : _v(std::in_place_index<1>, std::move(error)) {}

  bool HasValue() const { return _v.index() == 0; }
  explicit operator bool() const { return HasValue(); }

  T& Value() & { assert(HasValue()); return *std::get_if<0>(&_v); }
  const T& Value() const& { assert(HasValue()); return *std::get_if<0>(&_v); }
  T&& Value() && { assert(HasValue()); return std::move(*std::get_if<0>(&_v)); }
  T& operator*() & { return Value(); }
  const T& operator*() const& { return Value(); }
  T&& operator*() && { return std::move(*this).Value(); }
  T* operator->() { return &Value(); }
  const T* operator->() const { return &Value(); }

  const Error& GetError() const& { assert(!HasValue()); return *std::get_if<1>(&_v); }
  Error&& GetError() && { assert(!HasValue()); return std::move(*std::get_if<1>(&_v)); }

  // The value, or `fallback` when this holds an error.
  template <typename U>
  T ValueOr(U&& fallback) const& {
    return HasValue() ? Value() : static_cast<T>(std::forward<U>(fallback));
  }

 private:
  std::variant<T, Error> _v;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  using value_type = void;

  Result() = default;
  Result(Error error) : _error(std::in_place, std::move(error)) {}

  bool HasValue() const { return !_error.has_value(); }
  explicit operator bool() const { return HasValue(); }
  void Value() const { assert(HasValue()); }

  const Error& GetError() const& { assert(!HasValue()); return *_error; }
  Error&& GetError() && { assert(!HasValue()); return std::move(*_error); }

 private:
  std::optional<Error> _error;
};

// Success of a Result<void>.
inline Result<void> Ok() { return {}; }

}  // namespace orvix

// Propagates an error: evaluates `expr` (a Result) and returns its error from the
// enclosing function.
#define ORVIX_TRY(expr)                                           \
  do {                                                            \
    auto&& orvix_try_result_ = (expr);                            \
    if (!orvix_try_result_)                                       \
      return std::forward<decltype(orvix_try_result_)>(orvix_try_result_).GetError(); \
  } while (0)

#define ORVIX_CONCAT_INNER_(a, b) a##b
#define ORVIX_CONCAT_(a, b) ORVIX_CONCAT_INNER_(a, b)

// Declares `decl` from the value of `expr` (a Result), or returns its error.
//   ORVIX_TRY_ASSIGN(NodePath path, NodePath::Parse(text));
#define ORVIX_TRY_ASSIGN(decl, expr) \
  ORVIX_TRY_ASSIGN_IMPL_(ORVIX_CONCAT_(orvix_try_, __LINE__), decl, expr)
#define ORVIX_TRY_ASSIGN_IMPL_(tmp, decl, expr)           \
  auto tmp = (expr);                                      \
  if (!tmp) return std::move(tmp).GetError();             \
  decl = std::move(tmp).Value()
