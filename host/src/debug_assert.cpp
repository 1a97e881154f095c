#include "orvix/host/debug_assert.h"

#include <cstdio>
#include <cstdlib>

namespace orvix::detail {

void DebugAssertFailed(const char* condition, const char* why, const char* file,
                       int line) noexcept {
  // Plain stdio, nothing that allocates: the state that broke the invariant
  // may be the allocator's, and the diagnostic sink may have been replaced.
  std::fprintf(stderr, "%s:%d: debug assertion `%s` failed: %s\n", file, line, condition, why);
  std::fflush(stderr);
  std::abort();
}

}  // namespace orvix::detail
