/// @file
/// Signals of this process. For children, whose signals are their own.
#ifndef ZANCGI_TESTS_SUPPORT_SIGNALS_H
#define ZANCGI_TESTS_SUPPORT_SIGNALS_H

#include <signal.h>
#include <sys/time.h>

namespace support {

inline volatile sig_atomic_t signals_counted = 0;

/// Counts this signal from now on, by a handler without SA_RESTART.
inline void CountSignals(int signal) {
  struct sigaction action {};
  action.sa_handler = [](int) { signals_counted = signals_counted + 1; };
  ::sigaction(signal, &action, nullptr);
}

/// How many of them have come.
inline int SignalsCounted() { return signals_counted; }

/// From now on a counted signal comes again and again after this pause.
inline void StartSignalStorm(int microseconds = 2000) {
  CountSignals(SIGALRM);
  const itimerval often{{0, microseconds}, {0, microseconds}};
  ::setitimer(ITIMER_REAL, &often, nullptr);
}

inline void EndSignalStorm() {
  const itimerval never{};
  ::setitimer(ITIMER_REAL, &never, nullptr);
}

inline void Block(int signal) {
  sigset_t set;
  ::sigemptyset(&set);
  ::sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
}

inline bool IsBlocked(int signal) {
  sigset_t now;
  ::sigprocmask(SIG_BLOCK, nullptr, &now);
  return ::sigismember(&now, signal) == 1;
}

inline bool IsPending(int signal) {
  sigset_t pending;
  ::sigpending(&pending);
  return ::sigismember(&pending, signal) == 1;
}

}  // namespace support

#endif
