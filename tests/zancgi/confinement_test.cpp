#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <grp.h>
#include <linux/securebits.h>
#include <pwd.h>
#include <sys/prctl.h>

#include <fstream>
#include <ios>
#include <sstream>

#include "session.h"
#include "support/account.h"
#include "support/backend.h"
#include "support/switch.h"
#include "support/test.h"

namespace support {
namespace {

const Call kConfined{.dir = "/", .use_chroot = true};
const Call kConfinedWithPam{.dir = "/", .use_chroot = true, .use_pam = true};

const LogLine kConfining{8, "ChRoot Init resolver"};

class Confinement : public MachineTest<> {
 protected:
  /// Leaves a file in the home, as its owner may.
  void Plant(const std::string& name, const std::string& content) const {
    const fs::path parent = fs::path("home/" + name).parent_path();
    machine_.MakeDir(parent);
    machine_.MakeFile("home/" + name, content);
  }

  /// The switch, confined and, as nobody would make it, without our guards:
  /// shows that what the test has planted does harm.
  /// @param prepare  called in the child, once the account is in place
  Identity ConfineCarelessly(const std::function<void()>& prepare = [] {}) {
    Outcome outcome = Child().Run([&](const Reporter& report) {
      machine_.SetUp();
      prepare();
      const Observer observer;
      ASSERT_EQ(::chroot(machine_.Home().c_str()), 0);
      ::initgroups("visitor", kVisitor);
      ReportIdentity(report, observer.Look());
    });
    return SwitchedOf(outcome).identity;
  }

  void ExpectConfinedAsTheAccount(const Switched& switched) const {
    EXPECT_EQ(switched.error, "");
    EXPECT_EQ(switched.identity, Visitor(machine_.Home(), machine_.Home()));
  }

  void SetHome(uid_t owner, mode_t mode) const {
    ASSERT_EQ(::chown(machine_.Home().c_str(), owner, owner), 0);
    ASSERT_EQ(::chmod(machine_.Home().c_str(), mode), 0);
  }
};

TEST_F(Confinement, TakesNoGroupsFromTheHome) {
  EXPECT_EQ(ConfineCarelessly().supplementary, "54321");
  ExpectConfinedAsTheAccount(Switch(machine_, kConfined));
  Plant("etc/group", "root:x:0:visitor\ndisk:x:6:visitor\n");
  EXPECT_EQ(ConfineCarelessly().supplementary, "0 6 54321");
  ExpectConfinedAsTheAccount(Switch(machine_, kConfined));
}

/// Where libraries are looked for, as far as that does not depend on files.
Strings LibraryFolders() {
  Dl_info library{};
  if (::dladdr(reinterpret_cast<void*>(&::gnu_get_libc_version), &library) ==
      0) {
    throw std::logic_error("no C library");
  }
  const std::string its_own =
      fs::canonical(library.dli_fname).parent_path().string();
  const std::string name = fs::path(its_own).filename();
  return {its_own,         "/lib/" + name, "/usr/lib/" + name, "/lib",
          "/usr/lib",      "/lib64",       "/usr/lib64",       "/",
          "/usr/local/lib"};
}

/// A home with a module for look-ups, for the configurations that name it.
class PlantedLookUp : public Confinement {
 protected:
  void SetUp() override {
    Confinement::SetUp();
    for (const std::string& folder : LibraryFolders()) {
      fs::create_directories(machine_.Home() + folder);
      fs::copy_file(PLANTED_LIBRARY,
                    machine_.Home() + folder + "/libnss_evil.so.2",
                    fs::copy_options::skip_existing);
    }
  }

  /// Says as whom a planted library has been loaded, if one has.
  std::string Harm() const { return ReadFile(machine_ / "home/loaded"); }
};

class PlantedConfiguration : public PlantedLookUp,
                             public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(
    All, PlantedConfiguration,
    testing::Values("group: evil\n", "initgroups: evil\n",
                    "passwd: evil\ngroup: evil\n",
                    "passwd: evil\ngroup: evil\ninitgroups: evil\n"
                    "hosts: evil\nshadow: evil\nservices: evil\n"));

// A C library that has read one configuration may leave another root's alone by
// itself; the switch does not count on that.
TEST_P(PlantedConfiguration, RunsNoCode) {
  Plant("etc/nsswitch.conf", GetParam());
  for (const Call& call : {kConfined, kConfinedWithPam}) {
    ExpectConfinedAsTheAccount(Switch(machine_, call));
    EXPECT_EQ(Harm(), "");
  }
  const auto remove_own = [] { fs::remove("/etc/nsswitch.conf"); };
  ExpectConfinedAsTheAccount(Switch(machine_, kConfined, remove_own));
  EXPECT_EQ(Harm(), "");

  ConfineCarelessly();
  EXPECT_EQ(Harm(), "loaded as 0");
}

/// A service that the machine's own configuration names, and asks only about
/// those who have no group.
void AskAnotherServiceForGroups() {
  std::ofstream("/etc/nsswitch.conf")
      << "passwd: files\ngroup: files\ninitgroups: files evil\n";
}

TEST_F(PlantedLookUp, OfTheMachinesOwnServiceRunsNoCode) {
  ExpectConfinedAsTheAccount(
      Switch(machine_, kConfined, AskAnotherServiceForGroups));
  EXPECT_EQ(Harm(), "");

  ConfineCarelessly([] {
    AskAnotherServiceForGroups();
    // Reads the configuration.
    ::getpwnam("visitor");
  });
  EXPECT_EQ(Harm(), "loaded as 0");
}

TEST_F(PlantedLookUp, OfAGroupByAPamModuleRunsNoCode) {
  const SessionModule module(machine_, "home");
  Plant("etc/pam.d/login", module.Line("look_up_group=missing"));
  ASSERT_EQ(::chown(machine_.Home().c_str(), 0, 0), 0);
  ExpectConfinedAsTheAccount(Switch(machine_, kConfinedWithPam, [] {
    std::ofstream("/etc/nsswitch.conf")
        << "passwd: files\ngroup: files evil\ninitgroups: files\n";
  }));
  EXPECT_NE(module.Record().find("\nno such group\n"), std::string::npos);
  EXPECT_EQ(Harm(), "");
}

/// A home with a PAM configuration and a module of its own.
class ConfinedSession : public Confinement {
 protected:
  void SetUp() override {
    Confinement::SetUp();
    Configure("");
  }

  void Configure(const std::string& deeds) const {
    Plant("etc/pam.d/login", module_.Line(deeds));
  }

  SessionModule module_{machine_, "home"};
};

TEST_F(ConfinedSession, RunsInAHomeThatOnlyRootCanWrite) {
  struct Row {
    uid_t owner;
    mode_t mode;
    bool runs;
  };
  for (const Row& row : std::vector<Row>{{0, 0755, true},
                                         {0, 0711, true},
                                         {0, 0555, true},
                                         {0, 01755, true},
                                         {kVisitor, 0755, false},
                                         {kVisitor, 0700, false},
                                         {kVisitor, 0555, false},
                                         {kVisitor + 1, 0755, false},
                                         {0, 0775, false},
                                         {0, 0757, false},
                                         {0, 0777, false},
                                         {0, 01777, false}}) {
    std::ostringstream home;
    home << row.owner << ' ' << std::oct << row.mode;
    SCOPED_TRACE(home.str());
    fs::remove(machine_ / "home/record");
    SetHome(row.owner, row.mode);
    const Switched switched = Switch(machine_, kConfinedWithPam);
    ExpectConfinedAsTheAccount(switched);
    EXPECT_EQ(switched.log,
              row.runs
                  ? (Lines{kConfining, kStarting, kStarted, kOpened, kClosed})
                  : (Lines{kConfining, kStarting, kNotStarted}));
    EXPECT_EQ(module_.Record(),
              row.runs
                  ? "open: service login, user visitor, flags 32768, as 0\n"
                    "close: service login, user visitor, flags 32768, as 0"
                  : "");
  }
}

/// An account that has put a socket of its own in the back end's place, where
/// the process finds it once it is confined to the home.
class PlantedBackEnd : public Confinement {
 protected:
  void SetUp() override {
    Confinement::SetUp();
    backend_.Otherwise([](const zan_cgi::testing::Query& /*query*/) {
      return zan_cgi::testing::Answer(
          "<doc><user name=\"root\" level=\"99\"/></doc>");
    });
  }

  /// Has the process become the account and then ask the back end.
  /// @param prepare  called in the child before the switch
  Outcome AskAfterTheSwitch(
      const std::function<void(Cgi&)>& ask,
      const std::function<void()>& prepare = [] {}, bool use_chroot = true) {
    return Child()
        .Env("REQUEST_METHOD", "GET")
        .Env("HTTP_COOKIE", backend_.Name() + "ses5=secret")
        .With(backend_)
        .Run([&](const Reporter& report) {
          machine_.SetUp();
          PlantSocket();
          prepare();
          Cgi cgi("/bin/front", backend_.Name());
          cgi.Su("visitor", "/", use_chroot, false);
          try {
            ask(cgi);
          } catch (const std::runtime_error& error) {
            report("error", error.what());
          }
          try {
            report("name", cgi.auth().name);
          } catch (const std::runtime_error& error) {
            report("name", error.what());
          }
        });
  }

  void PlantSocket() const {
    const std::string planted = machine_.Home() + backend_.SocketPath();
    fs::create_directories(fs::path(planted).parent_path());
    fs::remove(planted);
    fs::create_hard_link(backend_.SocketPath(), planted);
  }

  Backend backend_;
};

const char kNotFromInside[] =
    "the back end cannot be asked from inside an account's folder";

void Authorize(Cgi& cgi) { cgi.Authorize(Cgi::AuthInfo::AuthCookie); }

TEST_F(PlantedBackEnd, IsNotAsked) {
  const std::vector<std::pair<uid_t, mode_t>> homes = {
      {kVisitor, 0700}, {0, 0775}, {0, 0757}};
  for (const auto& [owner, mode] : homes) {
    SetHome(owner, mode);
    for (const auto& ask : std::vector<std::function<void(Cgi&)>>{
             Authorize, [](Cgi& cgi) { cgi.Query("func=list"); },
             [](Cgi& cgi) {
               cgi.Query({{"func", "list"}});
             }}) {
      Outcome outcome = AskAfterTheSwitch(ask);
      EXPECT_EQ(outcome.error, "");
      EXPECT_EQ(outcome.reported["error"], kNotFromInside);
      EXPECT_EQ(outcome.reported["name"], "not authorized");
    }
  }
  EXPECT_TRUE(backend_.Queries().empty());
}

TEST_F(PlantedBackEnd, DoesNotMatterOutsideOfAnAccountsFolder) {
  const auto nothing = [] {};
  Outcome unconfined = AskAfterTheSwitch(Authorize, nothing, false);
  SetHome(0, 0755);
  Outcome confined = AskAfterTheSwitch(Authorize);
  for (Outcome* outcome : {&unconfined, &confined}) {
    EXPECT_EQ(outcome->error, "");
    EXPECT_EQ(outcome->reported["error"], "");
    EXPECT_EQ(outcome->reported["name"], "root");
  }
}

// A process that has kept root's rights could go on into a jail that the
// account has been given, but whoever owns the way there could exchange it.
TEST_F(PlantedBackEnd, IsNotAskedFromAJailInsideTheHome) {
  machine_.MakeDir("home/jail");
  Plant("etc/passwd", "visitor:x:54321:54322::/jail:\n");
  Outcome outcome = AskAfterTheSwitch(
      [](Cgi& cgi) {
        cgi.Su("visitor", "/", true, false);
        Authorize(cgi);
      },
      [] { ASSERT_EQ(::prctl(PR_SET_SECUREBITS, SECBIT_NO_SETUID_FIXUP), 0); });
  EXPECT_EQ(outcome.reported["error"], kNotFromInside);
}

struct OpenDescriptors {
  int count = 0;
  int folders = 0;
  int inherited = 0;
};

/// Of the process, without those that tests keep for themselves from 100 on.
OpenDescriptors Count() {
  OpenDescriptors found;
  for (int descriptor = 3; descriptor < 100; ++descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) continue;
    ++found.count;
    if (S_ISDIR(status.st_mode)) ++found.folders;
    const int flags = ::fcntl(descriptor, F_GETFD);
    if ((flags & FD_CLOEXEC) == 0) ++found.inherited;
  }
  return found;
}

TEST_F(Confinement, KeepsNoFolderOpenAndNothingForOtherPrograms) {
  for (const bool use_chroot : {false, true}) {
    for (const bool use_pam : {false, true}) {
      Backend backend;
      backend.Then(zan_cgi::testing::Answer("<doc/>"));
      const std::string log = machine_.MakeFile("log");
      Outcome outcome =
          Child()
              .Env("REQUEST_METHOD", "GET")
              .Env("TOV_LOG", log)
              .With(backend)
              .Run([&](const Reporter& report) {
                machine_.SetUp();
                const OpenDescriptors before = Count();
                Cgi cgi("/bin/front", backend.Name());
                report("answer", cgi.Query("func=whoami"));
                cgi.Su("visitor", "/", use_chroot, use_pam);
                const OpenDescriptors after = Count();
                report("opened", std::to_string(after.count - before.count));
                report("folders", std::to_string(after.folders));
                report("inherited",
                       std::to_string(after.inherited - before.inherited));
              });
      EXPECT_EQ(outcome.error, "");
      EXPECT_EQ(outcome.reported["answer"], "<doc/>");
      // The log.
      EXPECT_EQ(outcome.reported["opened"], "1");
      EXPECT_EQ(outcome.reported["folders"], "0");
      EXPECT_EQ(outcome.reported["inherited"], "0");
      EXPECT_NE(ReadFile(log), "");
    }
  }
}

}  // namespace
}  // namespace support
