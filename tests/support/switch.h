/// @file
/// A machine with one account, and the switch to it in a child process.
#ifndef ZANCGI_TESTS_SUPPORT_SWITCH_H
#define ZANCGI_TESTS_SUPPORT_SWITCH_H

#include <sys/types.h>

#include <functional>
#include <string>

#include "support/account.h"
#include "support/test.h"

namespace support {

/// The account "visitor": three different numbers, and a group besides.
constexpr uid_t kVisitor = 54321;
constexpr gid_t kVisitors = 54322;
constexpr gid_t kHelpers = 54330;

/// Folders that all can enter: "home" of the account visitor and "home/www",
/// which belong to it; "start", in which the process starts, and "start/www";
/// "other".
class Machine {
 public:
  Machine();

  const std::string& Path() const { return scratch_.Path(); }
  std::string Home() const { return scratch_ / "home"; }
  std::string Start() const { return scratch_ / "start"; }
  std::string operator/(const std::string& name) const {
    return scratch_ / name;
  }
  std::string MakeDir(const std::string& name) const {
    return scratch_.MakeDir(name);
  }
  std::string MakeFile(const std::string& name,
                       const std::string& content = "") const {
    return scratch_.MakeFile(name, content);
  }

  /// Makes a file or folder the account's own. Without effect unless root.
  void Give(const std::string& name) const;

  /// For the child process, as root: puts the account in place and a PAM
  /// configuration that lets everyone in.
  void SetUp() const;

 private:
  Scratch scratch_;
};

/// A test with such a machine, in which accounts can be used.
template <class Base = testing::Test>
class MachineTest : public Base {
 protected:
  void SetUp() override {
    if (!WhyNoAccounts().empty()) GTEST_SKIP() << WhyNoAccounts();
  }

  Machine machine_;
};

/// The arguments of a switch.
struct Call {
  std::string user = "visitor";
  std::string dir = {};
  bool use_chroot = false;
  bool use_pam = false;
};

/// What a switch has come to.
struct Switched {
  Identity identity;
  std::string error;
  /// From the switch on; "zancgi_unix.cpp:#" for source name and line.
  Lines log;
};

/// Marks in the log where a switch begins.
void MarkSwitch();

/// The log lines after that mark, with a letter in place of line numbers.
Lines LinesOfTheSwitch(const Lines& log);

/// Reports this identity, so that SwitchedOf() finds it.
void ReportIdentity(const Reporter& report, const Identity& identity);

/// That identity.
Identity IdentityIn(Outcome& outcome);

/// Mounts a file system on each of these folders, for this process alone. The
/// folders then have the same number, like the tops of all in memory.
void MountTwins(const std::string& folder, const std::string& other);

/// Of a child that has marked its switch and reported its identity. Expects
/// that it has ended well, or with a std::runtime_error, and left no descriptor
/// open.
Switched SwitchedOf(Outcome& outcome);

/// Makes the switch in a child that starts in the machine's folder "start".
/// Expects that no other identity is in reach afterwards.
/// @param prepare  called in the child, once the account is in place
Switched Switch(
    const Machine& machine, const Call& call,
    const std::function<void()>& prepare = [] {});

/// Root without supplementary groups, not confined.
Identity Root(const std::string& work_dir);

/// The account with all its groups.
Identity Visitor(const std::string& root, const std::string& work_dir);

}  // namespace support

#endif
