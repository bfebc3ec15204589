#include "support/system_calls.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <tov/proc.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <utility>

namespace support {
namespace {

/// Null until a test replaces something: these calls happen before any
/// constructor of this program has run.
constinit const SystemCalls* replaced = nullptr;

}  // namespace

void Replace(SystemCalls calls) {
  const SystemCalls* const before =
      std::exchange(replaced, new SystemCalls(std::move(calls)));
  delete before;
}

int RealPoll(pollfd* entries, nfds_t count, int milliseconds) {
  return static_cast<int>(::syscall(SYS_poll, entries, count, milliseconds));
}

ssize_t RealRead(int descriptor, void* buffer, std::size_t size) {
  return ::syscall(SYS_read, descriptor, buffer, size);
}

int RealMkostemp(char* name, int flags) {
  using Mkostemp = int (*)(char*, int);
  static const auto real =
      reinterpret_cast<Mkostemp>(::dlsym(RTLD_NEXT, "mkostemp"));
  return real(name, flags);
}

// Under names of their own, since their headers declare that poll only writes
// to fds, and that read does not look into buf.
extern "C" int ReplaceablePoll(pollfd* fds, nfds_t nfds,
                               int timeout) __asm__("poll");

extern "C" int ReplaceablePoll(pollfd* fds, nfds_t nfds, int timeout) {
  const bool is_ours = replaced != nullptr && replaced->poll && nfds > 0 &&
                       fds->fd == STDIN_FILENO;
  return is_ours ? replaced->poll(fds, nfds, timeout)
                 : RealPoll(fds, nfds, timeout);
}

extern "C" ssize_t ReplaceableRead(int fd, void* buf,
                                   std::size_t nbytes) __asm__("read");

extern "C" ssize_t ReplaceableRead(int fd, void* buf, std::size_t nbytes) {
  const bool is_ours =
      replaced != nullptr && replaced->read && fd == STDIN_FILENO;
  return is_ours ? replaced->read(buf, nbytes) : RealRead(fd, buf, nbytes);
}

extern "C" int statfs64(const char* file, struct statfs64* buf) {
  if (replaced != nullptr && replaced->statfs) {
    return replaced->statfs(file, buf);
  }
  return static_cast<int>(::syscall(SYS_statfs, file, buf));
}

extern "C" int mkostemp(char* name, int flags) {
  const bool is_ours = replaced != nullptr && replaced->mkostemp;
  return is_ours ? replaced->mkostemp(name, flags) : RealMkostemp(name, flags);
}

}  // namespace support

void tov_proc::Sleep(unsigned milliseconds) {
  const bool is_ours = support::replaced != nullptr && support::replaced->sleep;
  if (is_ours) {
    support::replaced->sleep(milliseconds);
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }
}
