#include "response_output.h"

#include <poll.h>
#include <signal.h>
#include <sys/sendfile.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "byte_range.h"

namespace zan_cgi {
namespace {

[[noreturn]] void ThrowWriteError() {
  throw std::runtime_error(std::string("cannot write the answer: ") +
                           std::strerror(errno));
}

[[noreturn]] void ThrowTooShort() {
  throw std::runtime_error("the file has become shorter while it was sent");
}

bool CannotSendFile(int error) {
  return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

}  // namespace

TerminationBlock::TerminationBlock() {
  sigset_t termination;
  ::sigemptyset(&termination);
  ::sigaddset(&termination, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &termination, nullptr);
}

ResponseOutput::ResponseOutput() {
  // No retry, because stdio drops its text when a write fails.
  if (std::fflush(stdout) != 0 && !HasReaderGone()) ThrowWriteError();
}

void ResponseOutput::Write(std::string_view head, std::string_view body) {
  while (has_reader_ && !(head.empty() && body.empty())) {
    // iovec has no const pointer; writev(2) only reads.
    const std::array<iovec, 2> pieces = {
        iovec{const_cast<char*>(head.data()), head.size()},
        iovec{const_cast<char*>(body.data()), body.size()}};
    const ssize_t written = ::writev(STDOUT_FILENO, pieces.data(), 2);
    if (written < 0) {
      WaitAfterFailedWrite();
      continue;
    }
    const auto size = static_cast<std::size_t>(written);
    const std::size_t of_head = std::min(size, head.size());
    head.remove_prefix(of_head);
    body.remove_prefix(size - of_head);
  }
}

void ResponseOutput::WriteFile(int file, ByteRange range) {
  // The most bytes that one call transfers.
  constexpr std::int64_t kMost = 0x7ffff000;
  while (has_reader_ && range.size() > 0) {
    const auto size = static_cast<std::size_t>(std::min(range.size(), kMost));
    const ssize_t sent = ::sendfile(STDOUT_FILENO, file, &range.begin, size);
    if (sent == 0) ThrowTooShort();
    if (sent > 0) continue;
    if (CannotSendFile(errno)) {
      Copy(file, range);
    } else {
      WaitAfterFailedWrite();
    }
  }
}

/// Replaces sendfile(2) for outputs that it does not support, such as a file
/// opened with O_APPEND.
void ResponseOutput::Copy(int file, ByteRange& range) {
  std::array<char, 32768> buffer;
  while (has_reader_ && range.size() > 0) {
    const auto size = static_cast<std::size_t>(
        std::min(range.size(), std::int64_t{buffer.size()}));
    const ssize_t got = ::pread(file, buffer.data(), size, range.begin);
    if (got == 0) ThrowTooShort();
    if (got < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error(std::string("cannot read the file: ") +
                               std::strerror(errno));
    }
    Write({buffer.data(), static_cast<std::size_t>(got)}, {});
    range.begin += got;
  }
}

/// Returns when the write can be retried or the reader has gone.
void ResponseOutput::WaitAfterFailedWrite() {
  if (HasReaderGone() || errno == EINTR) return;
  if (errno != EAGAIN) ThrowWriteError();
  WaitUntilWritable();
}

bool ResponseOutput::HasReaderGone() {
  if (errno == EPIPE || errno == ECONNRESET) has_reader_ = false;
  return !has_reader_;
}

void ResponseOutput::WaitUntilWritable() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  if (::poll(&output, 1, -1) < 0 && errno != EINTR) ThrowWriteError();
}

}  // namespace zan_cgi
