// Preloaded into a front end, makes the calls that FAILING_CALLS names, with
// blanks around, fail as they do when the system is short of something. Other
// variables have the switch succeed by half: USER_LEFT and GROUP_LEFT name the
// id that stays ("real", "effective", "saved"), KEEP_CAPABILITIES leaves the
// permitted ones, and with ROOT_FOR_ALL nobody is refused to become root.
#include <dlfcn.h>
#include <grp.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace {

bool Fails(const char* call) {
  const char* const failing = std::getenv("FAILING_CALLS");
  if (failing == nullptr || std::strstr(failing, call) == nullptr) return false;
  errno = EAGAIN;
  return true;
}

/// For setresuid and setresgid, which leave an id of -1 as it is.
struct Ids {
  Ids(const char* variable, id_t id)
      : real(Left(variable, "real") ? kLeft : id),
        effective(Left(variable, "effective") ? kLeft : id),
        saved(Left(variable, "saved") ? kLeft : id) {}

  static bool Left(const char* variable, const char* which) {
    const char* const left = std::getenv(variable);
    return left != nullptr && std::strcmp(left, which) == 0;
  }

  static constexpr id_t kLeft = -1U;
  id_t real;
  id_t effective;
  id_t saved;
};

template <class Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int setuid(uid_t user) noexcept {
  if (std::getenv("KEEP_CAPABILITIES") != nullptr) ::prctl(PR_SET_KEEPCAPS, 1);
  if (user == 0 && std::getenv("ROOT_FOR_ALL") != nullptr) return 0;
  if (std::getenv("USER_LEFT") != nullptr) {
    const Ids ids("USER_LEFT", user);
    return ::setresuid(ids.real, ids.effective, ids.saved);
  }
  return Fails(" setuid ") ? -1 : Next<int(uid_t)>("setuid")(user);
}

extern "C" int setgid(gid_t group) noexcept {
  if (std::getenv("GROUP_LEFT") != nullptr) {
    const Ids ids("GROUP_LEFT", group);
    return ::setresgid(ids.real, ids.effective, ids.saved);
  }
  return Fails(" setgid ") ? -1 : Next<int(gid_t)>("setgid")(group);
}

extern "C" int initgroups(const char* user, gid_t group) {
  return Fails(" initgroups ")
             ? -1
             : Next<int(const char*, gid_t)>("initgroups")(user, group);
}

extern "C" int setgroups(std::size_t count, const gid_t* groups) noexcept {
  return Fails(" setgroups ")
             ? -1
             : Next<int(std::size_t, const gid_t*)>("setgroups")(count, groups);
}
