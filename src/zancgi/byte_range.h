/// @file
/// Private: the part of a file that a client requests (RFC 9110 section 14).
#ifndef ZANCGI_BYTE_RANGE_H
#define ZANCGI_BYTE_RANGE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

#include "http_text.h"

namespace zan_cgi {

/// Bytes of a file: @p begin is the first, @p end is one past the last.
struct ByteRange {
  std::int64_t begin = 0;
  std::int64_t end = 0;

  std::int64_t size() const { return end - begin; }
};

/// Converts decimal digits. A number that is too large becomes the largest
/// value.
inline std::int64_t ParseLargeNumber(std::string_view digits) {
  constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
  std::int64_t number = 0;
  for (const char c : digits) {
    if (number > (kLargest - 9) / 10) return kLargest;
    number = number * 10 + (c - '0');
  }
  return number;
}

/// Returns the part of a file that a Range header requests. It is empty if the
/// file has no such part. Returns nothing if the header must be ignored because
/// it is malformed, has another unit or several ranges.
/// @param size  the file's, in bytes
inline std::optional<ByteRange> ParseRange(std::string_view header,
                                           std::int64_t size) {
  constexpr std::string_view kUnit = "bytes=";
  if (!EqualWithoutCase(header.substr(0, kUnit.size()), kUnit)) {
    return std::nullopt;
  }
  header.remove_prefix(kUnit.size());
  const std::size_t dash = header.find('-');
  if (dash == std::string_view::npos || header.size() == 1) return std::nullopt;
  const std::string_view first = header.substr(0, dash);
  const std::string_view last = header.substr(dash + 1);
  const bool are_numbers = std::all_of(first.begin(), first.end(), IsDigit) &&
                           std::all_of(last.begin(), last.end(), IsDigit);
  if (!are_numbers) return std::nullopt;

  const std::int64_t last_number = ParseLargeNumber(last);
  if (first.empty()) {
    // The last bytes of an empty file are the whole of it, which no
    // Content-Range can express.
    if (size == 0 && last_number > 0) return std::nullopt;
    return ByteRange{size - std::min(last_number, size), size};
  }
  const std::int64_t begin = ParseLargeNumber(first);
  if (!last.empty() && last_number < begin) return std::nullopt;
  if (begin >= size) return ByteRange{};
  const bool is_open = last.empty() || last_number >= size;
  return ByteRange{begin, is_open ? size : last_number + 1};
}

}  // namespace zan_cgi

#endif
