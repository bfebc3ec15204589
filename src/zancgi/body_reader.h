/// @file
/// Private: reading the body of a request exactly as long as it was declared
/// (RFC 3875 sections 4.1.2 and 4.2).
#ifndef ZANCGI_BODY_READER_H
#define ZANCGI_BODY_READER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "raw_array.h"

namespace zan_cgi {

/// Reads a body piece by piece. What has been read and not been consumed lies
/// together, so that whoever needs more of it only asks for more.
class BodyReader {
 public:
  /// @param idle  how long the client may be silent, in seconds
  explicit BodyReader(int idle);
  BodyReader(const BodyReader&) = delete;
  BodyReader& operator=(const BodyReader&) = delete;

  /// Takes the length that the request declares.
  /// @throws FormError  400 when it is none; 413 when it exceeds the limit
  void TakeLength(std::int64_t limit);

  std::int64_t length() const { return length_; }

  /// What has been read and not been consumed.
  std::string_view Unread() const {
    return {buffer_.data() + begin_, end_ - begin_};
  }

  void Consume(std::size_t count) { begin_ += count; }

  /// Adds to Unread(), which moves. Returns false when the whole body has been
  /// read.
  /// @throws FormError  400 when the body ends early or cannot be read, 408
  ///   after too long a silence
  bool ReadMore();

  /// Reads the rest and drops it, within bounds: some web servers pass an
  /// answer on only when the whole body was taken.
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
  std::size_t begin_ = 0;  ///< Where the unread bytes begin in the buffer.
  std::size_t end_ = 0;    ///< Where they end.
};

}  // namespace zan_cgi

#endif
