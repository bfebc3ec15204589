/// @file
/// Standard output of a child that looks at what it writes itself.
#ifndef ZANCGI_TESTS_SUPPORT_STANDARD_OUTPUT_H
#define ZANCGI_TESTS_SUPPORT_STANDARD_OUTPUT_H

#include <fcntl.h>
#include <unistd.h>
#include <zancgi/testing/system.h>

#include <cstdio>
#include <functional>
#include <string>

namespace support {

/// Has descriptor 1 be another one while it lives. No expectation may fail
/// meanwhile: its message would go there.
class OutputTo {
 public:
  explicit OutputTo(int descriptor)
      : before_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    std::fflush(stdout);
    ::dup2(descriptor, STDOUT_FILENO);
  }
  ~OutputTo() { ::dup2(before_.Get(), STDOUT_FILENO); }
  OutputTo(const OutputTo&) = delete;
  OutputTo& operator=(const OutputTo&) = delete;

 private:
  zan_cgi::testing::Descriptor before_;
};

/// What this writes to descriptor 1, which is a file meanwhile.
inline std::string OutputOf(const std::function<void()>& work) {
  const auto file = zan_cgi::testing::AnonymousFile("output");
  {
    const OutputTo redirection(file.Get());
    work();
  }
  return zan_cgi::testing::ContentOf(file.Get());
}

}  // namespace support

#endif
