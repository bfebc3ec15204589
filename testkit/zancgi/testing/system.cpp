#include "system.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <system_error>

namespace zan_cgi::testing {

void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

bool WriteAll(int descriptor, const std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t count = RetryInterrupted([&] {
      return ::write(descriptor, bytes.data() + at, bytes.size() - at);
    });
    if (count < 0) return false;
    at += static_cast<std::size_t>(count);
  }
  return true;
}

std::string ContentOf(int descriptor) {
  std::string content;
  char piece[65536];
  off_t at = 0;
  for (;;) {
    const ssize_t count = ::pread(descriptor, piece, sizeof(piece), at);
    if (count <= 0) return content;
    content.append(piece, static_cast<std::size_t>(count));
    at += count;
  }
}

void Descriptor::Close() {
  if (number_ >= 0) ::close(number_);
  number_ = -1;
}

Descriptor Raised(Descriptor descriptor) {
  constexpr int kLowest = 100;
  Descriptor raised(::fcntl(descriptor.Get(), F_DUPFD_CLOEXEC, kLowest));
  if (!raised) Fail("fcntl");
  return raised;
}

Descriptor AnonymousFile(const char* name) {
  Descriptor file(::memfd_create(name, MFD_CLOEXEC));
  if (!file) Fail("memfd_create");
  return Raised(std::move(file));
}

}  // namespace zan_cgi::testing
