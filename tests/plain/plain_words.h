/// @file
/// What the plain parser does with text: its own versions of what the base
/// library does for the library's parser. White space, numbers and escapes are
/// ASCII; nothing depends on the locale.
#ifndef ZANCGI_TESTS_PLAIN_PLAIN_WORDS_H
#define ZANCGI_TESTS_PLAIN_PLAIN_WORDS_H

#include <cstdint>
#include <string>
#include <string_view>

namespace plain {

/// Takes the text before the first @p delimiter off @p source, and the
/// delimiter with it; all of it when there is no delimiter.
std::string_view TakeWord(std::string_view& source, std::string_view delimiter);

/// Without blanks, tabs, CR and LF at both ends.
std::string_view Trim(std::string_view text);

/// A decimal number with an optional sign and blanks around it; 0 for anything
/// else, and the nearest value when it is out of range.
std::int64_t Int64(std::string_view text);

/// The value of a hexadecimal digit, or -1.
int HexValue(char digit);

/// "%XX" becomes the byte and "+" a blank. A '%' that two hexadecimal digits do
/// not follow stands for itself.
std::string UrlDecode(std::string_view text);

}  // namespace plain

#endif
