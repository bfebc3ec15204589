// Handing uploads over to an account: what is moved where and recorded how, in
// which order, and what a failure leaves behind.

#include <fstream>
#include <tuple>

#include "support/account.h"
#include "support/files.h"
#include "support/form.h"
#include "support/hand_over.h"
#include "support/test.h"

namespace support {
namespace {

LogLine Moving(const std::string& name, const std::string& from,
               const std::string& to) {
  return {9, "zancgi_unix.cpp:# moving file '" + name + "' stored as '" + from +
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

/// By whether the process is confined, and whether its home is root's, as homes
/// are that are safe to confine to.
class UploadsOfARequest
    : public testing::TestWithParam<std::tuple<bool, bool>> {
 protected:
  void SetUp() override {
    if ((Confined() || OfRoot()) && !IsRoot()) GTEST_SKIP() << "needs root";
    const uid_t owner = OfRoot() ? 0 : owners_.Visitor().uid;
    ASSERT_EQ(::chown(owners_.Home().c_str(), owner, -1U), 0);
  }

  static bool Confined() { return std::get<0>(GetParam()); }
  static bool OfRoot() { return std::get<1>(GetParam()); }

  Owners owners_;
};

INSTANTIATE_TEST_SUITE_P(ConfinedOfRoot, UploadsOfARequest,
                         testing::Combine(testing::Bool(), testing::Bool()));

TEST_P(UploadsOfARequest, AreTheAccountsToReadAndRemoveWhereItMay) {
  const char* const tear_down_begins = "the request ends";
  // One ends in what could begin a separator.
  const Texts contents = {{"a", "first\r\n"}, {"b", std::string(200'000, 'b')}};
  const std::string body = Upload("file", "a", contents.at("a")) +
                           Upload("file", "b", contents.at("b")) + kFormEnd;
  Outcome outcome =
      RunCleanly(PostOf(body), Input::Pipe(body), [&](const Reporter& report) {
        FakeAccount(owners_.Visitor());
        Cgi cgi(owners_.Spool() + "/front-end", "");
        cgi.SetTmpDir(owners_.Spool());
        cgi.ParseQuery();
        cgi.Su("visitor", Confined() ? "/" : "", Confined(), false);
        EXPECT_EQ(::geteuid(), owners_.Visitor().uid);
        for (const auto& [name, content] : contents) {
          const std::string path = cgi.File(name);
          EXPECT_EQ(fs::path(path).parent_path(),
                    Confined() ? "/" : owners_.Home());
          EXPECT_EQ(AttributesOf(path), owners_.AttributesAfter());
          EXPECT_EQ(::access(path.c_str(), R_OK | W_OK), 0);
          EXPECT_EQ(ReadFile(path), content);
          report(name, path);
        }
        EXPECT_EQ(cgi.GetFileSize(), 200'007);
        zan_cgi::testing::Mark(tear_down_begins);
      });
  EXPECT_EQ(owners_.InSpool(), Strings{});
  EXPECT_EQ(owners_.InHome().size(), OfRoot() ? 2U : 0U);

  const Log tear_down(std::find(outcome.log.begin(), outcome.log.end(),
                                LogLine{-1, tear_down_begins}),
                      outcome.log.end());
  const std::string warning = "failed to remove tamporary file '";
  const Strings warnings = {warning + outcome.reported["a"] + "'",
                            warning + outcome.reported["b"] + "'"};
  EXPECT_EQ(TextsOf(tear_down, 4), OfRoot() ? warnings : Strings{});
  const Strings lines = TextsOf(tear_down, 9);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_TRUE(lines[0].ends_with("dropping temporary file '" +
                                 outcome.reported["a"] + "'"))
      << lines[0];
}

}  // namespace
}  // namespace support
