/// @file
/// The system account of the panel's user, and becoming it.
#ifndef PANEL_ACCOUNT_H
#define PANEL_ACCOUNT_H

#include <grp.h>
#include <linux/capability.h>
#include <linux/magic.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <tov/env.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace panel {

/// The panel does not work as a system account for this visitor.
class AccountProblem : public std::runtime_error {
 public:
  /// @param status   of the answer; a constant, as is the next
  /// @param problem  for the visitor
  /// @param detail   for the administrator; becomes what()
  AccountProblem(const char* status, const char* problem,
                 const std::string& detail)
      : std::runtime_error(detail), status_(status), problem_(problem) {}

  const char* Status() const { return status_; }
  const char* Problem() const { return problem_; }

 private:
  const char* status_;
  const char* problem_;
};

constexpr char kForbidden[] = "403 Forbidden";
constexpr char kSetUpWrongly[] = "500 Internal Server Error";
constexpr char kNotBecome[] = "The panel could not become your account.";

/// What the system says of an account.
struct Account {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::string home;
  std::set<gid_t> groups;
};

/// The supplementary groups that a process of the account has. The library
/// takes the number of the user for the base group. To be called before Su: a
/// confined process would read the files of the home.
inline std::set<gid_t> GroupsOf(const passwd& entry) {
  const gid_t base = entry.pw_uid;
  std::vector<gid_t> groups(16);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(entry.pw_name, base, groups.data(), &count) < 0) {
    groups.resize(std::max(groups.size() * 2, static_cast<std::size_t>(count)));
    count = static_cast<int>(groups.size());
  }
  return {groups.begin(), groups.begin() + count};
}

/// @param name  as the back end has told it; empty when the user has none
/// @throws AccountProblem when the panel cannot or must not become it
inline Account FindAccount(const std::string& name) {
  if (name.empty()) {
    throw AccountProblem(kForbidden, "Your user has no system account.",
                         "a user without a system account");
  }
  const passwd* const entry = ::getpwnam(name.c_str());
  if (entry == nullptr) {
    throw AccountProblem(kSetUpWrongly, "Your system account does not exist.",
                         "no account '" + name + "'");
  }
  if (entry->pw_uid == 0) {
    throw AccountProblem(kForbidden, "The panel does not become root.",
                         "account '" + name + "' is root");
  }
  return {entry->pw_name, entry->pw_uid, entry->pw_gid, entry->pw_dir,
          GroupsOf(*entry)};
}

/// A file system that an ordinary user can mount says of itself what it likes.
inline bool IsServedByAProgram(const std::filesystem::path& folder) {
  struct statfs status {};
  return ::statfs(folder.c_str(), &status) != 0 ||
         status.f_type == FUSE_SUPER_MAGIC;
}

/// Whether nobody but root can change what lies under this path, or put another
/// folder in its place: every component is a folder (no link), owned by root
/// and writable by no one else.
inline bool BelongsToRootAllTheWay(const std::filesystem::path& path) {
  if (!path.is_absolute()) return false;
  std::filesystem::path way;
  for (const std::filesystem::path& component : path) {
    way /= component;
    struct stat status {};
    if (::lstat(way.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ||
        IsServedByAProgram(way)) {
      return false;
    }
  }
  return true;
}

/// The folder in the home to work in when the panel confines itself to homes;
/// empty when it does not.
inline std::string ConfinedFolder() { return tov_env::GetEnv("PANEL_CONFINE"); }

/// Confined, the process still is root when it first reads what is in the home:
/// who can write there could have it read, and even run, anything.
inline void CheckConfinement(const Account& account) {
  const std::string folder = ConfinedFolder();
  if (folder.empty()) return;
  // A relative folder would be taken from outside of the home.
  if (folder.front() != '/') {
    throw AccountProblem(kSetUpWrongly, "The panel is set up wrongly.",
                         "PANEL_CONFINE must begin with a slash");
  }
  if (!BelongsToRootAllTheWay(account.home)) {
    throw AccountProblem(
        kSetUpWrongly,
        "The panel cannot be confined to your home folder: every folder on the "
        "way to it must belong to root and be writable by nobody else.",
        "no confinement to '" + account.home + "'");
  }
}

/// Whether all ids of this process are the account's.
inline bool HasIdsOf(const Account& account) {
  uid_t user, effective_user, saved_user;
  gid_t group, effective_group, saved_group;
  return ::getresuid(&user, &effective_user, &saved_user) == 0 &&
         ::getresgid(&group, &effective_group, &saved_group) == 0 &&
         user == account.uid && effective_user == account.uid &&
         saved_user == account.uid && group == account.gid &&
         effective_group == account.gid && saved_group == account.gid;
}

/// Whether this process is the account and nobody else, for good: all its ids
/// and exactly its groups, without a capability, and unable to become root.
inline bool HasBecome(const Account& account) {
  if (!HasIdsOf(account)) return false;

  std::vector<gid_t> groups(NGROUPS_MAX);
  const int count = ::getgroups(NGROUPS_MAX, groups.data());
  if (count < 0 || std::set<gid_t>(groups.begin(), groups.begin() + count) !=
                       account.groups) {
    return false;
  }

  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, capabilities) != 0) return false;
  for (const __user_cap_data_struct& each : capabilities) {
    if ((each.effective | each.permitted | each.inheritable) != 0) return false;
  }

  return ::setuid(0) != 0;
}

/// Makes this process the account, with the uploads handed over, in the home
/// folder or, confined, in the folder of it that is configured.
///
/// The library does not check whether the process may take on an identity, so
/// this looks for itself.
/// @throws AccountProblem when it has not; the request must end then
inline void BecomeAccount(zan_cgi::Cgi& cgi, const Account& account) {
  CheckConfinement(account);
  const std::string folder = ConfinedFolder();
  const bool was_account = HasIdsOf(account);
  try {
    cgi.Su(account.name, folder, !folder.empty(),
           !tov_env::GetEnv("PANEL_PAM").empty());
  } catch (const std::exception& error) {
    throw AccountProblem(kSetUpWrongly, kNotBecome, error.what());
  }
  // Who was the account before has not switched, and keeps its groups.
  if (!(was_account ? HasIdsOf(account) : HasBecome(account))) {
    throw AccountProblem(kSetUpWrongly, kNotBecome,
                         "not the account '" + account.name + "' after Su");
  }
}

/// How this process, once it is the account, finds a file that was handed over:
/// the library puts it into the home folder, which is the root directory when
/// confined and the current directory otherwise.
inline std::string HandedOver(const std::string& path) {
  const std::string home = ConfinedFolder().empty() ? "./" : "/";
  return home + std::filesystem::path(path).filename().string();
}

}  // namespace panel

#endif
