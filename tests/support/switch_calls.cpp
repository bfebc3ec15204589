#include "support/switch_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace support {
namespace {

using zan_cgi::testing::Mark;

/// Null while nothing is recorded: some of these calls happen before any
/// constructor of this program has run.
constinit Answers* recorded = nullptr;

/// The function that a program without this file would call.
template <class Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

template <class Function>
Function RealPam(const char* name) {
  return reinterpret_cast<Function>(
      ::dlsym(::dlopen("libpam.so.0", RTLD_NOW), name));
}

/// Makes a call for real. What it calls in turn is not recorded: that is the
/// business of the system.
template <class Call>
auto Make(const Call& real) {
  Answers* const answers = std::exchange(recorded, nullptr);
  const auto result = real();
  recorded = answers;
  return result;
}

/// Records a call and lets happen what happens besides. Returns how it fails, 0
/// when it does not.
int Enter(const std::string& call) {
  Mark(call);
  const auto effect = recorded->effects.find(call);
  if (effect != recorded->effects.end()) effect->second();
  const auto failures = recorded->failures.find(call);
  if (failures == recorded->failures.end() || failures->second.empty()) {
    return 0;
  }
  const int failure = failures->second.front();
  failures->second.erase(failures->second.begin());
  return failure;
}

int Fail(int error) {
  errno = error;
  return -1;
}

/// For a call that anybody may make.
template <class Call>
int Recorded(const std::string& name, const Call& real) {
  if (recorded == nullptr) return real();
  const int failure = Enter(name);
  return failure != 0 ? Fail(failure) : Make(real);
}

/// For a call that only root may make.
template <class Call>
int Privileged(const std::string& name, const Call& real) {
  if (recorded == nullptr) return real();
  const bool pretend = recorded->pretend;
  return Recorded(name, [&] { return pretend ? 0 : real(); });
}

/// For a function of PAM that gives a code.
template <class Call>
int PamCall(const std::string& name, const Call& real) {
  if (recorded == nullptr) return real();
  const int failure = Enter(name);
  if (failure != 0) return failure;
  return recorded->pretend ? PAM_SUCCESS : Make(real);
}

std::string Number(unsigned long number) { return std::to_string(number); }

std::string Joined(const gid_t* groups, std::size_t count) {
  std::vector<gid_t> sorted(groups, groups + count);
  std::sort(sorted.begin(), sorted.end());
  std::string text;
  for (const gid_t group : sorted) text += " " + Number(group);
  return text;
}

/// Like the C library's, its answer holds until the next call.
passwd* PretendedEntry(const std::string& user) {
  static Account found;
  static passwd entry{};
  const auto& accounts = recorded->accounts;
  const auto account =
      std::find_if(accounts.begin(), accounts.end(),
                   [&](const Account& each) { return each.name == user; });
  if (account == accounts.end()) return nullptr;
  found = *account;
  entry = {};
  entry.pw_name = found.name.data();
  entry.pw_uid = found.uid;
  entry.pw_gid = found.gid;
  entry.pw_dir = found.home.data();
  return &entry;
}

int PretendedGroups(gid_t base, gid_t* groups, int* count) {
  const std::vector<gid_t>& others = recorded->groups;
  const int capacity =
      std::exchange(*count, static_cast<int>(others.size()) + 1);
  if (capacity < *count) return -1;
  *groups = base;
  std::copy(others.begin(), others.end(), groups + 1);
  return *count;
}

/// Only root may use them.
void SetFreeBlocks(long count, struct statfs64* found) {
  found->f_bsize = 512;
  found->f_bfree = static_cast<fsblkcnt64_t>(count);
  found->f_bavail = 0;
}

std::string FchdirToInode(const struct stat& directory) {
  return "fchdir inode " + Number(directory.st_ino);
}

/// A descriptor that a program started meanwhile would inherit says so.
std::string FchdirOf(int descriptor) {
  struct stat directory {};
  ::fstat(descriptor, &directory);
  const bool inherited = (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0;
  return FchdirToInode(directory) + (inherited ? " inherited" : "");
}

/// The handle of the one session there is; when pretended, an address without a
/// meaning.
pam_handle_t* session = nullptr;

std::string Session(const pam_handle_t* handle) {
  return handle == session ? "session" : "unknown";
}

std::string Flags(int flags) {
  return flags == PAM_SILENT ? "silent" : std::to_string(flags);
}

std::string Conversation(const pam_conv* conversation) {
  const bool ours = conversation->conv == &zan_cgi::myconv;
  const bool without_data = conversation->appdata_ptr == nullptr;
  return std::string(ours ? "myconv" : "unknown") +
         (without_data ? "" : " with data");
}

int StartPam(const char* service, const char* user,
             const pam_conv* conversation, pam_handle_t** handle) {
  static char meaningless;
  const int result =
      PamCall(std::string("pam_start ") + service + " " + user + " " +
                  Conversation(conversation),
              [&] {
                return RealPam<decltype(&pam_start)>("pam_start")(
                    service, user, conversation, handle);
              });
  if (result != PAM_SUCCESS || recorded == nullptr) return result;
  if (recorded->pretend) {
    *handle = reinterpret_cast<pam_handle_t*>(&meaningless);
  }
  session = *handle;
  return result;
}

}  // namespace

Recording::Recording(Answers answers) : answers_(std::move(answers)) {
  recorded = &answers_;
}

Recording::~Recording() { recorded = nullptr; }

std::string FchdirTo(const std::string& path) {
  struct stat directory {};
  if (::stat(path.c_str(), &directory) != 0) {
    throw std::runtime_error("cannot find " + path);
  }
  return FchdirToInode(directory);
}

}  // namespace support

using support::recorded;

// Under names of their own, since their headers declare them with attributes
// and parameter names of their own.
extern "C" {

passwd* RecordedGetpwnam(const char* name) __asm__("getpwnam");
hostent* RecordedGethostbyname(const char* name) __asm__("gethostbyname");
int RecordedGetgrouplist(const char* user, gid_t group, gid_t* groups,
                         int* count) __asm__("getgrouplist");
int RecordedChroot(const char* path) __asm__("chroot");
int RecordedChdir(const char* path) __asm__("chdir");
int RecordedFchdir(int descriptor) __asm__("fchdir");
int RecordedConfigureLookup(const char* database, const char* services) __asm__(
    "__nss_configure_lookup");
int RecordedInitgroups(const char* user, gid_t group) __asm__("initgroups");
int RecordedSetgroups(std::size_t count,
                      const gid_t* groups) __asm__("setgroups");
int RecordedSetgid(gid_t group) __asm__("setgid");
int RecordedSetuid(uid_t user) __asm__("setuid");
int RecordedStat(const char* path, struct stat* found) __asm__("stat");
int RecordedStatfs(const char* path,
                   struct statfs64* found) __asm__("statfs64");
int RecordedFchownat(int folder, const char* path, uid_t user, gid_t group,
                     int flags) __asm__("fchownat");
int RecordedRenameat2(int from_folder, const char* from, int to_folder,
                      const char* to, unsigned flags) __asm__("renameat2");
int RecordedPamStart(const char* service, const char* user,
                     const pam_conv* conversation,
                     pam_handle_t** handle) __asm__("pam_start");
int RecordedPamOpenSession(pam_handle_t* handle,
                           int flags) __asm__("pam_open_session");
int RecordedPamCloseSession(pam_handle_t* handle,
                            int flags) __asm__("pam_close_session");
int RecordedPamEnd(pam_handle_t* handle, int code) __asm__("pam_end");
const char* RecordedPamStrerror(pam_handle_t* handle,
                                int code) __asm__("pam_strerror");

passwd* RecordedGetpwnam(const char* name) {
  const auto real = support::Real<decltype(&getpwnam)>("getpwnam");
  if (recorded == nullptr) return real(name);
  support::Enter(std::string("getpwnam ") + name);
  return recorded->pretend ? support::PretendedEntry(name)
                           : support::Make([&] { return real(name); });
}

hostent* RecordedGethostbyname(const char* name) {
  const auto real = support::Real<decltype(&gethostbyname)>("gethostbyname");
  if (recorded == nullptr) return real(name);
  support::Enter(std::string("gethostbyname ") + name);
  if (recorded->pretend) return nullptr;
  return support::Make([&] { return real(name); });
}

int RecordedGetgrouplist(const char* user, gid_t group, gid_t* groups,
                         int* count) {
  const auto real = support::Real<decltype(&getgrouplist)>("getgrouplist");
  if (recorded == nullptr) return real(user, group, groups, count);
  const int failure = support::Enter(std::string("getgrouplist ") + user + " " +
                                     support::Number(group));
  if (failure != 0) return support::Fail(failure);
  if (recorded->pretend) {
    return support::PretendedGroups(group, groups, count);
  }
  return support::Make([&] { return real(user, group, groups, count); });
}

int RecordedChroot(const char* path) {
  return support::Privileged(std::string("chroot ") + path, [&] {
    return support::Real<decltype(&chroot)>("chroot")(path);
  });
}

int RecordedChdir(const char* path) {
  return support::Recorded(std::string("chdir ") + path, [&] {
    return support::Real<decltype(&chdir)>("chdir")(path);
  });
}

int RecordedFchdir(int descriptor) {
  return support::Recorded(support::FchdirOf(descriptor), [&] {
    return support::Real<decltype(&fchdir)>("fchdir")(descriptor);
  });
}

int RecordedConfigureLookup(const char* database, const char* services) {
  return support::Privileged(
      std::string("__nss_configure_lookup ") + database + " " + services, [&] {
        return support::Real<decltype(&RecordedConfigureLookup)>(
            "__nss_configure_lookup")(database, services);
      });
}

int RecordedInitgroups(const char* user, gid_t group) {
  return support::Privileged(
      std::string("initgroups ") + user + " " + support::Number(group), [&] {
        return support::Real<decltype(&initgroups)>("initgroups")(user, group);
      });
}

int RecordedSetgroups(std::size_t count, const gid_t* groups) {
  return support::Privileged("setgroups" + support::Joined(groups, count), [&] {
    return support::Real<decltype(&setgroups)>("setgroups")(count, groups);
  });
}

int RecordedSetgid(gid_t group) {
  return support::Privileged("setgid " + support::Number(group), [&] {
    return support::Real<decltype(&setgid)>("setgid")(group);
  });
}

int RecordedSetuid(uid_t user) {
  return support::Privileged("setuid " + support::Number(user), [&] {
    return support::Real<decltype(&setuid)>("setuid")(user);
  });
}

int RecordedStatfs(const char* path, struct statfs64* found) {
  // Not to be found while the call is made.
  const support::Answers* const told = recorded;
  return support::Recorded(std::string("statfs ") + path, [&] {
    const int result =
        support::Real<decltype(&RecordedStatfs)>("statfs64")(path, found);
    if (told == nullptr) return result;
    if (told->file_system != 0) found->f_type = told->file_system;
    if (told->free_blocks >= 0) {
      support::SetFreeBlocks(told->free_blocks, found);
    }
    return result;
  });
}

int RecordedStat(const char* path, struct stat* found) {
  return support::Recorded(std::string("stat ") + path, [&] {
    return support::Real<decltype(&RecordedStat)>("stat")(path, found);
  });
}

int RecordedFchownat(int folder, const char* path, uid_t user, gid_t group,
                     int flags) {
  return support::Privileged(
      "fchownat " + support::Number(user) + " " + support::Number(group), [&] {
        return support::Real<decltype(&fchownat)>("fchownat")(
            folder, path, user, group, flags);
      });
}

int RecordedRenameat2(int from_folder, const char* from, int to_folder,
                      const char* to, unsigned flags) {
  const auto folder = [](const char* path) {
    return std::filesystem::path(path).parent_path().string();
  };
  return support::Recorded("renameat2 " + folder(from) + " " + folder(to), [&] {
    return support::Real<decltype(&RecordedRenameat2)>("renameat2")(
        from_folder, from, to_folder, to, flags);
  });
}

int RecordedPamStart(const char* service, const char* user,
                     const pam_conv* conversation, pam_handle_t** handle) {
  return support::StartPam(service, user, conversation, handle);
}

int RecordedPamOpenSession(pam_handle_t* handle, int flags) {
  return support::PamCall(
      "pam_open_session " + support::Session(handle) + " " +
          support::Flags(flags),
      [&] {
        return support::RealPam<decltype(&pam_open_session)>(
            "pam_open_session")(handle, flags);
      });
}

int RecordedPamCloseSession(pam_handle_t* handle, int flags) {
  return support::PamCall(
      "pam_close_session " + support::Session(handle) + " " +
          support::Flags(flags),
      [&] {
        return support::RealPam<decltype(&pam_close_session)>(
            "pam_close_session")(handle, flags);
      });
}

int RecordedPamEnd(pam_handle_t* handle, int code) {
  return support::PamCall(
      "pam_end " + support::Session(handle) + " " + std::to_string(code), [&] {
        return support::RealPam<decltype(&pam_end)>("pam_end")(handle, code);
      });
}

const char* RecordedPamStrerror(pam_handle_t* handle, int code) {
  const auto real = [&] {
    return support::RealPam<decltype(&pam_strerror)>("pam_strerror")(handle,
                                                                     code);
  };
  if (recorded == nullptr) return real();
  support::Enter("pam_strerror " + support::Session(handle) + " " +
                 std::to_string(code));
  return recorded->pretend ? "what it means" : support::Make(real);
}

}  // extern "C"
