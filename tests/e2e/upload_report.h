/// @file
/// What a request held, in the form in which the probe and the prediction
/// write it: one thing a line, texts as hexadecimal digits.
#ifndef ZANCGI_TESTS_E2E_UPLOAD_REPORT_H
#define ZANCGI_TESTS_E2E_UPLOAD_REPORT_H

#include <cstdint>
#include <string>

namespace upload_report {

/// Hexadecimal digits behind an "x", so that nothing is something, too.
inline std::string Hex(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex = "x";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

inline std::string ParamLine(const std::string& name,
                             const std::string& value) {
  return "param " + Hex(name) + " " + Hex(value) + "\n";
}

/// The file's content lies beside the report, numbered in the order of the
/// lines.
inline std::string FileLine(const std::string& name) {
  return "file " + Hex(name) + "\n";
}

/// The size of all files together.
inline std::string SizeLine(std::int64_t size) {
  return "size " + std::to_string(size) + "\n";
}

inline std::string ErrorLine(const std::string& message) {
  return "error " + Hex(message) + "\n";
}

}  // namespace upload_report

#endif
