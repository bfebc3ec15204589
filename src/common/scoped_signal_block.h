/// @file
/// Private: writing without being ended by a signal.
#ifndef COMMON_SCOPED_SIGNAL_BLOCK_H
#define COMMON_SCOPED_SIGNAL_BLOCK_H

#include <signal.h>

#include <ctime>

namespace common {

/// Holds back the signals that a write raises in its own thread when nobody
/// reads any more or the file may not grow. The write's result says the same,
/// and what was begun can be cleared away.
class ScopedSignalBlock {
 public:
  ScopedSignalBlock() {
    ::sigemptyset(&signals_);
    sigset_t pending;
    ::sigpending(&pending);
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
      // One that waits already is the program's own and stays.
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
