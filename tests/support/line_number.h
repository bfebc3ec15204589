/// @file
/// Log lines without the line numbers of our sources.
#ifndef ZANCGI_TESTS_SUPPORT_LINE_NUMBER_H
#define ZANCGI_TESTS_SUPPORT_LINE_NUMBER_H

#include <cstddef>
#include <string>

namespace support {

/// The text with "#" for the number if it begins with "SOURCE.cpp:NUMBER ".
inline std::string WithoutLineNumber(std::string text) {
  constexpr char kExtension[] = ".cpp:";
  const std::size_t extension = text.find(kExtension);
  const std::size_t space = text.find(' ');
  if (extension < space && space != text.npos) {
    const std::size_t number = extension + sizeof(kExtension) - 1;
    if (text.find_first_not_of("0123456789", number) == space) {
      text.replace(number, space - number, "#");
    }
  }
  return text;
}

}  // namespace support

#endif
