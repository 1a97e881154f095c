#pragma once
// A callable passed by reference: for a function that only calls its
// argument while it runs. Unlike std::function it never allocates, so taking
// one can't throw; it doesn't own what it refers to, so it must not outlive
// the call it was passed to.

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace orvix {

template <typename Signature>
class FunctionRef;

template <typename R, typename... Args>
class FunctionRef<R(Args...)> {
 public:
  // Refers to `f`, a callable object such as a lambda; a temporary lives
  // until the end of the call that it is passed to.
  // clang-format off
  template <typename F>
    requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef> &&
             std::is_object_v<std::remove_reference_t<F>> &&
             std::is_invocable_r_v<R, std::remove_reference_t<F>&, Args...>)
  FunctionRef(F&& f) noexcept  // implicit, as std::function's is
      : _object(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        _call([](void* object, Args... args) -> R {
          return std::invoke(*static_cast<std::remove_reference_t<F>*>(object),
                             std::forward<Args>(args)...);
        }) {}
  // clang-format on

  R operator()(Args... args) const { return _call(_object, std::forward<Args>(args)...); }

 private:
  void* _object;
  R (*_call)(void* object, Args... args);
};

}  // namespace orvix
