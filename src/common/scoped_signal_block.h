/// @file
/// Private: keeps signals that a write can raise from ending the process.
#ifndef COMMON_SCOPED_SIGNAL_BLOCK_H
#define COMMON_SCOPED_SIGNAL_BLOCK_H

#include <signal.h>

#include <ctime>

namespace common {

/// Blocks the signals that a write raises in its own thread when the reader has
/// gone (SIGPIPE) or the file may not grow (SIGXFSZ). The write still fails, so
/// the caller can clean up.
class ScopedSignalBlock {
 public:
  ScopedSignalBlock() {
    ::sigemptyset(&signals_);
    sigset_t pending;
    ::sigpending(&pending);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      // A signal that is already pending belongs to the program and stays.
      if (::sigismember(&pending, signal) == 0) ::sigaddset(&signals_, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
  }
  ~ScopedSignalBlock() {
    const timespec at_once{};
    while (::sigtimedwait(&signals_, nullptr, &at_once) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  ScopedSignalBlock(const ScopedSignalBlock&) = delete;
  ScopedSignalBlock& operator=(const ScopedSignalBlock&) = delete;

 private:
  sigset_t signals_;
  sigset_t before_;
};

}  // namespace common

#endif
