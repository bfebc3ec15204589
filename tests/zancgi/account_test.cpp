// Becoming an account: what is refused, what is proved, and that a failure at
// any call leaves no process that goes on as root.

#include <grp.h>
#include <linux/capability.h>
#include <linux/securebits.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <zancgi/account.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/request.h>

#include <csignal>
#include <exception>
#include <new>

#include "support/account.h"
#include "support/switch.h"
#include "support/switch_calls.h"
#include "support/test.h"

namespace support {
namespace {

using zan_cgi::AccountError;
using zan_cgi::AccountOptions;

constexpr uid_t kNobody = 65534;
constexpr int kAborted = 128 + SIGABRT;
constexpr gid_t kDisk = 6;

struct Attempt {
  std::string user = "visitor";
  AccountOptions options = {};
  Answers answers = {};
  /// Called in the child directly before.
  std::function<void()> prepare = [] {};
};

AccountOptions At(const std::string& directory, bool confined = false,
                  bool pam_session = false) {
  AccountOptions options;
  options.directory = directory;
  options.confined = confined;
  options.pam_session = pam_session;
  return options;
}

/// What has come of it. The calls are marked in its log.
struct Result : Outcome {
  Identity identity;
  /// What Cgi::File() then says of the uploads, and what lies where.
  Strings paths;
  Strings spool;
  Strings home;
};

/// The sets as the kernel knows them, "none" when all are empty.
std::string Capabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct halves[2] = {};
  if (::syscall(SYS_capget, &header, halves) != 0) return "unknown";
  for (const __user_cap_data_struct& half : halves) {
    if ((half.permitted | half.effective | half.inheritable) != 0) {
      return "some";
    }
  }
  return "none";
}

const char kFirst[] = "a.txt";
const char kSecond[] = "b.txt";

/// The machine's account, and others that nobody should become.
void SetUpAccounts(const Machine& machine) {
  UseAccounts({{"visitor", kVisitor, kVisitors, machine.Home()},
               {"toor", 0, kVisitors, machine.Home()},
               {"wheel", kVisitor, 0, machine.Home()},
               {"member", kVisitor, kVisitors, machine.Home()},
               {"homeless", kVisitor, kVisitors, machine / "gone"},
               {"relative", kVisitor, kVisitors, "home"},
               {"nowhere", kVisitor, kVisitors, ""},
               {"filed", kVisitor, kVisitors, machine / "file"},
               {"ordinary", kNobody, kNobody, machine / "ordinary"}},
              {{"visitors", kVisitors, {}},
               {"helpers", kHelpers, {"visitor"}},
               {"administrators", 0, {"member"}}});
  ConfigureLogin("session required pam_permit.so\n");
}

/// Makes the attempt in a child that serves a form with two uploads.
/// @param look  called in the child afterwards, while the request lasts
Result Try(
    const Machine& machine, const Attempt& attempt,
    const std::function<void(Cgi&)>& look = [](Cgi&) {}) {
  const Request request = Post("/front").Multipart(
      Form().File("a", kFirst, "first").File("b", kSecond, "second"));
  Child child = Child().Serve(request).LogLevel(4).WorkDir(machine.Start());
  Result result;
  static_cast<Outcome&>(result) = child.Run([&](const Reporter& report) {
    SetUpAccounts(machine);
    ASSERT_EQ(::setgroups(0, nullptr), 0);
    const Observer observer;
    Cgi cgi(machine.Start() + "/bin/front", "");
    cgi.SetTmpDir(machine / "spool");
    cgi.ParseQuery();
    attempt.prepare();
    std::exception_ptr failure;
    {
      Answers answers = attempt.answers;
      answers.pretend = false;
      const Recording recording(answers);
      try {
        zan_cgi::BecomeAccount(cgi, attempt.user, attempt.options);
      } catch (...) {
        failure = std::current_exception();
      }
    }
    ReportIdentity(report, observer.Look());
    report("capabilities", Capabilities());
    report("first", cgi.File(kFirst));
    report("second", cgi.File(kSecond));
    look(cgi);
    if (failure) std::rethrow_exception(failure);
  });
  EXPECT_EQ(result.leaked_descriptors, Strings{});
  result.identity = IdentityIn(result);
  result.paths = {result.reported["first"], result.reported["second"]};
  result.spool = NamesIn(machine / "spool");
  result.home = NamesIn(machine.Home());
  return result;
}

bool HasNoCapability(const Result& result) {
  const auto found = result.reported.find("capabilities");
  return found != result.reported.end() && found->second == "none";
}

bool IsNobody(const Result& result) {
  const Identity& identity = result.identity;
  return identity.users == "65534\t65534\t65534\t65534" &&
         identity.groups == "65534\t65534\t65534\t65534" &&
         identity.supplementary.empty() && HasNoCapability(result);
}

/// With all its groups or fewer.
bool IsVisitor(const Result& result) {
  const Identity whole = Visitor("", "");
  return result.identity.users == whole.users &&
         result.identity.groups == whole.groups &&
         (result.identity.supplementary == whole.supplementary ||
          result.identity.supplementary.empty()) &&
         HasNoCapability(result);
}

/// How a failure ends: who the process is then.
enum class End {
  kAsNobody,
  kAsVisitor,  ///< Nothing but the account, so that it cannot be nobody.
  kAbort
};
using enum End;

struct Failure {
  std::string name;
  std::string error;
  End end;
  Answers answers;
  AccountOptions options = {};
  std::function<void()> prepare = [] {};
};

class Become : public MachineTest<> {
 protected:
  void SetUp() override {
    MachineTest::SetUp();
    machine_.MakeDir("spool");
    machine_.MakeFile("file");
    machine_.MakeDir("ordinary");
    fs::permissions(machine_ / "ordinary", fs::perms{0777});
  }

  void Expect(const std::vector<Failure>& failures) const {
    for (const Failure& failure : failures) {
      SCOPED_TRACE(failure.name);
      const Result result =
          Try(machine_,
              {"visitor", failure.options, failure.answers, failure.prepare},
              [](Cgi&) { EXPECT_FALSE(CanBecomeAnother()); });
      EXPECT_EQ(result.home, Strings{"www"});
      EXPECT_EQ(result.spool, Strings{});
      EXPECT_EQ(result.status, failure.end == kAbort ? kAborted : 0);
      if (failure.end == kAbort) continue;
      EXPECT_EQ(result.error, failure.error);
      EXPECT_EQ(result.error_type, "zan_cgi::AccountError");
      EXPECT_TRUE(failure.end == kAsNobody ? IsNobody(result)
                                           : IsVisitor(result))
          << testing::PrintToString(result.identity);
      EXPECT_EQ(result.paths, (Strings{"", ""}));
      EXPECT_EQ(result.Logged(4), Strings{});
    }
  }
};

TEST_F(Become, EndsAsTheAccountInItsHome) {
  struct Row {
    AccountOptions options;
    std::string entered;
  };
  const std::string home = machine_.Home();
  for (const Row& row :
       std::vector<Row>{{At(""), home},
                        {At("/"), home},
                        {At("www"), home + "/www"},
                        {At("/www", false, true), home + "/www"},
                        {At("", true), home},
                        {At("/", true), home},
                        {At("www", true), home + "/www"},
                        {At("/www", true, true), home + "/www"}}) {
    SCOPED_TRACE(row.options.directory);
    SCOPED_TRACE(row.options.confined);
    const Result result =
        Try(machine_, {.options = row.options}, [&](Cgi& cgi) {
          EXPECT_FALSE(CanBecomeAnother());
          EXPECT_EQ(ReadFile(cgi.File(kFirst)), "first");
        });
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.identity,
              Visitor(row.options.confined ? home : "/", row.entered));
    EXPECT_TRUE(HasNoCapability(result));
    // The request has removed them at its end.
    EXPECT_EQ(result.home, Strings{"www"});
    EXPECT_EQ(result.spool, Strings{});
  }
}

TEST_F(Become, FollowsALongPathUp) {
  std::string deep = "d";
  while (deep.size() < 1999) deep += "/d";
  // In two steps, since 1000 levels at a time are the most.
  machine_.MakeDir("home/" + deep.substr(0, 999));
  machine_.MakeDir("home/" + deep);
  const Result result = Try(machine_, {.options = At(deep)});
  EXPECT_EQ(result.error, "");
  EXPECT_EQ(result.identity, Visitor("/", machine_.Home() + "/" + deep));
}

TEST_F(Become, RefusesAnAccountBeforeAnythingIsChanged) {
  const std::string unknown = "there is no account of this name";
  const std::string closed = "the account's home folder cannot be entered";
  const std::string relative = "the account's home folder is no absolute path";
  for (const auto& [user, error] :
       std::vector<std::pair<std::string, std::string>>{
           {"", "the user name is empty"},
           {"nobody-here", unknown},
           {{"visitor\0x", 9}, unknown},
           {"root", "the account's user id is 0"},
           {"toor", "the account's user id is 0"},
           {"wheel", "the account's group id is 0"},
           {"member", "the account is in the group with id 0"},
           {"homeless", closed},
           {"filed", closed},
           {"relative", relative},
           {"nowhere", relative}}) {
    for (const bool confined : {false, true}) {
      SCOPED_TRACE(user);
      const std::string spool = machine_ / "spool";
      const Result result = Try(
          machine_, {.user = user, .options = At("", confined)}, [&](Cgi& cgi) {
            EXPECT_TRUE(fs::exists(cgi.File(kFirst)));
            EXPECT_EQ(fs::path(cgi.File(kSecond)).parent_path(), spool);
          });
      EXPECT_EQ(result.status, 0);
      EXPECT_EQ(result.error, error);
      EXPECT_EQ(result.error_type, "zan_cgi::AccountError");
      EXPECT_EQ(result.identity, Root(machine_.Start()));
      EXPECT_EQ(result.home, Strings{"www"});
    }
  }
}

void SetUsers(uid_t real, uid_t effective, uid_t saved) {
  EXPECT_EQ(::syscall(SYS_setresuid, real, effective, saved), 0);
}

void SetGroups(gid_t real, gid_t effective, gid_t saved) {
  EXPECT_EQ(::syscall(SYS_setresgid, real, effective, saved), 0);
}

void InheritCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct halves[2] = {};
  EXPECT_EQ(::syscall(SYS_capget, &header, halves), 0);
  halves[0].inheritable = halves[0].permitted;
  EXPECT_EQ(::syscall(SYS_capset, &header, halves), 0);
}

/// Has this take the place of a call.
Answers InPlaceOf(const std::string& call, std::function<void()> effect) {
  return {.effects = {{call, std::move(effect)}}, .results = {{call, {0}}}};
}

Answers Before(const std::string& call, std::function<void()> effect) {
  return {.effects = {{call, std::move(effect)}}};
}

Answers Failing(std::map<std::string, std::vector<int>> failures) {
  return {.failures = std::move(failures)};
}

Answers Returning(std::map<std::string, std::vector<int>> results) {
  return {.results = std::move(results)};
}

const char kSetUser[] = "setuid 54321";
const char kSetGroup[] = "setgid 54322";
const char kInitgroups[] = "initgroups visitor 54321";
const char kSetGroups[] = "setgroups 54321 54330";
const char kNoGroups[] = "setgroups";

TEST_F(Become, EndsWithoutRightsWhenTheSwitchFails) {
  const std::string home = machine_.Home();
  const std::string closed = "failed to chroot to users home folder";
  Expect({{"chdir", closed, kAsNobody, Failing({{"chdir " + home, {EACCES}}})},
          {"chroot", closed, kAsNobody, Failing({{"chroot " + home, {EPERM}}}),
           At("", true)},
          {"missing",
           "no such directory 'missing'",
           kAsVisitor,
           {},
           At("/missing")},
          {"missing, confined",
           "no such directory '/missing'",
           kAsVisitor,
           {},
           At("missing", true)},
          {"above", "it is not your folder", kAsVisitor, {}, At("../other")},
          {"way up", "stat error", kAsVisitor, Failing({{"stat ./..", {EIO}}}),
           At("www")}});
}

TEST_F(Become, EndsWithoutRightsWhenMemoryIsShort) {
  const Result result = Try(
      machine_,
      {.options = At("", true),
       .answers = Failing({{"__nss_configure_lookup group files", {ENOMEM}}})});
  EXPECT_EQ(result.error_type, "std::bad_alloc");
  EXPECT_TRUE(IsNobody(result));
  EXPECT_EQ(result.home, Strings{"www"});
}

TEST_F(Become, ProvesTheUserIds) {
  const auto users = [](uid_t real, uid_t effective, uid_t saved) {
    return InPlaceOf(kSetUser, [=] { SetUsers(real, effective, saved); });
  };
  Expect({{"refused", "the real user id is not the account's", kAsNobody,
           Failing({{kSetUser, {EPERM}}})},
          {"real", "the real user id is not the account's", kAsNobody,
           users(0, kVisitor, kVisitor)},
          {"effective", "the effective user id is not the account's", kAsNobody,
           users(kVisitor, 0, kVisitor)},
          {"saved", "the saved user id is not the account's", kAsNobody,
           users(kVisitor, kVisitor, 0)},
          {"another", "the saved user id is not the account's", kAbort,
           users(kVisitor, kVisitor, kVisitor + 1)},
          {"unknown", "the user ids cannot be read", kAsVisitor,
           Failing({{"getresuid", {0, EIO}}})},
          {"unknown for good", "", kAbort,
           Failing({{"getresuid", {0, EIO, EIO}}})}});
}

/// Has capabilities stay when the user id changes, so that wrong ids can be
/// given up, and their sentence seen.
void KeepCapabilities() {
  EXPECT_EQ(::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP, 0, 0, 0), 0);
}

TEST_F(Become, ProvesTheFileSystemIds) {
  const auto set_user = [](void (*keep_root)()) {
    return InPlaceOf(kSetUser, [=] {
      KeepCapabilities();
      SetUsers(kVisitor, kVisitor, kVisitor);
      keep_root();
    });
  };
  Expect({{"user", "the file-system user id is not the account's", kAsNobody,
           set_user([] { ::setfsuid(0); })},
          {"group", "the file-system group id is not the account's", kAsNobody,
           set_user([] { ::setfsgid(0); })}});
}

TEST_F(Become, ProvesTheGroupIds) {
  const auto groups = [](gid_t real, gid_t effective, gid_t saved) {
    return InPlaceOf(kSetGroup, [=] {
      KeepCapabilities();
      SetGroups(real, effective, saved);
    });
  };
  Expect({{"refused", "", kAbort, Failing({{kSetGroup, {EPERM}}})},
          {"real", "the real group id is not the account's", kAsNobody,
           groups(0, kVisitors, kVisitors)},
          {"effective", "the effective group id is not the account's",
           kAsNobody, groups(kVisitors, 0, kVisitors)},
          {"saved", "the saved group id is not the account's", kAsNobody,
           groups(kVisitors, kVisitors, 0)},
          {"refused with the user", "the real user id is not the account's",
           kAsNobody, Failing({{kSetGroup, {EPERM}}, {kSetUser, {EPERM}}})},
          {"unknown", "the group ids cannot be read", kAsVisitor,
           Failing({{"getresgid", {0, EIO}}})},
          {"unknown for good", "", kAbort,
           Failing({{"getresgid", {0, EIO, EIO}}})}});
}

TEST_F(Become, ProvesTheSupplementaryGroups) {
  const std::string wrong = "the supplementary groups are not the account's";
  const auto join_disk = [] {
    EXPECT_EQ(::syscall(SYS_setgroups, 1, &kDisk), 0);
  };
  const auto join_more = [] {
    const gid_t groups[] = {kVisitor, kHelpers, kDisk};
    EXPECT_EQ(::syscall(SYS_setgroups, 3, groups), 0);
  };
  Answers none_left = Before("getpwnam visitor", join_disk);
  none_left.failures = {
      {kInitgroups, {EPERM}}, {kSetGroups, {EPERM}}, {kNoGroups, {EPERM}}};
  Expect({{"too few", wrong, kAsVisitor,
           Failing({{kInitgroups, {ENOMEM}}, {kSetGroups, {ENOMEM}}})},
          {"too many", "", kAbort, InPlaceOf(kInitgroups, join_more)},
          {"others", "", kAbort, none_left},
          {"others, confined", "", kAbort, none_left, At("", true)},
          {"unknown", "the supplementary groups cannot be read", kAsVisitor,
           Failing({{"getgroups", {0, EIO}}})},
          {"unknown for good", "", kAbort,
           Failing({{"getgroups", {0, EIO, EIO}}})}});
}

TEST_F(Become, ProvesThatThereIsNoCapability) {
  const auto keep = [] { EXPECT_EQ(::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0), 0); };
  const auto effective = [](void* sets) {
    static_cast<__user_cap_data_struct*>(sets)[1].effective = 1;
  };
  Answers kept = Before(kSetUser, keep);
  kept.failures = {{"capset", {EPERM}}};
  Expect({{"permitted", "a capability is permitted", kAsVisitor,
           Before(kSetUser, keep)},
          {"permitted for good", "", kAbort, kept},
          {"effective as well", "a capability is permitted", kAsNobody,
           Before(kSetUser, KeepCapabilities)},
          {"effective for good",
           "",
           kAbort,
           {.alterations = {{"capget", effective}}}},
          {"inheritable", "a capability is inheritable", kAsVisitor,
           Before(kSetUser, InheritCapabilities)},
          {"unknown", "the capabilities cannot be read", kAsVisitor,
           Failing({{"capget", {EPERM}}})},
          {"ambient", "a capability is ambient", kAsVisitor,
           Returning({{"prctl ambient 7", {1}}})},
          {"ambient for good", "", kAbort,
           Returning({{"prctl ambient 10", {1, 1}}})},
          {"ambient unknown", "the ambient capabilities cannot be read",
           kAsVisitor, Failing({{"prctl ambient 0", {EPERM}}})}});
}

// Kernels from before 4.3 have none.
TEST_F(Become, AcceptsAKernelWithoutAmbientCapabilities) {
  const Result result =
      Try(machine_, {.answers = Failing({{"prctl ambient 0", {EINVAL}}})});
  EXPECT_EQ(result.error, "");
  EXPECT_TRUE(IsVisitor(result));
}

/// Says of an effective capability once that it is there.
Answers OnceEffective() {
  Answers answers;
  int calls = 0;
  answers.alterations = {
      {"capget", [calls](void* sets) mutable {
         if (++calls > 1) return;
         static_cast<__user_cap_data_struct*>(sets)->effective = 1;
       }}};
  return answers;
}

TEST_F(Become, ProvesThatThereIsNoWayBack) {
  Expect({{"effective alone", "a capability is effective", kAsVisitor,
           OnceEffective()}});
  for (const auto& [call, error] :
       std::vector<std::pair<std::string, std::string>>{
           {"setresuid 0 0 0", "setresuid(2) to root succeeds"},
           {"setuid 0", "setuid(2) to root succeeds"},
           {"setresgid 0 0 0", "setresgid(2) to root succeeds"},
           {"setgid 0", "setgid(2) to root succeeds"},
           {"setgroups", "setgroups(2) succeeds"}}) {
    // The calls that give rights up are among those with this name.
    const bool is_used_twice = call == "setgroups";
    const std::vector<int> twice = {0, 0};
    const std::vector<int> thrice = {0, 0, 0};
    Expect({{call, error, kAsVisitor, Returning({{call, {0}}})},
            {call + " for good", "", kAbort,
             Returning({{call, is_used_twice ? thrice : twice}})}});
  }
}

// The proof itself makes the process root again, and it must not stay it.
TEST_F(Become, GivesUpTheRightsThatItsProofRegains) {
  Answers answers = Before(kSetUser, KeepCapabilities);
  int calls = 0;
  answers.alterations = {{"capget", [calls](void* sets) mutable {
                            auto* halves =
                                static_cast<__user_cap_data_struct*>(sets);
                            if (++calls == 1) halves[0] = halves[1] = {};
                          }}};
  Expect({{"regained", "setresuid(2) to root succeeds", kAsNobody, answers}});
}

TEST_F(Become, ProvesWhereTheProcessIs) {
  const std::string other = machine_ / "other";
  const std::string outside = "the current directory is not in the home folder";
  const std::string unknown = "the current directory cannot be examined";
  const auto leave = [&] { EXPECT_EQ(::syscall(SYS_chdir, other.c_str()), 0); };
  Expect({{"moved", outside, kAsVisitor, Before(kSetUser, leave)},
          {"confined, not moved", outside, kAsVisitor,
           Returning({{"chdir /", {0}}}), At("", true)},
          {"not confined",
           "the root directory is not the account's home folder", kAsVisitor,
           Returning({{"chroot " + machine_.Home(), {0}}}), At("", true)},
          {"root unknown", "the root directory cannot be examined", kAsVisitor,
           Failing({{"stat /", {0, EIO}}}), At("", true)},
          {"unknown", unknown, kAsVisitor, Failing({{"stat .", {EIO}}})},
          {"way up unknown", unknown, kAsVisitor,
           Failing({{"stat ./..", {0, EIO}}}), At("www")}});
}

// The switch itself compares inode numbers alone and takes it for the home.
TEST_F(Become, RefusesAnotherFileSystemWithTheInodeOfTheHome) {
  const std::string other = machine_.MakeDir("other/inside");
  const Result result =
      Try(machine_, {.options = At("link"), .prepare = [&] {
                       MountTwins(machine_.Home(), other);
                       fs::create_symlink(other, machine_.Home() + "/link");
                     }});
  EXPECT_EQ(result.error, "the current directory is not in the home folder");
  EXPECT_TRUE(IsVisitor(result));
}

TEST_F(Become, AbortsWhenItCannotGiveUpWhatItHas) {
  const auto keeping = [](const std::string& kept) {
    return Failing({{kSetUser, {EPERM}}, {kept, {EPERM}}});
  };
  Expect({{"user", "", kAbort, keeping("setresuid 65534 65534 65534")},
          {"group", "", kAbort, keeping("setresgid 65534 65534 65534")},
          {"groups", "", kAbort, keeping(kNoGroups)}});
}

TEST_F(Become, RemovesAllUploadsWhenAHandOverFails) {
  for (const bool confined : {false, true}) {
    SCOPED_TRACE(confined);
    const Result result =
        Try(machine_,
            {.options = At("", confined), .prepare = [&] {
               // The later one's name is taken in the home.
               const Strings uploads = NamesIn(machine_ / "spool");
               ASSERT_EQ(uploads.size(), 2U);
               const bool is_second =
                   ReadFile(machine_ / ("spool/" + uploads[0])) == "second";
               machine_.MakeFile("home/" + uploads[is_second ? 0 : 1]);
             }});
    EXPECT_EQ(result.error_type, "zan_cgi::AccountError");
    EXPECT_NE(result.error.find("cannot move"), std::string::npos);
    EXPECT_TRUE(IsNobody(result));
    EXPECT_EQ(result.spool, Strings{});
    // What was there before is not the request's.
    ASSERT_EQ(result.home.size(), 2U);
    EXPECT_EQ(result.home[0], "www");
    fs::remove(machine_.Home() + "/" + result.home[1]);
  }
}

TEST_F(Become, WarnsOfAnUploadThatStays) {
  const Result result =
      Try(machine_, {.options = At("missing"),
                     .answers = Failing({{"unlinkat", {EROFS, EROFS}}})});
  EXPECT_EQ(result.error, "no such directory 'missing'");
  // At the end of the request they can be removed after all.
  EXPECT_EQ(result.home, Strings{"www"});
  EXPECT_EQ(fs::path(result.paths[0]).parent_path(), machine_.Home());
}

TEST_F(Become, LetsAnOrdinaryUserBecomeOnlyHimself) {
  const auto be_ordinary = [] {
    const gid_t own[] = {kNobody};
    EXPECT_EQ(::syscall(SYS_setgroups, 1, own), 0);
    SetGroups(kNobody, kNobody, kNobody);
    SetUsers(kNobody, kNobody, kNobody);
  };
  fs::permissions(machine_.Home(), fs::perms{0755});
  fs::permissions(machine_ / "spool", fs::perms{0777});
  struct Row {
    std::string user;
    AccountOptions options;
    std::string error;
    std::string work_dir;
  };
  const std::string own = machine_ / "ordinary";
  for (const Row& row : std::vector<Row>{
           {"ordinary", At(""), "", own},
           {"ordinary", At("", true), "failed to chroot to users home folder",
            machine_.Start()},
           {"visitor", At(""), "the real user id is not the account's",
            machine_.Home()}}) {
    SCOPED_TRACE(row.user + row.error);
    Outcome outcome =
        Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
          SetUpAccounts(machine_);
          const Observer observer;
          be_ordinary();
          Cgi cgi(machine_.Start() + "/bin/front", "");
          try {
            zan_cgi::BecomeAccount(cgi, row.user, row.options);
          } catch (const AccountError& error) {
            report("error", error.what());
          }
          ReportIdentity(report, observer.Look());
        });
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(outcome.reported["error"], row.error);
    EXPECT_EQ(outcome.reported["users"], "65534\t65534\t65534\t65534");
    EXPECT_EQ(outcome.reported["work dir"], row.work_dir);
  }
}

TEST_F(Become, AbortsAnOrdinaryUserWhoKeepsAGroupOfRoot) {
  fs::permissions(machine_.Home(), fs::perms{0755});
  for (const bool is_main_group : {false, true}) {
    const Outcome outcome = Child().Run([&](const Reporter&) {
      SetUpAccounts(machine_);
      const gid_t roots[] = {0};
      ASSERT_EQ(::setgroups(is_main_group ? 0 : 1, roots), 0);
      const gid_t main_group = is_main_group ? 0 : kNobody;
      SetGroups(main_group, main_group, main_group);
      SetUsers(kNobody, kNobody, kNobody);
      Cgi cgi(machine_.Start() + "/bin/front", "");
      zan_cgi::BecomeAccount(cgi, "visitor");
    });
    EXPECT_EQ(outcome.status, kAborted) << outcome.error;
  }
}

/// Whether a failure of this call comes before anything is changed: up to the
/// first of Cgi::Su().
bool IsBeforeTheSwitch(const Strings& calls, std::size_t number) {
  const auto first = std::find(calls.begin(), calls.end(), "getpwnam visitor");
  const auto second = std::find(std::next(first), calls.end(), *first);
  return number <= static_cast<std::size_t>(second - calls.begin());
}

TEST_F(Become, NeverGoesOnAsRootWhicheverCallFails) {
  for (const AccountOptions& options :
       {At("www", false, true), At("/www", true, true)}) {
    SCOPED_TRACE(options.confined);
    const Strings calls = Try(machine_, {.options = options}).Logged(-1);
    ASSERT_GT(calls.size(), 60U);
    int refusals = 0;
    for (std::size_t number = 1; number <= calls.size(); ++number) {
      SCOPED_TRACE(calls[number - 1]);
      Attempt attempt = {.options = options};
      attempt.answers.failing_call = static_cast<int>(number);
      const Result result = Try(machine_, attempt);
      EXPECT_EQ(result.spool, Strings{});
      EXPECT_EQ(result.home, Strings{"www"});
      if (result.status == kAborted) {
        EXPECT_EQ(calls[number - 1], kSetGroup);
        continue;
      }
      EXPECT_EQ(result.status, 0);
      if (IsBeforeTheSwitch(calls, number)) {
        EXPECT_EQ(result.identity, Root(machine_.Start()));
        EXPECT_NE(result.error, "");
      } else if (result.error.empty()) {
        EXPECT_EQ(result.identity.users, Visitor("", "").users);
        EXPECT_EQ(result.identity.supplementary, Visitor("", "").supplementary);
        EXPECT_TRUE(IsVisitor(result));
      } else {
        ++refusals;
        EXPECT_TRUE(IsNobody(result) || IsVisitor(result))
            << testing::PrintToString(result.identity);
      }
    }
    EXPECT_GT(refusals, 50);
  }
}

}  // namespace
}  // namespace support
