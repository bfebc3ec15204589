/// @file
/// Private: the words of a header field such as 'form-data; name="a"'
/// (RFC 2045 section 5.1, RFC 9110 section 5.6).
#ifndef ZANCGI_HEADER_WORDS_H
#define ZANCGI_HEADER_WORDS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zan_cgi {

/// Without spaces and tabs at both ends.
std::string_view Trimmed(std::string_view text);

/// Compares two texts; letters of ASCII in either case are alike.
bool IsSameWord(std::string_view a, std::string_view b);

/// Whether it is a control character of ASCII.
inline bool IsControl(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == 127;
}

/// Whether it is a token (RFC 9110 section 5.6.2), as names of headers and
/// parameters are.
bool IsToken(std::string_view text);

/// Which characters a backslash in a quoted string escapes.
enum class Escapes {
  kAll,           ///< Any, as in RFC 2045.
  kQuotesAndSelf  ///< These two: old clients send paths as file names.
};

/// A header field's value: a word and its parameters.
struct HeaderWords {
  struct Parameter {
    std::string_view name;
    std::string value;
  };

  std::string_view word;
  std::vector<Parameter> parameters;

  /// Returns the value of a parameter, whose name is compared without case;
  /// null when there is none.
  const std::string* Find(std::string_view name) const;

  /// Whether a name comes twice.
  bool HasTwice(std::string_view name) const;
};

/// Reads what lies before the first ";", whatever it is.
std::string_view FirstWord(std::string_view value);

/// Reads a value; nothing when it breaks a rule. White space may stand round
/// each word, and parameters may be empty. The result refers to @p value.
std::optional<HeaderWords> ReadHeaderWords(std::string_view value,
                                           Escapes escapes);

/// Whether a text is UTF-8 (RFC 3629).
bool IsUtf8(std::string_view text);

/// Decodes an extended value such as "UTF-8''%e2%82%ac" (RFC 8187) to UTF-8;
/// nothing when it breaks a rule, has another encoding than UTF-8 and
/// ISO-8859-1, or holds a zero byte.
std::optional<std::string> DecodeExtendedValue(std::string_view value);

}  // namespace zan_cgi

#endif
