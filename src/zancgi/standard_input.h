/// @file
/// Private: reads the state of std::cin without <iostream>.
#ifndef ZANCGI_STANDARD_INPUT_H
#define ZANCGI_STANDARD_INPUT_H

#include <zancgi/zancgi.h>

#include <cstring>
#include <istream>

namespace zan_cgi {

/// The memory of std::cin, by its linker name. <iostream> would initialize the
/// standard streams at every start, which takes longer than parsing a query
/// string. The reference is weak, so that a front end linked from archives
/// contains the streams only if it uses them.
///
/// Not const: a compiler could then merge two reads of it, although the streams
/// may be initialized between them.
extern ZANCGI_API unsigned char standard_input[] __asm__("_ZSt3cin")
    __attribute__((weak));

/// Whether the stream has been constructed. Until then its memory is zero;
/// after that it begins with a pointer to the virtual table. The symbol must be
/// defined.
inline bool IsStandardInputConstructed() {
  const void* first = nullptr;
  std::memcpy(&first, standard_input, sizeof(first));
  return first != nullptr;
}

/// Returns std::cin; null if it does not exist or is not constructed yet, and
/// so its state is unchanged.
inline const std::istream* StandardInput() {
  // cppcheck-suppress knownConditionTrueFalse  ; it is weak
  if (standard_input == nullptr || !IsStandardInputConstructed()) {
    return nullptr;
  }
  return reinterpret_cast<const std::istream*>(standard_input);
}

}  // namespace zan_cgi

#endif
