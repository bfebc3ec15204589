/// @file
/// The exceptions of the base library.
#ifndef TOV_ERR_H
#define TOV_ERR_H

#include <stdexcept>
#include <string>

#include <tov/api.h>

namespace tov_err {

/// Base of all errors that the base library reports.
///
/// what() is one sentence that names the value or path concerned and, if a
/// system call failed, the system's reason.
class TOV_API Error : public std::runtime_error {
 public:
  /// @param message  what what() returns
  explicit Error(const std::string& message);
  /// Copies the message.
  /// @{
  Error(const Error&) noexcept;
  Error& operator=(const Error&) noexcept;
  /// @}
  ~Error() override;
};

/// A value that cannot be used.
class TOV_API Value : public Error {
 public:
  /// @param name   what the value is for
  /// @param value  the value that was given; may be empty
  Value(const std::string& name, const std::string& value);
  /// Copies the message.
  /// @{
  Value(const Value&) noexcept;
  Value& operator=(const Value&) noexcept;
  /// @}
  ~Value() override;
};

/// A required value that is missing.
class TOV_API Missed : public Error {
 public:
  /// @param name   what the value is for
  /// @param value  what was looked for; may be empty
  Missed(const std::string& name, const std::string& value);
  /// Copies the message.
  /// @{
  Missed(const Missed&) noexcept;
  Missed& operator=(const Missed&) noexcept;
  /// @}
  ~Missed() override;
};

/// A violated precondition: an error in the calling program.
class TOV_API AssertError : public Error {
 public:
  /// @param message  what what() returns
  explicit AssertError(const std::string& message);
  /// Copies the message.
  /// @{
  AssertError(const AssertError&) noexcept;
  AssertError& operator=(const AssertError&) noexcept;
  /// @}
  ~AssertError() override;

  /// Throws an AssertError that gives the message and the source location.
  static void Raise(const char* file, int line, const char* function,
                    const std::string& message);
};

}  // namespace tov_err

#endif
