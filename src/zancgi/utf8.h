/// @file
/// Private: UTF-8 (RFC 3629).
#ifndef ZANCGI_UTF8_H
#define ZANCGI_UTF8_H

#include <cstddef>
#include <string_view>

namespace zan_cgi {

/// Returns how many bytes at the beginning form one UTF-8 character (RFC 3629
/// section 4); 0 if they are invalid.
inline std::size_t CharacterSize(std::string_view text) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
  };
  const auto is_tail = [&](std::size_t i) { return (byte(i) & 0xC0) == 0x80; };
  const unsigned first = byte(0);
  const unsigned second = byte(1);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4 || !is_tail(1)) return 0;
  if (first < 0xE0) return 2;
  if (!is_tail(2)) return 0;
  // Neither an overlong form nor half of a surrogate pair.
  if (first == 0xE0 && second < 0xA0) return 0;
  if (first == 0xED && second > 0x9F) return 0;
  if (first < 0xF0) return 3;
  // Neither an overlong form nor above U+10FFFF.
  if (first == 0xF0 && second < 0x90) return 0;
  if (first == 0xF4 && second > 0x8F) return 0;
  return is_tail(3) ? 4 : 0;
}

inline bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

}  // namespace zan_cgi

#endif
