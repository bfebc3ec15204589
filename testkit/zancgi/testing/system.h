/// @file
/// Small things on descriptors; not installed.
#ifndef ZANCGI_TESTING_SYSTEM_H
#define ZANCGI_TESTING_SYSTEM_H

#include <cerrno>
#include <string>
#include <utility>

namespace zan_cgi::testing {

/// @throws std::system_error with errno
[[noreturn]] void Fail(const std::string& what);

/// A test may handle signals, and what it calls is then broken off.
template <class Call>
auto RetryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

/// Returns false when that cannot be, as when nobody reads any more.
bool WriteAll(int descriptor, const std::string& bytes);

/// What a file holds, from its beginning.
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

/// The same file under a number that a process which closes, or reopens, its
/// low descriptors does not reach.
Descriptor Raised(Descriptor descriptor);

/// An empty file in memory, raised.
Descriptor AnonymousFile(const char* name);

}  // namespace zan_cgi::testing

#endif
