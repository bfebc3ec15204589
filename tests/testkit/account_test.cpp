// Accounts that exist for one process only.

#include <grp.h>
#include <pwd.h>
#include <zancgi/testing/account.h>
#include <zancgi/testing/program.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>

#include "support/test.h"

namespace zan_cgi::testing {
namespace {

class AccountOfATest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoAccounts().empty()) GTEST_SKIP() << WhyNoAccounts();
  }

  ThrowAwayAccount account_;
};

TEST_F(AccountOfATest, IsKnownWhereItIsUsedBesidesRootAlone) {
  const Outcome outcome = Child().Run([&](const Reporter& report) {
    account_.Use();
    const passwd* const entry = ::getpwnam("visitor");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->pw_uid, 54321U);
    EXPECT_EQ(entry->pw_gid, 54321U);
    report("home", entry->pw_dir);
    EXPECT_EQ(::getpwnam("daemon"), nullptr);
    EXPECT_NE(::getpwnam("root"), nullptr);
    EXPECT_NE(::getgrnam("visitor"), nullptr);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  EXPECT_EQ(outcome.reported.at("home"), account_.Home());
  // Not where the test itself is.
  EXPECT_EQ(::getpwnam("visitor"), nullptr);
  EXPECT_NE(::getpwnam("daemon"), nullptr);
}

TEST_F(AccountOfATest, HasAHomeOfItsOwnBelowFoldersOfRoot) {
  struct stat home {};
  struct stat above {};
  ASSERT_EQ(::stat(account_.Home().c_str(), &home), 0);
  ASSERT_EQ(::stat((account_ / "..").c_str(), &above), 0);
  EXPECT_EQ(home.st_uid, 54321U);
  EXPECT_EQ(home.st_mode & 07777U, 0700U);
  EXPECT_EQ(above.st_uid, 0U);
  EXPECT_EQ(above.st_mode & 07777U, 0755U);
}

TEST_F(AccountOfATest, IsWhatAFrontEndCanBecome) {
  Program front(ODD_FRONT);
  front.With(account_);
  const Response response = front.Run(Get("/odd", "become"));
  EXPECT_EQ(response.Complaints(), "");
  EXPECT_EQ(response.body, "54321 54321 1");
  struct stat made {};
  ASSERT_EQ(::stat((account_ / "made").c_str(), &made), 0);
  EXPECT_EQ(made.st_uid, 54321U);
  EXPECT_EQ(ReadFile(account_ / "made"), "by the visitor");
}

TEST_F(AccountOfATest, IsNotKnownToAFrontEndThatIsNotGivenIt) {
  EXPECT_EQ(Program(ODD_FRONT).Run(Get("/odd", "become")).body,
            "there is no account of this name");
}

TEST(WhyNoAccounts, NamesWhatIsMissing) {
  const Outcome outcome = Child().Run([](const Reporter&) {
    BecomeOrdinaryUser();
    EXPECT_EQ(WhyNoAccounts(), "needs root");
    const ThrowAwayAccount account;
    EXPECT_TRUE(std::filesystem::exists(account.Home()));
    EXPECT_ANY_THROW(account.Use());
    EXPECT_THROW(Program("/bin/true").With(account).Run(Get("/")),
                 std::system_error);
  });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
}

}  // namespace
}  // namespace zan_cgi::testing
