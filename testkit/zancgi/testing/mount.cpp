#include <sched.h>
#include <sys/mount.h>

#include <stdexcept>

#include "mount.h"

namespace zan_cgi::testing {

void MountPrivately(const std::string& path, const std::string& options,
                    unsigned long flags) {
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("none", path.c_str(), "tmpfs", flags, options.c_str()) != 0) {
    throw std::runtime_error("no private file system");
  }
}

}  // namespace zan_cgi::testing
