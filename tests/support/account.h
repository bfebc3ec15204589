/// @file
/// What a process looks like from outside once it has become an account of the
/// test kit.
#ifndef ZANCGI_TESTS_SUPPORT_ACCOUNT_H
#define ZANCGI_TESTS_SUPPORT_ACCOUNT_H

#include <sys/types.h>
#include <zancgi/testing/account.h>

#include <string>

namespace support {

using zan_cgi::testing::Account;
using zan_cgi::testing::Group;
using zan_cgi::testing::UseAccounts;
using zan_cgi::testing::WhyNoAccounts;

/// Makes this the PAM configuration of service "login" in the /etc of a process
/// that has called UseAccounts().
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
