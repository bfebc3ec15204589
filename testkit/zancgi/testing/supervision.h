/// @file
/// Runs processes that cannot outlive their run; not installed.
#ifndef ZANCGI_TESTING_SUPERVISION_H
#define ZANCGI_TESTING_SUPERVISION_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace zan_cgi::testing {

class Backend;
class Input;

/// The end of a process.
struct ExitResult {
  /// Its exit status; 128 and the signal's number after a death by signal.
  int status = 0;
  /// Whether it was killed at its time limit.
  bool timed_out = false;
  /// Processes that it started and that continued after its end, such as "1234
  /// sleep"; they have been killed.
  std::vector<std::string> left_processes;
};

/// The settings for running a process.
struct RunOptions {
  Backend* backend = nullptr;
  const Input* input = nullptr;
  std::chrono::milliseconds time_limit{};
};

/// Runs a function in a process of its own, which must not return, and waits
/// for its end. Meanwhile serves the back end and feeds the input.
///
/// A third process between the two ensures that no process remains: it becomes
/// the parent of orphans, and kills all at the time limit or when the caller
/// has gone.
ExitResult Supervise(const RunOptions& with,
                     const std::function<void()>& become);

}  // namespace zan_cgi::testing

#endif
