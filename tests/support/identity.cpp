#include "support/identity.h"

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <stdexcept>

#include "support/scratch.h"

namespace support {
namespace {

constexpr uid_t kNobody = 65534;

}  // namespace

void BecomeOrdinaryUser() {
  if (!IsRoot()) return;
  if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 ||
      ::setuid(kNobody) != 0) {
    throw std::runtime_error("cannot become an ordinary user");
  }
}

void MountPrivately(const std::string& path, const std::string& options,
                    unsigned long flags) {
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("none", path.c_str(), "tmpfs", flags, options.c_str()) != 0) {
    throw std::runtime_error("no private file system");
  }
}

}  // namespace support
