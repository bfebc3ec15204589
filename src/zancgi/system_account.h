/// @file
/// Private: looks up an account in the system's databases, for Cgi::Su().
#ifndef ZANCGI_SYSTEM_ACCOUNT_H
#define ZANCGI_SYSTEM_ACCOUNT_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// An account in the password database.
struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string home;
};

/// @throws std::runtime_error "failed to get pw entry"
Account FindAccount(const std::string& user);

/// Returns the groups that a process of the account gets, the base group
/// included, at most as many as the kernel accepts.
std::vector<gid_t> GroupsOf(const Account& account);

}  // namespace zan_cgi

#endif
