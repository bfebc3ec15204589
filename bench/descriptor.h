// Descriptors and errors of system calls.
#ifndef BENCH_DESCRIPTOR_H
#define BENCH_DESCRIPTOR_H

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace bench {

[[noreturn]] inline void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

/// Owns a descriptor and closes it.
class Descriptor {
 public:
  /// @param number  the result of a system call; if it is negative, throws
  ///   std::system_error with errno and @p what
  explicit Descriptor(int number,
                      const std::string& what = "cannot open a descriptor")
      : number_(number) {
    if (number < 0) ThrowErrno(what);
  }
  Descriptor(Descriptor&& other) noexcept
      : number_(std::exchange(other.number_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  int Number() const { return number_; }

 private:
  int number_;
};

}  // namespace bench

#endif
