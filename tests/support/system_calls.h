/// @file
/// What the library calls of the system, replaced by a test.
///
/// A program that uses this has system_calls.cpp among its own sources: the
/// functions defined there would otherwise be drawn into every test program.
#ifndef ZANCGI_TESTS_SUPPORT_SYSTEM_CALLS_H
#define ZANCGI_TESTS_SUPPORT_SYSTEM_CALLS_H

#include <poll.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include <cstddef>
#include <functional>

namespace support {

/// One function for each call; an empty one leaves the call as it is.
struct SystemCalls {
  /// poll(2) whose first entry is standard input.
  std::function<int(pollfd* entries, nfds_t count, int milliseconds)> poll =
      nullptr;
  /// read(2) from standard input.
  std::function<ssize_t(void* buffer, std::size_t size)> read = nullptr;
  /// statfs64(2) of any path.
  std::function<int(const char* path, struct statfs64* found)> statfs = nullptr;
  /// mkostemp(3) of any template.
  std::function<int(char* name, int flags)> mkostemp = nullptr;
  /// tov_proc::Sleep.
  std::function<void(unsigned milliseconds)> sleep = nullptr;
};

/// Puts these in place of the real ones, in this process; call it in a child
/// only. Of several calls the last counts.
void Replace(SystemCalls calls);

int RealPoll(pollfd* entries, nfds_t count, int milliseconds);
ssize_t RealRead(int descriptor, void* buffer, std::size_t size);
int RealMkostemp(char* name, int flags);

}  // namespace support

#endif
