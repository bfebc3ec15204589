// Part of zancgi_unix.cpp, with the same name because log lines contain it. The
// account functions are in a file of their own, so that a front end linked from
// archives contains them only if it becomes an account.

#include <zancgi/zancgi.h>

#include <tov/file.h>
#include <tov/log.h>

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <linux/magic.h>
#include <netdb.h>
#include <nss.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "../confinement.h"
#include "../descriptor.h"
#include "../pam_library.h"
#include "../system_account.h"
#include "../unix_log.h"

namespace zan_cgi {
namespace {

tov_log::Module& log = unix_log;

}  // namespace

Account FindAccount(const std::string& user) {
  const passwd* const entry = ::getpwnam(user.c_str());
  if (entry == nullptr) throw std::runtime_error("failed to get pw entry");
  // Copied at once, because later look-ups, also by PAM modules, overwrite the
  // C library's only record.
  return {entry->pw_name, entry->pw_uid, entry->pw_gid, entry->pw_dir};
}

// Handing over uploads.

namespace {

/// Both "/" and "\" separate, because a stored path may come from any system.
std::string FileName(const std::string& path) {
  return path.substr(path.find_last_of("/\\") + 1);
}

}  // namespace

void Cgi::Data::DoChownFiles(const std::string& user,
                             const std::string& /*dir*/, bool use_chroot) {
  const Account account = FindAccount(user);
  if (account.uid == 0) return;
  const tov_file::Attrs attributes(0644, account.uid, account.gid);
  for (auto& [client_name, file] : files) {
    const std::string name = FileName(file.path);
    const std::string destination = tov_file::ConcatPath(account.home, name);
    std::string recorded = use_chroot ? "/" + name : destination;
    // The owner changes first. From then on the account controls the file, and
    // Move() protects against an exchange of it.
    attributes.SafeSet(file.path, false);
    ZANCGI_LOG_HERE(kDebug, "moving file '%s' stored as '%s' to '%s'",
                    client_name.c_str(), file.path.c_str(),
                    destination.c_str());
    tov_file::Move(file.path, destination);
    file.path = std::move(recorded);
  }
}

// Becoming the account.

namespace {

/// Ignores the result. Kept for compatibility: a process without the rights to
/// switch continues as the user that it was.
void Unchecked(int /*result*/) {}

void EnterDirectory(const std::string& path) {
  if (::chdir(path.c_str()) != 0) {
    throw std::runtime_error("no such directory '" + path + "'");
  }
}

void BecomeRoot(const Account& root, const std::string& dir) {
  Unchecked(::setgid(0));
  Unchecked(::setuid(0));
  EnterDirectory(dir.empty() ? root.home : dir);
}

[[noreturn]] void ThrowHomeClosed() {
  // The text says chroot in both cases, because administrators know it.
  throw std::runtime_error("failed to chroot to users home folder");
}

/// The base group of an account is its user id, not its group id. Kept for
/// compatibility. Both are equal where each user has a group of the same
/// number.
gid_t UidAsGid(const Account& account) { return account.uid; }

}  // namespace

std::vector<gid_t> GroupsOf(const Account& account) {
  std::vector<gid_t> groups(16);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(account.name.c_str(), UidAsGid(account), groups.data(),
                        &count) < 0) {
    const auto wanted = static_cast<std::size_t>(count);
    // Without memory, getgrouplist(3) also fails but does not raise the count.
    if (wanted <= groups.size()) throw std::bad_alloc();
    groups.resize(wanted);
  }
  // The kernel accepts no more.
  groups.resize(static_cast<std::size_t>(std::min<int>(count, NGROUPS_MAX)));
  return groups;
}

namespace {

/// Whether only root controls the contents of the root directory, such as the
/// PAM configuration, PAM modules and sockets.
bool RootDirectoryIsRoots() {
  struct stat status {};
  struct statfs64 file_system {};
  return ::stat("/", &status) == 0 && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
         // A FUSE program of the account could report any owner and mode.
         ::statfs64("/", &file_system) == 0 &&
         file_system.f_type != FUSE_SUPER_MAGIC;
}

struct Free {
  void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, Free>;

/// Returns the home's path as it will be after the switch. Allocated before
/// anything changes, because an allocation may fail later.
CText CopyOfHome(const Account& account, bool use_chroot) {
  CText home(::strdup(use_chroot ? "/" : account.home.c_str()));
  if (!home) throw std::bad_alloc();
  return home;
}

/// Records the home, unless the process lacked the rights to switch.
void RememberHome(const Account& account, CText home) {
  if (::geteuid() != account.uid || *home != '/') return;
  SetAccountHome(home.release());
}

void Confine(const std::string& home) {
  // The resolver is loaded before chroot, while /etc and its libraries are
  // still the system's.
  ::gethostbyname("localhost");
  ZANCGI_LOG(kTrace, "%s Init resolver", "ChRoot");
  if (::chroot(home.c_str()) != 0) ThrowHomeClosed();
  if (!RootDirectoryIsRoots()) SetInsideAccountsFolder();
  // From here on root may read files of the account. A name service
  // configuration in the home could name a module in the home, which would then
  // run as root. So groups come from files, and no configuration is read.
  for (const char* const database : {"group", "initgroups"}) {
    // Fails only without memory.
    if (::__nss_configure_lookup(database, "files") != 0) {
      throw std::bad_alloc();
    }
  }
}

/// Returns whether the process now has the account's groups.
bool InitGroups(const Account& account) {
  return ::initgroups(account.name.c_str(), UidAsGid(account)) == 0;
}

/// Sets these groups, or none if that fails: no groups are better than those of
/// root, or those that a file in the home grants.
void SetGroupsOrNone(const std::vector<gid_t>& groups) {
  if (::setgroups(groups.size(), groups.data()) != 0) {
    ::setgroups(0, nullptr);
  }
}

/// Returns the account's groups; none if memory runs out.
std::vector<gid_t> GroupsOrNone(const Account& account) {
  try {
    return GroupsOf(account);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

/// Confines the process to the account's home and takes the account's groups.
///
/// After chroot, initgroups(3) reads the group file in the home. Without one,
/// the account would lose its groups; with one of its own, it could give itself
/// any group, root's included. So the list is read before and set after.
void ConfineWithGroups(const Account& account) {
  const std::vector<gid_t> groups = GroupsOf(account);
  Confine(account.home);
  InitGroups(account);
  SetGroupsOrNone(groups);
}

void EnterHomeWithGroups(const Account& account) {
  if (::chdir(account.home.c_str()) != 0) ThrowHomeClosed();
  // A failure is not an error, but the process must not keep root's groups.
  if (!InitGroups(account)) SetGroupsOrNone(GroupsOrNone(account));
}

/// Restores the current directory when it is destroyed: PAM modules may change
/// it, and the code after them depends on it.
class ScopedCwd {
 public:
  /// @param path  path of the directory, for use if a module closes all
  ///   descriptors; empty if there is none
  explicit ScopedCwd(std::string path)
      : path_(std::move(path)),
        descriptor_(
            MoveAboveStdio(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC))),
        is_open_(::fstat(descriptor_, &directory_) == 0) {}
  ~ScopedCwd() {
    if (IsStillOpen()) {
      Unchecked(::fchdir(descriptor_));
      ::close(descriptor_);
    } else if (!path_.empty()) {
      Unchecked(::chdir(path_.c_str()));
    }
  }
  ScopedCwd(const ScopedCwd&) = delete;
  ScopedCwd& operator=(const ScopedCwd&) = delete;

 private:
  /// A module may even have opened another file with the same descriptor.
  bool IsStillOpen() const {
    struct stat now {};
    return is_open_ && ::fstat(descriptor_, &now) == 0 &&
           now.st_dev == directory_.st_dev && now.st_ino == directory_.st_ino;
  }

  std::string path_;
  struct stat directory_ {};
  int descriptor_;
  bool is_open_;
};

using PamStep = int (*)(pam_handle_t*, int);

int RunSessionStep(const PamLibrary& pam, pam_handle_t* handle,
                   const char* name, PamStep step) {
  const int code = step(handle, PAM_SILENT);
  if (code == PAM_SUCCESS) {
    ZANCGI_LOG_HERE(kDebug, "PAM %s - ok", name);
  } else {
    ZANCGI_LOG(kWarning, "PAM error %d (%s) on %s", code,
               pam.strerror(handle, code), name);
  }
  return code;
}

/// Opens the session and closes it again while the process is still root: no
/// session stays open for the request. Returns the status to pass to
/// pam_end(3).
int OpenAndCloseSession(const PamLibrary& pam, pam_handle_t* handle) {
  const int code =
      RunSessionStep(pam, handle, "open_session", pam.open_session);
  return code == PAM_SUCCESS
             ? RunSessionStep(pam, handle, "close_session", pam.close_session)
             : code;
}

/// Runs the session stack of service "login" once. No failure in it fails the
/// switch.
/// @param trusted  whether PAM may be called at all
void RunPamSession(const PamLibrary& pam, const std::string& user,
                   bool trusted) {
  const pam_conv conversation{&myconv, nullptr};
  ZANCGI_LOG_HERE(kDebug, "starting PAM session for user '%s'", user.c_str());
  pam_handle_t* handle = nullptr;
  if (!trusted || !pam.IsComplete() ||
      pam.start("login", user.c_str(), &conversation, &handle) != PAM_SUCCESS) {
    ZANCGI_LOG(kWarning, "failed to start PAM session");
    return;
  }
  ZANCGI_LOG_HERE(kDebug, "PAM start done");
  pam.end(handle, OpenAndCloseSession(pam, handle));
}

/// Switches to the account's group, runs its PAM session, and switches to its
/// user. After that the process cannot become root again.
/// @param pam   none if no session is wanted
/// @param path  path of the current directory; empty if it cannot be reached
void TakeIdentity(const Account& account, const std::string& user,
                  const std::optional<PamLibrary>& pam,
                  const std::string& path) {
  Unchecked(::setgid(account.gid));
  if (pam) {
    const ScopedCwd cwd(path);
    // An owner who can write to the home could run any PAM module as root
    // there.
    RunPamSession(*pam, user, !IsInsideAccountsFolder());
  }
  Unchecked(::setuid(account.uid));
}

/// A number that no inode has.
constexpr auto kNoInode = static_cast<ino_t>(-1);

/// Returns the inode number of a directory; nothing if it cannot be read.
std::optional<ino_t> InodeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_ino;
}

/// Throws unless the current directory is the home or below it. Walks up from
/// the real directory, so symbolic links and ".." cannot hide a place outside.
///
/// Kept for compatibility: only inode numbers are compared. A directory of
/// another file system with the home's inode number is accepted.
void RequireInsideHome(std::optional<ino_t> home) {
  std::string path = ".";
  std::optional<ino_t> here = InodeOf(path);
  while (here != home) {
    const std::optional<ino_t> below = here;
    path += "/..";
    here = InodeOf(path);
    if (!here) throw std::runtime_error("stat error");
    // Only the root is its own parent.
    if (here == below) throw std::runtime_error("it is not your folder");
  }
}

/// Enters a directory below the current one, which must be the home.
void EnterInsideHome(const std::string& dir) {
  // A home without search permission cannot be examined, neither now nor later
  // if the process stays in it.
  std::optional<ino_t> home = InodeOf(".");
  const std::size_t begin = std::min(dir.find_first_not_of('/'), dir.size());
  if (begin < dir.size()) {
    EnterDirectory(dir.substr(begin));
    if (!home) home = kNoInode;
  }
  RequireInsideHome(home);
}

}  // namespace

int myconv(int num_msg, const pam_message** /*msg*/, pam_response** resp,
           void* appdata_ptr) {
  if (appdata_ptr == nullptr || num_msg <= 0) return PAM_CONV_ERR;
  auto* const answers = static_cast<pam_response*>(
      std::calloc(static_cast<std::size_t>(num_msg), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  for (int i = num_msg - 1; i >= 0; --i) {
    answers[i].resp_retcode = 0;
    // Kept for compatibility: every question gets the same answer, and an
    // answer for which there is no memory is null.
    answers[i].resp = ::strdup(static_cast<const char*>(appdata_ptr));
  }
  *resp = answers;
  return PAM_SUCCESS;
}

void Cgi::Data::DoSu(const std::string& user, const std::string& dir,
                     bool use_chroot, bool use_pam) {
  const Account account = FindAccount(user);
  if (account.uid == 0) {
    BecomeRoot(account, dir);
    return;
  }
  CText home = CopyOfHome(account, use_chroot);
  // Loaded before the account's files are visible: root may only load the
  // system's own library.
  std::optional<PamLibrary> pam;
  if (use_pam) pam = LoadPam();
  if (use_chroot) {
    ConfineWithGroups(account);
    // A confined process cannot return to a directory outside.
    TakeIdentity(account, user, pam, "");
    RememberHome(account, std::move(home));
    EnterDirectory(dir);
  } else {
    EnterHomeWithGroups(account);
    TakeIdentity(account, user, pam, account.home);
    RememberHome(account, std::move(home));
    if (!dir.empty()) EnterInsideHome(dir);
  }
}

void Cgi::Su(const std::string& user, const std::string& dir, bool use_chroot,
             bool use_pam) {
  data_->DoChownFiles(user, dir, use_chroot);
  data_->DoSu(user, dir, use_chroot, use_pam);
}

}  // namespace zan_cgi
