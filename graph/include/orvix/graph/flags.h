#pragma once
// Flag sets on scoped enumerations: the bitwise operators and a few tests, for
// enumerations that opt in with ORVIX_FLAG_SET_OPERATORS.

#include <concepts>
#include <type_traits>

namespace orvix {

// The raw bits of an enumeration value.
template <typename E>
requires std::is_enum_v<E>
constexpr std::underlying_type_t<E> ToBits(E value) noexcept {
  return static_cast<std::underlying_type_t<E>>(value);
}

// An enumeration whose values are bit sets. The opt-in lives next to the
// enumeration (found by argument-dependent lookup), so flag sets of any
// namespace take part without specialising anything here.
template <typename E>
concept FlagSetEnum = std::is_enum_v<E> && requires(E e) {
  { OrvixIsFlagSet(e) } -> std::same_as<bool>;
};

// True if `word` has any bit of `mask`.
template <FlagSetEnum E>
constexpr bool HasAny(E word, E mask) noexcept {
  return (ToBits(word) & ToBits(mask)) != 0;
}

// True if `word` has every bit of `mask`; an empty mask is always contained.
template <FlagSetEnum E>
constexpr bool HasAll(E word, E mask) noexcept {
  return (ToBits(word) & ToBits(mask)) == ToBits(mask);
}

// True if no bit is set.
template <FlagSetEnum E>
constexpr bool IsEmpty(E word) noexcept {
  return ToBits(word) == 0;
}

// `word` with the bits of `mask` set or cleared.
template <FlagSetEnum E>
constexpr E WithFlags(E word, E mask, bool set) noexcept {
  return static_cast<E>(set ? (ToBits(word) | ToBits(mask)) : (ToBits(word) & ~ToBits(mask)));
}

}  // namespace orvix

// Declares the bitwise operators of the scoped enumeration E, in E's own
// namespace. Use it right after the enumeration.
#define ORVIX_FLAG_SET_OPERATORS(E)                                 \
  [[maybe_unused]] constexpr bool OrvixIsFlagSet(E) noexcept {      \
    return true;                                                    \
  }                                                                 \
  [[nodiscard]] constexpr E operator|(E a, E b) noexcept {          \
    return static_cast<E>(::orvix::ToBits(a) | ::orvix::ToBits(b)); \
  }                                                                 \
  [[nodiscard]] constexpr E operator&(E a, E b) noexcept {          \
    return static_cast<E>(::orvix::ToBits(a) & ::orvix::ToBits(b)); \
  }                                                                 \
  [[nodiscard]] constexpr E operator^(E a, E b) noexcept {          \
    return static_cast<E>(::orvix::ToBits(a) ^ ::orvix::ToBits(b)); \
  }                                                                 \
  [[nodiscard]] constexpr E operator~(E a) noexcept {               \
    return static_cast<E>(~::orvix::ToBits(a));                     \
  }                                                                 \
  constexpr E& operator|=(E& a, E b) noexcept {                     \
    return a = a | b;                                               \
  }                                                                 \
  constexpr E& operator&=(E& a, E b) noexcept {                     \
    return a = a & b;                                               \
  }                                                                 \
  constexpr E& operator^=(E& a, E b) noexcept {                     \
    return a = a ^ b;                                               \
  }                                                                 \
  [[nodiscard]] constexpr bool operator!(E a) noexcept {            \
    return ::orvix::ToBits(a) == 0;                                 \
  }
