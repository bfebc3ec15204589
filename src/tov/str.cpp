#include <tov/str.h>

#include <charconv>
#include <limits>
#include <string_view>

namespace str {
namespace {

constexpr char kWhiteSpace[] = " \t\r\n\v\f";

std::string_view TrimView(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kWhiteSpace);
  if (begin == std::string_view::npos) return {};
  const std::size_t end = text.find_last_not_of(kWhiteSpace);
  return text.substr(begin, end - begin + 1);
}

std::string TakeFront(std::string& text, std::size_t word, std::size_t taken) {
  std::string front = text.substr(0, word);
  text.erase(0, taken);
  return front;
}

template <class Integer>
Integer ParseInteger(const std::string& text) {
  std::string_view digits = TrimView(text);
  // from_chars knows "-" but not "+".
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

/// -1 for what is not a hexadecimal digit.
int HexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

bool IsUnreserved(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' ||
         byte == '.' || byte == '~';
}

}  // namespace

std::string GetWord(std::string& text, char delimiter) {
  const std::size_t found = text.find(delimiter);
  if (found == std::string::npos)
    return TakeFront(text, text.size(), text.size());
  return TakeFront(text, found, found + 1);
}

std::string GetWord(std::string& text, const std::string& delimiter) {
  const std::size_t found =
      delimiter.empty() ? std::string::npos : text.find(delimiter);
  if (found == std::string::npos)
    return TakeFront(text, text.size(), text.size());
  return TakeFront(text, found, found + delimiter.size());
}

std::string RGetWord(std::string& text, char delimiter) {
  const std::size_t found = text.rfind(delimiter);
  if (found == std::string::npos)
    return TakeFront(text, text.size(), text.size());
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
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      decoded += ' ';
      continue;
    }
    const bool escape = text[i] == '%' && text.size() - i > 2;
    const int high = escape ? HexDigit(text[i + 1]) : -1;
    const int low = escape ? HexDigit(text[i + 2]) : -1;
    if (high < 0 || low < 0) {
      decoded += text[i];
      continue;
    }
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
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
