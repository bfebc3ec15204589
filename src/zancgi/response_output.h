/// @file
/// Private: writing the answer to descriptor 1.
#ifndef ZANCGI_RESPONSE_OUTPUT_H
#define ZANCGI_RESPONSE_OUTPUT_H

#include <signal.h>

#include <string_view>

#include "byte_range.h"

namespace zan_cgi {

/// Keeps a SIGPIPE from this thread's own writes away from the process.
class SigpipeGuard {
 public:
  SigpipeGuard();
  /// Takes a signal that has come for a write away, then lets others in again.
  ~SigpipeGuard();
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

  /// A write has failed with EPIPE.
  void NoteBrokenPipe() { has_come_ = true; }

 private:
  sigset_t sigpipe_;
  sigset_t before_;
  bool was_pending_ = false;
  bool has_come_ = false;
};

/// The answer's way to the client. Goes on after signals and partial writes,
/// and waits where the reader is slow. Once the reader has gone, nothing more
/// is written.
class ResponseOutput {
 public:
  /// Writes what stdio holds for stdout first.
  /// @throws std::runtime_error  it cannot be written
  ResponseOutput();

  /// @throws std::runtime_error  it cannot be written
  void Write(std::string_view head, std::string_view body);

  /// Writes a part of a regular file, without using the descriptor's position.
  /// @throws std::runtime_error  it cannot be read or written, or is too short
  void WriteFile(int file, ByteRange range);

 private:
  void Copy(int file, ByteRange& range);
  void WaitAfterFailedWrite();
  bool HasReaderGone();
  void WaitUntilWritable();

  SigpipeGuard guard_;
  bool has_reader_ = true;
};

}  // namespace zan_cgi

#endif
