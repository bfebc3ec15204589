/// @file
/// Accounts that exist for one child process only, and what a process looks
/// like from outside once it has become one.
#ifndef ZANCGI_TESTS_SUPPORT_ACCOUNT_H
#define ZANCGI_TESTS_SUPPORT_ACCOUNT_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace support {

struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string home;
};

struct Group {
  std::string name;
  gid_t gid;
  std::vector<std::string> members;
};

/// Whether UseAccounts() can do its work here: the caller is root and may
/// mount.
bool CanUseAccounts();

/// Gives this process an /etc of its own, which knows root, these accounts and
/// these groups and nothing else, and mounts that only it sees. Both vanish
/// with the process. Root's home is "/".
void UseAccounts(const std::vector<Account>& accounts,
                 const std::vector<Group>& groups);

/// Makes this the PAM configuration of service "login" in that /etc.
void ConfigureLogin(const std::string& stack);

/// Who a process is and where.
struct Identity {
  std::string users;          ///< Real, effective, saved and file system user.
  std::string groups;         ///< The same of the group.
  std::string supplementary;  ///< Groups, ascending, joined by blanks.
  std::string root;      ///< The root directory, as seen from the true root.
  std::string work_dir;  ///< The current directory, likewise.

  friend bool operator==(const Identity&, const Identity&) = default;
};

/// For messages of failed expectations.
void PrintTo(const Identity& identity, std::ostream* out);

/// Looks at the process that made it, with the rights and the root directory
/// that this process had then.
class Observer {
 public:
  Observer();
  ~Observer();
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;

  /// Who the process is now.
  Identity Look() const;

 private:
  pid_t process_;
  int socket_;
};

/// Whether any of the calls that could give this process another identity
/// succeeds. Tries them, so it is the last thing to do.
bool CanBecomeAnother();

}  // namespace support

#endif
