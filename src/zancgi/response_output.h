/// @file
/// Private: writing the answer to descriptor 1.
#ifndef ZANCGI_RESPONSE_OUTPUT_H
#define ZANCGI_RESPONSE_OUTPUT_H

#include <string_view>

#include "../common/scoped_signal_block.h"
#include "byte_range.h"

namespace zan_cgi {

/// Blocks SIGTERM in this thread from now on.
struct TerminationBlock {
  TerminationBlock();
};

/// Writes the answer to descriptor 1. Retries after signals and partial writes,
/// and waits for a slow reader. After the reader has gone, writes nothing more.
/// Blocks SIGPIPE and SIGXFSZ during its lifetime.
class ResponseOutput {
 public:
  /// Flushes stdout, so that text printed before precedes the answer.
  /// @throws std::runtime_error  it cannot be written
  ResponseOutput();

  /// @throws std::runtime_error  it cannot be written
  void Write(std::string_view head, std::string_view body);

  /// Writes a part of a regular file. The descriptor's position is neither used
  /// nor changed.
  /// @throws std::runtime_error  it cannot be read or written, or is too short
  void WriteFile(int file, ByteRange range);

 private:
  void Copy(int file, ByteRange& range);
  void WaitAfterFailedWrite();
  bool HasReaderGone();
  void WaitUntilWritable();

  /// Declared before block_, whose destructor restores the signal mask that it
  /// found and must keep SIGTERM blocked.
  TerminationBlock termination_block_;
  common::ScopedSignalBlock block_;
  bool has_reader_ = true;
};

}  // namespace zan_cgi

#endif
