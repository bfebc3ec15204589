#include "support/file_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace support {
namespace {

/// Null until a test watches: calls happen before any constructor of this
/// program has run.
constinit const FileCallWatcher* watcher_in_use = nullptr;
constinit bool is_watching = false;

/// Whether the call is to be made. If not, errno says why.
bool IsLet(const char* name, const char* path) {
  if (watcher_in_use == nullptr || is_watching) return true;
  const int kept = errno;
  is_watching = true;
  const int error = (*watcher_in_use)({name, path});
  is_watching = false;
  errno = error == 0 ? kept : error;
  return error == 0;
}

/// Calls the function of the library that this one hides.
template <class Result, class... Arguments>
Result CallReal(const char* function, Arguments... arguments) {
  using Function = Result (*)(Arguments...);
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, function))(arguments...);
}

/// Makes the call of that name, if let.
template <class Result, class... Arguments>
Result Pass(const char* name, const char* path, Arguments... arguments) {
  return IsLet(name, path) ? CallReal<Result>(name, arguments...) : Result{-1};
}

}  // namespace

void WatchFileCalls(FileCallWatcher watcher) {
  const FileCallWatcher* const before = std::exchange(
      watcher_in_use,
      watcher ? new FileCallWatcher(std::move(watcher)) : nullptr);
  delete before;
}

// Under a name of its own, since it takes the mode like any other argument,
// which comes the same way.
extern "C" int WatchedOpen(const char* file, int oflag,
                           mode_t mode) __asm__("open");

extern "C" int WatchedOpen(const char* file, int oflag, mode_t mode) {
  const bool is_unnamed = (oflag & O_TMPFILE) == O_TMPFILE;
  return IsLet(is_unnamed ? "O_TMPFILE" : "open", file)
             ? CallReal<int>("open", file, oflag, mode)
             : -1;
}

extern "C" int mkostemp(char* name, int flags) {
  return Pass<int>("mkostemp", name, name, flags);
}

extern "C" int mkstemp(char* name) { return Pass<int>("mkstemp", name, name); }

extern "C" int access(const char* name, int type) noexcept {
  return Pass<int>("access", name, name, type);
}

extern "C" int lstat(const char* file, struct stat* buf) noexcept {
  return Pass<int>("lstat", file, file, buf);
}

extern "C" int fstat(int fd, struct stat* buf) noexcept {
  return Pass<int>("fstat", "", fd, buf);
}

// Under names of their own: their headers declare that write does not look into
// buf as text, that read and poll only write to it, and any arguments of fcntl.
extern "C" ssize_t WatchedRead(int fd, void* buf, size_t size) __asm__("read");

extern "C" ssize_t WatchedRead(int fd, void* buf, size_t size) {
  return Pass<ssize_t>("read", "", fd, buf, size);
}

extern "C" ssize_t WatchedWrite(int fd, const void* buf,
                                size_t size) __asm__("write");

extern "C" ssize_t WatchedWrite(int fd, const void* buf, size_t size) {
  return Pass<ssize_t>("write", "", fd, buf, size);
}

/// The descriptor is closed also when the call fails, as the kernel does it.
extern "C" int close(int fd) {
  if (IsLet("close", "")) return CallReal<int>("close", fd);
  const int error = errno;
  CallReal<int>("close", fd);
  errno = error;
  return -1;
}

extern "C" int WatchedPoll(pollfd* fds, nfds_t nfds,
                           int timeout) __asm__("poll");

extern "C" int WatchedPoll(pollfd* fds, nfds_t nfds, int timeout) {
  return Pass<int>("poll", "", fds, nfds, timeout);
}

extern "C" int WatchedFcntl(int fd, int command,
                            long argument) __asm__("fcntl");

extern "C" int WatchedFcntl(int fd, int command, long argument) {
  return Pass<int>("fcntl", "", fd, command, argument);
}

extern "C" int statfs64(const char* file, struct statfs64* buf) {
  return Pass<int>("statfs64", file, file, buf);
}

extern "C" int fsync(int fd) { return Pass<int>("fsync", "", fd); }

extern "C" int fchown(int fd, uid_t owner, gid_t group) noexcept {
  return Pass<int>("fchown", "", fd, owner, group);
}

extern "C" int fchownat(int fd, const char* file, uid_t owner, gid_t group,
                        int flag) noexcept {
  return Pass<int>("fchownat", file, fd, file, owner, group, flag);
}

extern "C" int fchmod(int fd, mode_t mode) noexcept {
  return Pass<int>("fchmod", "", fd, mode);
}

extern "C" int chown(const char* file, uid_t owner, gid_t group) noexcept {
  return Pass<int>("chown", file, file, owner, group);
}

extern "C" int chmod(const char* file, mode_t mode) noexcept {
  return Pass<int>("chmod", file, file, mode);
}

extern "C" int link(const char* from, const char* to) noexcept {
  return Pass<int>("link", from, from, to);
}

extern "C" int linkat(int fromfd, const char* from, int tofd, const char* to,
                      int flags) noexcept {
  return Pass<int>("linkat", from, fromfd, from, tofd, to, flags);
}

extern "C" int unlink(const char* name) noexcept {
  return Pass<int>("unlink", name, name);
}

extern "C" int renameat2(int oldfd, const char* from, int newfd, const char* to,
                         unsigned flags) noexcept {
  return Pass<int>("renameat2", from, oldfd, from, newfd, to, flags);
}

}  // namespace support
