// Handing uploads over to an account: what is moved where and recorded how, in
// which order, and what a failure leaves behind.

#include <fstream>

#include "support/account.h"
#include "support/files.h"
#include "support/form.h"
#include "support/hand_over.h"
#include "support/test.h"

namespace support {
namespace {

LogLine Moving(const std::string& name, const std::string& from,
               const std::string& to) {
  return {9, "zancgi_unix.cpp:N moving file '" + name + "' stored as '" + from +
                 "' to '" + to + "'"};
}

class HandOverOf : public testing::TestWithParam<bool> {
 protected:
  static bool Confined() { return GetParam(); }

  /// What is recorded of a file that lies in the home under this name.
  std::string Recorded(const std::string& name) const {
    return Confined() ? "/" + name : owners_.Home() + "/" + name;
  }

  HandedOver Do(const std::vector<Stored>& files) const {
    return HandOver(owners_, files, Confined());
  }

  Owners owners_;
};

INSTANTIATE_TEST_SUITE_P(Confined, HandOverOf, testing::Bool());

TEST_P(HandOverOf, OneUploadGivesItAwayAndMovesItIntoTheHome) {
  const std::string path = owners_.MakeUpload("zantempAbCdEf", "content");
  const HandedOver done = Do({{"holiday.jpg", path, 1234567890123}});
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Texts{{"holiday.jpg", Recorded("zantempAbCdEf")}}));
  // As it was recorded.
  EXPECT_EQ(done.reported.at("size of holiday.jpg"), "1234567890123");
  EXPECT_EQ(owners_.InSpool(), Strings{});
  EXPECT_EQ(owners_.InHome(), Strings{"zantempAbCdEf"});
  const std::string moved = owners_.Home() + "/zantempAbCdEf";
  EXPECT_EQ(ReadFile(moved), "content");
  EXPECT_EQ(AttributesOf(moved), owners_.AttributesAfter());
  EXPECT_EQ(done.log, (Lines{Moving("holiday.jpg", path, moved)}));
}

TEST_P(HandOverOf, AnUploadIsNamedByTheEndOfItsPath) {
  struct Row {
    /// From where the process is.
    std::string path;
    /// Empty when it is refused.
    std::string name;
  };
  for (const Row& row : std::vector<Row>{{"spool/one", "one"},
                                         {"spool/folder\\deep\\one", "one"},
                                         {"with\\back/one", "one"},
                                         {"one", "one"},
                                         {"spool/one/", ""},
                                         {"spool/one\\", ""}}) {
    // One slash joins it to a home with any number of them.
    for (const char* end : {"", "/", "//"}) {
      SCOPED_TRACE(row.path + " " + end);
      Owners owners;
      const std::string to = owners.Home() + "/" + row.name;
      owners.MoveHome(owners.Home() + end);
      fs::create_directory(owners / "with\\back");
      std::ofstream(owners / row.path);
      owners.MakeUpload("one");
      const HandedOver done = HandOver(
          owners, {{"a", row.path}}, Confined(), [] {},
          Child().WorkDir(owners / ""));
      if (row.name.empty()) {
        EXPECT_EQ(done.error_type, "tov_err::Error");
        EXPECT_EQ(done.paths, (Texts{{"a", row.path}}));
        EXPECT_EQ(owners.InHome(), Strings{});
      } else {
        EXPECT_EQ(done.error, "");
        EXPECT_EQ(done.log, (Lines{Moving("a", row.path, to)}));
        EXPECT_EQ(done.paths, (Texts{{"a", Confined() ? "/" + row.name : to}}));
        EXPECT_EQ(owners.InHome(), Strings{row.name});
      }
    }
  }
}

// Whatever its name, an account whose user is root is root.
TEST_P(HandOverOf, RootsUploadsLeavesThemWhereTheyAre) {
  const std::string one = owners_.MakeUpload("1");
  const std::string missing = owners_ / "missing";
  const Account root = {"visitor", 0, 0, owners_.Home()};
  const HandedOver done = HandOver(owners_, {{"a", one}, {"b", missing}},
                                   Confined(), [&] { FakeAccount(root); });
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.log, Lines{});
  EXPECT_EQ(done.paths, (Texts{{"a", one}, {"b", missing}}));
  EXPECT_EQ(AttributesOf(one), owners_.AttributesBefore());
  EXPECT_EQ(owners_.InHome(), Strings{});
}

TEST_P(HandOverOf, UploadsOfWhichOneCannotBeMovedStopsThere) {
  const std::string one = owners_.MakeUpload("1", "first");
  const std::string two = owners_.MakeUpload("2", "second");
  const std::string three = owners_.MakeUpload("3", "third");
  const std::string taken = owners_.Home() + "/2";
  std::ofstream(taken) << "mine";
  const HandedOver done = Do({{"a", one}, {"b", two}, {"c", three}});

  EXPECT_EQ(done.error_type, "tov_err::Error");
  for (const std::string& part :
       {"'" + two + "'", "'" + taken + "'", std::string("File exists")}) {
    EXPECT_NE(done.error.find(part), std::string::npos) << done.error;
  }
  EXPECT_EQ(done.paths,
            (Texts{{"a", Recorded("1")}, {"b", two}, {"c", three}}));
  EXPECT_EQ(AttributesOf(owners_.Home() + "/1"), owners_.AttributesAfter());
  EXPECT_EQ(AttributesOf(two), owners_.AttributesAfter());
  EXPECT_EQ(ReadFile(two), "second");
  EXPECT_EQ(AttributesOf(three), owners_.AttributesBefore());
  EXPECT_EQ(owners_.InHome(), (Strings{"1", "2"}));
  EXPECT_EQ(done.log.size(), 2U);
}

TEST_P(HandOverOf, UploadsOfWhichOneIsALinkStopsBeforeItTouchesAnything) {
  const std::string one = owners_.MakeUpload("1");
  const std::string victim = owners_.MakeUpload("victim", "secret");
  const std::string link = owners_.Spool() + "/2";
  fs::create_symlink(victim, link);
  const std::string three = owners_.MakeUpload("3");
  const HandedOver done = Do({{"a", one}, {"b", link}, {"c", three}});

  EXPECT_EQ(done.error_type, "tov_err::Error");
  EXPECT_NE(done.error.find(link), std::string::npos) << done.error;
  EXPECT_EQ(done.paths,
            (Texts{{"a", Recorded("1")}, {"b", link}, {"c", three}}));
  EXPECT_EQ(AttributesOf(victim), owners_.AttributesBefore());
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(AttributesOf(three), owners_.AttributesBefore());
  // Nothing is said of a move that is not tried.
  EXPECT_EQ(done.log, (Lines{Moving("a", one, owners_.Home() + "/1")}));
}

/// By whether the home lies in another file system.
class HomeOfVisitor : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    const std::string lack = GetParam() ? WhyNoOtherFileSystem() : "";
    if (!lack.empty()) GTEST_SKIP() << lack;
  }
};

INSTANTIATE_TEST_SUITE_P(Across, HomeOfVisitor, testing::Bool());

TEST_P(HomeOfVisitor, ThatIsALinkTakesTheUploadWhereItLeads) {
  Owners owners(GetParam());
  const std::string link = owners / "link";
  fs::create_directory_symlink(owners.Home(), link);
  owners.MoveHome(link);
  const HandedOver done =
      HandOver(owners, {{"a", owners.MakeUpload("upload", "content")}}, false);
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Texts{{"a", link + "/upload"}}));
  const std::string target = owners.Home() + "/upload";
  EXPECT_EQ(ReadFile(target), "content");
  EXPECT_EQ(AttributesOf(target), owners.AttributesAfter());
  EXPECT_EQ(owners.InSpool(), Strings{});
  EXPECT_TRUE(fs::is_symlink(link));
}

// Uploads of real requests: from the body over the switch to the tear-down,
// which then runs as the account.

constexpr char kTearDownBegins[] = "the request ends";

/// Two uploads; one ends in what could begin a separator.
std::string Body() {
  return Upload("file", "a", "first\r\n") +
         Upload("file", "b", std::string(200'000, 'b')) + kFormEnd;
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
    if (Confined() && !IsRoot()) GTEST_SKIP() << "needs root";
  }

  static bool Confined() { return GetParam(); }

  /// Parses the body, becomes the account and has the request torn down after
  /// this use. Expects a clean end.
  Outcome ServeAsAccount(
      const std::function<void(Cgi& cgi, const Reporter& report)>& use) const {
    return RunCleanly(
        PostOf(Body()), Input::Pipe(Body()), [&](const Reporter& report) {
          FakeAccount(owners_.Visitor());
          Cgi cgi(owners_.Spool() + "/front-end", "");
          cgi.SetTmpDir(owners_.Spool());
          cgi.ParseQuery();
          cgi.Su("visitor", Confined() ? "/" : "", Confined(), false);
          for (const char* name : {"a", "b"}) report(name, cgi.File(name));
          use(cgi, report);
          zan_cgi::testing::Mark(kTearDownBegins);
        });
  }

  Owners owners_;
};

INSTANTIATE_TEST_SUITE_P(Confined, UploadsOfARequest, testing::Bool());

TEST_P(UploadsOfARequest, CanBeReadAndRemovedByTheAccount) {
  Outcome outcome = ServeAsAccount([&](Cgi& cgi, const Reporter&) {
    EXPECT_EQ(::geteuid(), owners_.Visitor().uid);
    for (const auto& [name, content] :
         Texts{{"a", "first\r\n"}, {"b", std::string(200'000, 'b')}}) {
      const std::string path = cgi.File(name);
      EXPECT_EQ(fs::path(path).parent_path(),
                Confined() ? "/" : owners_.Home());
      EXPECT_EQ(AttributesOf(path), owners_.AttributesAfter());
      EXPECT_EQ(::access(path.c_str(), R_OK | W_OK), 0);
      EXPECT_EQ(ReadFile(path), content);
    }
    EXPECT_EQ(cgi.GetFileSize(), 200'007);
  });
  EXPECT_EQ(owners_.InHome(), Strings{});
  EXPECT_EQ(owners_.InSpool(), Strings{});
  EXPECT_EQ(TearDownLogged(outcome, 4), Strings{});
  const Strings lines = TearDownLogged(outcome, 9);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0].ends_with("dropping temporary file '" +
                                 outcome.reported["a"] + "'"))
      << lines[0];
}

/// As homes are that are safe to confine to: root hands over where the account
/// may not write.
TEST_P(UploadsOfARequest, InAHomeOfRootsAreReadAndStayWithAWarning) {
  if (!IsRoot()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(::chown(owners_.Home().c_str(), 0, 0), 0);
  const Outcome outcome = ServeAsAccount([](Cgi& cgi, const Reporter& report) {
    report("content of a", ReadFile(cgi.File("a")));
  });
  EXPECT_EQ(outcome.reported.at("content of a"), "first\r\n");
  EXPECT_EQ(TearDownLogged(outcome, 4),
            (Strings{Warning(outcome.reported.at("a")),
                     Warning(outcome.reported.at("b"))}));
  EXPECT_EQ(owners_.InHome().size(), 2U);
}

}  // namespace
}  // namespace support
