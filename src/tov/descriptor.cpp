#include "descriptor.h"

#include <fcntl.h>
#include <string.h>
#include <tov/err.h>
#include <unistd.h>

#include <utility>

namespace tov_internal {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  Descriptor old(std::exchange(descriptor_, other.Release()));
  return *this;
}

Descriptor::~Descriptor() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

int Descriptor::Release() { return std::exchange(descriptor_, -1); }

Descriptor MoveAboveStdio(int fresh) {
  if (fresh < 0 || fresh > STDERR_FILENO) return Descriptor(fresh);
  const Descriptor low(fresh);
  return Descriptor(::fcntl(fresh, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

void ThrowSystemError(const std::string& context, int error) {
  char text[128];
  throw tov_err::Error(context + ": " +
                       ::strerror_r(error, text, sizeof(text)));
}

}  // namespace tov_internal
