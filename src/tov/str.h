/// @file
/// Byte-string helpers: splitting words off a text, numbers, URL encoding.
///
/// Strings are byte strings; no encoding is assumed. Every function may be
/// called from any thread and may throw std::bad_alloc.
#ifndef TOV_STR_H
#define TOV_STR_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <tov/api.h>

namespace str {

/// Takes the first word off the front of @p text.
///
/// Removes the word and the delimiter after it from @p text and returns the
/// word, untrimmed. Without a delimiter the whole text is the word and
/// @p text is left empty.
///
/// Each call erases from the front of @p text, which is slow for a large text.
/// Split a large text into pieces that end in the delimiter and pass one at a
/// time.
TOV_API std::string GetWord(std::string& text, char delimiter);

/// The same with a delimiter of any length. An empty delimiter is never found.
TOV_API std::string GetWord(std::string& text, const std::string& delimiter);

/// Takes the last word off the end of @p text.
///
/// Returns the text after the last delimiter and leaves the text before it in
/// @p text. Without a delimiter the whole text is the word and @p text is left
/// empty.
TOV_API std::string RGetWord(std::string& text, char delimiter);

/// Returns @p text without leading and trailing blanks, tabs, CR and LF.
TOV_API std::string Trim(const std::string& text);

/// Appends an item to a list: returns @p text, @p separator, @p part.
///
/// If @p text is empty, returns @p part without a separator.
TOV_API std::string Append(const std::string& text, const std::string& part,
                           const std::string& separator);

/// Reads a decimal integer.
///
/// White space (blank, tab, CR, LF) around the number and one sign are allowed.
/// For anything else, an empty text included, returns 0. A number out of range
/// gives the nearest one in range, so that a huge length is never taken for a
/// small one.
TOV_API int Int(const std::string& text);

/// The same as Int() for 64 bits.
TOV_API std::int64_t Int64(const std::string& text);

/// Formats @p value in decimal, independent of the locale.
/// @{
TOV_API std::string Str(int value);
TOV_API std::string Str(unsigned value);
TOV_API std::string Str(long value);
TOV_API std::string Str(unsigned long value);
TOV_API std::string Str(long long value);
TOV_API std::string Str(unsigned long long value);
/// @}

/// Appends the words of @p text, each trimmed, to @p out.
///
/// @p out is any container of strings with push_back; it is not cleared first.
/// Empty words are skipped. That test comes before the trim, so a word of
/// blanks is appended as an empty string. The time is linear in the size of
/// @p text.
template <class Out>
void Split(std::string text, const std::string& separator, Out& out) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t found =
        separator.empty() ? std::string::npos : text.find(separator, begin);
    const std::size_t end =
        found == std::string::npos ? text.size() : found + separator.size();
    std::string piece = text.substr(begin, end - begin);
    begin = end;
    const std::string word = GetWord(piece, separator);
    if (!word.empty()) out.push_back(Trim(word));
  }
}

/// Percent-encoding, RFC 3986 section 2.1.
namespace url {

/// Decodes URL-encoded text.
///
/// "%XX" becomes the byte XX, 00 included, and "+" a blank. A malformed or
/// truncated escape stays as it is.
TOV_API std::string Decode(const std::string& text);

/// Encodes every byte but the unreserved ones of RFC 3986 section 2.3
/// (letters, digits and "-_.~") as "%XX" in upper case.
TOV_API std::string Encode(const std::string& text);

}  // namespace url
}  // namespace str

#endif
