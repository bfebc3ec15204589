// Preloaded into a front end, makes the call that FAILING_CALL names fail as it
// does when the system is short of something.
#include <dlfcn.h>
#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool Fails(const char* call) {
  const char* const failing = std::getenv("FAILING_CALL");
  if (failing == nullptr || std::strcmp(failing, call) != 0) return false;
  errno = EAGAIN;
  return true;
}

template <class Function>
Function* Next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int setuid(uid_t user) noexcept {
  return Fails("setuid") ? -1 : Next<int(uid_t)>("setuid")(user);
}

extern "C" int setgid(gid_t group) noexcept {
  return Fails("setgid") ? -1 : Next<int(gid_t)>("setgid")(group);
}

extern "C" int initgroups(const char* user, gid_t group) {
  return Fails("initgroups")
             ? -1
             : Next<int(const char*, gid_t)>("initgroups")(user, group);
}
