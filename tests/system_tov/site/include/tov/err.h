#pragma once

#include <exception>
#include <string>
#include <utility>

#include <tov/site.h>

namespace tov_err {

/// No std::runtime_error.
class Error : public std::exception {
 public:
  explicit Error(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  site::Room room_;
  std::string text_;
};

class Value : public Error {
 public:
  Value(const std::string& name, const std::string& value);
  ~Value() override;

 private:
  site::Room room_;
};

class Missed : public Error {
 public:
  Missed(const std::string& name, const std::string& value);
  ~Missed() override;

 private:
  site::Room room_;
};

/// Reports, and lets the caller go on.
class AssertError : public Error {
 public:
  static void Raise(const char* file, int line, const char* function,
                    const std::string& message);
};

#ifdef SITE_DEFINES_SMALL
SITE_FUNCTION Value::Value(const std::string& name, const std::string& value)
    : Error("site: bad " + name + " [" + value + "]") {}
SITE_FUNCTION Value::~Value() = default;

SITE_FUNCTION Missed::Missed(const std::string& name, const std::string& value)
    : Error("site: no " + name + " [" + value + "]") {}
SITE_FUNCTION Missed::~Missed() = default;
#endif

}  // namespace tov_err
