// The answer of a measured front end, written with one system call and without
// the standard streams.
#ifndef BENCH_FRONTS_ANSWER_H
#define BENCH_FRONTS_ANSWER_H

#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

namespace bench {

class Answer {
 public:
  Answer& Add(std::string_view text) {
    text_.append(text);
    return *this;
  }

  /// Writes the answer to standard output and returns the program's exit
  /// status.
  int Send() const {
    std::string_view rest = text_;
    while (!rest.empty()) {
      const ssize_t count = ::write(STDOUT_FILENO, rest.data(), rest.size());
      if (count < 0 && errno != EINTR) return 1;
      if (count > 0) rest.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
  }

 private:
  std::string text_ = "Content-Type: text/plain\r\n\r\n";
};

}  // namespace bench

#endif
