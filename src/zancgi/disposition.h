/// @file
/// Private: reading the header line that names a part of a form and its file
/// (RFC 7578 section 4.2).
#ifndef ZANCGI_DISPOSITION_H
#define ZANCGI_DISPOSITION_H

#include <tov/str.h>

#include <string>
#include <utility>

#include "field_cursor.h"

namespace zan_cgi {

/// Walks the value of a Content-Disposition line: its type, then its
/// attributes, in time linear in the size of the line.
///
/// A ";" ends an attribute even inside quotes, which is kept: the part of
/// 'filename="a;b"' after the ";" is an attribute of its own.
class Disposition {
 public:
  /// @param value  must outlive this object
  explicit Disposition(const std::string& value) : words_(value, ';') {}

  /// The next word, trimmed; empty at the end.
  std::string Next() {
    if (words_.AtEnd()) return "";
    std::string word = words_.Next();
    return str::Trim(str::GetWord(word, ';'));
  }

 private:
  FieldCursor words_;
};

/// Returns the value of an attribute such as 'name="a"': what stands between
/// the first =" and the next quote, whatever precedes it. Empty without quotes.
inline std::string QuotedValue(std::string attribute) {
  str::GetWord(attribute, "=\"");
  return str::GetWord(attribute, '"');
}

}  // namespace zan_cgi

#endif
