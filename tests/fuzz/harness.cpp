#include "fuzz/harness.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace fuzz {
namespace {

constexpr std::size_t kShownLimit = 2000;

/// The lowest free descriptor, which goes up when one is left open.
int LowestFreeDescriptor() {
  const int descriptor = ::dup(STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
  return descriptor;
}

}  // namespace

std::string Shown(std::string_view text) {
  std::string shown = "\"";
  for (const char byte : text.substr(0, kShownLimit)) {
    const auto value = static_cast<unsigned char>(byte);
    if (value >= 0x20 && value < 0x7f && byte != '"' && byte != '\\') {
      shown += byte;
      continue;
    }
    char escape[sizeof("\\xff")];
    std::snprintf(escape, sizeof(escape), "\\x%02x", unsigned{value});
    shown += escape;
  }
  if (text.size() > kShownLimit) shown += "...";
  return shown + "\" (" + std::to_string(text.size()) + " bytes)";
}

std::string Shown(const StringMap& map) {
  std::string shown = "{";
  for (const auto& [name, value] : map) {
    shown += "\n    " + Shown(name) + ": " + Shown(value);
  }
  return shown + "}";
}

std::string Shown(std::int64_t number) { return std::to_string(number); }

void ReportFinding(const std::string& account) {
  std::fprintf(stderr, "FOUND: %s\n", account.c_str());
  std::abort();
}

std::string TakeLine(std::string_view& input) {
  const std::size_t end = input.find('\n');
  const std::string line(input.substr(0, end));
  input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
  return line;
}

DescriptorWatch::DescriptorWatch() : lowest_free_(LowestFreeDescriptor()) {}

DescriptorWatch::~DescriptorWatch() {
  ExpectEqual<std::int64_t>("lowest free descriptor", LowestFreeDescriptor(),
                            lowest_free_);
}

}  // namespace fuzz
