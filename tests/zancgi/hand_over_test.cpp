// Handing uploads over to an account: what is moved where and recorded how, in
// which order, and what a failure leaves behind.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support/account.h"
#include "support/hand_over.h"

namespace {

namespace fs = std::filesystem;

using support::AttributesOf;
using support::HandedOver;
using support::HandOver;
using support::HandOverCall;
using support::Owners;
using support::Stored;
using zan_cgi::testing::LogLine;
using zan_cgi::testing::ReadFile;
using Lines = std::vector<LogLine>;
using Strings = std::vector<std::string>;
using Paths = std::map<std::string, std::string>;

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
    return HandOver(owners_, files, {.use_chroot = Confined()});
  }

  Owners owners_;
};

INSTANTIATE_TEST_SUITE_P(Confined, HandOverOf, testing::Bool());

TEST_P(HandOverOf, OneUploadGivesItAwayAndMovesItIntoTheHome) {
  const std::string path = owners_.MakeUpload("zantempAbCdEf", "content");
  const HandedOver done = Do({{"holiday.jpg", path, 1234567890123}});
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Paths{{"holiday.jpg", Recorded("zantempAbCdEf")}}));
  // As it was recorded.
  EXPECT_EQ(done.sizes, (Paths{{"holiday.jpg", "1234567890123"}}));
  EXPECT_EQ(owners_.InSpool(), Strings{});
  EXPECT_EQ(owners_.InHome(), Strings{"zantempAbCdEf"});
  const std::string moved = owners_.Home() + "/zantempAbCdEf";
  EXPECT_EQ(ReadFile(moved), "content");
  EXPECT_EQ(AttributesOf(moved), owners_.AttributesAfter());
  EXPECT_EQ(done.log, (Lines{Moving("holiday.jpg", path, moved)}));
}

TEST_P(HandOverOf, AnUploadGivesMode0644WhateverItWasAndWhateverTheUmask) {
  for (const mode_t mode : {0400u, 0666u, 06777u}) {
    const std::string name = std::to_string(mode);
    const std::string path = owners_.MakeUpload(name);
    fs::permissions(path, fs::perms{mode});
    const HandedOver done =
        HandOver(owners_, {{"a", path}}, {.use_chroot = Confined()},
                 [] { ::umask(0777); });
    EXPECT_EQ(done.error, "");
    EXPECT_EQ(AttributesOf(owners_.Home() + "/" + name),
              owners_.AttributesAfter());
  }
}

TEST_P(HandOverOf, UploadsTakesThemInByteOrderOfTheClientsNames) {
  const std::string home = owners_.Home() + "/";
  const std::string highest = "\xc3\xa4";
  const HandedOver done = Do({{highest, owners_.MakeUpload("1")},
                              {"b", owners_.MakeUpload("2")},
                              {"B", owners_.MakeUpload("3")},
                              {"", owners_.MakeUpload("4")},
                              {"bb", owners_.MakeUpload("5")}});
  EXPECT_EQ(done.error, "");
  Strings order;
  for (const LogLine& line : done.log) {
    order.push_back(line.text.substr(line.text.rfind(home) + home.size(), 1));
  }
  EXPECT_EQ(order, (Strings{"4", "3", "2", "5", "1"}));
  EXPECT_EQ(done.paths, (Paths{{highest, Recorded("1")},
                               {"b", Recorded("2")},
                               {"B", Recorded("3")},
                               {"", Recorded("4")},
                               {"bb", Recorded("5")}}));
}

TEST_P(HandOverOf, AnUploadJoinsAHomeWithAFinalSlashByOneSlash) {
  for (const char* end : {"/", "//"}) {
    Owners owners;
    const std::string home = owners.Home();
    owners.MoveHome(home + end);
    const std::string path = owners.MakeUpload("name");
    const HandedOver done =
        HandOver(owners, {{"a", path}}, {.use_chroot = Confined()});
    EXPECT_EQ(done.log, (Lines{Moving("a", path, home + "/name")}));
    EXPECT_EQ(done.paths,
              (Paths{{"a", Confined() ? "/name" : home + "/name"}}));
    EXPECT_EQ(owners.InHome(), Strings{"name"});
  }
}

TEST_P(HandOverOf, AnUploadCutsItsPathAtABackslashToo) {
  fs::create_directory(owners_ / "with\\back");
  const std::string last = owners_.MakeUpload("folder\\deep\\one");
  const std::string earlier = owners_ / "with\\back/two";
  fs::rename(owners_.MakeUpload("two"), earlier);
  const HandedOver done = Do({{"a", last}, {"b", earlier}});
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths,
            (Paths{{"a", Recorded("one")}, {"b", Recorded("two")}}));
  EXPECT_EQ(owners_.InHome(), (Strings{"one", "two"}));
}

TEST_P(HandOverOf, AnUploadWithoutASeparatorTakesThePathForTheName) {
  owners_.MakeUpload("name");
  HandOverCall call{.use_chroot = Confined()};
  call.child.WorkDir(owners_.Spool());
  const HandedOver done = HandOver(owners_, {{"a", "name"}}, call);
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Paths{{"a", Recorded("name")}}));
  EXPECT_EQ(owners_.InHome(), Strings{"name"});
}

TEST_P(HandOverOf, AnUploadWhosePathNamesNoFileIsRefused) {
  for (const char* end : {"", "\\"}) {
    const std::string path = owners_.MakeUpload(std::string("name") + end);
    const std::string stored = *end == '\0' ? path + "/" : path;
    const HandedOver done = Do({{"a", stored}});
    EXPECT_EQ(done.error_type, "tov_err::Error") << stored;
    EXPECT_EQ(done.paths, (Paths{{"a", stored}}));
    EXPECT_EQ(owners_.InHome(), Strings{});
  }
}

// Whatever its name, an account whose user is root is root.
TEST_P(HandOverOf, RootsUploadsLeavesThemWhereTheyAre) {
  const std::string one = owners_.MakeUpload("1");
  const std::string missing = owners_ / "missing";
  const support::Account root = {"visitor", 0, 0, owners_.Home()};
  const HandedOver done =
      HandOver(owners_, {{"a", one}, {"b", missing}},
               {.use_chroot = Confined()}, [&] { support::FakeAccount(root); });
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.log, Lines{});
  EXPECT_EQ(done.paths, (Paths{{"a", one}, {"b", missing}}));
  EXPECT_EQ(AttributesOf(one), owners_.AttributesBefore());
  EXPECT_EQ(owners_.InHome(), Strings{});
}

/// Whether the message is that of a failed move and says from where, to where
/// and why not.
testing::AssertionResult NamesBoth(const HandedOver& done,
                                   const std::string& from,
                                   const std::string& to, int reason) {
  const bool good = done.error_type == "tov_err::Error" &&
                    done.error.find("'" + from + "'") != std::string::npos &&
                    done.error.find("'" + to + "'") != std::string::npos &&
                    done.error.find(std::strerror(reason)) != std::string::npos;
  return (good ? testing::AssertionSuccess() : testing::AssertionFailure())
         << done.error_type << ": " << done.error;
}

TEST_P(HandOverOf, UploadsOfWhichOneCannotBeMovedStopsThere) {
  const std::string one = owners_.MakeUpload("1", "first");
  const std::string two = owners_.MakeUpload("2", "second");
  const std::string three = owners_.MakeUpload("3", "third");
  const std::string taken = owners_.Home() + "/2";
  std::ofstream(taken) << "mine";
  const HandedOver done = Do({{"a", one}, {"b", two}, {"c", three}});

  EXPECT_TRUE(NamesBoth(done, two, taken, EEXIST));
  EXPECT_EQ(done.paths,
            (Paths{{"a", Recorded("1")}, {"b", two}, {"c", three}}));
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
            (Paths{{"a", Recorded("1")}, {"b", link}, {"c", three}}));
  EXPECT_EQ(AttributesOf(victim), owners_.AttributesBefore());
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(AttributesOf(three), owners_.AttributesBefore());
  // Nothing is said of a move that is not tried.
  EXPECT_EQ(done.log, (Lines{Moving("a", one, owners_.Home() + "/1")}));
}

TEST_P(HandOverOf, AnUploadToAnotherWithoutRootIsRefused) {
  const std::string one = owners_.MakeUpload("1");
  const support::Account stranger = {"visitor", ::geteuid() + 1, ::getegid(),
                                     owners_.Home()};
  const HandedOver done =
      HandOver(owners_, {{"a", one}}, {.use_chroot = Confined()}, [&] {
        support::FakeAccount(stranger);
        zan_cgi::testing::BecomeOrdinaryUser();
      });
  EXPECT_EQ(done.error_type, "tov_err::Error");
  EXPECT_NE(done.error.find(one), std::string::npos) << done.error;
  EXPECT_EQ(done.paths, (Paths{{"a", one}}));
  EXPECT_EQ(AttributesOf(one), owners_.AttributesBefore());
  EXPECT_EQ(done.log, Lines{});
}

TEST_P(HandOverOf, AnUploadThatIsGoneSaysSo) {
  const std::string missing = owners_.Spool() + "/missing";
  const std::string two = owners_.MakeUpload("2");
  const HandedOver done = Do({{"a", missing}, {"b", two}});
  EXPECT_EQ(done.error_type, "tov_err::Error");
  EXPECT_NE(done.error.find(missing), std::string::npos) << done.error;
  EXPECT_EQ(done.paths, (Paths{{"a", missing}, {"b", two}}));
  EXPECT_EQ(owners_.InHome(), Strings{});
  EXPECT_EQ(done.log,
            (Lines{Moving("a", missing, owners_.Home() + "/missing")}));
}

/// A home that does not take an upload, and why not.
struct Home {
  const char* name;
  int reason;
  /// Makes it so.
  /// @param target  where the upload would go
  void (*spoil)(const Owners& owners, const std::string& target);
};

const Home kRefusing[] = {
    {"Gone", ENOENT,
     [](const Owners& owners, const std::string& /*target*/) {
       fs::remove(owners.Home());
     }},
    {"LinkToNothing", ENOENT,
     [](const Owners& owners, const std::string& /*target*/) {
       fs::remove(owners.Home());
       fs::create_symlink("missing", owners.Home());
     }},
    {"File", ENOTDIR,
     [](const Owners& owners, const std::string& /*target*/) {
       fs::remove(owners.Home());
       std::ofstream(owners.Home()) << "file";
     }},
    {"WithAFileOfTheName", EEXIST,
     [](const Owners& /*owners*/, const std::string& target) {
       std::ofstream(target) << "mine";
     }},
    {"WithALinkToAFile", EEXIST,
     [](const Owners& owners, const std::string& target) {
       fs::create_symlink(owners.MakeUpload("other", "other"), target);
     }},
    {"WithALinkToAFolder", EEXIST,
     [](const Owners& owners, const std::string& target) {
       fs::create_directory_symlink(owners.Spool(), target);
     }},
    {"WithALinkToNothing", EEXIST,
     [](const Owners& owners, const std::string& target) {
       fs::create_symlink(owners.Spool() + "/new", target);
     }},
    {"WithAFifo", EEXIST,
     [](const Owners& /*owners*/, const std::string& target) {
       ASSERT_EQ(::mkfifo(target.c_str(), 0600), 0);
     }},
    {"WithAFolder", EEXIST,
     [](const Owners& /*owners*/, const std::string& target) {
       fs::create_directory(target);
     }},
};

/// What would change with a file; empty for none.
std::string Look(const std::string& path) {
  struct stat found {};
  if (::lstat(path.c_str(), &found) != 0) return "";
  return AttributesOf(path) + " " + std::to_string(found.st_ino) + " " +
         std::to_string(found.st_size) + " " +
         std::to_string(found.st_mtim.tv_nsec);
}

/// By whether the home lies in another file system.
class HomeOfVisitor : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam() && !Owners::CanBeAcross()) {
      GTEST_SKIP() << "needs a second file system at /dev/shm";
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Across, HomeOfVisitor, testing::Bool());

TEST_P(HomeOfVisitor, ThatIsALinkTakesTheUploadWhereItLeads) {
  Owners owners(GetParam());
  const std::string link = owners / "link";
  fs::create_directory_symlink(owners.Home(), link);
  owners.MoveHome(link);
  const HandedOver done =
      HandOver(owners, {{"a", owners.MakeUpload("upload", "content")}});
  EXPECT_EQ(done.error, "");
  EXPECT_EQ(done.paths, (Paths{{"a", link + "/upload"}}));
  const std::string target = owners.Home() + "/upload";
  EXPECT_EQ(ReadFile(target), "content");
  EXPECT_EQ(AttributesOf(target), owners.AttributesAfter());
  EXPECT_EQ(owners.InSpool(), Strings{});
  EXPECT_TRUE(fs::is_symlink(link));
}

TEST_P(HomeOfVisitor, ThatDoesNotTakeTheUploadChangesNothing) {
  for (const Home& home : kRefusing) {
    SCOPED_TRACE(home.name);
    const Owners owners(GetParam());
    const std::string upload = owners.MakeUpload("upload", "content");
    const std::string target = owners.Home() + "/upload";
    home.spoil(owners, target);
    const Strings in_spool = owners.InSpool();
    const std::string before = Look(owners.Home()) + Look(target);

    const HandedOver done = HandOver(owners, {{"a", upload}});
    EXPECT_TRUE(NamesBoth(done, upload, target, home.reason));
    EXPECT_EQ(done.paths, (Paths{{"a", upload}}));
    EXPECT_EQ(ReadFile(upload), "content");
    EXPECT_EQ(owners.InSpool(), in_spool);
    EXPECT_EQ(Look(owners.Home()) + Look(target), before);
  }
}

}  // namespace
