// Preloaded into a front end, has the calls that FAILING_CALLS names, with
// blanks around, fail as they do when the system is short of something.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

int Call(const char* blanks_around, const char* name, id_t id) {
  const char* const failing = std::getenv("FAILING_CALLS");
  if (failing != nullptr && std::strstr(failing, blanks_around) != nullptr) {
    errno = EAGAIN;
    return -1;
  }
  return reinterpret_cast<int (*)(id_t)>(::dlsym(RTLD_NEXT, name))(id);
}

}  // namespace

extern "C" int setuid(uid_t user) noexcept {
  return Call(" setuid ", "setuid", user);
}

extern "C" int setgid(gid_t group) noexcept {
  return Call(" setgid ", "setgid", group);
}
