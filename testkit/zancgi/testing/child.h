/// @file
/// Runs a piece of a test in a process of its own, started as a web server
/// would start it, and returns the results.
#ifndef ZANCGI_TESTING_CHILD_H
#define ZANCGI_TESTING_CHILD_H

#include <zancgi/testing/input.h>
#include <zancgi/testing/log.h>
#include <zancgi/testing/request.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {

class Backend;

/// The results of a child process.
struct Outcome {
  /// The values that the body reported, by name.
  std::map<std::string, std::string> reported;
  /// Type of the exception that ended the body, such as "tov_err::Missed" or
  /// "std::runtime_error"; empty if there was none.
  std::string error_type;
  /// Its what().
  std::string error;
  /// Log lines in order. Marks of Mark() are included with level -1.
  Log log;
  /// Everything on standard error, log lines included.
  std::string standard_error;
  /// Exit status: 0, or 95 after a failed expectation in the body (see
  /// NoticeFailuresBy()), or 99 after a memory leak; 128 and the signal's
  /// number after a death by signal.
  int status = 0;
  /// Whether the child was killed at its time limit.
  bool timed_out = false;
  /// Descriptors that the body left open, as listed by /proc/self/fd.
  std::vector<std::string> leaked_descriptors;
  /// Processes that the body started and did not end, such as "1234 sleep".
  /// They have been killed.
  std::vector<std::string> left_processes;

  /// Returns the messages that were logged at one level.
  std::vector<std::string> Logged(int level) const;
};

/// Reports a value to the parent: report("param", cgi.Param("a")).
class Reporter {
 public:
  /// @param descriptor  receives the report
  explicit Reporter(int descriptor) : descriptor_(descriptor) {}
  /// If a name is reported several times, the last value counts.
  void operator()(const std::string& name, const std::string& value) const;

 private:
  int descriptor_;
};

/// For test frameworks whose expectations do not throw: sets the function that
/// returns whether an expectation has failed in this process. With GoogleTest:
///
///     NoticeFailuresBy([] { return ::testing::Test::HasFailure(); });
///
/// Without it, a failed expectation in a child's body goes unnoticed.
void NoticeFailuresBy(bool (*has_failed)());

/// Skips the leak check in this process: for a child in which another library
/// leaks, or which may not start the thread that the check needs.
void LeaveOutLeakCheck();

/// A child process. Its environment contains only what is set here, its
/// standard input is /dev/null, and its working directory is the parent's.
class Child {
 public:
  /// The code that runs in the child.
  using Body = std::function<void(const Reporter&)>;

  /// Sets an environment variable.
  Child& Env(const std::string& name, const std::string& value);
  /// Sets the environment and the standard input as a web server would for this
  /// request.
  Child& Serve(const Request& request);
  /// Sets the directory that the child starts in.
  Child& WorkDir(const std::string& path);
  /// Sets the standard input. It must exist until Run() returns.
  Child& StandardInput(const Input& input);
  /// Starts the body with this descriptor closed.
  Child& Closed(int descriptor);
  /// Sets the log level; the default is 9.
  Child& LogLevel(int level);
  /// Serves this back end while the child runs.
  Child& With(Backend& backend);
  /// Sets the time limit, after which the child is killed and
  /// Outcome::timed_out is set. The default is a minute.
  Child& TimeLimit(std::chrono::milliseconds limit);

  /// Runs the body in the child and waits for its end.
  Outcome Run(const Body& body) const;

 private:
  [[noreturn]] void BecomeChild(const Body& body, const Input& input,
                                int report, int standard_error) const;

  std::vector<std::pair<std::string, std::string>> environment_;
  std::string work_dir_;
  std::vector<int> closed_;
  int log_level_ = 9;
  std::chrono::milliseconds time_limit_ = std::chrono::minutes(1);
  Backend* backend_ = nullptr;
  const Input* input_ = nullptr;
  std::optional<Request> request_;
};

}  // namespace zan_cgi::testing

#endif
