#include "plain/plain_words.h"

#include <algorithm>
#include <limits>

namespace plain {
namespace {

bool IsDigit(char byte) { return byte >= '0' && byte <= '9'; }

}  // namespace

int HexValue(char byte) {
  if (IsDigit(byte)) return byte - '0';
  if (byte >= 'a' && byte <= 'f') return byte - 'a' + 10;
  if (byte >= 'A' && byte <= 'F') return byte - 'A' + 10;
  return -1;
}

std::string_view TakeWord(std::string_view& source,
                          std::string_view delimiter) {
  const std::size_t at = source.find(delimiter);
  const std::string_view word = source.substr(0, at);
  source.remove_prefix(at == std::string_view::npos ? source.size()
                                                    : at + delimiter.size());
  return word;
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kWhiteSpace = " \t\r\n";
  text.remove_prefix(
      std::min(text.find_first_not_of(kWhiteSpace), text.size()));
  return text.substr(0, text.find_last_not_of(kWhiteSpace) + 1);
}

std::int64_t Int64(std::string_view text) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  text = Trim(text);
  const bool negative = !text.empty() && text.front() == '-';
  if (negative || (!text.empty() && text.front() == '+')) text.remove_prefix(1);
  for (const char byte : text) {
    if (!IsDigit(byte)) return 0;
  }
  std::int64_t value = 0;
  for (const char byte : text) {
    // Computed as a negative number, because there is one more of these.
    const int digit = byte - '0';
    if (value < (kMin + digit) / 10) return negative ? kMin : kMax;
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value == kMin ? kMax : -value;
}

std::string UrlDecode(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() ? HexValue(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
    if (text[i] == '%' && high >= 0 && low >= 0) {
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      decoded += text[i] == '+' ? ' ' : text[i];
    }
  }
  return decoded;
}

std::string Repeated(std::string_view text, std::size_t times) {
  std::string repeated;
  for (; times > 0; --times) repeated += text;
  return repeated;
}

}  // namespace plain
