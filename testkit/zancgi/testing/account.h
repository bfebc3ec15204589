/// @file
/// Accounts that exist for one process only: for tests of front ends that
/// become a system account. Needs root, with the right to mount.
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
  uid_t uid;         ///< Number of the user.
  gid_t gid;         ///< Number of its group.
  std::string home;  ///< Its home folder.
};

/// An entry of the group file.
struct Group {
  std::string name;                  ///< Its name.
  gid_t gid;                         ///< Its number.
  std::vector<std::string> members;  ///< Login names.
};

/// Why there can be no such accounts here; empty when there can. With
/// GoogleTest:
///
///     if (!WhyNoAccounts().empty()) GTEST_SKIP() << WhyNoAccounts();
std::string WhyNoAccounts();

/// Gives this process an /etc of its own, which knows root, these accounts and
/// these groups and nothing else, and mounts that only it sees. Both vanish
/// with the process. Root's home is "/". For child processes.
/// @throws std::runtime_error when that cannot be done
void UseAccounts(const std::vector<Account>& accounts,
                 const std::vector<Group>& groups);

/// An account with a home folder, which goes with this object. It is known
/// where Use() was called, and to a Program that is given it.
class ThrowAwayAccount {
 public:
  /// @param name    login name
  /// @param number  of the user and of its group, which has the same name
  /// @throws std::runtime_error when the home cannot be given to it; it is made
  ///   for who is not root, too, and is then his
  explicit ThrowAwayAccount(const std::string& name = "visitor",
                            uid_t number = 54321);

  /// Its entry in the password file.
  const Account& Entry() const { return entry_; }
  /// Its home folder. Only the account may enter it.
  const std::string& Home() const { return entry_.home; }
  /// A path in the home.
  std::string operator/(const std::string& name) const {
    return Home() + "/" + name;
  }

  /// Has this process know root and this account, and nobody else. For child
  /// processes, as UseAccounts().
  void Use() const;

 private:
  Scratch scratch_;
  Account entry_;
};

}  // namespace zan_cgi::testing

#endif
