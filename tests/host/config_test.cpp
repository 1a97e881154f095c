#include "orvix/host/config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "must.h"
#include "orvix/host/diagnostics.h"
#include "orvix/host/format.h"

namespace orvix {
namespace {

ConfigVariable<bool> g_hostTestFlag{"g_hostTestFlag", false, "A flag for tests."};
ConfigVariable<int64_t> g_hostTestCount{"g_hostTestCount", 3, "A count for tests."};
ConfigVariable<double> g_hostTestRatio{"g_hostTestRatio", 0.5, "A ratio for tests."};
ConfigVariable<std::string> g_hostTestLabel{"g_hostTestLabel", "none", "A label for tests."};
ConfigVariable<int64_t> g_hostTestWidth{"g_hostTestWidth", 80, "A width for tests.", 10, 200};
ConfigVariable<double> g_hostTestScale{"g_hostTestScale", 1.0, "A scale for tests.", 0.5, 2.0};

class Config : public ::testing::Test {
 protected:
  void SetUp() override { ResetConfigVariables(); }
  void TearDown() override {
    for (const char* name : {"g_hostTestFlag", "g_hostTestCount", "g_hostTestRatio"})
      unsetenv(name);
    ResetConfigVariables();
  }
  static std::string ErrorOf(const Result<void>& r) {
    return r ? std::string("(no error)") : r.GetError().GetMessage();
  }
};

TEST_F(Config, AssignmentsParseEveryTypeAndIgnoreBlanksAroundNumbers) {
  // Assignment, variable, its value text afterwards.
  const char* const good[][3] = {
      {"g_hostTestFlag= Yes ", "g_hostTestFlag", "true"},
      {" g_hostTestCount =+0x1F", "g_hostTestCount", "31"},
      {"g_hostTestCount=-0x10", "g_hostTestCount", "-16"},
      {"g_hostTestCount= 12\t", "g_hostTestCount", "12"},
      {"g_hostTestCount=-9223372036854775808", "g_hostTestCount", "-9223372036854775808"},
      {"g_hostTestRatio=+1e3", "g_hostTestRatio", "1000"},
      {"g_hostTestRatio= 0.1 ", "g_hostTestRatio", "0.1"},
      {"g_hostTestWidth=200", "g_hostTestWidth", "200"},
      {"g_hostTestLabel=a=b ", "g_hostTestLabel", "a=b "},
  };
  for (auto [assignment, name, expected] : good) {
    ASSERT_TRUE(ApplyConfigAssignment(assignment)) << assignment;
    EXPECT_EQ(Must(GetConfigVariableInfo(name)).valueText, expected) << assignment;
  }
  EXPECT_EQ(g_hostTestRatio.Get(), 0.1);
  g_hostTestWidth.Set(5);  // a range binds text only: the owner's own business
  EXPECT_EQ(g_hostTestWidth.Get(), 5);
}

TEST_F(Config, RefusesBadValuesWithTheirMessagesAndChangesNothing) {
  // Variable, text, the type it can't be read as.
  const char* const bad[][3] = {
      {"g_hostTestFlag", "2", "Bool"},
      {"g_hostTestFlag", "", "Bool"},
      {"g_hostTestCount", "9223372036854775808", "Int"},
      {"g_hostTestCount", "-9223372036854775809", "Int"},
      {"g_hostTestCount", "0x", "Int"},
      {"g_hostTestCount", "1.5", "Int"},
      {"g_hostTestCount", "0x-1", "Int"},
      {"g_hostTestRatio", "1.5x", "Float"},
      {"g_hostTestRatio", "", "Float"},
  };
  for (auto [name, text, type] : bad) {
    Result<void> r = SetConfigVariable(name, text);
    ASSERT_FALSE(r) << text;
    EXPECT_EQ(r.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
    EXPECT_EQ(r.GetError().GetMessage(),
              FormatMessage("Value \"@\" for configuration variable @ can't be read as @.", text,
                            name, type));
  }
  const std::pair<const char*, const char*> assignments[] = {
      {"g_hostTestWidth=201",
       "Value \"201\" for configuration variable g_hostTestWidth is outside its range 10 to 200."},
      {"g_hostTestScale=nan",
       "Value \"nan\" for configuration variable g_hostTestScale is outside its range 0.5 to 2."},
      {"g_hostTestFlag", "Missing \"=\" in configuration assignment \"g_hostTestFlag\"."},
      {"g_nothing=1", "Unknown configuration variable g_nothing."},
  };
  for (auto [assignment, message] : assignments)
    EXPECT_EQ(ErrorOf(ApplyConfigAssignment(assignment)), message);
  for (const ConfigVariableInfo& info : ListConfigVariables())
    EXPECT_EQ(info.valueText, info.defaultText) << info.name;
}

TEST_F(Config, EnvironmentAppliesGoodValuesAndReportsAllBadOnes) {
  setenv("g_hostTestCount", "0x10", 1);
  setenv("g_hostTestRatio", "0.25", 1);
  ASSERT_TRUE(ApplyConfigFromEnvironment());
  EXPECT_EQ(g_hostTestCount.Get(), 16);
  EXPECT_EQ(g_hostTestRatio.Get(), 0.25);
  EXPECT_FALSE(g_hostTestFlag.Get());  // not in the environment: untouched

  setenv("g_hostTestFlag", "nope", 1);
  setenv("g_hostTestCount", "many", 1);
  setenv("g_hostTestRatio", "4", 1);
  EXPECT_EQ(ErrorOf(ApplyConfigFromEnvironment()),
            "Value \"many\" for configuration variable g_hostTestCount can't be read as Int. "
            "Value \"nope\" for configuration variable g_hostTestFlag can't be read as Bool.");
  EXPECT_EQ(g_hostTestRatio.Get(), 4.0);
  EXPECT_EQ(g_hostTestCount.Get(), 16);
}

TEST_F(Config, TheRegistryListsSortedLosesTheDestroyedAndKeepsOutDuplicates) {
  g_hostTestCount.Set(9);
  {
    ConfigVariable<int64_t> scoped{"g_hostTestScoped", 1, "Lives in a block."};
    std::vector<ConfigVariableInfo> all = ListConfigVariables();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                               [](const auto& a, const auto& b) { return a.name < b.name; }));
    ASSERT_TRUE(SetConfigVariable("g_hostTestScoped", "5"));
    EXPECT_EQ(scoped.Get(), 5);
  }
  EXPECT_EQ(ErrorOf(SetConfigVariable("g_hostTestScoped", "5")),
            "Unknown configuration variable g_hostTestScoped.");
  const ConfigVariableInfo count = Must(GetConfigVariableInfo("g_hostTestCount"));
  EXPECT_EQ(count.defaultText, "3");
  EXPECT_EQ(count.valueText, "9");
  EXPECT_EQ(Must(GetConfigVariableInfo("g_hostTestWidth")).rangeText, "10 to 200");

  CapturedOutput output;
  {
    ConfigVariable<bool> twin{"g_hostTestFlag", true, "A second definition."};
    EXPECT_EQ(output.Texts(OUTPUT_LEVEL::CRITICAL),
              std::vector<std::string>{"Configuration variable g_hostTestFlag is defined more "
                                       "than once; only the first is used."});
    ASSERT_TRUE(SetConfigVariable("g_hostTestFlag", "true"));
    EXPECT_TRUE(g_hostTestFlag.Get());
  }
  // The twin's end took nothing away from the first.
  EXPECT_EQ(Must(GetConfigVariableInfo("g_hostTestFlag")).help, "A flag for tests.");
}

}  // namespace
}  // namespace orvix
