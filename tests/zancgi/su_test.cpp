// Becoming an account: what it comes to, the calls that it is made of, and what
// is left when one of them fails.

#include <limits.h>
#include <linux/magic.h>
#include <pwd.h>
#include <security/pam_appl.h>

#include <iterator>
#include <numeric>
#include <tuple>

#include "session.h"
#include "support/account.h"
#include "support/switch.h"
#include "support/switch_calls.h"
#include "support/test.h"

namespace support {
namespace {

using Combination = std::tuple<std::string, bool, bool>;

/// Directories, with and without confinement, with and without PAM.
const auto kCombinations = testing::Combine(testing::Values("", "/", "www"),
                                            testing::Bool(), testing::Bool());

Call CallOf(const std::string& user, const Combination& combination) {
  const auto& [dir, use_chroot, use_pam] = combination;
  return {user, dir, use_chroot, use_pam};
}

class SuCombination : public MachineTest<testing::TestWithParam<Combination>> {
};

INSTANTIATE_TEST_SUITE_P(All, SuCombination, kCombinations);

TEST_P(SuCombination, OfRootIgnoresBothFlags) {
  const Call call = CallOf("root", GetParam());
  const Switched switched = Switch(machine_, call);
  EXPECT_EQ(switched.identity,
            Root(call.dir == "www" ? machine_.Start() + "/www" : "/"));
  EXPECT_EQ(switched.error, "");
  EXPECT_EQ(switched.log, Lines{});
}

TEST_P(SuCombination, OfAnAccountEndsWithItsIdentity) {
  const Call call = CallOf("visitor", GetParam());
  const Switched switched = Switch(machine_, call);
  const std::string home = machine_.Home();

  Lines log;
  if (call.use_chroot) log.push_back({8, "ChRoot Init resolver"});
  if (call.use_pam) log.push_back(kStarting);
  if (call.use_pam && call.use_chroot) log.push_back(kNotStarted);
  if (call.use_pam && !call.use_chroot) {
    log.insert(log.end(), {kStarted, kOpened, kClosed});
  }
  EXPECT_EQ(switched.log, log);

  if (!call.use_chroot) {
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity,
              Visitor("/", call.dir == "www" ? home + "/www" : home));
  } else if (call.dir.empty()) {
    EXPECT_EQ(switched.error, "no such directory ''");
    EXPECT_EQ(switched.identity, Visitor(home, machine_.Start()));
  } else {
    // A relative path is taken from where the process was, outside.
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(
        switched.identity,
        Visitor(home, call.dir == "/" ? home : machine_.Start() + "/www"));
  }
}

class Su : public MachineTest<> {};

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

TEST_F(Su, UnconfinedReportsThatThePathUpIsTooLong) {
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
        ReportIdentity(report, observer.Look());
        request.DoSu("visitor", "", true, false);
      });
  const Switched switched = SwitchedOf(outcome);
  EXPECT_EQ(switched.identity, Visitor("/", machine_.Home()));
  EXPECT_EQ(switched.error, "failed to chroot to users home folder");
}

TEST_F(Su, WithoutRootStaysWhoItWasButEntersTheHome) {
  fs::permissions(machine_.Home(), fs::perms{0755});
  Outcome outcome =
      Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
        machine_.SetUp();
        Observer observer;
        BecomeOrdinaryUser();
        Cgi::Data request;
        MarkSwitch();
        request.DoSu("visitor", "", false, false);
        ReportIdentity(report, observer.Look());
        request.DoSu("visitor", "/", true, false);
      });
  const Switched switched = SwitchedOf(outcome);
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
  EXPECT_EQ(outcome.log, Lines{kNotStarted});
}

// The calls.

const char kInitgroups[] = "initgroups visitor 54321";
const char kHomeClosed[] = "failed to chroot to users home folder";

Lines operator+(Lines lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

LogLine Called(const std::string& call) { return {-1, call}; }

Lines Calls(const Strings& calls) {
  Lines lines;
  for (const std::string& call : calls) lines.push_back(Called(call));
  return lines;
}

/// Where a call stands in these, to put others after it.
Lines::iterator After(Lines& lines, const std::string& call) {
  return std::next(std::find(lines.begin(), lines.end(), Called(call)));
}

/// Up to and with the account's group.
Lines OfGroups(const Machine& machine, bool use_chroot) {
  const Lines found = Calls({"getpwnam visitor"});
  const Lines taken = Calls({"setgid 54322"});
  if (!use_chroot) {
    return found + Calls({"chdir " + machine.Home(), kInitgroups}) + taken;
  }
  return found +
         Calls({"getgrouplist visitor 54321", "gethostbyname localhost"}) +
         Lines{{8, "ChRoot Init resolver"}} +
         Calls({"chroot " + machine.Home(), "stat /", "statfs /",
                "__nss_configure_lookup group files",
                "__nss_configure_lookup initgroups files", kInitgroups,
                "setgroups 54321 54330"}) +
         taken;
}

const Lines kWholePam = {kStarting, Called("pam_start login visitor myconv"),
                         kStarted,  Called("pam_open_session session silent"),
                         kOpened,   Called("pam_close_session session silent"),
                         kClosed,   Called("pam_end session 0")};

Lines OfDirectory(const std::string& dir, bool use_chroot) {
  if (use_chroot) return Calls({"chdir " + dir});
  if (dir.empty()) return {};
  if (dir == "/") return Calls({"stat .", "stat ."});
  return Calls({"stat .", "chdir " + dir, "stat .", "stat ./.."});
}

/// An account's whole switch to "", "/" or "www", with this for the PAM part
/// when it is wanted. The directory is kept across it.
Lines OfSwitch(const Machine& machine, const Call& call,
               const Lines& pam = kWholePam) {
  Lines lines = OfGroups(machine, call.use_chroot);
  if (call.use_pam) {
    lines =
        lines + pam +
        Calls({FchdirTo(call.use_chroot ? machine.Start() : machine.Home())});
  }
  return lines + Calls({"setuid 54321"}) +
         OfDirectory(call.dir, call.use_chroot);
}

/// How many ".." it takes to see that the root has no parent.
int LevelsToTheEnd(const fs::path& path) {
  return static_cast<int>(std::distance(path.begin(), path.end()));
}

/// An unconfined switch without PAM up to the check.
Lines OfSwitchUntilCheck(const Machine& machine) {
  return OfGroups(machine, false) + Calls({"setuid 54321", "stat ."});
}

/// An unconfined switch without PAM to a directory from which the check goes up
/// so many levels.
Lines OfCheckedSwitch(const Machine& machine, const std::string& dir,
                      int levels) {
  Lines lines = OfSwitchUntilCheck(machine);
  if (dir != "/") lines.push_back(Called("chdir " + dir));
  std::string path = "stat .";
  for (lines.push_back(Called(path)); levels > 0; --levels) {
    lines.push_back(Called(path += "/.."));
  }
  return lines;
}

Lines OfRoot(const std::string& entered) {
  return Calls({"getpwnam root", "setgid 0", "setuid 0", "chdir " + entered});
}

Call Whole(bool use_chroot) {
  return {.dir = "/", .use_chroot = use_chroot, .use_pam = true};
}

/// On a machine on which nobody becomes anybody.
class SuCalls : public testing::Test {
 protected:
  /// Makes the switch in a child and records it. Of its identity only the
  /// directory is known.
  Switched Pretend(const Call& call) const {
    Outcome outcome =
        Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
          Cgi::Data request;
          MarkSwitch();
          const Recording recording(answers_);
          try {
            request.DoSu(call.user, call.dir, call.use_chroot, call.use_pam);
          } catch (...) {
            report("work dir", fs::current_path());
            throw;
          }
          report("work dir", fs::current_path());
        });
    return SwitchedOf(outcome);
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
  Answers answers_ = {
      .accounts = {{"root", 0, 0, machine_.Start()},
                   {"visitor", kVisitor, kVisitors, machine_.Home()}},
      .groups = {kHelpers}};
};

class SuCallsCombination : public SuCalls,
                           public testing::WithParamInterface<Combination> {};

INSTANTIATE_TEST_SUITE_P(All, SuCallsCombination, kCombinations);

TEST_P(SuCallsCombination, OfRootAreFour) {
  const Call call = CallOf("root", GetParam());
  Expect(call, OfRoot(call.dir.empty() ? machine_.Start() : call.dir));
}

TEST_P(SuCallsCombination, OfAnAccountComeInTheirOrder) {
  const Call call = CallOf("visitor", GetParam());
  const bool enters_nothing = call.use_chroot && call.dir.empty();
  Expect(call, OfSwitch(machine_, call),
         enters_nothing ? "no such directory ''" : "");
}

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

TEST_F(SuCalls, LookAMissingAccountUpAndStop) {
  Call call = Whole(true);
  call.user = "nobody-here";
  Expect(call, Calls({"getpwnam nobody-here"}), "failed to get pw entry");
}

TEST_F(SuCalls, StopAfterAHomeThatCannotBeEntered) {
  for (const int error : {EPERM, EACCES, ENOENT}) {
    for (const bool use_chroot : {false, true}) {
      const std::string entering =
          (use_chroot ? "chroot " : "chdir ") + machine_.Home();
      FailAt(entering, {error});
      Lines calls = OfSwitch(machine_, {.use_chroot = use_chroot});
      calls.erase(After(calls, entering), calls.end());
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
    const Lines calls = OfSwitchUntilCheck(machine_) + Calls({"chdir www"});
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
        if (refused == kInitgroups && !use_chroot) {
          const Lines by_hand =
              Calls({"getgrouplist visitor 54321", "setgroups 54321 54330"});
          calls.insert(After(calls, refused), by_hand.begin(), by_hand.end());
        }
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
  Lines calls = OfSwitch(machine_, Whole(true), {kStarting, kNotStarted});
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

TEST_F(SuCalls, OfPamEndAfterTheOneThatFailsWithItsCode) {
  const auto expect = [&](const Lines& pam) {
    for (const bool use_chroot : {false, true}) {
      const Call call = Whole(use_chroot);
      Expect(call, OfSwitch(machine_, call, pam));
    }
  };
  for (const int code : {PAM_PERM_DENIED, -1, 1000}) {
    const std::string number = std::to_string(code);
    for (const std::string step : {"open_session", "close_session"}) {
      const std::string failing = "pam_" + step + " session silent";
      FailAt(failing, {code});
      Lines pam = kWholePam;
      pam.erase(After(pam, failing), pam.end());
      expect(pam +
             Lines{Called("pam_strerror session " + number),
                   {4, "PAM error " + number + " (what it means) on " + step},
                   Called("pam_end session " + number)});
    }
    const std::string start = "pam_start login visitor myconv";
    FailAt(start, {code});
    expect({kStarting, Called(start), kNotStarted});
  }
}

TEST_F(SuCalls, TakeAwayAllGroupsWhenTheAccountsAreRefused) {
  const std::string listing = "getgrouplist visitor 54321";
  const std::string setting = "setgroups 54321 54330";
  const Call confined = {.dir = "/", .use_chroot = true};
  Lines calls = OfSwitch(machine_, confined);
  calls.insert(After(calls, setting), Called("setgroups"));
  const Lines unconfined = OfSwitch(machine_, {});
  for (const int error : {EPERM, EAGAIN, ENOMEM}) {
    answers_.failures = {{setting, {error}}};
    Expect(confined, calls);
    answers_.failures[kInitgroups] = {error};
    Expect(confined, calls);
    // By hand then; without the list, none are set.
    for (const Strings& by_hand :
         {Strings{listing, setting, "setgroups"}, {listing, "setgroups"}}) {
      Lines expected = unconfined;
      const Lines more = Calls(by_hand);
      expected.insert(After(expected, kInitgroups), more.begin(), more.end());
      Expect({}, expected);
      answers_.failures[listing] = {error};
    }
  }
}

/// Has the account be in so many groups. Returns how they are set.
std::string Join(std::vector<gid_t>& groups, std::size_t count) {
  groups.resize(count);
  std::iota(groups.begin(), groups.end(), kVisitor + 1);
  std::string setting = "setgroups 54321";
  for (const gid_t group : groups) setting += " " + std::to_string(group);
  return setting;
}

TEST_F(SuCalls, ReadTheGroupsTwiceOfAnAccountThatHasMany) {
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

TEST_F(SuCalls, StopWhereThePathUpIsUnknown) {
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
      calls.insert(After(calls, moving), Called("chdir /"));
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

/// The same calls with the question after those that ask it.
Lines WithQuestions(const Lines& calls, const Answers& answers) {
  Lines lines;
  for (const LogLine& line : calls) {
    lines.push_back(line);
    if (answers.effects.contains(line.text)) {
      lines.push_back(Called("getpwnam root"));
    }
  }
  return lines;
}

TEST_F(SuCalls, AreForTheAccountWhoeverIsLookedUpMeanwhile) {
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

// Kept for compatibility: only inode numbers are compared.
TEST_F(Su, AcceptsAnotherFileSystemWithTheInodeOfTheHome) {
  const std::string other = machine_.MakeDir("other/inside");
  const Switched switched = Switch(machine_, {.dir = "link/deeper"}, [&] {
    MountTwins(machine_.Home(), other);
    fs::create_directory(other + "/deeper");
    fs::create_symlink(other, machine_.Home() + "/link");
  });
  EXPECT_EQ(switched.error, "");
  EXPECT_EQ(switched.identity, Visitor("/", other + "/deeper"));
}

}  // namespace
}  // namespace support
