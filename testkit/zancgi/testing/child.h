/// @file
/// Runs a piece of a test in a process of its own, made the way a web server
/// would make it, and brings back what happened there.
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

/// What a child process has left behind.
struct Outcome {
  /// What the body has reported, by name.
  std::map<std::string, std::string> reported;
  /// Type of the exception that ended the body, such as "tov_err::Missed" or
  /// "std::runtime_error"; empty when there was none.
  std::string error_type;
  /// Its what().
  std::string error;
  /// Log lines in order; marks of Mark() are among them with level -1.
  Log log;
  /// Everything on standard error, log lines included.
  std::string standard_error;
  /// Exit status: 0, or 95 after a failed expectation in the body (see
  /// NoticeFailuresBy()), or 99 after a memory leak; 128 and the signal's
  /// number after a death by signal.
  int status = 0;
  /// Whether the child has been ended because its time was up.
  bool timed_out = false;
  /// Descriptors that the body has left open, as listed by /proc/self/fd.
  std::vector<std::string> leaked_descriptors;
  /// Processes that the body has started and left behind, such as
  /// "1234 sleep". They have been ended.
  std::vector<std::string> left_processes;

  /// The texts that were logged at one level.
  std::vector<std::string> Logged(int level) const;
};

/// Reports something to the parent: report("param", cgi.Param("a")).
class Reporter {
 public:
  /// @param descriptor  where to
  explicit Reporter(int descriptor) : descriptor_(descriptor) {}
  /// Of several values of one name the last counts.
  void operator()(const std::string& name, const std::string& value) const;

 private:
  int descriptor_;
};

/// For test frameworks whose expectations do not throw: tells how to find out
/// whether one has failed in this process so far. With GoogleTest:
///
///     NoticeFailuresBy([] { return ::testing::Test::HasFailure(); });
///
/// Without it, a child's body that only notes a failure ends well.
void NoticeFailuresBy(bool (*has_failed)());

/// For a child in which another library leaks, or which may not have the thread
/// that the check needs: leaves the check for leaks out of this process.
void LeaveOutLeakCheck();

/// A child process to come. Its environment holds only what is set here, its
/// standard input is /dev/null, its working directory the parent's.
class Child {
 public:
  /// What runs there.
  using Body = std::function<void(const Reporter&)>;

  /// Sets an environment variable.
  Child& Env(const std::string& name, const std::string& value);
  /// Sets the environment and the standard input that a web server makes of
  /// this request.
  Child& Serve(const Request& request);
  /// The directory that it starts in.
  Child& WorkDir(const std::string& path);
  /// What the body reads; must live until Run() has returned.
  Child& StandardInput(const Input& input);
  /// Starts the body with this descriptor closed.
  Child& Closed(int descriptor);
  /// 9 unless set.
  Child& LogLevel(int level);
  /// Serves this back end while the child runs.
  Child& With(Backend& backend);
  /// A minute unless set. Then the child is ended, and the status says so.
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
