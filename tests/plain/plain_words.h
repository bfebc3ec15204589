/// @file
/// Text functions of the plain parser, in place of those of the base library.
/// White space, numbers and escapes are ASCII; nothing depends on the locale.
#ifndef ZANCGI_TESTS_PLAIN_PLAIN_WORDS_H
#define ZANCGI_TESTS_PLAIN_PLAIN_WORDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace plain {

/// Removes the text before the first @p delimiter from @p source, and the
/// delimiter, and returns the text. Without a delimiter it is all of the
/// source.
std::string_view TakeWord(std::string_view& source, std::string_view delimiter);

/// Removes blanks, tabs, CR and LF at both ends.
std::string_view Trim(std::string_view text);

/// Returns a decimal number, which may have a sign and blanks around it.
/// Returns 0 for anything else, and the nearest value for a number out of
/// range.
std::int64_t Int64(std::string_view text);

/// Returns the value of a hexadecimal digit, or -1.
int HexValue(char digit);

/// Decodes "%XX" to the byte and "+" to a blank. A "%" without two hexadecimal
/// digits stays as it is.
std::string UrlDecode(std::string_view text);

/// For the bodies of tests.
std::string Repeated(std::string_view text, std::size_t times);

}  // namespace plain

#endif
