#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <linux/magic.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/scratch.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>
#include <numeric>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/account.h"
#include "support/mount.h"
#include "support/switch.h"
#include "support/switch_calls.h"

namespace {

namespace fs = std::filesystem;

using support::Answers;
using support::Call;
using support::FchdirTo;
using support::Lines;
using support::Machine;
using support::Observer;
using support::Recording;
using support::Switched;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;

const char kInitgroups[] = "initgroups visitor 54321";
const char kHomeClosed[] = "failed to chroot to users home folder";

void Add(Lines& lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

zan_cgi::testing::LogLine Called(const std::string& call) { return {-1, call}; }

/// Answers for a machine on which nobody becomes anybody.
Answers Pretended(const Machine& machine) {
  return {.accounts = {{"root", 0, 0, machine.Start()},
                       {"visitor", support::kVisitor, support::kVisitors,
                        machine.Home()}},
          .groups = {support::kHelpers}};
}

/// Answers for a test as root: everything is made.
Answers Made() { return {.pretend = false}; }

/// Makes the switch in a child and records it.
Switched RecordSwitch(const Machine& machine, const Call& call,
                      const Answers& answers) {
  Outcome outcome =
      Child().WorkDir(machine.Start()).Run([&](const Reporter& report) {
        if (!answers.pretend) machine.SetUp();
        // Whatever groups the tests are run with.
        EXPECT_TRUE(!zan_cgi::testing::IsRoot() ||
                    ::setgroups(0, nullptr) == 0);
        Observer observer;
        Cgi::Data request;
        support::MarkSwitch();
        std::string error;
        {
          const Recording recording(answers);
          try {
            request.DoSu(call.user, call.dir, call.use_chroot, call.use_pam);
          } catch (const std::runtime_error& thrown) {
            error = thrown.what();
          }
        }
        support::TellIdentity(report, observer.Look());
        if (!error.empty()) throw std::runtime_error(error);
      });
  return support::SwitchedOf(outcome);
}

Lines OfConfinement(const Machine& machine) {
  return {Called("getgrouplist visitor 54321"),
          Called("gethostbyname localhost"),
          {8, "ChRoot Init resolver"},
          Called("chroot " + machine.Home()),
          Called("stat /"),
          Called("statfs /"),
          Called("__nss_configure_lookup group files"),
          Called("__nss_configure_lookup initgroups files")};
}

/// Up to and with the account's group.
Lines OfGroups(const Machine& machine, bool use_chroot) {
  Lines lines = {Called("getpwnam visitor")};
  if (use_chroot) {
    Add(lines, OfConfinement(machine));
    Add(lines,
        {Called("initgroups visitor 54321"), Called("setgroups 54321 54330")});
  } else {
    Add(lines, {Called("chdir " + machine.Home()),
                Called("initgroups visitor 54321")});
  }
  lines.push_back(Called("setgid 54322"));
  return lines;
}

Lines OfWholePam() {
  return {{9, "zancgi_unix.cpp:N starting PAM session for user 'visitor'"},
          Called("pam_start login visitor myconv"),
          {9, "zancgi_unix.cpp:N PAM start done"},
          Called("pam_open_session session silent"),
          {9, "zancgi_unix.cpp:N PAM open_session - ok"},
          Called("pam_close_session session silent"),
          {9, "zancgi_unix.cpp:N PAM close_session - ok"},
          Called("pam_end session 0")};
}

/// Where PAM is not called.
Lines OfNoPam() {
  return {{9, "zancgi_unix.cpp:N starting PAM session for user 'visitor'"},
          {4, "failed to start PAM session"}};
}

/// With this for the PAM part, when it is wanted; the directory that is kept
/// across it included.
Lines OfSession(const Machine& machine, bool use_chroot, const Lines& pam) {
  Lines lines = pam;
  lines.push_back(
      Called(FchdirTo(use_chroot ? machine.Start() : machine.Home())));
  return lines;
}

Lines OfDirectory(const std::string& dir, bool use_chroot) {
  if (use_chroot) return {Called("chdir " + dir)};
  if (dir.empty()) return {};
  if (dir == "/") return {Called("stat ."), Called("stat .")};
  return {Called("stat ."), Called("chdir " + dir), Called("stat ."),
          Called("stat ./..")};
}

/// An account's whole switch to "", "/" or "www".
Lines OfSwitch(const Machine& machine, const Call& call, const Lines& pam) {
  Lines lines = OfGroups(machine, call.use_chroot);
  if (call.use_pam) Add(lines, OfSession(machine, call.use_chroot, pam));
  lines.push_back(Called("setuid 54321"));
  Add(lines, OfDirectory(call.dir, call.use_chroot));
  return lines;
}

Lines OfSwitch(const Machine& machine, const Call& call) {
  return OfSwitch(machine, call, OfWholePam());
}

/// The way up from a directory that is so many levels above the end of it.
Lines OfWayUp(int levels) {
  Lines lines = {Called("stat .")};
  std::string path = ".";
  for (int i = 0; i < levels; ++i) {
    path += "/..";
    lines.push_back(Called("stat " + path));
  }
  return lines;
}

/// How many ".." it takes to see that the root has no parent.
int LevelsToTheEnd(const fs::path& path) {
  return static_cast<int>(std::distance(path.begin(), path.end()));
}

/// An unconfined switch without PAM up to the check.
Lines OfSwitchUntilCheck(const Machine& machine) {
  Lines lines = OfGroups(machine, false);
  lines.push_back(Called("setuid 54321"));
  return lines;
}

/// An unconfined switch without PAM to a directory from which the check goes up
/// so many levels.
Lines OfCheckedSwitch(const Machine& machine, const std::string& dir,
                      int levels) {
  Lines lines = OfSwitchUntilCheck(machine);
  lines.push_back(Called("stat ."));
  if (dir != "/") lines.push_back(Called("chdir " + dir));
  Add(lines, OfWayUp(levels));
  return lines;
}

/// Adds what an unconfined process does besides when initgroups(3) fails.
void AddGroupsSetByHand(Lines& calls) {
  const auto failed =
      std::find(calls.begin(), calls.end(), Called(kInitgroups));
  calls.insert(std::next(failed), {Called("getgrouplist visitor 54321"),
                                   Called("setgroups 54321 54330")});
}

Lines OfRoot(const std::string& entered) {
  return {Called("getpwnam root"), Called("setgid 0"), Called("setuid 0"),
          Called("chdir " + entered)};
}

class SuCallsCombination
    : public testing::TestWithParam<std::tuple<std::string, bool, bool>> {
 protected:
  static Call CallAs(const std::string& user) {
    const auto& [dir, use_chroot, use_pam] = GetParam();
    return {user, dir, use_chroot, use_pam};
  }

  /// As it ends where the confinement is only pretended: an empty path cannot
  /// be entered.
  static std::string Error(const Call& call) {
    return call.use_chroot && call.dir.empty() ? "no such directory ''" : "";
  }

  Machine machine_;
};

INSTANTIATE_TEST_SUITE_P(All, SuCallsCombination,
                         testing::Combine(testing::Values("", "/", "www"),
                                          testing::Bool(), testing::Bool()));

TEST_P(SuCallsCombination, OfRootAreFour) {
  const Call call = CallAs("root");
  const Switched switched = RecordSwitch(machine_, call, Pretended(machine_));
  EXPECT_EQ(switched.error, "");
  EXPECT_EQ(switched.log,
            OfRoot(call.dir.empty() ? machine_.Start() : call.dir));
}

TEST_P(SuCallsCombination, OfAnAccountComeInTheirOrder) {
  const Call call = CallAs("visitor");
  const Switched switched = RecordSwitch(machine_, call, Pretended(machine_));
  EXPECT_EQ(switched.error, Error(call));
  EXPECT_EQ(switched.log, OfSwitch(machine_, call));
}

/// A switch of the account, with all that belongs to it.
Call Whole(bool use_chroot) {
  return {.dir = "/", .use_chroot = use_chroot, .use_pam = true};
}

class SuCalls : public testing::Test {
 protected:
  /// Of a switch for which nobody becomes anybody.
  Switched Pretend(const Call& call) const {
    return RecordSwitch(machine_, call, answers_);
  }

  /// Expects that it makes these calls. Returns where the process then is.
  std::string Expect(const Call& call, const Lines& calls,
                     const std::string& error = "") const {
    const Switched switched = Pretend(call);
    const std::string failures = testing::PrintToString(answers_.failures);
    EXPECT_EQ(switched.error, error) << failures;
    EXPECT_EQ(switched.log, calls) << failures;
    return switched.identity.work_dir;
  }

  void FailAt(const std::string& call, const std::vector<int>& errors) {
    answers_.failures = {{call, errors}};
  }

  Machine machine_;
  Answers answers_ = Pretended(machine_);
};

/// A directory to enter, and how far up the home is looked for.
struct Checked {
  std::string dir;
  /// How many levels above it the home is met; below 0 for never.
  int levels;
  /// How it fails to look at the home, then at the directory.
  std::vector<int> errors = {};
};

TEST_F(SuCalls, GoUpFromTheDirectoryUntilTheHomeIsMet) {
  machine_.MakeDir("home/www/a/b");
  for (const Checked& checked :
       std::vector<Checked>{{"/", 0},
                            {".", 0},
                            {"www/..", 0},
                            {"www/a", 2},
                            {"www/a/b", 3},
                            {"../other", -1},
                            // What is not known is not the home, unless neither
                            // is known and the process stays in the home.
                            {"../other", -1, {EACCES}},
                            {"../other", -1, {0, EACCES}},
                            {"../other", -1, {EACCES, EACCES}},
                            {"www", -1, {EACCES}},
                            {"www", -1, {EACCES, EACCES}},
                            {"www", 1, {0, EACCES}},
                            {"/", -1, {EACCES}},
                            {"/", -1, {0, EACCES}},
                            {"/", 0, {EACCES, EACCES}}}) {
    SCOPED_TRACE(checked.dir + testing::PrintToString(checked.errors));
    FailAt("stat .", checked.errors);
    const Switched switched = Pretend({.dir = checked.dir});
    const bool is_inside = checked.levels >= 0;
    const fs::path entered = fs::canonical(machine_.Home() + "/" + checked.dir);
    EXPECT_EQ(switched.error, is_inside ? "" : "it is not your folder");
    EXPECT_EQ(
        switched.log,
        OfCheckedSwitch(machine_, checked.dir,
                        is_inside ? checked.levels : LevelsToTheEnd(entered)));
    EXPECT_EQ(switched.identity.work_dir, entered);
  }
}

TEST_F(SuCalls, OfAnAccountThatIsMissingAreOne) {
  Call call = Whole(true);
  call.user = "nobody-here";
  Expect(call, {Called("getpwnam nobody-here")}, "failed to get pw entry");
}

TEST_F(SuCalls, StopBehindTheHomeThatCannotBeEntered) {
  for (const int error : {EPERM, EACCES, ENOENT}) {
    for (const bool use_chroot : {false, true}) {
      const std::string entering =
          (use_chroot ? "chroot " : "chdir ") + machine_.Home();
      FailAt(entering, {error});
      Lines calls = OfSwitch(machine_, {.use_chroot = use_chroot});
      const auto last = std::find(calls.begin(), calls.end(), Called(entering));
      ASSERT_NE(last, calls.end());
      calls.erase(std::next(last), calls.end());
      EXPECT_EQ(Expect(Whole(use_chroot), calls, kHomeClosed),
                machine_.Start());
    }
  }
}

TEST_F(SuCalls, AreAllMadeBeforeADirectoryThatCannotBeEntered) {
  for (const int error : {EACCES, ENOENT, ENOTDIR, ELOOP}) {
    FailAt("chdir /", {error});
    Expect(Whole(true), OfSwitch(machine_, Whole(true)),
           "no such directory '/'");

    FailAt("chdir www", {error});
    Lines calls = OfSwitchUntilCheck(machine_);
    Add(calls, {Called("stat ."), Called("chdir www")});
    const std::string missing = "no such directory 'www'";
    EXPECT_EQ(Expect({.dir = "//www"}, calls, missing), machine_.Home());
    Expect({.user = "root", .dir = "www"}, OfRoot("www"), missing);
  }
}

TEST_F(SuCalls, GoOnWhenAnIdentityIsRefused) {
  for (const int error : {EPERM, EAGAIN}) {
    for (const std::string refused :
         {kInitgroups, "setgid 54322", "setuid 54321"}) {
      FailAt(refused, {error});
      for (const bool use_chroot : {false, true}) {
        Lines calls = OfSwitch(machine_, Whole(use_chroot));
        if (refused == kInitgroups && !use_chroot) AddGroupsSetByHand(calls);
        Expect(Whole(use_chroot), calls);
      }
    }
    for (const char* refused : {"setgid 0", "setuid 0"}) {
      FailAt(refused, {error});
      Expect({.user = "root", .dir = "www"}, OfRoot("www"));
    }
  }
}

TEST_F(SuCalls, OfPamAreNotMadeInARootDirectoryThatMayNotBeRoots) {
  Lines calls = OfSwitch(machine_, Whole(true), OfNoPam());
  // A program that serves it could say of itself that it is root's.
  answers_.file_system = FUSE_SUPER_MAGIC;
  Expect(Whole(true), calls);
  answers_.file_system = 0;
  FailAt("statfs /", {EIO});
  Expect(Whole(true), calls);
  FailAt("stat /", {EIO});
  std::erase(calls, Called("statfs /"));
  Expect(Whole(true), calls);
}

TEST_F(SuCalls, TakeAwayAllGroupsWhenTheAccountsAreRefused) {
  const Call call = {.dir = "/", .use_chroot = true};
  const std::string setting = "setgroups 54321 54330";
  Lines calls = OfSwitch(machine_, call);
  calls.insert(
      std::next(std::find(calls.begin(), calls.end(), Called(setting))),
      Called("setgroups"));
  for (const int error : {EPERM, EAGAIN, ENOMEM}) {
    FailAt(setting, {error});
    Expect(call, calls);
  }
}

/// Has the account be in so many groups. Returns how they are set.
std::string Join(std::vector<gid_t>& groups, std::size_t count) {
  groups.resize(count);
  std::iota(groups.begin(), groups.end(), support::kVisitor + 1);
  std::string setting = "setgroups 54321";
  for (const gid_t group : groups) setting += " " + std::to_string(group);
  return setting;
}

TEST_F(SuCalls, AskOnceMoreForTheGroupsOfAnAccountThatHasMany) {
  const Call call = {.dir = "/", .use_chroot = true};
  // No more than the kernel takes.
  const std::string most = Join(answers_.groups, NGROUPS_MAX - 1);
  for (const auto& [count, setting] :
       {std::pair<std::size_t, std::string>(40, Join(answers_.groups, 40)),
        {NGROUPS_MAX - 1, most},
        {NGROUPS_MAX, most},
        {NGROUPS_MAX + 1, most}}) {
    Join(answers_.groups, count);
    Lines calls = OfSwitch(machine_, call);
    calls.insert(calls.begin() + 1, calls[1]);
    std::replace(calls.begin(), calls.end(), Called("setgroups 54321 54330"),
                 Called(setting));
    Expect(call, calls);
  }
}

TEST_F(SuCalls, StopWhereTheWayUpIsNotKnown) {
  const std::string entered = machine_.MakeDir("home/www/a");
  for (const int error : {EACCES, ENOENT, EIO}) {
    int levels = 0;
    for (const char* above : {"stat ./..", "stat ./../.."}) {
      FailAt(above, {error});
      EXPECT_EQ(
          Expect({.dir = "www/a"}, OfCheckedSwitch(machine_, "www/a", ++levels),
                 "stat error"),
          entered);
    }
  }
}

TEST_F(SuCalls, GoOnWhereTheyWereWhenAPamModuleHasMoved) {
  for (const char* moving :
       {"pam_start login visitor myconv", "pam_open_session session silent",
        "pam_close_session session silent", "pam_end session 0"}) {
    answers_.effects = {{moving, [] { EXPECT_EQ(::chdir("/"), 0); }}};
    for (const bool use_chroot : {false, true}) {
      const Call call = {
          .dir = "www", .use_chroot = use_chroot, .use_pam = true};
      Lines calls = OfSwitch(machine_, call);
      calls.insert(
          std::next(std::find(calls.begin(), calls.end(), Called(moving))),
          Called("chdir /"));
      EXPECT_EQ(Expect(call, calls),
                (use_chroot ? machine_.Start() : machine_.Home()) + "/www");
    }
  }
}

// After a time-out of the reader standard input is closed.
TEST_F(SuCalls, OpenNothingInPlaceOfAClosedStandardStream) {
  answers_.effects = {{"getpwnam visitor",
                       [] {
                         ::close(STDIN_FILENO);
                         ::close(STDOUT_FILENO);
                       }},
                      {"pam_open_session session silent", [] {
                         EXPECT_LT(::fcntl(STDIN_FILENO, F_GETFD), 0);
                         EXPECT_LT(::fcntl(STDOUT_FILENO, F_GETFD), 0);
                       }}};
  for (const bool use_chroot : {false, true}) {
    EXPECT_EQ(Pretend(Whole(use_chroot)).error, "");
  }
}

/// Asks for another account, which overwrites the answer of the first question.
void AskForRoot() { EXPECT_NE(::getpwnam("root"), nullptr); }

/// The same with the question behind the calls that ask it.
Lines WithQuestions(const Lines& calls, const Answers& answers) {
  Lines lines;
  for (const zan_cgi::testing::LogLine& line : calls) {
    lines.push_back(line);
    if (answers.effects.contains(line.text)) {
      lines.push_back(Called("getpwnam root"));
    }
  }
  return lines;
}

TEST_F(SuCalls, AreForTheAccountWhoeverIsAskedForMeanwhile) {
  for (const char* asking :
       {"gethostbyname localhost", "initgroups visitor 54321", "setgid 54322",
        "pam_start login visitor myconv", "pam_open_session session silent",
        "pam_end session 0"}) {
    answers_.effects[asking] = AskForRoot;
  }
  for (const bool use_chroot : {false, true}) {
    Expect(Whole(use_chroot),
           WithQuestions(OfSwitch(machine_, Whole(use_chroot)), answers_));
  }
}

class SuFault : public support::MachineTest<> {
 protected:
  /// The identity that a switch ends with when these calls are refused.
  support::Identity Refused(const std::string& call, bool use_chroot) const {
    Answers answers = Made();
    answers.failures[call] = {EPERM};
    const Switched switched =
        RecordSwitch(machine_, {.dir = "/", .use_chroot = use_chroot}, answers);
    EXPECT_EQ(switched.error, "");
    return switched.identity;
  }
};

TEST_F(SuFault, OfOneIdentityLeavesTheOthersTaken) {
  for (const bool use_chroot : {false, true}) {
    support::Identity expected =
        support::Visitor(use_chroot ? machine_.Home() : "/", machine_.Home());
    const support::Identity whole = expected;

    expected.groups = "0\t0\t0\t0";
    EXPECT_EQ(Refused("setgid 54322", use_chroot), expected);

    expected = whole;
    expected.users = "0\t0\t0\t0";
    EXPECT_EQ(Refused("setuid 54321", use_chroot), expected);

    EXPECT_EQ(Refused(kInitgroups, use_chroot), whole);
  }
}

TEST_F(SuFault, OfTheGroupsLeavesNoneOfRoots) {
  const auto take_part_in_disk = [] {
    const gid_t disk = 6;
    EXPECT_EQ(::syscall(SYS_setgroups, 1, &disk), 0);
  };
  // Without a list of the account's groups, nobody is confined.
  for (const auto& [refused, use_chroot] :
       {std::pair("setgroups 54321 54330", false),
        std::pair("setgroups 54321 54330", true),
        std::pair("getgrouplist visitor 54321", false)}) {
    Answers answers = Made();
    answers.failures = {{kInitgroups, {ENOMEM}}, {refused, {ENOMEM}}};
    answers.effects = {{"getpwnam visitor", take_part_in_disk}};
    const Switched switched =
        RecordSwitch(machine_, {.dir = "/", .use_chroot = use_chroot}, answers);
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity.supplementary, "") << refused;
  }
}

TEST_F(SuFault, OfTheGroupsLeavesNoneThatTheHomeNames) {
  machine_.MakeDir("home/etc");
  machine_.MakeFile("home/etc/group", "disk:x:6:visitor\n");
  support::Identity expected =
      support::Visitor(machine_.Home(), machine_.Home());
  expected.supplementary = "";
  EXPECT_EQ(Refused("setgroups 54321 54330", true), expected);
}

ino_t InodeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

// Kept for compatibility: only inode numbers are compared.
TEST_F(SuFault, OfAnotherFileSystemWithTheInodeOfTheHomeIsAccepted) {
  const std::string other = machine_.MakeDir("other/inside");
  const Switched switched =
      support::Switch(machine_, {.dir = "link/deeper"}, [&] {
        support::MountPrivately(machine_.Home(), "mode=0755");
        support::MountPrivately(other, "mode=0755");
        ASSERT_EQ(InodeOf(machine_.Home()), InodeOf(other));
        fs::create_directory(other + "/deeper");
        fs::create_symlink(other, machine_.Home() + "/link");
      });
  EXPECT_EQ(switched.error, "");
  EXPECT_EQ(switched.identity, support::Visitor("/", other + "/deeper"));
}

}  // namespace
