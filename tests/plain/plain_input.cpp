#include "plain/plain_input.h"

#include <algorithm>

namespace plain {
namespace {

/// Once a read has found the end of a file, every further one does.
constexpr unsigned kMaxReadsAtEnd = 50;

}  // namespace

std::int64_t StandardInput::Read(char* buffer, std::int64_t length) {
  const std::size_t left = input_.bytes.size() - outcome_.bytes_read;
  std::size_t most = left;
  if (next_read_ < input_.reads.size()) {
    const std::size_t given = input_.reads[next_read_++];
    // The wait brought nothing, so neither hang-up nor length come into play.
    if (given == 0) {
      LogNothing();
      return 0;
    }
    most = std::min(given, left);
  }
  if (left == 0 && input_.hangs_up) {
    outcome_.log.emplace_back(4, "Signal HUP received");
    return -1;
  }
  if (length < 0) {
    // As a size it is larger than any buffer can be: EFAULT.
    outcome_.log.emplace_back(3, "error reading stdin, code 14");
    return -1;
  }
  if (left == 0 && ++reads_at_end_ == kMaxReadsAtEnd) throw GoesOnForEver();
  const std::size_t count = std::min(most, static_cast<std::size_t>(length));
  Copy(buffer, count);
  return static_cast<std::int64_t>(count);
}

void StandardInput::LogNothing() {
  if (input_.nothing == Nothing::kSignal) {
    outcome_.log.emplace_back(
        9, "zancgi_unix.cpp:# poll interrupted, trying again");
  }
}

void StandardInput::Copy(char* buffer, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    buffer[i] = input_.bytes[outcome_.bytes_read++];
  }
}

}  // namespace plain
