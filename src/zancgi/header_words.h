/// @file
/// Private: the words of a header field such as 'form-data; name="a"'
/// (RFC 2045 section 5.1, RFC 9110 section 5.6).
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

/// Without spaces and tabs at both ends.
std::string_view Trimmed(std::string_view text);

/// Whether it is a token (RFC 2045 section 5.1), as names of headers and
/// parameters are.
bool IsMimeToken(std::string_view text);

/// Which characters a backslash in a quoted string escapes.
enum class Escapes {
  kAll,           ///< Any, as in RFC 2045.
  kQuotesAndSelf  ///< These two: old clients send paths as file names.
};

/// Reads what lies before the first ";", whatever it is.
std::string_view FirstWord(std::string_view value);

/// Goes through the parameters after the first word of a header field's value.
/// White space may stand round each word, and parameters may be empty.
class ParameterReader {
 public:
  /// @param value  must outlive this object
  ParameterReader(std::string_view value, Escapes escapes)
      : rest_(value.substr(FirstDelimiter(value))), escapes_(escapes) {}

  /// Goes to the next parameter. Returns false at the end, and where a rule is
  /// broken.
  bool Next();

  /// Whether the end is reached, no rule broken.
  bool IsComplete() const { return rest_.empty(); }

  /// Whether the parameter has a name, which is compared without case.
  bool Is(std::string_view name) const { return EqualWithoutCase(name_, name); }

  bool is_quoted() const { return is_quoted_; }

  /// What it says; for the taking.
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

  std::string_view rest_;  ///< From the next ";" on.
  Escapes escapes_;
  std::string_view name_;
  std::string value_;
  bool is_quoted_ = false;
};

/// Decodes an extended value such as "UTF-8''%e2%82%ac" (RFC 8187) to UTF-8;
/// nothing when it breaks a rule, has another encoding than UTF-8 and
/// ISO-8859-1, or holds a zero byte.
std::optional<std::string> DecodeExtendedValue(std::string_view value);

}  // namespace zan_cgi

#endif
