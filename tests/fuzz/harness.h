/// @file
/// What the fuzz targets share: findings in a form that a person can read.
#ifndef ZANCGI_TESTS_FUZZ_HARNESS_H
#define ZANCGI_TESTS_FUZZ_HARNESS_H

#include <gtest/gtest-printers.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace fuzz {

using StringMap = std::map<std::string, std::string>;

/// Ends the process with an account of what was found, which makes libFuzzer
/// keep the input.
[[noreturn]] void ReportFinding(const std::string& account);

/// Reports a finding unless @p holds.
inline void Expect(bool holds, const char* promise) {
  if (!holds) ReportFinding(std::string("does not hold: ") + promise);
}

/// Reports a finding unless both are equal.
template <class Value>
void ExpectEqual(const char* what, const Value& actual, const Value& expected) {
  if (actual == expected) return;
  ReportFinding(std::string(what) + "\n  is        " +
                testing::PrintToString(actual) + "\n  should be " +
                testing::PrintToString(expected));
}

/// Takes the first line, without its LF, off the front of an input. Without an
/// LF all of it is the line.
std::string TakeLine(std::string_view& input);

/// Reports a finding when a descriptor is left open between its construction
/// and its end. (libFuzzer opens some of its own between two inputs.)
class DescriptorWatch {
 public:
  DescriptorWatch();
  ~DescriptorWatch();
  DescriptorWatch(const DescriptorWatch&) = delete;
  DescriptorWatch& operator=(const DescriptorWatch&) = delete;

 private:
  int lowest_free_;
};

}  // namespace fuzz

#endif
