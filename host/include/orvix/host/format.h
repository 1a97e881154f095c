#pragma once
// Message formatting: "@" in a message text stands for the next argument's text form.

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <fmt/format.h>

namespace orvix {

// Text forms. A type takes part by having a member `ToString()` that yields a
// string, or by an overload of AppendText found by argument-dependent lookup.
template <typename T>
concept HasToStringMember = requires(const T& v) {
  { v.ToString() } -> std::convertible_to<std::string_view>;
};

inline void AppendText(std::string& out, std::string_view s) {
  out.append(s);
}
inline void AppendText(std::string& out, const std::string& s) {
  out.append(s);
}
inline void AppendText(std::string& out, const char* s) {
  out.append(s ? s : "(null)");
}
inline void AppendText(std::string& out, char c) {
  out.push_back(c);
}
inline void AppendText(std::string& out, bool b) {
  out.append(b ? "true" : "false");
}

template <typename T>
requires(std::is_integral_v<T> && !std::is_same_v<T, bool> &&
         !std::is_same_v<T, char>) void AppendText(std::string& out, T v) {
  fmt::format_to(std::back_inserter(out), "{}", v);
}

template <typename T>
requires std::is_floating_point_v<T>
void AppendText(std::string& out, T v) {
  fmt::format_to(std::back_inserter(out), "{}", v);
}

template <typename T>
requires(HasToStringMember<T>) void AppendText(std::string& out, const T& v) {
  out.append(std::string_view(v.ToString()));
}

// An array in the host's form: "[a, b, c]".
template <typename T>
void AppendText(std::string& out, const std::vector<T>& values) {
  out.push_back('[');
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out.append(", ");
    AppendText(out, values[i]);
  }
  out.push_back(']');
}

template <typename T>
std::string ToText(const T& v) {
  std::string out;
  AppendText(out, v);
  return out;
}

namespace detail {
inline void FormatInto(std::string& out, std::string_view pattern) {
  out.append(pattern);
}

template <typename First, typename... Rest>
void FormatInto(std::string& out, std::string_view pattern, const First& first,
                const Rest&... rest) {
  size_t at = pattern.find('@');
  if (at == std::string_view::npos) {
    // More arguments than marks: the surplus is dropped, as the host does.
    out.append(pattern);
    return;
  }
  out.append(pattern.substr(0, at));
  AppendText(out, first);
  FormatInto(out, pattern.substr(at + 1), rest...);
}
}  // namespace detail

// Replaces each "@" of `pattern`, in order, with the text form of an argument.
// Marks without an argument stay as they are.
template <typename... Args>
std::string FormatMessage(std::string_view pattern, const Args&... args) {
  std::string out;
  out.reserve(pattern.size() + 16 * sizeof...(Args));
  detail::FormatInto(out, pattern, args...);
  return out;
}

}  // namespace orvix
