#include <tov/err.h>
#include <tov/str.h>

namespace tov_err {
namespace {

std::string MissedMessage(const std::string& name, const std::string& value) {
  std::string message = "missing value of '" + name + "'";
  if (!value.empty()) message += ": '" + value + "' was not found";
  return message;
}

}  // namespace

Error::Error(const std::string& message) : std::runtime_error(message) {}
Error::Error(const Error&) noexcept = default;
Error& Error::operator=(const Error&) noexcept = default;
Error::~Error() = default;

Value::Value(const std::string& name, const std::string& value)
    : Error("bad value '" + value + "' of '" + name + "'") {}
Value::Value(const Value&) noexcept = default;
Value& Value::operator=(const Value&) noexcept = default;
Value::~Value() = default;

Missed::Missed(const std::string& name, const std::string& value)
    : Error(MissedMessage(name, value)) {}
Missed::Missed(const Missed&) noexcept = default;
Missed& Missed::operator=(const Missed&) noexcept = default;
Missed::~Missed() = default;

AssertError::AssertError(const std::string& message) : Error(message) {}
AssertError::AssertError(const AssertError&) noexcept = default;
AssertError& AssertError::operator=(const AssertError&) noexcept = default;
AssertError::~AssertError() = default;

void AssertError::Raise(const char* file, int line, const char* function,
                        const std::string& message) {
  throw AssertError("assertion failed: " + message + " (" + file + ":" +
                    str::Str(line) + ", " + function + ")");
}

}  // namespace tov_err
