/// @file
/// Private: splits a text into fields.
#ifndef ZANCGI_FIELD_CURSOR_H
#define ZANCGI_FIELD_CURSOR_H

#include <string>

namespace zan_cgi {

/// Returns the fields of a text one at a time, each with its delimiter, in time
/// linear in the size of the text.
///
/// Removing each field from the front of the text would move the rest every
/// time. The delimiter is kept so that the base library's functions decide what
/// the word in the field is.
class FieldCursor {
 public:
  /// @param text  must outlive the cursor
  FieldCursor(const std::string& text, char delimiter)
      : text_(text), delimiter_(delimiter) {}

  bool AtEnd() const { return position_ == text_.size(); }

  std::string Next() {
    const std::size_t begin = position_;
    const std::size_t found = text_.find(delimiter_, begin);
    position_ = found == std::string::npos ? text_.size() : found + 1;
    return text_.substr(begin, position_ - begin);
  }

 private:
  const std::string& text_;
  char delimiter_;
  std::size_t position_ = 0;
};

}  // namespace zan_cgi

#endif
