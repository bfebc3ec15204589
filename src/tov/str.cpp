#include <tov/str.h>

#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>
#include <utility>

#include "../common/url_decoder.h"

namespace str {
namespace {

/// Vertical tabs and form feeds do not count: browsers take them for part of a
/// cookie's name, so a page of another host could set a cookie whose trimmed
/// name is ours.
bool IsWhiteSpace(char byte) {
  return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

std::string_view TrimView(std::string_view text) {
  while (!text.empty() && IsWhiteSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsWhiteSpace(text.back())) text.remove_suffix(1);
  return text;
}

/// Removes the first @p taken bytes of the text and returns its first @p word
/// bytes.
std::string TakeFront(std::string& text, std::size_t word, std::size_t taken) {
  std::string front = text.substr(0, word);
  text.erase(0, taken);
  return front;
}

/// Returns the whole text without copying it, and leaves it empty.
std::string TakeAll(std::string& text) { return std::exchange(text, {}); }

template <class Integer>
Integer ParseInteger(const std::string& text) {
  std::string_view digits = TrimView(text);
  // from_chars accepts "-" but not "+".
  if (digits.starts_with('+')) {
    digits.remove_prefix(1);
    if (digits.starts_with('-')) return 0;
  }
  const bool negative = digits.starts_with('-');
  Integer value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value);
  if (stop != end || error == std::errc::invalid_argument) return 0;
  if (error == std::errc::result_out_of_range) {
    using Limits = std::numeric_limits<Integer>;
    return negative ? Limits::min() : Limits::max();
  }
  return value;
}

template <class Integer>
std::string FormatInteger(Integer value) {
  char digits[std::numeric_limits<Integer>::digits10 + 3];
  const auto result = std::to_chars(digits, digits + sizeof(digits), value);
  return {digits, result.ptr};
}

bool IsUnreserved(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' ||
         byte == '.' || byte == '~';
}

}  // namespace

std::string GetWord(std::string& text, char delimiter) {
  const std::size_t found = text.find(delimiter);
  if (found == std::string::npos) return TakeAll(text);
  if (found + 1 < text.size()) return TakeFront(text, found, found + 1);
  text.pop_back();
  return TakeAll(text);
}

std::string GetWord(std::string& text, const std::string& delimiter) {
  const std::size_t found =
      delimiter.empty() ? std::string::npos : text.find(delimiter);
  if (found == std::string::npos) return TakeAll(text);
  return TakeFront(text, found, found + delimiter.size());
}

std::string RGetWord(std::string& text, char delimiter) {
  const std::size_t found = text.rfind(delimiter);
  if (found == std::string::npos) return TakeAll(text);
  std::string word = text.substr(found + 1);
  text.resize(found);
  return word;
}

std::string Trim(const std::string& text) {
  return std::string(TrimView(text));
}

std::string Append(const std::string& text, const std::string& part,
                   const std::string& separator) {
  if (text.empty()) return part;
  std::string joined;
  joined.reserve(text.size() + separator.size() + part.size());
  return joined.append(text).append(separator).append(part);
}

int Int(const std::string& text) { return ParseInteger<int>(text); }

std::int64_t Int64(const std::string& text) {
  return ParseInteger<std::int64_t>(text);
}

std::string Str(int value) { return FormatInteger(value); }
std::string Str(unsigned value) { return FormatInteger(value); }
std::string Str(long value) { return FormatInteger(value); }
std::string Str(unsigned long value) { return FormatInteger(value); }
std::string Str(long long value) { return FormatInteger(value); }
std::string Str(unsigned long long value) { return FormatInteger(value); }

namespace url {

std::string Decode(const std::string& text) {
  return common::UrlDecoder(text).Run();
}

std::string Encode(const std::string& text) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string encoded;
  encoded.reserve(text.size());
  for (const char byte : text) {
    if (IsUnreserved(byte)) {
      encoded += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    encoded += '%';
    encoded += kDigits[value / 16];
    encoded += kDigits[value % 16];
  }
  return encoded;
}

}  // namespace url
}  // namespace str
