#include "orvix/host/config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

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

TEST_F(Config, ParsesEveryTypeAndIgnoresBlanksAroundNumbers) {
  struct Good {
    const char* name;
    const char* text;
    const char* expected;  // the value text afterwards
  };
  const Good good[] = {
      {"g_hostTestFlag", "TRUE", "true"},
      {"g_hostTestFlag", " Yes ", "true"},
      {"g_hostTestFlag", "off", "false"},
      {"g_hostTestCount", "-7", "-7"},
      {"g_hostTestCount", "+0x1F", "31"},
      {"g_hostTestCount", "-0x10", "-16"},
      {"g_hostTestCount", " 12\t", "12"},
      {"g_hostTestCount", "9223372036854775807", "9223372036854775807"},
      {"g_hostTestCount", "-9223372036854775808", "-9223372036854775808"},
      {"g_hostTestRatio", "1.25", "1.25"},
      {"g_hostTestRatio", "+1e3", "1000"},
      {"g_hostTestRatio", " 0.1 ", "0.1"},
      {"g_hostTestLabel", " two words ", " two words "},
      {"g_hostTestLabel", "", ""},
  };
  for (const Good& g : good) {
    ASSERT_TRUE(SetConfigVariable(g.name, g.text)) << g.name << " " << g.text;
    EXPECT_EQ(GetConfigVariableInfo(g.name)->valueText, g.expected) << g.text;
  }
  EXPECT_EQ(g_hostTestRatio.Get(), 0.1);
  EXPECT_EQ(g_hostTestLabel.Get(), "");
}

TEST_F(Config, RefusesValuesThatDontReadAsTheType) {
  struct Bad {
    const char* name;
    const char* text;
    const char* type;
  };
  const Bad bad[] = {
      {"g_hostTestFlag", "2", "Bool"},
      {"g_hostTestFlag", "", "Bool"},
      {"g_hostTestCount", "9223372036854775808", "Int"},
      {"g_hostTestCount", "-9223372036854775809", "Int"},
      {"g_hostTestCount", "0x", "Int"},
      {"g_hostTestCount", "1.5", "Int"},
      {"g_hostTestCount", "+-1", "Int"},
      {"g_hostTestCount", "0x-1", "Int"},
      {"g_hostTestCount", "", "Int"},
      {"g_hostTestRatio", "1.5x", "Float"},
      {"g_hostTestRatio", "+-1", "Float"},
      {"g_hostTestRatio", "", "Float"},
  };
  for (const Bad& b : bad) {
    Result<void> r = SetConfigVariable(b.name, b.text);
    ASSERT_FALSE(r) << b.text;
    EXPECT_EQ(r.GetError().GetClass(), ERROR_CLASS::ILLEGAL_ARGUMENT);
    EXPECT_EQ(r.GetError().GetMessage(),
              FormatMessage("Value \"@\" for configuration variable @ can't be read as @.", b.text,
                            b.name, b.type));
  }
  // A refused value changes nothing.
  EXPECT_FALSE(g_hostTestFlag.Get());
  EXPECT_EQ(g_hostTestCount.Get(), 3);
  EXPECT_EQ(ErrorOf(SetConfigVariable("g_hostTestMissing", "1")),
            "Unknown configuration variable g_hostTestMissing.");
}

TEST_F(Config, RangesBoundTextButNotTheOwner) {
  ASSERT_TRUE(SetConfigVariable("g_hostTestWidth", "10"));
  ASSERT_TRUE(SetConfigVariable("g_hostTestWidth", "200"));
  EXPECT_EQ(ErrorOf(SetConfigVariable("g_hostTestWidth", "201")),
            "Value \"201\" for configuration variable g_hostTestWidth is outside its range 10 to "
            "200.");
  EXPECT_EQ(ErrorOf(SetConfigVariable("g_hostTestScale", "nan")),
            "Value \"nan\" for configuration variable g_hostTestScale is outside its range 0.5 to "
            "2.");
  EXPECT_EQ(g_hostTestWidth.Get(), 200);
  EXPECT_EQ(g_hostTestScale.Get(), 1.0);
  g_hostTestWidth.Set(5);
  EXPECT_EQ(g_hostTestWidth.Get(), 5);
  EXPECT_EQ(GetConfigVariableInfo("g_hostTestWidth")->rangeText, "10 to 200");
  EXPECT_EQ(GetConfigVariableInfo("g_hostTestCount")->rangeText, "");
}

TEST_F(Config, AssignmentsSplitAtTheFirstEquals) {
  ASSERT_TRUE(ApplyConfigAssignment(" g_hostTestCount =0x20"));
  EXPECT_EQ(g_hostTestCount.Get(), 32);
  ASSERT_TRUE(ApplyConfigAssignment("g_hostTestLabel=a=b"));
  EXPECT_EQ(g_hostTestLabel.Get(), "a=b");
  EXPECT_EQ(ErrorOf(ApplyConfigAssignment("g_hostTestFlag")),
            "Missing \"=\" in configuration assignment \"g_hostTestFlag\".");
  EXPECT_EQ(ErrorOf(ApplyConfigAssignment("g_nothing=1")),
            "Unknown configuration variable g_nothing.");
}

TEST_F(Config, ListsVariablesSortedWithDefaultsAndCurrentValues) {
  g_hostTestCount.Set(9);
  std::vector<ConfigVariableInfo> all = ListConfigVariables();
  ASSERT_TRUE(std::is_sorted(all.begin(), all.end(),
                             [](const auto& a, const auto& b) { return a.name < b.name; }));
  auto it = std::find_if(all.begin(), all.end(),
                         [](const auto& v) { return v.name == "g_hostTestCount"; });
  ASSERT_NE(it, all.end());
  EXPECT_EQ(it->type, CONFIG_TYPE::INT);
  EXPECT_EQ(it->typeName, "Int");
  EXPECT_EQ(it->defaultText, "3");
  EXPECT_EQ(it->valueText, "9");
  EXPECT_EQ(it->help, "A count for tests.");
  EXPECT_EQ(GetConfigVariableInfo("g_hostTestRatio")->defaultText, "0.5");
  EXPECT_EQ(GetConfigVariableInfo("g_hostTestLabel")->typeName, "String");

  ResetConfigVariables();
  EXPECT_EQ(g_hostTestCount.Get(), 3);
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

TEST_F(Config, VariablesLeaveTheRegistryWhenDestroyedAndDuplicatesStayOut) {
  {
    ConfigVariable<int64_t> scoped{"g_hostTestScoped", 1, "Lives in a block."};
    ASSERT_TRUE(SetConfigVariable("g_hostTestScoped", "5"));
    EXPECT_EQ(scoped.Get(), 5);
  }
  EXPECT_EQ(ErrorOf(SetConfigVariable("g_hostTestScoped", "5")),
            "Unknown configuration variable g_hostTestScoped.");

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
  Result<ConfigVariableInfo> first = GetConfigVariableInfo("g_hostTestFlag");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->help, "A flag for tests.");
}

}  // namespace
}  // namespace orvix
