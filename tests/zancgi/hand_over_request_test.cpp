// Uploads of real requests: from the body over the switch to the tear-down,
// which then runs as the account.

#include <gtest/gtest.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/form.h"
#include "support/hand_over.h"

namespace {

namespace fs = std::filesystem;

using support::AttributesOf;
using support::Owners;
using support::Upload;
using zan_cgi::Cgi;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::ReadFile;
using zan_cgi::testing::Reporter;
using Strings = std::vector<std::string>;

constexpr char kTearDownBegins[] = "the request ends";

/// Three uploads; one ends in what could begin a separator, one is empty.
std::string Body() {
  return Upload("file", "a", "first\r\n") + Upload("file", "b", "") +
         Upload("file", "c", std::string(200'000, 'c')) + support::kFormEnd;
}

std::string Warning(const std::string& path) {
  return "failed to remove tamporary file '" + path + "'";
}

/// The texts of a level from the tear-down on.
Strings TearDownLogged(const Outcome& outcome, int level) {
  const auto begin = std::find(outcome.log.begin(), outcome.log.end(),
                               LogLine{-1, kTearDownBegins});
  Strings texts;
  std::for_each(begin, outcome.log.end(), [&](const LogLine& line) {
    if (line.level == level) texts.push_back(line.text);
  });
  return texts;
}

class UploadsOfARequest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (Confined() && !zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  }

  static bool Confined() { return GetParam(); }

  /// Parses the body, becomes the account and has the request torn down after
  /// this use. Expects a clean end.
  Outcome ServeAsAccount(
      const std::function<void(Cgi& cgi, const Reporter& report)>& use) const {
    const Input input = Input::Pipe(Body());
    Outcome outcome =
        support::Post(std::to_string(Body().size()))
            .StandardInput(input)
            .Run([&](const Reporter& report) {
              support::FakeAccount(owners_.Visitor());
              Cgi cgi(owners_.Spool() + "/front-end", "");
              cgi.SetTmpDir(owners_.Spool());
              cgi.ParseQuery();
              cgi.Su("visitor", Confined() ? "/" : "", Confined(), false);
              for (const char* name : {"a", "b", "c"}) {
                report(name, cgi.File(name));
              }
              use(cgi, report);
              zan_cgi::testing::Mark(kTearDownBegins);
            });
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.leaked_descriptors, Strings{});
    return outcome;
  }

  /// Where a path of the switched process leads.
  std::string Outside(const std::string& path) const {
    return Confined() ? owners_.Home() + path : path;
  }

  Owners owners_;
};

INSTANTIATE_TEST_SUITE_P(Confined, UploadsOfARequest, testing::Bool());

TEST_P(UploadsOfARequest, AreTheAccountsToReadAndToRemove) {
  const Outcome outcome = ServeAsAccount([&](Cgi& cgi, const Reporter& report) {
    EXPECT_EQ(::geteuid(), owners_.Visitor().uid);
    for (const char* name : {"a", "b", "c"}) {
      const std::string path = cgi.File(name);
      EXPECT_EQ(AttributesOf(path), owners_.AttributesAfter()) << path;
      // Readable for it, and its own to write.
      EXPECT_EQ(::access(path.c_str(), R_OK | W_OK), 0) << path;
      report(std::string("content of ") + name, ReadFile(path));
    }
    report("size", std::to_string(cgi.GetFileSize()));
  });
  EXPECT_EQ(outcome.reported.at("content of a"), "first\r\n");
  EXPECT_EQ(outcome.reported.at("content of b"), "");
  EXPECT_EQ(outcome.reported.at("content of c"), std::string(200'000, 'c'));
  EXPECT_EQ(outcome.reported.at("size"), "200007");
  for (const char* name : {"a", "b", "c"}) {
    EXPECT_EQ(fs::path(Outside(outcome.reported.at(name))).parent_path(),
              owners_.Home());
  }
  EXPECT_EQ(owners_.InHome(), Strings{});
  EXPECT_EQ(owners_.InSpool(), Strings{});
  EXPECT_EQ(TearDownLogged(outcome, 4), Strings{});
  const Strings lines = TearDownLogged(outcome, 9);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(lines[0].ends_with("dropping temporary file '" +
                                 outcome.reported.at("a") + "'"))
      << lines[0];
}

/// As homes are that are safe to confine to: root hands over where the account
/// may not write.
TEST_P(UploadsOfARequest, InAHomeOfRootsAreReadAndStayWithAWarning) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(::chown(owners_.Home().c_str(), 0, 0), 0);
  const Outcome outcome = ServeAsAccount([](Cgi& cgi, const Reporter& report) {
    report("content of a", ReadFile(cgi.File("a")));
  });
  EXPECT_EQ(outcome.reported.at("content of a"), "first\r\n");
  EXPECT_EQ(TearDownLogged(outcome, 4),
            (Strings{Warning(outcome.reported.at("a")),
                     Warning(outcome.reported.at("b")),
                     Warning(outcome.reported.at("c"))}));
  EXPECT_EQ(owners_.InHome().size(), 3U);
}

}  // namespace
