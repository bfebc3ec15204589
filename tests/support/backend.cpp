#include "support/backend.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <system_error>

namespace support {
namespace {

Backend* followed = nullptr;

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

int RealConnect(int socket, const sockaddr* address, socklen_t length) {
  return static_cast<int>(::syscall(SYS_connect, socket, address, length));
}

/// A socket on which nobody listens.
void MakeDeafSocket(const std::string& path) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = AddressOf(path);
  if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0) {
    Fail("bind " + path);
  }
  ::close(descriptor);
}

}  // namespace

Backend::Backend(const std::string& name)
    : zan_cgi::testing::Backend(name), deaf_path_(RunDir() + "/deaf") {
  MakeDeafSocket(deaf_path_);
  void* shared = ::mmap(nullptr, sizeof(*attempts_), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) Fail("mmap");
  attempts_ = new (shared) std::size_t(0);
}

Backend::~Backend() { ::munmap(attempts_, sizeof(*attempts_)); }

std::size_t Backend::Attempts() const { return *attempts_; }

void Backend::BecomeClient() {
  zan_cgi::testing::Backend::BecomeClient();
  followed = this;
}

std::string Backend::TakeAttempt() {
  const std::size_t attempt = (*attempts_)++;
  return RefusesAt(attempt) ? deaf_path_ : SocketPath();
}

}  // namespace support

// Exported, or the shared libraries would not call it.
extern "C" __attribute__((visibility("default"))) int connect(
    int fd, const sockaddr* addr, socklen_t len) {
  using support::followed;
  const auto* local = reinterpret_cast<const sockaddr_un*>(addr);
  if (followed == nullptr || addr->sa_family != AF_UNIX ||
      !followed->Serves(local->sun_path)) {
    return support::RealConnect(fd, addr, len);
  }
  const sockaddr_un target = support::AddressOf(followed->TakeAttempt());
  return support::RealConnect(fd, reinterpret_cast<const sockaddr*>(&target),
                              sizeof(target));
}
