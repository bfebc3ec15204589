/// @file
/// Private: ownership of descriptors, and system errors as exceptions.
#ifndef TOV_DESCRIPTOR_H
#define TOV_DESCRIPTOR_H

#include <cerrno>
#include <string>

namespace tov_internal {

/// Owns a descriptor and closes it.
class Descriptor {
 public:
  Descriptor() = default;
  /// Takes ownership of @p descriptor; a negative number means none.
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor();

  explicit operator bool() const { return descriptor_ >= 0; }
  int Get() const { return descriptor_; }
  /// Gives up ownership.
  int Release();

 private:
  int descriptor_ = -1;
};

/// Returns a descriptor above 2 for one that was just opened. In a process
/// started without standard descriptors it could be 0, 1 or 2, and would be
/// read as the request's body or written to as its answer.
///
/// A negative @p fresh gives no descriptor and keeps errno.
Descriptor MoveAboveStdio(int fresh);

/// Throws a tov_err::Error: "<context>: <the system's reason>".
[[noreturn]] void ThrowSystemError(const std::string& context, int error);

/// Retries a system call while a signal interrupts it.
template <class Call>
auto RetryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace tov_internal

#endif
