/// @file
/// Standard input as the plain parser reads it: given by a plain::Input instead
/// of a descriptor.
#ifndef ZANCGI_TESTS_PLAIN_PLAIN_INPUT_H
#define ZANCGI_TESTS_PLAIN_PLAIN_INPUT_H

#include <cstddef>
#include <cstdint>

#include "plain/plain_parser.h"

namespace plain {

/// Thrown when what follows would never end.
struct GoesOnForEver {};

/// Reads one Input. The input and the outcome must outlive it.
class StandardInput {
 public:
  /// Counts the bytes and writes the log lines of the reads into @p outcome.
  StandardInput(const Input& input, Outcome& outcome)
      : input_(input), outcome_(outcome) {}

  /// Reads at most @p length bytes into @p buffer. Returns their number; 0 when
  /// nothing was read this time; -1 after a hang-up, and when a negative length
  /// makes the read fail. Throws GoesOnForEver when 0 is all that will ever
  /// come.
  std::int64_t Read(char* buffer, std::int64_t length);

 private:
  void LogNothing();
  void Copy(char* buffer, std::size_t count);

  const Input& input_;
  Outcome& outcome_;
  std::size_t next_read_ = 0;
  unsigned reads_at_end_ = 0;
};

}  // namespace plain

#endif
