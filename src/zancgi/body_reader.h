/// @file
/// Private: reads the body of a request up to its declared length (RFC 3875
/// sections 4.1.2 and 4.2).
#ifndef ZANCGI_BODY_READER_H
#define ZANCGI_BODY_READER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "raw_array.h"

namespace zan_cgi {

/// Reads a body piece by piece. The bytes that were read but not consumed are
/// contiguous: a parser that needs more calls ReadMore().
class BodyReader {
 public:
  /// @param idle  the longest wait for each read, in seconds
  explicit BodyReader(int idle);
  BodyReader(const BodyReader&) = delete;
  BodyReader& operator=(const BodyReader&) = delete;

  /// Reads the declared length from the environment.
  /// @throws FormError  400 when it is invalid; 413 when it exceeds the limit
  void TakeLength(std::int64_t limit);

  std::int64_t length() const { return length_; }

  /// The bytes that were read but not consumed.
  std::string_view Unread() const {
    return {buffer_.data() + begin_, end_ - begin_};
  }

  void Consume(std::size_t count) { begin_ += count; }

  /// Reads more bytes into Unread(), whose address may change. Returns false
  /// when the whole body has been read.
  /// @throws FormError  400 when the body ends early or cannot be read, 408
  ///   after the time limit
  bool ReadMore();

  /// Reads and drops the rest, up to a limit. Some web servers forward an
  /// answer only after the whole body was read.
  void Drain() noexcept;

 private:
  void MakeRoom();
  std::size_t Read(char* to, std::size_t count);
  void WaitForInput(std::int64_t deadline);
  [[noreturn]] void ThrowSilent();
  [[noreturn]] void ThrowUnreadable();

  int idle_ms_;
  std::int64_t length_ = 0;
  std::int64_t total_ = 0;  ///< Bytes read so far.
  bool is_at_end_ = false;  ///< Nothing more will come.
  RawArray<char> buffer_;
  std::size_t begin_ = 0;  ///< Start of the unread bytes in the buffer.
  std::size_t end_ = 0;    ///< Their end.
};

}  // namespace zan_cgi

#endif
