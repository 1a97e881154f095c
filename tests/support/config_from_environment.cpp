// Applies configuration variables from the environment before any test runs,
// so that CTest can switch on the library's self-checks for a whole suite
// (g_testGetConnections checks every finished modification's wires).

#include <cstdio>
#include <cstdlib>

#include "orvix/host/config.h"
#include "orvix/nodes/config_variables.h"

namespace {
const bool g_applied = [] {
  orvix::nodes::RegisterConfigVariables();
  if (auto applied = orvix::ApplyConfigFromEnvironment(); !applied) {
    std::fprintf(stderr, "%s\n", applied.GetError().GetMessage().c_str());
    std::abort();
  }
  return true;
}();
}  // namespace
