/// @file
/// Private: decoding of URL-encoded text.
#ifndef COMMON_URL_DECODER_H
#define COMMON_URL_DECODER_H

#include <bit>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "hex_digit.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace common {

/// Decodes text as forms send it (the URL standard, section 5.1): "%XX" is a
/// byte, "+" a blank, and a "%" without two hexadecimal digits stays as it is.
///
/// A loop over the bytes is slow on large texts, because the processor cannot
/// predict where the next "%" comes. So 16 bytes are compared at once, and the
/// bytes between two "%" are copied together. Each copy is 16 bytes wide; the
/// next one overwrites the surplus. Short texts, and the end of a long one, go
/// through the loop. Both give the same bytes.
class UrlDecoder {
 public:
  /// @param text  must outlive this object
  explicit UrlDecoder(std::string_view text)
      : at_(text.data()), end_(text.data() + text.size()) {
    decoded_.reserve(text.size());
  }

  std::string Run() {
#ifdef __SSE2__
    while (end_ - at_ >= kReach) {
      DecodeBlock();
      FlushIfFull();
    }
#endif
    while (at_ != end_) {
      DecodeByte();
      FlushIfFull();
    }
    Flush();
    return std::move(decoded_);
  }

 private:
  static constexpr std::size_t kBlock = 16;

  void DecodeByte() {
    const char byte = *at_++;
    if (byte == '%') {
      *out_++ = TakeEscape();
    } else {
      *out_++ = byte == '+' ? ' ' : byte;
    }
  }

  /// Returns the byte that the two digits after a "%" encode; "%" itself
  /// without them.
  char TakeEscape() {
    const int byte = HexByteAt({at_, end_});
    if (byte < 0) return '%';
    at_ += 2;
    return static_cast<char>(byte);
  }

#ifdef __SSE2__
  /// While this many bytes are left, a block and then an escape's digits or
  /// another block can be read.
  static constexpr std::ptrdiff_t kReach = 2 * kBlock + 2;

  void DecodeBlock() {
    const char* const block_end = at_ + kBlock;
    const __m128i percents = _mm_cmpeq_epi8(Load(at_), _mm_set1_epi8('%'));
    auto places = static_cast<unsigned>(_mm_movemask_epi8(percents));
    const char* const block = at_;
    for (; places != 0; places &= places - 1) {
      const char* const place = block + std::countr_zero(places);
      // The digits of an escape are never "%", so no "%" is skipped.
      CopyUpTo(place);
      ++at_;
      *out_++ = TakeEscape();
    }
    if (at_ < block_end) CopyUpTo(block_end);
  }

  /// Copies up to 16 bytes without an escape.
  void CopyUpTo(const char* place) {
    const __m128i bytes = Load(at_);
    const __m128i plus = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('+'));
    const __m128i blanks = _mm_and_si128(plus, _mm_set1_epi8('+' ^ ' '));
    _mm_storeu_si128(reinterpret_cast<__m128i_u*>(out_),
                     _mm_xor_si128(bytes, blanks));
    out_ += place - at_;
    at_ = place;
  }

  static __m128i Load(const char* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(at));
  }
#endif

  void FlushIfFull() {
    if (out_ >= buffer_ + kFull) Flush();
  }

  /// Appending through a buffer keeps the reserved memory untouched until it is
  /// needed.
  void Flush() {
    decoded_.append(buffer_, static_cast<std::size_t>(out_ - buffer_));
    out_ = buffer_;
  }

  static constexpr std::size_t kFull = 1024;

  const char* at_;
  const char* const end_;
  std::string decoded_;
  /// A block begins below kFull and writes at most two blocks.
  char buffer_[kFull + 2 * kBlock];
  char* out_ = buffer_;
};

}  // namespace common

#endif
