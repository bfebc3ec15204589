#include "support/switch_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <netdb.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <stdarg.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <zancgi/testing/child.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <stdexcept>
#include <utility>

namespace support {
namespace {

using zan_cgi::testing::Mark;

/// Null while nothing is recorded: some of these calls happen before any
/// constructor of this program has run.
constinit Answers* recorded = nullptr;

int calls = 0;

/// Takes the next number of those for a call; none when there is none.
std::optional<int> Next(std::map<std::string, std::vector<int>>& numbers,
                        const std::string& call) {
  const auto found = numbers.find(call);
  if (found == numbers.end() || found->second.empty()) return std::nullopt;
  const int number = found->second.front();
  found->second.erase(found->second.begin());
  return number;
}

/// Calls the function that a program without this file would call.
template <class Result, class... Arguments>
Result CallReal(const char* function, Arguments... arguments) {
  using Function = Result (*)(Arguments...);
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, function))(arguments...);
}

template <class Result, class... Arguments>
Result CallRealPam(const char* function, Arguments... arguments) {
  using Function = Result (*)(Arguments...);
  void* const library = ::dlopen("libpam.so.0", RTLD_NOW);
  return reinterpret_cast<Function>(::dlsym(library, function))(arguments...);
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
  if (++calls == recorded->failing_call) return EPERM;
  return Next(recorded->failures, call).value_or(0);
}

int Fail(int error) {
  errno = error;
  return -1;
}

/// For a call that anybody may make.
template <class Call>
int Recorded(const std::string& line, const Call& real) {
  if (recorded == nullptr) return real();
  const int failure = Enter(line);
  if (failure != 0) return Fail(failure);
  const std::optional<int> result = Next(recorded->results, line);
  return result ? *result : Make(real);
}

void Alter(const std::string& call, void* answer) {
  if (recorded == nullptr) return;
  const auto alteration = recorded->alterations.find(call);
  if (alteration != recorded->alterations.end()) alteration->second(answer);
}

/// The same, made by this function.
template <class... Arguments>
int Passed(const std::string& line, const char* function,
           Arguments... arguments) {
  return Recorded(line, [&] { return CallReal<int>(function, arguments...); });
}

std::string Blank(const std::string& argument) { return " " + argument; }
std::string Blank(unsigned long argument) {
  return " " + std::to_string(argument);
}

/// For a call that only root may make.
template <class... Arguments>
int PrivilegedAs(const std::string& line, const char* function,
                 Arguments... arguments) {
  const bool pretend = recorded != nullptr && recorded->pretend;
  return Recorded(line, [&] {
    return pretend ? 0 : CallReal<int>(function, arguments...);
  });
}

/// The same, recorded with its arguments.
template <class... Arguments>
int Privileged(const std::string& function, Arguments... arguments) {
  return PrivilegedAs((function + ... + Blank(arguments)), function.c_str(),
                      arguments...);
}

/// For a function of PAM that gives a code.
template <class... Arguments>
int PamCall(const std::string& function, const std::string& recorded_as,
            Arguments... arguments) {
  const auto real = [&] {
    return CallRealPam<int>(function.c_str(), arguments...);
  };
  if (recorded == nullptr) return real();
  const int failure = Enter(function + recorded_as);
  if (failure != 0) return failure;
  return recorded->pretend ? PAM_SUCCESS : Make(real);
}

std::string Joined(const gid_t* groups, std::size_t count) {
  std::vector<gid_t> sorted(groups, groups + count);
  std::sort(sorted.begin(), sorted.end());
  std::string text;
  for (const gid_t group : sorted) text += Blank(group);
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

int PretendedGroups(const std::vector<gid_t>& others, gid_t base, gid_t* groups,
                    int* count) {
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
  return "fchdir inode" + Blank(directory.st_ino);
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

}  // namespace

Recording::Recording(Answers answers) : answers_(std::move(answers)) {
  recorded = &answers_;
  calls = 0;
}

Recording::~Recording() { recorded = nullptr; }

std::string FchdirTo(const std::string& path) {
  struct stat directory {};
  if (::stat(path.c_str(), &directory) != 0) {
    throw std::runtime_error("cannot find " + path);
  }
  return FchdirToInode(directory);
}

extern "C" passwd* getpwnam(const char* name) {
  const auto real = [&] { return CallReal<passwd*>("getpwnam", name); };
  if (recorded == nullptr) return real();
  if (Enter("getpwnam" + Blank(name)) != 0) return nullptr;
  return recorded->pretend ? PretendedEntry(name) : Make(real);
}

extern "C" hostent* gethostbyname(const char* name) {
  const auto real = [&] { return CallReal<hostent*>("gethostbyname", name); };
  if (recorded == nullptr) return real();
  Enter("gethostbyname" + Blank(name));
  return recorded->pretend ? nullptr : Make(real);
}

extern "C" int getgrouplist(const char* user, gid_t group, gid_t* groups,
                            int* ngroups) {
  const bool pretend = recorded != nullptr && recorded->pretend;
  const Answers* const answers = recorded;
  return Recorded("getgrouplist" + Blank(user) + Blank(group), [&] {
    return pretend
               ? PretendedGroups(answers->groups, group, groups, ngroups)
               : CallReal<int>("getgrouplist", user, group, groups, ngroups);
  });
}

extern "C" int chroot(const char* path) noexcept {
  return Privileged("chroot", path);
}

extern "C" int chdir(const char* path) noexcept {
  return Passed("chdir" + Blank(path), "chdir", path);
}

extern "C" int fchdir(int fd) noexcept {
  return Passed(FchdirOf(fd), "fchdir", fd);
}

// Under a name of its own, since its own is the C library's alone.
extern "C" int RecordedConfigureLookup(
    const char* database,
    const char* services) __asm__("__nss_configure_lookup");

extern "C" int RecordedConfigureLookup(const char* database,
                                       const char* services) {
  return Privileged("__nss_configure_lookup", database, services);
}

extern "C" int initgroups(const char* user, gid_t group) {
  return Privileged("initgroups", user, group);
}

extern "C" int setgroups(std::size_t n, const gid_t* groups) noexcept {
  return PrivilegedAs("setgroups" + Joined(groups, n), "setgroups", n, groups);
}

extern "C" int setgid(gid_t gid) noexcept { return Privileged("setgid", gid); }

extern "C" int setuid(uid_t uid) noexcept { return Privileged("setuid", uid); }

extern "C" int seteuid(uid_t uid) noexcept {
  return Privileged("seteuid", uid);
}

extern "C" int setresuid(uid_t ruid, uid_t euid, uid_t suid) noexcept {
  return Privileged("setresuid", ruid, euid, suid);
}

extern "C" int setresgid(gid_t rgid, gid_t egid, gid_t sgid) noexcept {
  return Privileged("setresgid", rgid, egid, sgid);
}

extern "C" int getresuid(uid_t* ruid, uid_t* euid, uid_t* suid) noexcept {
  return Passed("getresuid", "getresuid", ruid, euid, suid);
}

extern "C" int getresgid(gid_t* rgid, gid_t* egid, gid_t* sgid) noexcept {
  return Passed("getresgid", "getresgid", rgid, egid, sgid);
}

extern "C" int getgroups(int size, gid_t* list) noexcept {
  return Passed("getgroups", "getgroups", size, list);
}

extern "C" int capget(cap_user_header_t header, cap_user_data_t data) noexcept {
  const int result = Passed("capget", "capget", header, data);
  Alter("capget", data);
  return result;
}

extern "C" int capset(cap_user_header_t header,
                      const cap_user_data_t data) noexcept {
  return Passed("capset", "capset", header, data);
}

extern "C" int prctl(int option, ...) noexcept {
  unsigned long arguments[4];
  va_list given;
  va_start(given, option);
  for (unsigned long& argument : arguments) {
    argument = va_arg(given, unsigned long);
  }
  va_end(given);
  const auto real = [&] {
    return CallReal<int>("prctl", option, arguments[0], arguments[1],
                         arguments[2], arguments[3]);
  };
  if (option != PR_CAP_AMBIENT) return real();
  return Recorded("prctl ambient" + Blank(arguments[1]), real);
}

extern "C" int unlinkat(int fd, const char* name, int flag) noexcept {
  return Passed("unlinkat", "unlinkat", fd, name, flag);
}

extern "C" int stat(const char* file, struct stat* buf) noexcept {
  return Passed("stat" + Blank(file), "stat", file, buf);
}

extern "C" int statfs64(const char* file, struct statfs64* buf) noexcept {
  // Not to be found while the call is made.
  const Answers* const answers = recorded;
  return Recorded("statfs" + Blank(file), [&] {
    const int result = CallReal<int>("statfs64", file, buf);
    if (answers == nullptr) return result;
    if (answers->file_system != 0) buf->f_type = answers->file_system;
    if (answers->free_blocks >= 0) {
      SetFreeBlocks(answers->free_blocks, buf);
    }
    return result;
  });
}

extern "C" int pam_start(const char* service_name, const char* user,
                         const pam_conv* pam_conversation,
                         pam_handle_t** pamh) {
  static char meaningless;
  const int result = PamCall(
      "pam_start",
      Blank(service_name) + Blank(user) + Blank(Conversation(pam_conversation)),
      service_name, user, pam_conversation, pamh);
  if (recorded == nullptr) return result;
  // A start that fails may leave anything here.
  if (recorded->pretend) *pamh = reinterpret_cast<pam_handle_t*>(&meaningless);
  if (result == PAM_SUCCESS) session = *pamh;
  return result;
}

extern "C" int pam_open_session(pam_handle_t* pamh, int flags) {
  return PamCall("pam_open_session", Blank(Session(pamh)) + Blank(Flags(flags)),
                 pamh, flags);
}

extern "C" int pam_close_session(pam_handle_t* pamh, int flags) {
  return PamCall("pam_close_session",
                 Blank(Session(pamh)) + Blank(Flags(flags)), pamh, flags);
}

extern "C" int pam_end(pam_handle_t* pamh, int pam_status) {
  return PamCall("pam_end",
                 Blank(Session(pamh)) + Blank(std::to_string(pam_status)), pamh,
                 pam_status);
}

extern "C" const char* pam_strerror(pam_handle_t* pamh, int errnum) {
  const auto real = [&] {
    return CallRealPam<const char*>("pam_strerror", pamh, errnum);
  };
  if (recorded == nullptr) return real();
  Enter("pam_strerror" + Blank(Session(pamh)) + Blank(std::to_string(errnum)));
  return recorded->pretend ? "what it means" : Make(real);
}

}  // namespace support
