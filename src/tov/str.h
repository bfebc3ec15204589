/// @file
/// Byte-string helpers: taking words off a text, numbers, URL encoding.
///
/// Strings are byte strings; no encoding is assumed. Every function may be
/// called from any thread. Besides what is said below, each may throw
/// std::bad_alloc.
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
/// Erases from the front of @p text: to walk a large text, hand over one
/// piece at a time, up to and including its delimiter.
TOV_API std::string GetWord(std::string& text, char delimiter);

/// The same with a delimiter of any length. An empty delimiter occurs nowhere.
TOV_API std::string GetWord(std::string& text, const std::string& delimiter);

/// Takes the last word off the end of @p text.
///
/// Returns what follows the last delimiter and leaves in @p text what stands
/// before it. Without a delimiter the whole text is the word and @p text is
/// left empty.
TOV_API std::string RGetWord(std::string& text, char delimiter);

/// Returns @p text without leading and trailing blanks, tabs, CR and LF.
TOV_API std::string Trim(const std::string& text);

/// Joins two pieces of a list: @p text, @p separator, @p part.
///
/// No separator is written after an empty @p text.
TOV_API std::string Append(const std::string& text, const std::string& part,
                           const std::string& separator);

/// Reads a decimal integer.
///
/// Blanks, tabs, CR and LF around the number and one sign before it are
/// allowed.
/// Anything else, an empty text included, gives 0. A number out of range gives
/// the nearest one in range, so that a huge length never passes as a small one.
TOV_API int Int(const std::string& text);

/// The same for 64 bits.
TOV_API std::int64_t Int64(const std::string& text);

/// Writes @p value in decimal, independent of the locale.
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
/// blanks only is appended as an empty string. Takes time linear in the size
/// of @p text.
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

/// Undoes URL encoding.
///
/// "%XX" becomes the byte XX, 00 included, and "+" a blank. A malformed or
/// truncated escape stands as it is.
TOV_API std::string Decode(const std::string& text);

/// Encodes every byte but the unreserved ones of RFC 3986 section 2.3
/// (letters, digits and "-_.~") as "%XX" in upper case.
TOV_API std::string Encode(const std::string& text);

}  // namespace url
}  // namespace str

#endif
