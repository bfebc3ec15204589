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
  /// Takes ownership of @p descriptor; a negative one is none.
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

/// Takes a descriptor that was just opened and sees to it that it is not 0, 1
/// or 2. In a process that was started without them it could be, and would then
/// be read as the request's body or written to as its answer.
///
/// A negative @p fresh gives no descriptor; errno is kept.
Descriptor MoveAboveStdio(int fresh);

/// Throws a tov_err::Error: "<context>: <the system's reason>".
[[noreturn]] void ThrowSystemError(const std::string& context, int error);

/// Repeats a system call for as long as a signal interrupts it.
template <class Call>
auto RetryInterrupted(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace tov_internal

#endif
