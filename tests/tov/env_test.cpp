#include <gtest/gtest.h>
#include <stdlib.h>
#include <tov/env.h>
#include <unistd.h>
#include <zancgi/testing/child.h>

#include <map>
#include <string>

namespace {

using zan_cgi::testing::Child;
using zan_cgi::testing::Told;
using Variables = std::map<std::string, std::string>;

std::string AsText(const Variables& variables) {
  std::string text;
  for (const auto& [name, value] : variables) {
    text += '[' + name + "=" + value + ']';
  }
  return text;
}

/// All variables of a process whose whole environment is @p entries.
std::string AllEnvsOf(char** entries) {
  return Child()
      .Run([&](const Told& told) {
        environ = entries;
        Variables variables;
        tov_env::GetAllEnvs(variables);
        told("all", AsText(variables));
      })
      .told["all"];
}

std::string ValueOf(const std::string& name) {
  return Child()
      .Env("SERVER_NAME", "a=b c\nd")
      .Env("EMPTY", "")
      .Run([&](const Told& told) { told("value", tov_env::GetEnv(name)); })
      .told["value"];
}

TEST(GetEnv, ReturnsTheValue) { EXPECT_EQ(ValueOf("SERVER_NAME"), "a=b c\nd"); }

TEST(GetEnv, IsEmptyForAnUnsetVariable) { EXPECT_EQ(ValueOf("MISSING"), ""); }

TEST(GetEnv, IsEmptyForAnEmptyVariable) { EXPECT_EQ(ValueOf("EMPTY"), ""); }

TEST(GetEnv, IsEmptyForAnEmptyName) { EXPECT_EQ(ValueOf(""), ""); }

TEST(GetEnv, ComparesTheWholeName) {
  EXPECT_EQ(ValueOf("SERVER"), "");
  EXPECT_EQ(ValueOf("SERVER_NAME2"), "");
  EXPECT_EQ(ValueOf("server_name"), "");
  EXPECT_EQ(ValueOf(std::string("SERVER_NAME\0x", 13)), "");
}

TEST(GetEnv, SeesLaterChanges) {
  const auto outcome = Child().Run([](const Told& told) {
    told("before", tov_env::GetEnv("LATE"));
    ::setenv("LATE", "1", 1);
    told("after", tov_env::GetEnv("LATE"));
  });
  EXPECT_EQ(outcome.told.at("before"), "");
  EXPECT_EQ(outcome.told.at("after"), "1");
}

TEST(GetAllEnvs, GivesEveryVariable) {
  char a[] = "A=1";
  char b[] = "B=2=3";
  char c[] = "C=";
  char* entries[] = {b, a, c, nullptr};
  EXPECT_EQ(AllEnvsOf(entries), "[A=1][B=2=3][C=]");
}

TEST(GetAllEnvs, SkipsEntriesWithoutANameOrAnEqualsSign) {
  char no_sign[] = "A";
  char no_name[] = "=1";
  char nothing[] = "";
  char b[] = "B=2";
  char* entries[] = {no_sign, no_name, nothing, b, nullptr};
  EXPECT_EQ(AllEnvsOf(entries), "[B=2]");
}

TEST(GetAllEnvs, TakesTheFirstOfTwoEntriesWithOneName) {
  char first[] = "A=first";
  char second[] = "A=second";
  char* entries[] = {first, second, nullptr};
  EXPECT_EQ(AllEnvsOf(entries), "[A=first]");
}

TEST(GetAllEnvs, IsEmptyForAnEmptyEnvironment) {
  char* entries[] = {nullptr};
  EXPECT_EQ(AllEnvsOf(entries), "");
  EXPECT_EQ(AllEnvsOf(nullptr), "");
}

TEST(GetAllEnvs, ReplacesWhatWasInTheMap) {
  const auto outcome = Child().Env("A", "new").Run([](const Told& told) {
    Variables variables{{"A", "old"}, {"Z", "old"}};
    tov_env::GetAllEnvs(variables);
    told("A", variables["A"]);
    told("Z", variables.contains("Z") ? "there" : "gone");
  });
  EXPECT_EQ(outcome.told.at("A"), "new");
  EXPECT_EQ(outcome.told.at("Z"), "gone");
}

}  // namespace
