// Where the process has its home after a switch: private to the library, so it
// is linked from the archive.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zancgi/confinement.h>
#include <zancgi/testing/child.h>
#include <zancgi/testing/identity.h>
#include <zancgi/zancgi.h>

#include <new>
#include <string>
#include <vector>

#include "support/account.h"
#include "support/switch.h"

namespace {

using support::kVisitor;
using support::kVisitors;
using zan_cgi::Cgi;
using zan_cgi::testing::Child;
using zan_cgi::testing::Outcome;
using zan_cgi::testing::Reporter;

bool is_memory_short = false;

std::string Home() {
  const char* const home = zan_cgi::AccountHome();
  return home == nullptr ? "none" : home;
}

class AccountHome : public support::MachineTest<> {
 protected:
  /// The homes that the body reports in a child of this machine, as "home".
  std::string Found(const Child::Body& body) const {
    Outcome outcome =
        Child().WorkDir(machine_.Path()).Run([&](const Reporter& report) {
          support::UseAccounts(
              {{"visitor", kVisitor, kVisitors, machine_.Home()},
               {"relative", kVisitor, kVisitors, "home"}},
              {});
          ASSERT_EQ(Home(), "none");
          body(report);
          report("home", Home());
        });
    EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
    EXPECT_EQ(outcome.error, "");
    return outcome.reported["home"];
  }
};

TEST_F(AccountHome, IsWhatTheProcessSeesOnceItIsTheAccount) {
  struct Row {
    std::string user, dir;
    bool use_chroot;
    std::string home;
  };
  for (const Row& row :
       std::vector<Row>{{"visitor", "", false, machine_.Home()},
                        {"visitor", "www", false, machine_.Home()},
                        {"visitor", "/www", true, "/"},
                        {"root", "/", false, "none"},
                        {"relative", "", false, "none"}}) {
    EXPECT_EQ(Found([&](const Reporter&) {
                Cgi::Data().DoSu(row.user, row.dir, row.use_chroot, false);
              }),
              row.home)
        << row.user << row.use_chroot;
  }
}

TEST_F(AccountHome, IsThereWhenTheDirectoryIsRefused) {
  EXPECT_EQ(
      Found([](const Reporter&) {
        EXPECT_ANY_THROW(Cgi::Data().DoSu("visitor", "missing", false, false));
      }),
      machine_.Home());
}

TEST_F(AccountHome, IsNoneWithoutTheRightToSwitch) {
  ::chmod(machine_.Home().c_str(), 0755);
  EXPECT_EQ(Found([](const Reporter&) {
              zan_cgi::testing::BecomeOrdinaryUser();
              Cgi::Data().DoSu("visitor", "", false, false);
            }),
            "none");
}

TEST_F(AccountHome, StaysAfterASecondSwitch) {
  EXPECT_EQ(Found([](const Reporter&) {
              Cgi::Data().DoSu("visitor", "www", false, false);
              Cgi::Data().DoSu("visitor", "", false, false);
            }),
            machine_.Home());
}

TEST_F(AccountHome, WithoutMemoryForItChangesNothing) {
  EXPECT_EQ(Found([&](const Reporter&) {
              is_memory_short = true;
              EXPECT_THROW(Cgi::Data().DoSu("visitor", "", false, false),
                           std::bad_alloc);
              is_memory_short = false;
              EXPECT_EQ(::getuid(), 0U);
              char place[4096];
              ASSERT_NE(::getcwd(place, sizeof(place)), nullptr);
              EXPECT_EQ(place, machine_.Path());
            }),
            "none");
}

}  // namespace

extern "C" char* strdup(const char* text) noexcept {
  if (is_memory_short) return nullptr;
  const std::size_t size = ::strlen(text) + 1;
  void* const copy = ::malloc(size);
  return copy == nullptr ? nullptr
                         : static_cast<char*>(::memcpy(copy, text, size));
}
