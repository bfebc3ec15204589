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

void Become(const std::string& user, const std::string& dir,
            bool use_chroot = false) {
  Cgi::Data().DoSu(user, dir, use_chroot, false);
}

class AccountHome : public MachineTest<> {
 protected:
  /// Expects this home after the work of a child of this machine.
  void Expect(const std::string& home,
              const std::function<void()>& work) const {
    RunWithoutError(Child().WorkDir(machine_.Path()), [&] {
      UseAccounts({{"visitor", kVisitor, kVisitors, machine_.Home()},
                   {"relative", kVisitor, kVisitors, "home"}},
                  {});
      ASSERT_EQ(Home(), "none");
      work();
      EXPECT_EQ(Home(), home);
    });
  }
};

TEST_F(AccountHome, IsThePathThatTheAccountSees) {
  const std::string home = machine_.Home();
  Expect(home, [] { Become("visitor", ""); });
  Expect(home, [] { Become("visitor", "www"); });
  Expect("/", [] { Become("visitor", "/www", true); });
  Expect("none", [] { Become("root", "/"); });
  Expect("none", [] { Become("relative", ""); });
  // A directory that is refused, and a second switch.
  Expect(home, [] { EXPECT_ANY_THROW(Become("visitor", "missing")); });
  Expect(home, [] {
    Become("visitor", "www");
    Become("visitor", "");
  });
}

TEST_F(AccountHome, IsEmptyWithoutTheRightToSwitch) {
  fs::permissions(machine_.Home(), fs::perms{0755});
  Expect("none", [] {
    BecomeOrdinaryUser();
    Become("visitor", "");
  });
}

TEST_F(AccountHome, WithoutMemoryForItChangesNothing) {
  Expect("none", [&] {
    is_memory_short = true;
    EXPECT_THROW(Become("visitor", ""), std::bad_alloc);
    is_memory_short = false;
    EXPECT_EQ(::getuid(), 0U);
    EXPECT_EQ(fs::current_path(), machine_.Path());
  });
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
