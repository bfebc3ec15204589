/// @file
/// Private: what the system's databases say of an account, as Cgi::Su() uses
/// it.
#ifndef ZANCGI_SYSTEM_ACCOUNT_H
#define ZANCGI_SYSTEM_ACCOUNT_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// What the password database says of an account.
struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string home;
};

/// @throws std::runtime_error "failed to get pw entry"
Account FindAccount(const std::string& user);

/// Returns the groups that a process gets with the account, the base group
/// among them, at most as many as the kernel takes.
std::vector<gid_t> GroupsOf(const Account& account);

}  // namespace zan_cgi

#endif
