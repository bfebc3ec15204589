// Part of zancgi_unix.cpp, and of this name because log lines carry it. A file
// of its own, so that a front end linked from archives has what looks accounts
// up only if it becomes one.

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
  // Copied at once: later look-ups, those of PAM modules among them, overwrite
  // the C library's only record.
  return {entry->pw_name, entry->pw_uid, entry->pw_gid, entry->pw_dir};
}

// Handing uploads over to an account.

namespace {

/// Both "/" and "\" separate: a stored path may have come from anywhere.
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
    // The owner before the place: the file is the account's from here on, and
    // Move() takes care that the account gains nothing by exchanging it.
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

/// For a call whose failure changes nothing, which is kept for compatibility: a
/// process that may not switch goes on as who it is.
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
  // Says chroot in both cases: administrators know this text.
  throw std::runtime_error("failed to chroot to users home folder");
}

/// The base group of an account is the number of its user, not of its group:
/// kept for compatibility. They are equal where each user has a group.
gid_t UidAsGid(const Account& account) { return account.uid; }

}  // namespace

std::vector<gid_t> GroupsOf(const Account& account) {
  std::vector<gid_t> groups(16);
  int count = static_cast<int>(groups.size());
  while (::getgrouplist(account.name.c_str(), UidAsGid(account), groups.data(),
                        &count) < 0) {
    const auto wanted = static_cast<std::size_t>(count);
    // It also fails for want of memory, and then wants no more room.
    if (wanted <= groups.size()) throw std::bad_alloc();
    groups.resize(wanted);
  }
  // The kernel takes no more.
  groups.resize(static_cast<std::size_t>(std::min<int>(count, NGROUPS_MAX)));
  return groups;
}

namespace {

/// Whether only root can say what lies in the root directory: which PAM
/// configuration and modules, and which sockets, are found there.
bool RootDirectoryIsRoots() {
  struct stat status {};
  struct statfs64 file_system {};
  return ::stat("/", &status) == 0 && status.st_uid == 0 &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
         // What a program of the account serves can say anything of itself.
         ::statfs64("/", &file_system) == 0 &&
         file_system.f_type != FUSE_SUPER_MAGIC;
}

struct Free {
  void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, Free>;

/// The home as the process will see it. To be made before anything is changed,
/// since there may be no memory for it later.
CText CopyOfHome(const Account& account, bool use_chroot) {
  CText home(::strdup(use_chroot ? "/" : account.home.c_str()));
  if (!home) throw std::bad_alloc();
  return home;
}

/// Without the right to switch the process is still who it was.
void RememberHome(const Account& account, CText home) {
  if (::geteuid() != account.uid || *home != '/') return;
  SetAccountHome(home.release());
}

void Confine(const std::string& home) {
  // While its configuration and what that names are the system's own.
  ::gethostbyname("localhost");
  ZANCGI_LOG(kTrace, "%s Init resolver", "ChRoot");
  if (::chroot(home.c_str()) != 0) ThrowHomeClosed();
  if (!RootDirectoryIsRoots()) SetInsideAccountsFolder();
  // From here on root reads what the account may have written. A configuration
  // of look-ups in the home could name a module in the home, whose code would
  // then run as root: groups come from files, and no configuration is read.
  for (const char* const database : {"group", "initgroups"}) {
    // Fails for want of memory only.
    if (::__nss_configure_lookup(database, "files") != 0) {
      throw std::bad_alloc();
    }
  }
}

/// Returns whether the account's groups are now those of the process.
bool InitGroups(const Account& account) {
  return ::initgroups(account.name.c_str(), UidAsGid(account)) == 0;
}

/// Sets these groups, failing that none: better none than those of root, or
/// those that the home may have given.
void SetGroupsOrNone(const std::vector<gid_t>& groups) {
  if (::setgroups(groups.size(), groups.data()) != 0) {
    ::setgroups(0, nullptr);
  }
}

/// The account's groups, none when they cannot be had.
std::vector<gid_t> GroupsOrNone(const Account& account) {
  try {
    return GroupsOf(account);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

/// Confines the process to the account's home and takes the account's groups.
///
/// The group file that initgroups(3) then reads is the home's: without one the
/// account would lose its groups, with one that it has written itself it would
/// choose them, root's among them. So the list is made before and set after.
void ConfineWithGroups(const Account& account) {
  const std::vector<gid_t> groups = GroupsOf(account);
  Confine(account.home);
  InitGroups(account);
  SetGroupsOrNone(groups);
}

void EnterHomeWithGroups(const Account& account) {
  if (::chdir(account.home.c_str()) != 0) ThrowHomeClosed();
  // A failure is no error, but the process must not keep root's groups.
  if (!InitGroups(account)) SetGroupsOrNone(GroupsOrNone(account));
}

/// Brings the process back to its current directory when it goes: PAM modules
/// may have moved, and what follows counts on where it is.
class ScopedCwd {
 public:
  /// @param path  that of the directory, should a module have closed all
  /// descriptors;
  ///   empty when there is none
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
  /// A module may even have opened something else under the same number.
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

/// Opens the session and closes it again, while the process is still root: none
/// stays open for the request. Returns what pam_end(3) wants to know.
int OpenAndCloseSession(const PamLibrary& pam, pam_handle_t* handle) {
  const int code =
      RunSessionStep(pam, handle, "open_session", pam.open_session);
  return code == PAM_SUCCESS
             ? RunSessionStep(pam, handle, "close_session", pam.close_session)
             : code;
}

/// Runs the session stack of service "login" once. Nothing of it fails the
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

/// Takes the account's group, runs its session, and takes its user: no way back
/// is left after that.
/// @param pam   none when no session is wanted
/// @param path  that of the current directory; empty when it cannot be reached
void TakeIdentity(const Account& account, const std::string& user,
                  const std::optional<PamLibrary>& pam,
                  const std::string& path) {
  Unchecked(::setgid(account.gid));
  if (pam) {
    const ScopedCwd cwd(path);
    // Who can write the home could have any PAM configuration, and any module
    // that it names, run as root in there.
    RunPamSession(*pam, user, !IsInsideAccountsFolder());
  }
  Unchecked(::setuid(account.uid));
}

/// A number that no inode has.
constexpr auto kNoInode = static_cast<ino_t>(-1);

/// The number of a directory's inode; none when it cannot be had.
std::optional<ino_t> InodeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return status.st_ino;
}

/// Throws unless the current directory is the home or lies below it, by the way
/// up from where the process really is: links and ".." lead nobody out.
///
/// Kept for compatibility: only inode numbers are compared. A directory of
/// another file system that has the number of the home is accepted.
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

/// Enters a directory below the current one, which is the home.
void EnterInsideHome(const std::string& dir) {
  // A home that the account may not search cannot be examined, neither now nor
  // later, if the process stays in it.
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
    // Kept for compatibility: every question has the same answer, and a copy
    // that cannot be made is none.
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
  // Before the account's files are in reach: as root only the system's own
  // library may be loaded.
  std::optional<PamLibrary> pam;
  if (use_pam) pam = LoadPam();
  if (use_chroot) {
    ConfineWithGroups(account);
    // A confined process has no way back to a directory outside.
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
