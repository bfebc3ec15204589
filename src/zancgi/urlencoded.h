/// @file
/// Private: names and values of application/x-www-form-urlencoded (URL
/// Standard, section 5.1).
#ifndef ZANCGI_URLENCODED_H
#define ZANCGI_URLENCODED_H

#include <cstddef>
#include <string>
#include <string_view>

namespace zan_cgi {

/// Returns the value of a hexadecimal digit; negative when it is none.
constexpr int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// Decodes one name or value: "+" becomes a space and "%XX" a byte. An invalid
/// escape stays as it is. The result may be no valid UTF-8.
inline std::string DecodeUrlencoded(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_escape = text[i] == '%' && text.size() - i > 2 &&
                           HexDigit(text[i + 1]) >= 0 &&
                           HexDigit(text[i + 2]) >= 0;
    if (is_escape) {
      decoded +=
          static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

}  // namespace zan_cgi

#endif
