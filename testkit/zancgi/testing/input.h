/// @file
/// Standard inputs for a child process, of each kind that a web server gives.
#ifndef ZANCGI_TESTING_INPUT_H
#define ZANCGI_TESTING_INPUT_H

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace zan_cgi::testing {

/// What a child process is to read. Serves one process.
class Input {
 public:
  /// /dev/null.
  static Input Nothing();
  /// A pipe whose writer hangs up behind the last byte.
  static Input Pipe(const std::string& bytes);
  /// The same, written piece by piece with a pause before each.
  static Input SlowPipe(std::vector<std::string> pieces,
                        std::chrono::milliseconds pause);
  /// A pipe whose writer neither writes more nor hangs up.
  static Input SilentPipe(const std::string& bytes);
  /// A Unix socket that is shut down behind the last byte.
  static Input Socket(const std::string& bytes);
  /// A regular file.
  static Input File(const std::string& bytes);

  /// Takes over what the other is.
  Input(Input&& other) noexcept;
  ~Input();

  /// Makes this the standard input of the calling process, a child of the one
  /// that made it.
  void BecomeStandardInput() const;
  /// Begins to write. To be called by the process that made it, once the child
  /// is there: a child that is forked beside a running thread may inherit a
  /// lock that nobody opens.
  void Feed() const;

 private:
  Input() = default;

  int descriptor_ = -1;
  int writing_end_ = -1;
  std::vector<std::string> pieces_;
  std::chrono::milliseconds pause_{};
  bool hangs_up_ = true;
  mutable std::thread writer_;
};

}  // namespace zan_cgi::testing

#endif
