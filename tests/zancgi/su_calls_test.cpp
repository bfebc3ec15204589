#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <string>
#include <tuple>
#include <utility>

#include "support/account.h"
#include "support/child.h"
#include "support/switch.h"
#include "support/switch_calls.h"

namespace {

using support::Answers;
using support::Call;
using support::Child;
using support::FchdirTo;
using support::Lines;
using support::Machine;
using support::Outcome;
using support::Recording;
using support::Switched;
using support::Told;
using zan_cgi::Cgi;

const char kHomeClosed[] = "failed to chroot to users home folder";

void Add(Lines& lines, const Lines& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

support::LogLine Called(const std::string& call) { return {-1, call}; }

/// Answers for a machine on which nobody becomes anybody.
Answers Pretended(const Machine& machine) {
  return {.accounts = {{"root", 0, 0, machine.Start()},
                       {"visitor", support::kVisitor, support::kVisitors,
                        machine.Home()}}};
}

/// Makes the switch in a child and records it.
Switched RecordSwitch(const Machine& machine, const Call& call,
                      const Answers& answers) {
  Outcome outcome = Child().WorkDir(machine.Start()).Run([&](const Told&) {
    if (!answers.pretend) machine.SetUp();
    Cgi::Data request;
    support::MarkSwitch();
    const Recording recording(answers);
    request.DoSu(call.user, call.dir, call.use_chroot, call.use_pam);
  });
  return support::SwitchedOf(outcome);
}

Lines OfConfinement(const Machine& machine) {
  return {Called("getgrouplist visitor 54321"),
          Called("gethostbyname localhost"),
          {8, "ChRoot Init resolver"},
          Called("chroot " + machine.Home()),
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

Lines OfPamUntil(const std::string& last) {
  Lines lines;
  for (const support::LogLine& line :
       Lines{{9, "zancgi_unix.cpp:N starting PAM session for user 'visitor'"},
             Called("pam_start login visitor myconv"),
             {9, "zancgi_unix.cpp:N PAM start done"},
             Called("pam_open_session session silent"),
             {9, "zancgi_unix.cpp:N PAM open_session - ok"},
             Called("pam_close_session session silent"),
             {9, "zancgi_unix.cpp:N PAM close_session - ok"},
             Called("pam_end session 0")}) {
    lines.push_back(line);
    if (line.text == last) break;
  }
  return lines;
}

Lines OfWholePam() { return OfPamUntil("pam_end session 0"); }

/// With this for the PAM part, when it is wanted; the directory that is kept
/// across it included.
Lines OfSession(const Machine& machine, bool use_chroot, const Lines& pam) {
  Lines lines;
  if (use_chroot) lines.push_back(Called("stat /"));
  Add(lines, pam);
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

TEST_P(SuCallsCombination, ThatAreMadeComeInTheSameOrder) {
  if (!support::CanUseAccounts()) {
    GTEST_SKIP() << "needs root, with the right to mount";
  }
  const Answers made = {.pretend = false};

  const Call as_root = CallAs("root");
  const Switched root = RecordSwitch(machine_, as_root, made);
  EXPECT_EQ(root.error, "");
  EXPECT_EQ(root.log, OfRoot(as_root.dir.empty() ? "/" : as_root.dir));

  const Call call = CallAs("visitor");
  const Switched switched = RecordSwitch(machine_, call, made);
  EXPECT_EQ(switched.error, Error(call));
  // PAM is not called in a home that is the account's own.
  const Lines refused = {
      {9, "zancgi_unix.cpp:N starting PAM session for user 'visitor'"},
      {4, "failed to start PAM session"}};
  EXPECT_EQ(switched.log,
            OfSwitch(machine_, call, call.use_chroot ? refused : OfWholePam()));
}

}  // namespace
