/// @file
/// Standard inputs for a child process, of each kind that web servers use.
#ifndef ZANCGI_TESTING_INPUT_H
#define ZANCGI_TESTING_INPUT_H

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace zan_cgi::testing {

/// The standard input of one child process.
class Input {
 public:
  /// /dev/null.
  static Input Nothing();
  /// A pipe whose writer hangs up after the last byte.
  static Input Pipe(const std::string& bytes);
  /// The same, written piece by piece with a pause before each.
  static Input SlowPipe(std::vector<std::string> pieces,
                        std::chrono::milliseconds pause);
  /// A pipe whose writer stops after the last byte but does not hang up.
  static Input SilentPipe(const std::string& bytes);
  /// A Unix socket that is shut down after the last byte.
  static Input Socket(const std::string& bytes);
  /// A regular file.
  static Input File(const std::string& bytes);

  /// Takes over the other's descriptors.
  Input(Input&& other) noexcept;
  ~Input();

  /// Makes this the standard input of the calling process, which must be a
  /// child of the process that made it.
  void BecomeStandardInput() const;
  /// Starts writing. Call it in the process that made it, after the child has
  /// been forked: a child forked while another thread runs may inherit a lock
  /// that is never released.
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
