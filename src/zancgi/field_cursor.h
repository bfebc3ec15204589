/// @file
/// Private: going through a text field by field.
#ifndef ZANCGI_FIELD_CURSOR_H
#define ZANCGI_FIELD_CURSOR_H

#include <string>

namespace zan_cgi {

/// Hands out the fields of a text one at a time, each with the delimiter that
/// ends it, in time linear in the size of the text.
///
/// A word taken off the front of the text itself would move all the rest each
/// time. A field that still has its delimiter lets the base library's own rules
/// for taking words decide what the word is.
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
