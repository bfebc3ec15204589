/// @file
/// Processes that cannot outlive their run; not installed.
#ifndef ZANCGI_TESTING_SUPERVISION_H
#define ZANCGI_TESTING_SUPERVISION_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace zan_cgi::testing {

class Backend;
class Input;

/// How a process has ended.
struct ExitResult {
  /// Its exit status; 128 and the signal's number after a death by signal.
  int status = 0;
  /// Whether it has been ended because its time was up.
  bool timed_out = false;
  /// Processes that it has started and that went on without it, such as
  /// "1234 sleep"; they have been ended.
  std::vector<std::string> left_processes;
};

/// What a process is run with.
struct RunOptions {
  Backend* backend = nullptr;
  const Input* input = nullptr;
  std::chrono::milliseconds time_limit{};
};

/// Runs this in a process of its own, serves the back end and feeds the input
/// meanwhile, and waits for the end. It must not return.
///
/// Between the two processes there is a third, which sees to it that nothing is
/// left: it becomes the parent of whatever loses its own, and ends all when the
/// time is up or the caller has gone.
ExitResult Supervise(const RunOptions& with,
                     const std::function<void()>& become);

}  // namespace zan_cgi::testing

#endif
