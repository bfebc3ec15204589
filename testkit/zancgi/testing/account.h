/// @file
/// Accounts that exist in one process only, for tests of front ends that become
/// a system account. Needs root and permission to mount.
#ifndef ZANCGI_TESTING_ACCOUNT_H
#define ZANCGI_TESTING_ACCOUNT_H

#include <sys/types.h>
#include <zancgi/testing/scratch.h>

#include <string>
#include <vector>

namespace zan_cgi::testing {

/// An entry of the password file.
struct Account {
  std::string name;  ///< Its login name.
  uid_t uid;         ///< Its user id.
  gid_t gid;         ///< Its group id.
  std::string home;  ///< Its home folder.
};

/// An entry of the group file.
struct Group {
  std::string name;                  ///< Its name.
  gid_t gid;                         ///< Its group id.
  std::vector<std::string> members;  ///< Login names.
};

/// Returns why such accounts cannot be used here; empty if they can. With
/// GoogleTest:
///
///     if (!WhyNoAccounts().empty()) GTEST_SKIP() << WhyNoAccounts();
std::string WhyNoAccounts();

/// Gives this process a private /etc, which contains root, these accounts and
/// these groups only. The mounts are private to this process and disappear with
/// it. Root's home is "/". Call it in child processes only.
/// @throws std::runtime_error on failure
void UseAccounts(const std::vector<Account>& accounts,
                 const std::vector<Group>& groups);

/// An account with a home folder, which is removed with this object. The
/// account exists in processes that call Use(), and in a Program that gets it.
class ThrowAwayAccount {
 public:
  /// @param name    login name
  /// @param number  user id and group id; the group has the same name
  /// @throws std::runtime_error when the home cannot be given to the account.
  ///   If the caller is not root, the home is made, too, but belongs to the
  ///   caller.
  explicit ThrowAwayAccount(const std::string& name = "visitor",
                            uid_t number = 54321);

  /// Its entry in the password file.
  const Account& Entry() const { return entry_; }
  /// Its home folder. Only the account may enter it.
  const std::string& Home() const { return entry_.home; }
  /// Returns a path in the home.
  std::string operator/(const std::string& name) const {
    return Home() + "/" + name;
  }

  /// Makes root and this account the only ones in this process. Call it in
  /// child processes only, like UseAccounts().
  void Use() const;

 private:
  Scratch scratch_;
  Account entry_;
};

}  // namespace zan_cgi::testing

#endif
