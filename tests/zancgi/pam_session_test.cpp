#include <dlfcn.h>
#include <security/pam_appl.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include "session.h"
#include "support/account.h"
#include "support/switch.h"
#include "support/test.h"

namespace support {
namespace {

const Call kUnconfined{.dir = "www", .use_pam = true};

const std::string kOpening =
    "open: service login, user visitor, flags 32768, as 0\n";
const std::string kClosing =
    "close: service login, user visitor, flags 32768, as 0";
static_assert(PAM_SILENT == 32768);

class PamSession : public MachineTest<> {
 protected:
  /// Unconfined, with this configuration of service "login".
  Switched SwitchWith(const std::string& configuration) const {
    return Switch(machine_, kUnconfined,
                  [&] { ConfigureLogin(configuration); });
  }

  /// Has the process look at itself after a switch with such a session.
  Outcome LookAfter(
      const std::string& deeds, const Child::Body& look,
      const std::function<void()>& prepare = [] {}) const {
    return Child().WorkDir(machine_.Start()).Run([&](const Reporter& report) {
      machine_.SetUp();
      prepare();
      ConfigureLogin(module_.Line(deeds));
      Cgi::Data request;
      request.DoSu("visitor", "www", false, true);
      look(report);
    });
  }

  void ExpectSwitchedAllTheSame(const Switched& switched) const {
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity, Visitor("/", machine_.Home() + "/www"));
  }
  SessionModule module_{machine_};
};

LogLine PamError(const std::string& text) { return {4, "PAM error " + text}; }

TEST_F(PamSession, IsOpenedAndClosedAsRootAndNeverStopsTheSwitch) {
  const Lines whole = {kOpened, kClosed};
  struct Stack {
    std::string configuration;
    /// After its start.
    Lines log;
    /// What the module records.
    std::string record;
  };
  const std::vector<Stack> stacks = {
      {module_.Line() + "session required pam_deny.so\n",
       {PamError("14 (Cannot make/remove an entry for the specified session) "
                 "on open_session")},
       kOpening},
      {module_.Line("fail_open=6"),
       {PamError("6 (Permission denied) on open_session")},
       kOpening},
      {module_.Line("fail_close=4"),
       {kOpened, PamError("4 (System error) on close_session")},
       kOpening + kClosing},
      {"session required /missing.so\n",
       {PamError("28 (Module is unknown) on open_session")},
       ""},
      {module_.Line(), whole, kOpening + kClosing},
      {module_.Line("close_descriptors"), whole, kOpening + kClosing},
      {module_.Line("enter=" + (machine_ / "other")), whole,
       kOpening + kClosing}};
  // Where a module may have moved to, but the process does not stay.
  machine_.MakeDir("other/www");
  for (const Stack& stack : stacks) {
    SCOPED_TRACE(stack.configuration);
    fs::remove(machine_ / "record");
    const Switched switched = SwitchWith(stack.configuration);
    ExpectSwitchedAllTheSame(switched);
    Lines log = {kStarting, kStarted};
    log.insert(log.end(), stack.log.begin(), stack.log.end());
    EXPECT_EQ(switched.log, log);
    EXPECT_EQ(module_.Record(),
              stack.record.substr(0, stack.record.find_last_not_of('\n') + 1));
  }
}

TEST_F(PamSession, WithoutAConfigurationOfLoginUsesThatOfOther) {
  const Switched switched = Switch(machine_, kUnconfined, [&] {
    fs::rename("/etc/pam.d/login", "/etc/pam.d/other");
  });
  ExpectSwitchedAllTheSame(switched);
  EXPECT_EQ(switched.log, (Lines{kStarting, kStarted, kOpened, kClosed}));
}

TEST_F(PamSession, WithoutAnyConfigurationIsNotStarted) {
  const Switched switched = Switch(machine_, kUnconfined, [] {
    fs::remove_all("/etc/pam.d");
    // PAM loses its own handle then.
    zan_cgi::testing::LeaveOutLeakCheck();
  });
  ExpectSwitchedAllTheSame(switched);
  EXPECT_EQ(switched.log, (Lines{kStarting, kNotStarted}));
}

/// Which file the process would load PAM from.
std::string PamLibraryPath() {
  Outcome outcome = Child().Run([](const Reporter& report) {
    void* const library = ::dlopen("libpam.so.0", RTLD_NOW);
    Dl_info found{};
    if (library == nullptr ||
        ::dladdr(::dlsym(library, "pam_start"), &found) == 0) {
      throw std::logic_error("no PAM on this machine");
    }
    report("path", fs::canonical(found.dli_fname));
  });
  return outcome.reported["path"];
}

TEST_F(PamSession, WithoutThePamLibraryIsNotStarted) {
  const std::string library = PamLibraryPath();
  const std::string empty = machine_.MakeFile("empty");
  const Switched switched = Switch(machine_, kUnconfined, [&] {
    ASSERT_EQ(::mount(empty.c_str(), library.c_str(), "", MS_BIND, ""), 0);
  });
  ExpectSwitchedAllTheSame(switched);
  EXPECT_EQ(switched.log, (Lines{kStarting, kNotStarted}));
}

TEST_F(PamSession, ThatLimitsProcessesDoesNotStopTheSwitch) {
  const Switched switched = Switch(machine_, kUnconfined, [&] {
    ConfigureLogin(module_.Line("limit_processes=0"));
    zan_cgi::testing::LeaveOutLeakCheck();
  });
  ExpectSwitchedAllTheSame(switched);
  EXPECT_EQ(module_.Record(), kOpening + kClosing);
}

TEST_F(PamSession, LeavesLimitsAndTheMaskAsTheModuleSetsThem) {
  Outcome outcome =
      LookAfter("limit_processes=17 umask=027", [](const Reporter& report) {
        rlimit limits{};
        ::getrlimit(RLIMIT_NPROC, &limits);
        report("processes", std::to_string(limits.rlim_max));
        report("mask", std::to_string(::umask(0)));
      });
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.reported["processes"], "17");
  EXPECT_EQ(outcome.reported["mask"], std::to_string(027));
}

TEST_F(PamSession, ThatMovesAndClosesDescriptorsLeavesTheProcessInTheHome) {
  const std::string other = machine_ / "other";
  machine_.MakeDir("other/www");
  const std::string moved = "enter=" + other + " close_descriptors";
  const std::string opened = moved + " open_directories=" + other;
  const auto expect = [&](const std::string& deeds,
                          const std::function<void()>& prepare) {
    Outcome outcome = LookAfter(
        deeds,
        [](const Reporter& report) { report("place", fs::current_path()); },
        prepare);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.reported["place"], machine_.Home() + "/www");
  };
  expect(moved, [] {});
  expect(opened, [] {});
  // Nor does a folder with the inode number of the home stand in for it.
  expect(opened, [&] {
    MountTwins(machine_.Home(), other);
    fs::create_directory(machine_.Home() + "/www");
    fs::create_directory(other + "/www");
  });
}

TEST_F(PamSession, ThatCallsExitEndsTheProcess) {
  Outcome outcome = LookAfter(
      "exit=3", [](const Reporter& report) { report("went on", "yes"); });
  EXPECT_EQ(outcome.status, 3);
  EXPECT_FALSE(outcome.reported.contains("went on"));
  ASSERT_EQ(outcome.Logged(9).size(), 2U);
  EXPECT_TRUE(outcome.Logged(9)[1].ends_with(" PAM start done"));
}

TEST_F(PamSession, ThatChangesTheUserIsNotUndone) {
  // Nobody without root's rights can become the account, and that changes
  // nothing: the process goes on as who it is.
  const Switched switched = SwitchWith(module_.Line("become=65534"));
  EXPECT_EQ(switched.error, "");
  EXPECT_EQ(switched.identity.users, "65534\t65534\t65534\t65534");
  EXPECT_EQ(switched.identity.groups, "54322\t54322\t54322\t54322");
  EXPECT_EQ(switched.identity.work_dir, machine_.Home() + "/www");
  EXPECT_EQ(switched.log, (Lines{kStarting, kStarted, kOpened, kClosed}));
}

}  // namespace
}  // namespace support
