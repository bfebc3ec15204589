/// @file
/// Private: parses header fields such as 'form-data; name="a"' (RFC 2045
/// section 5.1, RFC 9110 section 5.6).
#ifndef ZANCGI_HEADER_WORDS_H
#define ZANCGI_HEADER_WORDS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "http_text.h"

namespace zan_cgi {

/// Whether it is a space or tab.
inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }

/// Removes spaces and tabs at both ends.
std::string_view Trimmed(std::string_view text);

/// Whether it is a token (RFC 2045 section 5.1), the syntax of header and
/// parameter names.
bool IsMimeToken(std::string_view text);

/// Which characters a backslash in a quoted string escapes.
enum class Escapes {
  kAll,           ///< Any, as in RFC 2045.
  kQuotesAndSelf  ///< Only these two: old clients send paths with backslashes.
};

/// Returns the text before the first ";", trimmed but not checked.
std::string_view FirstWord(std::string_view value);

/// Iterates over the parameters after the first word of a header field's value.
/// White space may surround each word, and parameters may be empty.
class ParameterReader {
 public:
  /// @param value  must outlive this object
  ParameterReader(std::string_view value, Escapes escapes)
      : rest_(value.substr(FirstDelimiter(value))), escapes_(escapes) {}

  /// Reads the next parameter. Returns false at the end and at a syntax error.
  bool Next();

  /// Whether the end was reached without a syntax error.
  bool IsComplete() const { return rest_.empty(); }

  /// Whether the parameter has this name, ignoring case.
  bool Is(std::string_view name) const { return EqualWithoutCase(name_, name); }

  bool is_quoted() const { return is_quoted_; }

  /// The parameter's value, which the caller may move from.
  std::string& value() { return value_; }

 private:
  static std::size_t FirstDelimiter(std::string_view value) {
    const std::size_t found = value.find(';');
    return found == std::string_view::npos ? value.size() : found;
  }

  void SkipWhiteSpace();
  bool ReadName();
  bool ReadValue();
  bool ReadQuoted();
  bool IsEscape(std::size_t at) const;

  std::string_view rest_;  ///< Begins at the next ";".
  Escapes escapes_;
  std::string_view name_;
  std::string value_;
  bool is_quoted_ = false;
};

/// Decodes an extended value such as "UTF-8''%e2%82%ac" (RFC 8187) to UTF-8.
/// Returns nothing if it is malformed, has an encoding other than UTF-8 and
/// ISO-8859-1, or holds a zero byte.
std::optional<std::string> DecodeExtendedValue(std::string_view value);

}  // namespace zan_cgi

#endif
