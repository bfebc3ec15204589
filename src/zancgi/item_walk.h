/// @file
/// Private: walking a text item by item.
#ifndef ZANCGI_ITEM_WALK_H
#define ZANCGI_ITEM_WALK_H

#include <string>

namespace zan_cgi {

/// Hands out the items of a text one at a time, each with the separator that
/// ends it, in time linear in the size of the text.
///
/// A word taken off the front of the text itself would move all the rest each
/// time. An item that still has its separator lets the base library's own rules
/// for taking words decide what the word is.
class ItemWalk {
 public:
  /// @param text  must outlive the walk
  ItemWalk(const std::string& text, char separator)
      : text_(text), separator_(separator) {}

  bool AtEnd() const { return position_ == text_.size(); }

  std::string Next() {
    const std::size_t begin = position_;
    const std::size_t found = text_.find(separator_, begin);
    position_ = found == std::string::npos ? text_.size() : found + 1;
    return text_.substr(begin, position_ - begin);
  }

 private:
  const std::string& text_;
  char separator_;
  std::size_t position_ = 0;
};

}  // namespace zan_cgi

#endif
