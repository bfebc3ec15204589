/// @file
/// Private: parses the header line that names a part of a form and its file
/// (RFC 7578 section 4.2).
#ifndef ZANCGI_DISPOSITION_H
#define ZANCGI_DISPOSITION_H

#include <tov/str.h>

#include <string>
#include <utility>

#include "field_cursor.h"

namespace zan_cgi {

/// Splits the value of a Content-Disposition line into its type and its
/// attributes, in time linear in the size of the line.
///
/// A ";" ends an attribute even inside quotes: 'filename="a;b"' gives two
/// attributes. Kept for compatibility.
class Disposition {
 public:
  /// @param value  must outlive this object
  explicit Disposition(const std::string& value) : words_(value, ';') {}

  /// Returns the next word, trimmed; empty at the end.
  std::string Next() {
    if (words_.AtEnd()) return "";
    std::string word = words_.Next();
    return str::Trim(str::GetWord(word, ';'));
  }

 private:
  FieldCursor words_;
};

/// Returns the value of an attribute such as 'name="a"': the text between the
/// first =" and the next quote, whatever precedes it. Empty without quotes.
inline std::string QuotedValue(std::string attribute) {
  str::GetWord(attribute, "=\"");
  return str::GetWord(attribute, '"');
}

}  // namespace zan_cgi

#endif
