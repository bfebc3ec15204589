#include <tov/str.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <string_view>
#include <utility>

namespace str {
namespace {

bool IsWhiteSpace(char byte) {
  return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

std::string_view TrimView(std::string_view text) {
  while (!text.empty() && IsWhiteSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsWhiteSpace(text.back())) text.remove_suffix(1);
  return text;
}

/// Takes the first @p word bytes off the text, and what follows them up to
/// @p taken.
std::string TakeFront(std::string& text, std::size_t word, std::size_t taken) {
  std::string front = text.substr(0, word);
  text.erase(0, taken);
  return front;
}

/// Takes all of the text, without a copy.
std::string TakeAll(std::string& text) { return std::exchange(text, {}); }

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

/// The byte that two hexadecimal digits tell; -1 when there are none.
int EscapedByte(const std::string& text, std::size_t digits) {
  if (text.size() - digits < 2) return -1;
  const int high = HexDigit(text[digits]);
  const int low = HexDigit(text[digits + 1]);
  return high < 0 || low < 0 ? -1 : high * 16 + low;
}

/// Where a byte comes next in a text. Each part of the text is searched once,
/// however often this is asked.
class NextOf {
 public:
  NextOf(const std::string& text, char byte) : text_(text), byte_(byte) {}

  /// The place from @p begin on, or the text's size. Places asked for ascend.
  std::size_t From(std::size_t begin) {
    if (!is_known_ || place_ < begin) {
      place_ = std::min(text_.find(byte_, begin), text_.size());
      is_known_ = true;
    }
    return place_;
  }

 private:
  const std::string& text_;
  const char byte_;
  std::size_t place_ = 0;
  bool is_known_ = false;
};

bool IsUnreserved(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '_' ||
         byte == '.' || byte == '~';
}

}  // namespace

std::string GetWord(std::string& text, char delimiter) {
  const std::size_t found = text.find(delimiter);
  if (found == std::string::npos) return TakeAll(text);
  return TakeFront(text, found, found + 1);
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
  std::string decoded;
  decoded.reserve(text.size());
  NextOf percent(text, '%');
  NextOf plus(text, '+');
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t special = std::min(percent.From(at), plus.From(at));
    decoded.append(text, at, special - at);
    if (special == text.size()) break;
    at = special + 1;
    if (text[special] == '+') {
      decoded += ' ';
    } else if (const int byte = EscapedByte(text, at); byte >= 0) {
      decoded += static_cast<char>(byte);
      at += 2;
    } else {
      decoded += '%';
    }
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
