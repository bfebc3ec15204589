// Uploads of real requests: from the body over the switch to the tear-down,
// which then runs as the account.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/input.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/account.h"
#include "support/form.h"
#include "support/hand_over.h"
#include "support/switch.h"

namespace {

namespace fs = std::filesystem;

using support::AttributesOf;
using support::Identity;
using support::Observer;
using support::Owners;
using support::Upload;
using zan_cgi::Cgi;
using zan_cgi::testing::Input;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::ReadFile;
using zan_cgi::testing::Scratch;
using zan_cgi::testing::Told;
using Strings = std::vector<std::string>;

constexpr char kTearDownBegins[] = "the request ends";

/// Three uploads; one ends in what could begin a separator, one is empty.
std::string Body() {
  return Upload("file", "a", "first\r\n") + Upload("file", "b", "") +
         Upload("file", "c", std::string(200'000, 'c')) + support::kFormEnd;
}

std::string FileName(const std::string& path) {
  return fs::path(path).filename();
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

/// Parses the body and has the request torn down behind @p use.
Outcome Serve(const std::string& spool,
              const std::function<void(Cgi& cgi, const Told& told)>& use,
              const std::function<void()>& prepare) {
  const Input input = Input::Pipe(Body());
  return support::Post(std::to_string(Body().size()))
      .StandardInput(input)
      .Run([&](const Told& told) {
        prepare();
        Cgi cgi(spool + "/front-end", "");
        cgi.SetTmpDir(spool);
        cgi.ParseQuery();
        use(cgi, told);
        zan_cgi::testing::Mark(kTearDownBegins);
      });
}

void ExpectCleanEnd(const Outcome& outcome) {
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
}

class UploadsOfARequest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (Confined() && !zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  }

  static bool Confined() { return GetParam(); }

  /// Serves a request that has become the account, and expects a clean end.
  Outcome ServeAsAccount(
      const std::function<void(Cgi& cgi, const Told& told)>& use) const {
    Outcome outcome = Serve(
        owners_.Spool(),
        [&](Cgi& cgi, const Told& told) {
          cgi.Su("visitor", Confined() ? "/" : "", Confined(), false);
          told("a", cgi.File("a"));
          told("b", cgi.File("b"));
          told("c", cgi.File("c"));
          use(cgi, told);
        },
        [&] { support::FakeAccount(owners_.Visitor()); });
    ExpectCleanEnd(outcome);
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
  const Outcome outcome = ServeAsAccount([&](Cgi& cgi, const Told& told) {
    EXPECT_EQ(::geteuid(), owners_.Visitor().uid);
    for (const char* name : {"a", "b", "c"}) {
      const std::string path = cgi.File(name);
      EXPECT_EQ(AttributesOf(path), owners_.AttributesAfter()) << path;
      // Readable for it, and its own to write.
      EXPECT_EQ(::access(path.c_str(), R_OK | W_OK), 0) << path;
      told(std::string("content of ") + name, ReadFile(path));
    }
    told("size", std::to_string(cgi.GetFileSize()));
  });
  EXPECT_EQ(outcome.told.at("content of a"), "first\r\n");
  EXPECT_EQ(outcome.told.at("content of b"), "");
  EXPECT_EQ(outcome.told.at("content of c"), std::string(200'000, 'c'));
  EXPECT_EQ(outcome.told.at("size"), "200007");
  for (const char* name : {"a", "b", "c"}) {
    EXPECT_EQ(fs::path(Outside(outcome.told.at(name))).parent_path(),
              owners_.Home());
  }
  EXPECT_EQ(owners_.InHome(), Strings{});
  EXPECT_EQ(owners_.InSpool(), Strings{});
  EXPECT_EQ(TearDownLogged(outcome, 4), Strings{});
  const Strings lines = TearDownLogged(outcome, 9);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(lines[0].ends_with("dropping temporary file '" +
                                 outcome.told.at("a") + "'"))
      << lines[0];
}

/// As homes are that are safe to confine to: root hands over where the account
/// may not write.
TEST_P(UploadsOfARequest, InAHomeOfRootsAreReadAndStayWithAWarning) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  ASSERT_EQ(::chown(owners_.Home().c_str(), 0, 0), 0);
  const Outcome outcome = ServeAsAccount([](Cgi& cgi, const Told& told) {
    told("content of a", ReadFile(cgi.File("a")));
  });
  EXPECT_EQ(outcome.told.at("content of a"), "first\r\n");
  EXPECT_EQ(
      TearDownLogged(outcome, 4),
      (Strings{Warning(outcome.told.at("a")), Warning(outcome.told.at("b")),
               Warning(outcome.told.at("c"))}));
  EXPECT_EQ(owners_.InHome().size(), 3U);
}

/// Who the process is before a switch that fails, and after it.
class FailedSwitch : public UploadsOfARequest {
 protected:
  /// Expects that the switch fails without having begun, and that the tear-down
  /// leaves no upload.
  /// @returns the error
  std::string ErrorOfSu(
      const std::string& user,
      const std::function<void(const Cgi& cgi)>& prepare = [](const Cgi&) {
      }) const {
    const Outcome outcome = Serve(
        owners_.Spool(),
        [&](Cgi& cgi, const Told&) {
          prepare(cgi);
          Observer observer;
          const Identity before = observer.Look();
          try {
            cgi.Su(user, "/", Confined(), false);
          } catch (...) {
            EXPECT_EQ(observer.Look(), before);
            throw;
          }
        },
        [&] { support::FakeAccount(owners_.Visitor()); });
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(owners_.InSpool(), Strings{});
    return outcome.error;
  }
};

INSTANTIATE_TEST_SUITE_P(Confined, FailedSwitch, testing::Bool());

TEST_P(FailedSwitch, ToAMissingAccountKeepsUploadsAndIdentity) {
  EXPECT_EQ(ErrorOfSu("nobody-here"), "failed to get pw entry");
  EXPECT_EQ(owners_.InHome(), Strings{});
}

TEST_P(FailedSwitch, InTheHandOverKeepsTheIdentity) {
  const std::string taken = owners_.Home() + "/taken";
  std::ofstream(taken) << "mine";
  const std::string error = ErrorOfSu("visitor", [&](const Cgi& cgi) {
    fs::rename(taken, owners_.Home() + "/" + FileName(cgi.File("b")));
  });
  EXPECT_NE(error.find("' to '" + owners_.Home() + "/"), std::string::npos)
      << error;
  Strings contents;
  for (const std::string& name : owners_.InHome()) {
    contents.push_back(ReadFile(owners_.Home() + "/" + name));
  }
  std::sort(contents.begin(), contents.end());
  // What came before the one that failed is recorded for a root directory that
  // does not come, and so stays for ever.
  EXPECT_EQ(contents,
            Confined() ? (Strings{"first\r\n", "mine"}) : Strings{"mine"});
}

/// A root directory with nothing in it but what a front end needs, so that a
/// test may write at its top.
class BareRoot {
 public:
  BareRoot() {
    fs::permissions(scratch_.Path(), fs::perms{0755});
    fs::permissions(scratch_.MakeDir("tmp"), fs::perms{01777});
    scratch_.MakeDir("etc");
    scratch_.MakeFile("etc/hosts", "127.0.0.1 localhost\n");
    scratch_.MakeFile("etc/nsswitch.conf", "hosts: files\ngroup: files\n");
    const std::string home = scratch_.MakeDir("home");
    EXPECT_EQ(::chown(home.c_str(), support::kVisitor, support::kVisitors), 0);
  }

  std::string Home() const { return scratch_ / "home"; }
  const Scratch& Files() const { return scratch_; }

  /// Makes it the root directory of this process.
  void Enter() const {
    EXPECT_EQ(::chroot(scratch_.Path().c_str()), 0);
    EXPECT_EQ(::chdir("/"), 0);
    support::FakeAccount(
        {"visitor", support::kVisitor, support::kVisitors, "/home"});
  }

 private:
  Scratch scratch_;
};

// The path is recorded for the root that was to come. That of the root which
// there still is then names another file, or none.
TEST(FailedChroot, LeavesUploadsInTheHomeAndRemovesWhatHasTheirNameInTheRoot) {
  if (!zan_cgi::testing::IsRoot()) GTEST_SKIP() << "needs root";
  const BareRoot root;
  const Outcome outcome = Serve(
      "/tmp",
      [](Cgi& cgi, const Told& told) {
        const std::string name = FileName(cgi.File("a"));
        std::ofstream("/" + name) << "unrelated";
        support::RefuseChroot();
        try {
          cgi.Su("visitor", "/", true, false);
        } catch (const std::runtime_error& error) {
          told("error", error.what());
        }
        told("name", name);
        told("path", cgi.File("a"));
        told("content", ReadFile(cgi.File("a")));
        told("user", std::to_string(::geteuid()));
      },
      [&] { root.Enter(); });
  ExpectCleanEnd(outcome);
  const std::string name = outcome.told.at("name");
  EXPECT_EQ(outcome.told.at("error"), "failed to chroot to users home folder");
  EXPECT_EQ(outcome.told.at("user"), "0");
  EXPECT_EQ(outcome.told.at("path"), "/" + name);
  EXPECT_EQ(outcome.told.at("content"), "unrelated");

  EXPECT_EQ(root.Files().List(), (Strings{"etc", "home", "tmp"}));
  EXPECT_EQ(ReadFile(root.Home() + "/" + name), "first\r\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(root.Home()), {}), 3);
  EXPECT_TRUE(fs::is_empty(root.Files() / "tmp"));
  EXPECT_EQ(TearDownLogged(outcome, 4), Strings{});
  // Of the other two nothing is found.
  EXPECT_EQ(TearDownLogged(outcome, 9).size(), 1U);
}

}  // namespace
