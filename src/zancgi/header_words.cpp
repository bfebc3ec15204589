#include "header_words.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "hex_digit.h"

namespace zan_cgi {
namespace {

constexpr std::string_view kWhiteSpace = " \t";

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool IsLetterOrDigit(char c) {
  return (c >= '0' && c <= '9') || (LowerCase(c) >= 'a' && LowerCase(c) <= 'z');
}

/// Goes through a value from its first ";" on.
class ParameterReader {
 public:
  ParameterReader(std::string_view rest, Escapes escapes)
      : rest_(rest), escapes_(escapes) {}

  /// Returns false when a rule is broken.
  bool ReadAll(std::vector<HeaderWords::Parameter>& parameters) {
    while (!rest_.empty()) {
      if (rest_.front() != ';') return false;
      rest_.remove_prefix(1);
      SkipWhiteSpace();
      if (rest_.empty() || rest_.front() == ';') continue;
      HeaderWords::Parameter parameter;
      if (!ReadName(parameter.name) || !ReadValue(parameter.value)) {
        return false;
      }
      parameters.push_back(std::move(parameter));
      SkipWhiteSpace();
    }
    return true;
  }

 private:
  void SkipWhiteSpace() {
    rest_.remove_prefix(
        std::min(rest_.find_first_not_of(kWhiteSpace), rest_.size()));
  }

  /// Reads a name, and the "=" after it.
  bool ReadName(std::string_view& name) {
    name = rest_.substr(0, rest_.find_first_of("=; \t"));
    rest_.remove_prefix(name.size());
    SkipWhiteSpace();
    if (!IsToken(name) || rest_.empty() || rest_.front() != '=') return false;
    rest_.remove_prefix(1);
    SkipWhiteSpace();
    return true;
  }

  bool ReadValue(std::string& value) {
    if (!rest_.empty() && rest_.front() == '"') return ReadQuoted(value);
    value = rest_.substr(0, rest_.find_first_of("; \t"));
    rest_.remove_prefix(value.size());
    return !value.empty() && value.find('"') == std::string::npos &&
           std::none_of(value.begin(), value.end(), IsControl);
  }

  bool ReadQuoted(std::string& value) {
    for (std::size_t at = 1; at < rest_.size(); ++at) {
      if (rest_[at] == '"') {
        rest_.remove_prefix(at + 1);
        return true;
      }
      if (rest_[at] == '\\' && IsEscape(at)) ++at;
      value += rest_[at];
    }
    return false;
  }

  bool IsEscape(std::size_t at) const {
    if (at + 1 == rest_.size()) return false;
    const char next = rest_[at + 1];
    return escapes_ == Escapes::kAll || next == '"' || next == '\\';
  }

  std::string_view rest_;
  Escapes escapes_;
};

/// RFC 8187 section 3.2.1.
bool IsAttrChar(char c) {
  return IsLetterOrDigit(c) ||
         std::string_view("!#$&+-.^_`|~").find(c) != std::string_view::npos;
}

std::optional<std::string> DecodePercents(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      if (!IsAttrChar(text[at])) return std::nullopt;
      bytes += text[at];
      continue;
    }
    const int byte = HexByteAt(text.substr(at + 1));
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

/// The length of the character that a text begins with; 0 when it is none. No
/// surrogate, nothing above U+10FFFF, and no longer than it must be (RFC 3629).
std::size_t Utf8LengthAt(std::string_view text) {
  const auto byte = [&](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned first = byte(0);
  if (first < 0x80) return 1;
  const std::size_t length = first < 0xC2   ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const unsigned second = byte(1);
  const bool is_refused =
      (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
      (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return is_refused ? 0 : length;
}

}  // namespace

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kWhiteSpace);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kWhiteSpace) + 1 - begin);
}

bool IsSameWord(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
    return LowerCase(x) == LowerCase(y);
  });
}

bool IsToken(std::string_view text) {
  constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return IsLetterOrDigit(c) || kMarks.find(c) != std::string_view::npos;
  });
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = Utf8LengthAt(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

const std::string* HeaderWords::Find(std::string_view name) const {
  for (const Parameter& parameter : parameters) {
    if (IsSameWord(parameter.name, name)) return &parameter.value;
  }
  return nullptr;
}

bool HeaderWords::HasTwice(std::string_view name) const {
  return std::count_if(parameters.begin(), parameters.end(),
                       [&](const Parameter& parameter) {
                         return IsSameWord(parameter.name, name);
                       }) > 1;
}

std::string_view FirstWord(std::string_view value) {
  return Trimmed(value.substr(0, value.find(';')));
}

std::optional<HeaderWords> ReadHeaderWords(std::string_view value,
                                           Escapes escapes) {
  HeaderWords words;
  words.word = FirstWord(value);
  value.remove_prefix(std::min(value.find(';'), value.size()));
  if (!ParameterReader(value, escapes).ReadAll(words.parameters)) {
    return std::nullopt;
  }
  return words;
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
  if (IsSameWord(charset, "ISO-8859-1")) return Utf8OfLatin1(*text);
  if (!IsSameWord(charset, "UTF-8") || !IsUtf8(*text)) return std::nullopt;
  return text;
}

}  // namespace zan_cgi
