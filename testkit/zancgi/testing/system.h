/// @file
/// Helpers for descriptors; not installed.
#ifndef ZANCGI_TESTING_SYSTEM_H
#define ZANCGI_TESTING_SYSTEM_H

#include <cerrno>
#include <string>
#include <utility>

namespace zan_cgi::testing {

/// @throws std::system_error with errno
[[noreturn]] void Fail(const std::string& what);

/// Retries a call that a signal handler of the test interrupts.
template <class Call>
auto RetryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

/// Returns false on an error, for example if the reader has gone.
bool WriteAll(int descriptor, const std::string& bytes);

/// Returns the content of a file from its beginning.
std::string ContentOf(int descriptor);

/// Owns a descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept
      : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return number_; }
  explicit operator bool() const { return number_ >= 0; }
  int Release() { return std::exchange(number_, -1); }
  void Close();

 private:
  int number_ = -1;
};

/// Returns a duplicate with a high number, which a process that closes or
/// reopens its low descriptors does not touch.
Descriptor Raised(Descriptor descriptor);

/// Returns an empty file in memory with a high descriptor.
Descriptor AnonymousFile(const char* name);

}  // namespace zan_cgi::testing

#endif
