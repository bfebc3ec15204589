/// @file
/// What a request held, as the probe and the prediction write it.
#ifndef ZANCGI_TESTS_E2E_UPLOAD_REPORT_H
#define ZANCGI_TESTS_E2E_UPLOAD_REPORT_H

#include <initializer_list>
#include <string>

/// A line of a report: a param with its value, a file (its content lies beside
/// the report, numbered in the order of the lines), the size of all files, or
/// an error. Texts are hexadecimal digits after an "x", so that an empty one is
/// there, too.
inline std::string ReportLine(std::string line,
                              std::initializer_list<std::string> texts) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const std::string& text : texts) {
    line += " x";
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      line += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return line + "\n";
}

#endif
