// Applies configuration variables from the environment before any test runs,
// so that CTest can switch on the library's self-checks for a whole suite
// (g_testGetConnections checks every finished modification's wires). It runs
// as a test environment: by then every variable of the library exists.

#include <gtest/gtest.h>

#include "orvix/host/config.h"
#include "orvix/nodes/config_variables.h"

namespace {
class ConfigFromEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    orvix::nodes::RegisterConfigVariables();
    const orvix::Result<void> applied = orvix::ApplyConfigFromEnvironment();
    ASSERT_TRUE(applied) << applied.GetError().GetMessage();
  }
};

[[maybe_unused]] ::testing::Environment* const g_environment =
    ::testing::AddGlobalTestEnvironment(new ConfigFromEnvironment);
}  // namespace
