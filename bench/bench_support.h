// Small helpers shared by the benchmarks.

#pragma once

#include <time.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "orvix/graph/node_path.h"

namespace orvix::nodes::bench {

inline NodePath Path(std::string_view text) {
  return NodePath::Parse(text).Value();
}

// "<prefix><i><suffix>", built by appending, which g++ 12 at -O3 doesn't
// mistake for an overlapping copy as it does `"n" + std::to_string(i)`.
inline std::string Name(std::string_view prefix, int64_t i, std::string_view suffix = {}) {
  std::string name(prefix);
  name.append(std::to_string(i));
  name.append(suffix);
  return name;
}

// The CPU time of this thread in nanoseconds: the machine is shared, and
// time spent waiting for a core is not the benchmark's.
inline double ThreadNanoseconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

}  // namespace orvix::nodes::bench
