#pragma once
// ORVIX_DEBUG_ASSERT(cond, "why"): an invariant of the library's own making.
//
// It is not one of the conditions that clients see. ORVIX_CHECK_* test what a
// caller may get wrong and hand back an error; a debug assertion states what
// the library's own code guarantees to itself (a record fetched for writing
// is published in the top layer, no garbage record outlives the purge), and
// a false one means a fault in the library, not in its use. Debug builds
// (NDEBUG not defined) check it: a false condition writes its text, the
// reason, file and line to stderr and aborts, at the place where the state
// first went wrong rather than where something later trips over it. Release
// builds evaluate nothing, but the condition is still compiled, so that it
// can't fall out of step with the code it speaks of.
//
// Only conditions that are cheap to state belong here: a check must not
// change the cost of an operation by more than a small constant factor, nor
// change what it does. A helper function of internal linkage that only
// assertions call is [[maybe_unused]]: a release build compiles the call but
// emits nothing for it, which clang would otherwise report.

namespace orvix::detail {
// Writes "<file>:<line>: debug assertion `<condition>` failed: <why>" to
// stderr and aborts.
[[noreturn]] void DebugAssertFailed(const char* condition, const char* why, const char* file,
                                    int line) noexcept;
}  // namespace orvix::detail

#ifndef NDEBUG
#define ORVIX_DEBUG_ASSERT(cond, why)                                                \
  do {                                                                               \
    if (!(cond)) ::orvix::detail::DebugAssertFailed(#cond, why, __FILE__, __LINE__); \
  } while (0)
#else
// Discarded, never run: the condition and the reason are only type-checked, and
// the names they use count as used.
#define ORVIX_DEBUG_ASSERT(cond, why)                                                  \
  do {                                                                                 \
    if constexpr (false) {                                                             \
      if (!(cond)) ::orvix::detail::DebugAssertFailed(#cond, why, __FILE__, __LINE__); \
    }                                                                                  \
  } while (0)
#endif
