/// @file
/// Private: characters and tokens of HTTP (RFC 9110 section 5.6).
#ifndef ZANCGI_HTTP_TEXT_H
#define ZANCGI_HTTP_TEXT_H

#include <algorithm>
#include <string_view>

namespace zan_cgi {

// The functions of <cctype> depend on the front end's locale.

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }

constexpr bool IsAlphanumeric(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr bool IsControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

constexpr char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr char UpperCase(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

inline bool EqualWithoutCase(std::string_view a, std::string_view b) {
  // The usual case: both have the same spelling.
  if (a == b) return true;
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char c, char d) {
    return LowerCase(c) == LowerCase(d);
  });
}

/// Whether this needs no escape in an extended value (RFC 8187 section 3.2.1).
constexpr bool IsAttrChar(char c) {
  constexpr std::string_view kOthers = "!#$&+-.^_`|~";
  return IsAlphanumeric(c) || kOthers.find(c) != std::string_view::npos;
}

/// Whether this is a token (section 5.6.2), the syntax of header and cookie
/// names.
inline bool IsToken(std::string_view text) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return IsAlphanumeric(c) || kOthers.find(c) != std::string_view::npos;
  });
}

}  // namespace zan_cgi

#endif
