#include "header_words.h"

#include <algorithm>
#include <array>

#include "../common/hex_digit.h"
#include "http_text.h"
#include "utf8.h"

namespace zan_cgi {
namespace {

/// A set of characters.
using CharacterSet = std::array<bool, 256>;

bool Contains(const CharacterSet& set, char c) {
  return set[static_cast<unsigned char>(c)];
}

/// All visible ASCII characters except some.
constexpr CharacterSet VisibleWithout(std::string_view some) {
  CharacterSet set{};
  for (unsigned char c = '!'; c <= '~'; ++c) set[c] = true;
  for (const char c : some) set[static_cast<unsigned char>(c)] = false;
  return set;
}

/// RFC 2045 section 5.1.
constexpr CharacterSet kTokenChars = VisibleWithout("()<>@,;:\\\"/[]?=");

std::optional<std::string> DecodePercents(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      if (!IsAttrChar(text[at])) return std::nullopt;
      bytes += text[at];
      continue;
    }
    const int byte = common::HexByteAt(text.substr(at + 1));
    if (byte <= 0) return std::nullopt;
    bytes += static_cast<char>(byte);
    at += 2;
  }
  return bytes;
}

std::string Utf8OfLatin1(std::string_view latin1) {
  std::string utf8;
  for (const char c : latin1) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      utf8 += c;
    } else {
      utf8 += static_cast<char>(0xC0 | (byte >> 6));
      utf8 += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return utf8;
}

}  // namespace

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool IsMimeToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return Contains(kTokenChars, c);
  });
}

std::string_view FirstWord(std::string_view value) {
  return Trimmed(value.substr(0, value.find(';')));
}

bool ParameterReader::Next() {
  while (!rest_.empty() && rest_.front() == ';') {
    const std::string_view whole = rest_;
    rest_.remove_prefix(1);
    SkipWhiteSpace();
    if (rest_.empty() || rest_.front() == ';') continue;
    if (ReadName() && ReadValue()) {
      SkipWhiteSpace();
      return true;
    }
    rest_ = whole;
    return false;
  }
  return false;
}

void ParameterReader::SkipWhiteSpace() {
  while (!rest_.empty() && IsBlank(rest_.front())) rest_.remove_prefix(1);
}

/// Reads a name and the "=" after it.
bool ParameterReader::ReadName() {
  std::size_t size = 0;
  while (size < rest_.size() && Contains(kTokenChars, rest_[size])) ++size;
  name_ = rest_.substr(0, size);
  rest_.remove_prefix(size);
  SkipWhiteSpace();
  if (name_.empty() || rest_.empty() || rest_.front() != '=') return false;
  rest_.remove_prefix(1);
  SkipWhiteSpace();
  return true;
}

bool ParameterReader::ReadValue() {
  value_.clear();
  is_quoted_ = !rest_.empty() && rest_.front() == '"';
  if (is_quoted_) return ReadQuoted();
  value_ = rest_.substr(0, rest_.find_first_of("; \t"));
  rest_.remove_prefix(value_.size());
  return value_.find('"') == std::string::npos &&
         std::none_of(value_.begin(), value_.end(), IsControl);
}

bool ParameterReader::ReadQuoted() {
  for (std::size_t begin = 1;;) {
    const std::size_t end = rest_.find_first_of("\"\\", begin);
    if (end == std::string_view::npos) return false;
    value_.append(rest_.substr(begin, end - begin));
    if (rest_[end] == '"') {
      rest_.remove_prefix(end + 1);
      return true;
    }
    begin = end + (IsEscape(end) ? 1 : 0);
    if (begin == rest_.size()) return false;
    value_ += rest_[begin++];
  }
}

bool ParameterReader::IsEscape(std::size_t at) const {
  if (at + 1 == rest_.size()) return false;
  const char next = rest_[at + 1];
  return escapes_ == Escapes::kAll || next == '"' || next == '\\';
}

std::optional<std::string> DecodeExtendedValue(std::string_view value) {
  const std::size_t first = value.find('\'');
  const std::size_t second = value.find('\'', first + 1);
  if (first == std::string_view::npos || second == std::string_view::npos) {
    return std::nullopt;
  }
  const std::string_view charset = value.substr(0, first);
  std::optional<std::string> text = DecodePercents(value.substr(second + 1));
  if (!text) return std::nullopt;
  if (EqualWithoutCase(charset, "ISO-8859-1")) return Utf8OfLatin1(*text);
  if (!EqualWithoutCase(charset, "UTF-8") || !IsUtf8(*text))
    return std::nullopt;
  return text;
}

}  // namespace zan_cgi
