// Where the process has its home after a switch: private to the library, so it
// is linked from the archive.

#include <stdlib.h>
#include <string.h>
#include <zancgi/confinement.h>

#include <new>

#include "support/account.h"
#include "support/switch.h"
#include "support/test.h"

namespace support {
namespace {

bool is_memory_short = false;

std::string Home() {
  const char* const home = zan_cgi::AccountHome();
  return home == nullptr ? "none" : home;
}

class AccountHome : public MachineTest<> {
 protected:
  /// The home after this in a child of this machine.
  std::string Found(const std::function<void()>& work) const {
    return RunWithoutError(
               Child().WorkDir(machine_.Path()),
               [&](const Reporter& report) {
                 UseAccounts({{"visitor", kVisitor, kVisitors, machine_.Home()},
                              {"relative", kVisitor, kVisitors, "home"}},
                             {});
                 ASSERT_EQ(Home(), "none");
                 work();
                 report("home", Home());
               })
        .reported["home"];
  }
};

TEST_F(AccountHome, IsThePathThatTheAccountSees) {
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
    EXPECT_EQ(Found([&] {
                Cgi::Data().DoSu(row.user, row.dir, row.use_chroot, false);
              }),
              row.home)
        << row.user << row.use_chroot;
  }
}

TEST_F(AccountHome, IsSetWhenTheDirectoryIsRefused) {
  EXPECT_EQ(
      Found([] {
        EXPECT_ANY_THROW(Cgi::Data().DoSu("visitor", "missing", false, false));
      }),
      machine_.Home());
}

TEST_F(AccountHome, IsEmptyWithoutTheRightToSwitch) {
  ::chmod(machine_.Home().c_str(), 0755);
  EXPECT_EQ(Found([] {
              BecomeOrdinaryUser();
              Cgi::Data().DoSu("visitor", "", false, false);
            }),
            "none");
}

TEST_F(AccountHome, StaysAfterASecondSwitch) {
  EXPECT_EQ(Found([] {
              Cgi::Data().DoSu("visitor", "www", false, false);
              Cgi::Data().DoSu("visitor", "", false, false);
            }),
            machine_.Home());
}

TEST_F(AccountHome, WithoutMemoryForItChangesNothing) {
  EXPECT_EQ(Found([&] {
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

}  // namespace support
