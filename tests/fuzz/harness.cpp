#include "fuzz/harness.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace fuzz {
namespace {

/// The lowest free descriptor, which goes up when one is left open.
int LowestFreeDescriptor() {
  const int descriptor = ::dup(STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
  return descriptor;
}

}  // namespace

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
