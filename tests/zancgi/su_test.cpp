#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/zancgi.h>

#include <filesystem>
#include <string>
#include <tuple>

#include "support/account.h"
#include "support/switch.h"

namespace {

namespace fs = std::filesystem;

using support::Lines;
using support::Observer;
using support::Root;
using support::Switch;
using support::Switched;
using support::Visitor;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;

class SuCombination
    : public support::MachineTest<
          testing::TestWithParam<std::tuple<std::string, bool, bool>>> {
 protected:
  Switched SwitchTo(const std::string& user) const {
    const auto& [dir, use_chroot, use_pam] = GetParam();
    return Switch(machine_, {user, dir, use_chroot, use_pam});
  }

  static std::string Dir() { return std::get<0>(GetParam()); }
  static bool UsesChroot() { return std::get<1>(GetParam()); }
  static bool UsesPam() { return std::get<2>(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(All, SuCombination,
                         testing::Combine(testing::Values("", "/", "www"),
                                          testing::Bool(), testing::Bool()));

TEST_P(SuCombination, OfRootIgnoresBothFlags) {
  const Switched switched = SwitchTo("root");
  const std::string entered =
      Dir() == "www" ? machine_.Start() + "/www" : std::string("/");
  EXPECT_EQ(switched.identity, Root(entered));
  EXPECT_EQ(switched.error, "");
  EXPECT_EQ(switched.log, Lines{});
}

TEST_P(SuCombination, OfAnAccountEndsWithItsIdentity) {
  const Switched switched = SwitchTo("visitor");
  const std::string home = machine_.Home();

  Lines log;
  if (UsesChroot()) log.push_back({8, "ChRoot Init resolver"});
  if (UsesPam()) {
    log.push_back(
        {9, "zancgi_unix.cpp:N starting PAM session for user 'visitor'"});
  }
  if (UsesPam() && UsesChroot()) {
    log.push_back({4, "failed to start PAM session"});
  } else if (UsesPam()) {
    log.push_back({9, "zancgi_unix.cpp:N PAM start done"});
    log.push_back({9, "zancgi_unix.cpp:N PAM open_session - ok"});
    log.push_back({9, "zancgi_unix.cpp:N PAM close_session - ok"});
  }
  EXPECT_EQ(switched.log, log);

  if (!UsesChroot()) {
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity,
              Visitor("/", Dir() == "www" ? home + "/www" : home));
  } else if (Dir().empty()) {
    EXPECT_EQ(switched.error, "no such directory ''");
    EXPECT_EQ(switched.identity, Visitor(home, machine_.Start()));
  } else {
    // A relative path is taken from where the process was, outside.
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity,
              Visitor(home, Dir() == "/" ? home : machine_.Start() + "/www"));
  }
}

class Su : public support::MachineTest<> {};

TEST_F(Su, OfAnAccountThatIsMissingChangesNothing) {
  const Switched switched = Switch(machine_, {.user = "nobody-here"});
  EXPECT_EQ(switched.error, "failed to get pw entry");
  EXPECT_EQ(switched.identity, Root(machine_.Start()));
  EXPECT_EQ(switched.log, Lines{});
}

TEST_F(Su, ToAHomeThatIsGoneKeepsTheIdentityAndThePlace) {
  fs::remove_all(machine_.Home());
  for (const bool use_chroot : {false, true}) {
    const Switched switched =
        Switch(machine_, {.dir = "/", .use_chroot = use_chroot});
    EXPECT_EQ(switched.error, "failed to chroot to users home folder");
    EXPECT_EQ(switched.identity, Root(machine_.Start()));
    const Lines log = {{8, "ChRoot Init resolver"}};
    EXPECT_EQ(switched.log, use_chroot ? log : Lines{});
  }
}

// The directory is entered last: the process is the account then, and stays in
// a directory that is refused.
TEST_F(Su, EntersADirectoryAsTheAccount) {
  fs::create_symlink(machine_ / "other", machine_ / "home/link");
  fs::create_symlink("/", machine_ / "home/root");
  fs::create_symlink(machine_ / "home/www", machine_ / "home/inside");
  const std::string home = machine_.Home();
  const std::string www = home + "/www";
  const std::string other = machine_ / "other";
  const std::string outside = "it is not your folder";
  const std::string missing = "no such directory 'missing/a'";
  struct Directory {
    std::string dir, error, entered;
  };
  for (const auto& [dir, error, entered] : {Directory{"/www", "", www},
                                            {"www", "", www},
                                            {"//www", "", www},
                                            {"www/", "", www},
                                            {"/www/.", "", www},
                                            {"inside", "", www},
                                            {"///", "", home},
                                            {".", "", home},
                                            {"/./", "", home},
                                            {"www/..", "", home},
                                            {"/missing/a", missing, home},
                                            {"missing/a", missing, home},
                                            {"//missing/a", missing, home},
                                            {"../other", outside, other},
                                            {"/../other", outside, other},
                                            {"www/../../other", outside, other},
                                            {"link", outside, other},
                                            {"/link/", outside, other},
                                            {"..", outside, machine_.Path()},
                                            {"root", outside, "/"}}) {
    const Switched switched = Switch(machine_, {.dir = dir});
    EXPECT_EQ(switched.error, error) << dir;
    EXPECT_EQ(switched.identity, Visitor("/", entered)) << dir;
  }
  const Switched confined =
      Switch(machine_, {.dir = "/missing", .use_chroot = true});
  EXPECT_EQ(confined.error, "no such directory '/missing'");
  EXPECT_EQ(confined.identity, Visitor(home, machine_.Start()));
  const Switched root = Switch(
      machine_, {.user = "root", .dir = "//missing", .use_chroot = true});
  EXPECT_EQ(root.error, "no such directory '//missing'");
  EXPECT_EQ(root.identity, Root(machine_.Start()));
}

TEST_F(Su, UnconfinedStaysInAHomeThatItsAccountMayNotSearch) {
  fs::permissions(machine_.Home(), fs::perms{0600});
  for (const char* dir : {"", "/"}) {
    const Switched switched = Switch(machine_, {.dir = dir});
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity, Visitor("/", machine_.Home()));
  }
  const Switched switched = Switch(machine_, {.dir = "/www"});
  EXPECT_EQ(switched.error, "no such directory 'www'");
  EXPECT_EQ(switched.identity, Visitor("/", machine_.Home()));
}

TEST_F(Su, UnconfinedSaysWhenTheWayUpIsLongerThanAPathMayBe) {
  // A path has 4095 bytes at most, and the way up needs three for each level.
  constexpr int kLevels = 4094 / 3;
  std::string deep = "d";
  for (int i = 1; i < kLevels; ++i) deep += "/d";
  const std::string too_deep = deep + "/d";
  // In two steps, since 1000 levels at a time are the most.
  machine_.MakeDir("home/" + too_deep.substr(0, kLevels));
  machine_.MakeDir("home/" + too_deep);

  EXPECT_EQ(Switch(machine_, {.dir = deep}).error, "");

  const Switched switched = Switch(machine_, {.dir = too_deep});
  EXPECT_EQ(switched.error, "stat error");
  EXPECT_EQ(switched.identity, Visitor("/", machine_.Home() + "/" + too_deep));
}

TEST_F(Su, TwiceGoesOnWithTheRightsThatTheFirstCallLeft) {
  Outcome outcome =
      Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
        machine_.SetUp();
        Observer observer;
        Cgi::Data request;
        request.DoSu("visitor", "www", false, false);
        request.DoSu("visitor", "", false, false);
        support::TellIdentity(report, observer.Look());
        request.DoSu("visitor", "", true, false);
      });
  const Switched switched = support::SwitchedOf(outcome);
  EXPECT_EQ(switched.identity, Visitor("/", machine_.Home()));
  EXPECT_EQ(switched.error, "failed to chroot to users home folder");
}

TEST_F(Su, WithoutRootStaysWhoItWasButEntersTheHome) {
  fs::permissions(machine_.Home(), fs::perms{0755});
  Outcome outcome =
      Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
        machine_.SetUp();
        Observer observer;
        zan_cgi::testing::BecomeOrdinaryUser();
        Cgi::Data request;
        support::MarkSwitch();
        request.DoSu("visitor", "", false, false);
        support::TellIdentity(report, observer.Look());
        request.DoSu("visitor", "/", true, false);
      });
  const Switched switched = support::SwitchedOf(outcome);
  EXPECT_EQ(switched.identity.users, "65534\t65534\t65534\t65534");
  EXPECT_EQ(switched.identity.groups, "65534\t65534\t65534\t65534");
  EXPECT_EQ(switched.identity.supplementary, "");
  EXPECT_EQ(switched.identity.work_dir, machine_.Home());
  EXPECT_EQ(switched.error, "failed to chroot to users home folder");
  EXPECT_EQ(switched.log, (Lines{{8, "ChRoot Init resolver"}}));
}

// A FIFO that nobody writes to would stop whoever reads it, as root, for good.
TEST_F(Su, ConfinedWritesTheTimeOfALogLineWithoutReadingTheHome) {
  machine_.MakeDir("home/etc");
  ASSERT_EQ(::mkfifo((machine_ / "home/etc/localtime").c_str(), 0644), 0);
  const Outcome outcome =
      Child().LogLevel(4).WorkDir(machine_.Start()).Run([&](const Reporter&) {
        machine_.SetUp();
        ::alarm(10);
        Cgi::Data request;
        request.DoSu("visitor", "/", true, true);
      });
  EXPECT_EQ(outcome.status, 0);
  const Lines warning = {{4, "failed to start PAM session"}};
  EXPECT_EQ(outcome.log, warning);
}

}  // namespace
