#include "support/switch.h"

#include <grp.h>
#include <zancgi/testing/mount.h>

#include "support/files.h"
#include "support/line_number.h"

namespace support {
namespace {

using zan_cgi::testing::Mark;

constexpr char kSwitchBegins[] = "the switch begins";

}  // namespace

Machine::Machine() {
  fs::permissions(Path(), fs::perms{0755});
  for (const char* name : {"home/www", "start/www", "other"}) MakeDir(name);
  Give("home");
  Give("home/www");
}

void Machine::Give(const std::string& name) const {
  const std::string path = scratch_ / name;
  if (IsRoot() && ::lchown(path.c_str(), kVisitor, kVisitors) != 0) {
    throw std::runtime_error("cannot give " + path + " away");
  }
}

void Machine::SetUp() const {
  UseAccounts({{"visitor", kVisitor, kVisitors, Home()}},
              {{"visitors", kVisitors, {}},
               {"helpers", kHelpers, {"visitor"}},
               {"strangers", kHelpers + 1, {"somebody"}}});
  ConfigureLogin("session required pam_permit.so\n");
}

void MarkSwitch() { Mark(kSwitchBegins); }

Lines LinesOfTheSwitch(const Lines& log) {
  Lines lines;
  bool begun = false;
  for (const LogLine& line : log) {
    if (begun) {
      lines.push_back({line.level, WithoutLineNumber(line.text)});
    }
    begun = begun || line == LogLine{-1, kSwitchBegins};
  }
  return lines;
}

void ReportIdentity(const Reporter& report, const Identity& identity) {
  report("users", identity.users);
  report("groups", identity.groups);
  report("supplementary", identity.supplementary);
  report("root", identity.root);
  report("work dir", identity.work_dir);
}

Identity IdentityIn(Outcome& outcome) {
  return {outcome.reported["users"], outcome.reported["groups"],
          outcome.reported["supplementary"], outcome.reported["root"],
          outcome.reported["work dir"]};
}

void MountTwins(const std::string& folder, const std::string& other) {
  ino_t numbers[2] = {};
  int count = 0;
  for (const std::string& path : {folder, other}) {
    zan_cgi::testing::MountPrivately(path, "mode=0755");
    numbers[count++] = StatOf(path).st_ino;
  }
  ASSERT_EQ(numbers[0], numbers[1]);
}

Switched SwitchedOf(Outcome& outcome) {
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.leaked_descriptors, Strings{});
  EXPECT_TRUE(outcome.error_type.empty() ||
              outcome.error_type == "std::runtime_error")
      << outcome.error_type;
  return {IdentityIn(outcome), outcome.error, LinesOfTheSwitch(outcome.log)};
}

Switched Switch(const Machine& machine, const Call& call,
                const std::function<void()>& prepare) {
  Outcome outcome =
      Child().WorkDir(machine.Start()).Run([&](const Reporter& report) {
        machine.SetUp();
        // Whatever groups the tests are run with.
        if (::setgroups(0, nullptr) != 0) {
          throw std::logic_error("cannot drop groups");
        }
        prepare();
        Observer observer;
        Cgi::Data request;
        MarkSwitch();
        try {
          request.DoSu(call.user, call.dir, call.use_chroot, call.use_pam);
        } catch (...) {
          ReportIdentity(report, observer.Look());
          throw;
        }
        ReportIdentity(report, observer.Look());
        EXPECT_TRUE(call.user == "root" || !CanBecomeAnother());
      });
  return SwitchedOf(outcome);
}

Identity Root(const std::string& work_dir) {
  return {"0\t0\t0\t0", "0\t0\t0\t0", "", "/", work_dir};
}

Identity Visitor(const std::string& root, const std::string& work_dir) {
  return {"54321\t54321\t54321\t54321", "54322\t54322\t54322\t54322",
          "54321 54330", root, work_dir};
}

}  // namespace support
