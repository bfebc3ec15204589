/// @file
/// Private: bytes that are written in hexadecimal digits.
#ifndef ZANCGI_HEX_DIGIT_H
#define ZANCGI_HEX_DIGIT_H

#include <string_view>

namespace zan_cgi {

/// Returns what a digit stands for; -1 when it is none.
inline int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// Returns the byte that the first two digits of a text stand for; -1 when
/// there are not two.
inline int HexByteAt(std::string_view text) {
  if (text.size() < 2) return -1;
  const int high = HexDigit(text[0]);
  const int low = HexDigit(text[1]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

}  // namespace zan_cgi

#endif
