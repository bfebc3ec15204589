#include <stdlib.h>
#include <tov/env.h>

#include "support/test.h"

namespace support {
namespace {

/// All variables. What was in the map before must not be among them.
std::string AllEnvs() {
  std::map<std::string, std::string> variables = {{"A", "old"}, {"Z", "old"}};
  tov_env::GetAllEnvs(variables);
  std::string text;
  for (const auto& [name, value] : variables) {
    text += '[' + name + "=" + value + ']';
  }
  return text;
}

/// All variables of a process whose whole environment is @p entries.
std::string AllEnvsOf(std::vector<std::string> entries) {
  std::vector<char*> pointers;
  for (std::string& entry : entries) pointers.push_back(entry.data());
  pointers.push_back(nullptr);
  return Child()
      .Run([&](const Reporter& report) {
        environ = pointers.data();
        report("all", AllEnvs());
      })
      .reported.at("all");
}

std::string ValueOf(const std::string& name) {
  return Child()
      .Env("SERVER_NAME", "a=b c\nd")
      .Env("EMPTY", "")
      .Run([&](const Reporter& report) {
        report("value", tov_env::GetEnv(name));
      })
      .reported.at("value");
}

TEST(GetEnv, ReturnsTheValueOfTheWholeName) {
  EXPECT_EQ(ValueOf("SERVER_NAME"), "a=b c\nd");
  for (const std::string& name :
       {std::string("MISSING"), std::string("EMPTY"), std::string(),
        std::string("SERVER"), std::string("SERVER_NAME2"),
        std::string("server_name"), std::string("SERVER_NAME=a"),
        std::string("SERVER_NAME\0x", 13)}) {
    EXPECT_EQ(ValueOf(name), "") << name;
  }
}

TEST(GetEnv, SeesLaterChanges) {
  const auto outcome = Child().Run([](const Reporter& report) {
    report("before", tov_env::GetEnv("LATE"));
    ::setenv("LATE", "1", 1);
    report("after", tov_env::GetEnv("LATE"));
  });
  EXPECT_EQ(outcome.reported.at("before"), "");
  EXPECT_EQ(outcome.reported.at("after"), "1");
}

TEST(GetAllEnvs, ReturnsEveryVariable) {
  EXPECT_EQ(AllEnvsOf({"B=2=3", "A=1", "C="}), "[A=1][B=2=3][C=]");
  EXPECT_EQ(AllEnvsOf({}), "");
  // Not what has no name or no equals sign, nor the second of a name.
  EXPECT_EQ(AllEnvsOf({"A", "=1", "", "B=2"}), "[B=2]");
  EXPECT_EQ(AllEnvsOf({"A=first", "A=second"}), "[A=first]");
}

TEST(GetAllEnvs, IsEmptyWithoutAnEnvironment) {
  const auto outcome = Child().Run([](const Reporter& report) {
    environ = nullptr;
    report("all", AllEnvs());
  });
  EXPECT_EQ(outcome.reported.at("all"), "");
}

}  // namespace
}  // namespace support
