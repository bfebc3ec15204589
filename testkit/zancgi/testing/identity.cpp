#include <zancgi/testing/identity.h>

#include <grp.h>
#include <unistd.h>

#include <stdexcept>

namespace zan_cgi::testing {
namespace {

constexpr uid_t kNobody = 65534;

}  // namespace

bool IsRoot() { return ::geteuid() == 0; }

void BecomeOrdinaryUser() {
  if (!IsRoot()) return;
  if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 ||
      ::setuid(kNobody) != 0) {
    throw std::runtime_error("cannot become an ordinary user");
  }
}

}  // namespace zan_cgi::testing
