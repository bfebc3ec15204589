#include <zancgi/account.h>
#include <zancgi/zancgi.h>

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <linux/capability.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "raw_array.h"
#include "system_account.h"

// C library functions that no header declares.
extern "C" {
int capget(cap_user_header_t header, cap_user_data_t data) noexcept;
int capset(cap_user_header_t header,
           const __user_cap_data_struct* data) noexcept;
}

namespace zan_cgi {

namespace {

/// The user and group id that own nothing, by the kernel's convention.
constexpr unsigned kNobody = 65534;

// Ids and groups.

/// Real, effective, saved and file-system id.
struct Ids {
  static constexpr int kCount = 4;

  bool AreAll(unsigned id) const {
    return std::all_of(std::begin(each), std::end(each),
                       [id](unsigned one) { return one == id; });
  }
  bool HoldRoot() const {
    return std::find(std::begin(each), std::end(each), 0U) != std::end(each);
  }
  friend bool operator==(const Ids&, const Ids&) = default;

  unsigned each[kCount];
};

/// Returns nothing if they cannot be read.
std::optional<Ids> UserIds() {
  Ids ids{};
  auto& [real, effective, saved, file_system] = ids.each;
  if (::getresuid(&real, &effective, &saved) != 0) return std::nullopt;
  // setfsuid(2) with an invalid id changes nothing and returns the current one.
  file_system = static_cast<unsigned>(::setfsuid(static_cast<uid_t>(-1)));
  return ids;
}

/// Like UserIds(), for groups.
std::optional<Ids> GroupIds() {
  Ids ids{};
  auto& [real, effective, saved, file_system] = ids.each;
  if (::getresgid(&real, &effective, &saved) != 0) return std::nullopt;
  file_system = static_cast<unsigned>(::setfsgid(static_cast<gid_t>(-1)));
  return ids;
}

using Groups = std::vector<gid_t>;

void SortWithoutRepetition(Groups& groups) {
  std::sort(groups.begin(), groups.end());
  groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
}

/// The supplementary groups of this process. Reading them allocates no memory,
/// because there may be none when the process must give up its rights.
class SupplementaryGroups {
 public:
  /// Returns false if they cannot be read.
  bool Read() {
    count_ = ::getgroups(NGROUPS_MAX, groups_.data());
    if (count_ < 0) return false;
    std::sort(begin(), end());
    return true;
  }

  bool Are(const Groups& sorted) const {
    return std::equal(begin(), end(), sorted.begin(), sorted.end());
  }
  bool AreAmong(const Groups& sorted) const {
    return std::includes(sorted.begin(), sorted.end(), begin(), end());
  }
  bool HoldRoot() const { return count_ > 0 && *begin() == 0; }
  Groups Copy() const { return {begin(), end()}; }

 private:
  gid_t* begin() const { return groups_.data(); }
  gid_t* end() const { return begin() + std::max(count_, 0); }

  RawArray<gid_t> groups_{NGROUPS_MAX};
  int count_ = 0;
};

/// The ids and groups of a process.
struct Identity {
  Ids users;
  Ids groups;
  Groups supplementary;
};

void RequireIds(const std::optional<Ids>& ids, unsigned wanted,
                const char* unknown, const char* const (&wrong)[Ids::kCount]) {
  if (!ids) throw AccountError(unknown);
  for (int i = 0; i < Ids::kCount; ++i) {
    if (ids->each[i] != wanted) throw AccountError(wrong[i]);
  }
}

void RequireIdsOf(const Account& account) {
  RequireIds(UserIds(), account.uid, "the user ids cannot be read",
             {"the real user id is not the account's",
              "the effective user id is not the account's",
              "the saved user id is not the account's",
              "the file-system user id is not the account's"});
  RequireIds(GroupIds(), account.gid, "the group ids cannot be read",
             {"the real group id is not the account's",
              "the effective group id is not the account's",
              "the saved group id is not the account's",
              "the file-system group id is not the account's"});
}

// Capabilities.

/// Which capability sets of a process are not empty, except the ambient one.
struct CapabilitySets {
  bool permitted = false;
  bool effective = false;
  bool inheritable = false;
};

/// Returns nothing if they cannot be read.
std::optional<CapabilitySets> ReadCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct halves[_LINUX_CAPABILITY_U32S_3] = {};
  if (::capget(&header, halves) != 0) return std::nullopt;
  CapabilitySets sets;
  for (const __user_cap_data_struct& half : halves) {
    sets.permitted |= half.permitted != 0;
    sets.effective |= half.effective != 0;
    sets.inheritable |= half.inheritable != 0;
  }
  return sets;
}

/// The largest number of capabilities in a set.
constexpr unsigned long kCapabilities = _LINUX_CAPABILITY_U32S_3 * 32UL;

/// Whether a capability is ambient; nothing if that cannot be read.
std::optional<bool> HasAmbientCapability() {
  for (unsigned long capability = 0; capability < kCapabilities; ++capability) {
    const int is_set =
        ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, capability, 0UL, 0UL);
    if (is_set > 0) return true;
    if (is_set == 0) continue;
    // The kernel knows no capability with this number or a higher one.
    if (errno == EINVAL) return false;
    return std::nullopt;
  }
  return false;
}

void RequireNoCapability() {
  const std::optional<CapabilitySets> sets = ReadCapabilities();
  if (!sets) throw AccountError("the capabilities cannot be read");
  if (sets->permitted) throw AccountError("a capability is permitted");
  if (sets->effective) throw AccountError("a capability is effective");
  if (sets->inheritable) throw AccountError("a capability is inheritable");
  const std::optional<bool> ambient = HasAmbientCapability();
  if (!ambient) throw AccountError("the ambient capabilities cannot be read");
  if (*ambient) throw AccountError("a capability is ambient");
}

bool HasNoCapability() {
  const std::optional<CapabilitySets> sets = ReadCapabilities();
  return sets && !sets->permitted && !sets->effective && !sets->inheritable &&
         HasAmbientCapability() == false;
}

// Regaining root.

/// Tries to become root again or to change groups. Returns the call that
/// succeeded, or null if none did.
const char* WayBack() {
  if (::setresuid(0, 0, 0) == 0) return "setresuid(2) to root succeeds";
  if (::setuid(0) == 0) return "setuid(2) to root succeeds";
  if (::setresgid(0, 0, 0) == 0) return "setresgid(2) to root succeeds";
  if (::setgid(0) == 0) return "setgid(2) to root succeeds";
  if (::setgroups(0, nullptr) == 0) return "setgroups(2) succeeds";
  return nullptr;
}

void RequireNoWayBack() {
  const char* const succeeded = WayBack();
  if (succeeded != nullptr) throw AccountError(succeeded);
}

// Directories.

/// Identifies a directory.
struct Directory {
  dev_t device;
  ino_t inode;
  friend bool operator==(const Directory&, const Directory&) = default;
};

/// Returns nothing if it cannot be examined.
std::optional<Directory> DirectoryAt(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return Directory{status.st_dev, status.st_ino};
}

void RequireRootDirectory(const Directory& home) {
  const std::optional<Directory> root = DirectoryAt("/");
  if (!root) throw AccountError("the root directory cannot be examined");
  if (*root != home) {
    throw AccountError("the root directory is not the account's home folder");
  }
}

/// Walks up from the current directory to the home. This also proves that a
/// confined process keeps no directory outside: from there no path up leads to
/// the home.
void RequireInside(const Directory& home) {
  std::string path = ".";
  std::optional<Directory> here = DirectoryAt(path);
  for (std::optional<Directory> below; here && *here != home;) {
    below = std::exchange(here, DirectoryAt(path += "/.."));
    // Only the root is its own parent.
    if (here == below) {
      throw AccountError("the current directory is not in the home folder");
    }
  }
  if (!here) throw AccountError("the current directory cannot be examined");
}

// Before the switch.

/// Returns the account, unless a process must not become it.
Account RequireAccount(const std::string& user) {
  if (user.empty()) throw AccountError("the user name is empty");
  const char* const unknown = "there is no account of this name";
  // The C library would cut the name at a zero byte.
  if (user.find('\0') != std::string::npos) throw AccountError(unknown);
  Account account{};
  try {
    account = FindAccount(user);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::runtime_error&) {
    throw AccountError(unknown);
  }
  if (account.uid == 0) throw AccountError("the account's user id is 0");
  if (account.gid == 0) throw AccountError("the account's group id is 0");
  if (!account.home.starts_with('/')) {
    throw AccountError("the account's home folder is no absolute path");
  }
  return account;
}

Groups RequireGroups(const Account& account) {
  Groups groups = GroupsOf(account);
  SortWithoutRepetition(groups);
  if (groups.front() == 0) {
    throw AccountError("the account is in the group with id 0");
  }
  return groups;
}

Directory RequireHome(const Account& account) {
  // The path ends in "/." so that an automounted home is mounted now.
  const std::optional<Directory> home = DirectoryAt(account.home + "/.");
  if (!home) throw AccountError("the account's home folder cannot be entered");
  return *home;
}

Identity RequireIdentity(SupplementaryGroups& groups) {
  const std::optional<Ids> users = UserIds();
  if (!users) throw AccountError("the user ids cannot be read");
  const std::optional<Ids> group_ids = GroupIds();
  if (!group_ids) throw AccountError("the group ids cannot be read");
  if (!groups.Read()) {
    throw AccountError("the supplementary groups cannot be read");
  }
  return {*users, *group_ids, groups.Copy()};
}

/// Returns the directory to pass to Cgi::Su(). A confined one is absolute, from
/// the new root, because the current directory is then still outside.
std::string DirectoryOf(const AccountOptions& options) {
  return options.confined ? "/" + options.directory : options.directory;
}

/// Ignores the result of a call whose effect is checked later.
void Unchecked(int /*result*/) {}

}  // namespace

/// One switch, its proof, and the clean-up if either fails. The memory that the
/// clean-up needs is allocated before the switch.
class AccountSwitch {
 public:
  /// Changes nothing.
  AccountSwitch(Cgi& cgi, const std::string& user,
                const AccountOptions& options)
      : cgi_(cgi),
        options_(options),
        user_(user),
        directory_(DirectoryOf(options)),
        account_(RequireAccount(user)),
        groups_(RequireGroups(account_)),
        home_(RequireHome(account_)),
        before_(RequireIdentity(supplementary_)) {
    for (const auto& [client_name, file] : cgi.data_->files) {
      spooled_.push_back({client_name, file.path});
    }
  }

  void Make() {
    try {
      Switch();
      Prove();
    } catch (...) {
      RemoveUploads();
      GiveUpRights();
      throw;
    }
  }

 private:
  /// An upload and its path before the switch.
  struct Spooled {
    std::string client_name;
    std::string path;
  };

  void Switch() {
    try {
      cgi_.Su(user_, directory_, options_.confined, options_.pam_session);
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception& error) {
      throw AccountError(error.what());
    }
  }

  void Prove() {
    RequireIdsOf(account_);
    if (!supplementary_.Read()) {
      throw AccountError("the supplementary groups cannot be read");
    }
    if (!supplementary_.Are(groups_)) {
      throw AccountError("the supplementary groups are not the account's");
    }
    RequireNoCapability();
    RequireNoWayBack();
    if (options_.confined) RequireRootDirectory(home_);
    RequireInside(home_);
  }

  void RemoveUploads() noexcept {
    for (const Spooled& spooled : spooled_) {
      const auto found = cgi_.data_->files.find(spooled.client_name);
      if (found == cgi_.data_->files.end()) continue;
      std::string& path = found->second.path;
      const bool was_moved = path != spooled.path;
      const bool is_gone = was_moved && options_.confined && !IsConfined()
                               ? RemoveFromHome(path)
                               : Remove(AT_FDCWD, path.c_str());
      // An upload that is gone needs no path. One that remains stays recorded,
      // so that the end of the request warns of it.
      if (is_gone) path.clear();
    }
  }

  bool IsConfined() const noexcept {
    struct stat root {};
    return ::stat("/", &root) == 0 && root.st_dev == home_.device &&
           root.st_ino == home_.inode;
  }

  /// Removes an upload whose recorded path already assumes the new root,
  /// although the root directory has not changed.
  bool RemoveFromHome(const std::string& path) const noexcept {
    const int home =
        ::open(account_.home.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC, 0);
    if (home < 0) return false;
    const bool is_gone = Remove(home, path.c_str() + path.rfind('/') + 1);
    ::close(home);
    return is_gone;
  }

  static bool Remove(int directory, const char* path) noexcept {
    return ::unlinkat(directory, path, 0) == 0 || errno == ENOENT;
  }

  /// Ends the process unless it can give up all its rights.
  void GiveUpRights() noexcept {
    // Dropping a real or saved id of root requires root as the effective id.
    Unchecked(::seteuid(0));
    Unchecked(::setgroups(0, nullptr));
    Unchecked(::setresgid(kNobody, kNobody, kNobody));
    Unchecked(::setresuid(kNobody, kNobody, kNobody));
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    Unchecked(::capset(&header, none));
    if (!HasNoRights()) std::abort();
  }

  /// Whether the process is nobody, the account, or the ordinary user that
  /// started it, and can change to nothing else.
  bool HasNoRights() noexcept {
    const std::optional<Ids> users = UserIds();
    const std::optional<Ids> groups = GroupIds();
    if (!users || !groups || !supplementary_.Read()) return false;
    if (users->HoldRoot() || groups->HoldRoot() || supplementary_.HoldRoot()) {
      return false;
    }
    return (IsNobody(*users, *groups) || IsAccount(*users, *groups) ||
            IsAsBefore(*users, *groups)) &&
           HasNoCapability() && WayBack() == nullptr;
  }

  bool IsNobody(const Ids& users, const Ids& groups) const {
    return users.AreAll(kNobody) && groups.AreAll(kNobody) &&
           supplementary_.Are({});
  }

  bool IsAccount(const Ids& users, const Ids& groups) const {
    return users.AreAll(account_.uid) && groups.AreAll(account_.gid) &&
           supplementary_.AreAmong(groups_);
  }

  bool IsAsBefore(const Ids& users, const Ids& groups) const {
    return users == before_.users && groups == before_.groups &&
           supplementary_.AreAmong(before_.supplementary);
  }

  Cgi& cgi_;
  const AccountOptions& options_;
  const std::string& user_;
  const std::string directory_;
  SupplementaryGroups supplementary_;  ///< As last read.
  const Account account_;
  const Groups groups_;
  const Directory home_;
  const Identity before_;
  std::vector<Spooled> spooled_;
};

void BecomeAccount(Cgi& cgi, const std::string& user,
                   const AccountOptions& options) {
  AccountSwitch(cgi, user, options).Make();
}

}  // namespace zan_cgi
