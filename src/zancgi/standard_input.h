/// @file
/// Private: the state of std::cin, without <iostream>.
#ifndef ZANCGI_STANDARD_INPUT_H
#define ZANCGI_STANDARD_INPUT_H

#include <zancgi/zancgi.h>

#include <cstring>
#include <istream>

namespace zan_cgi {

/// The memory of std::cin, under its linker name. <iostream> would have the
/// standard streams set up at every start, which costs each request more than
/// its query string does. Weak, so that a front end that is linked from
/// archives has them only if it uses them itself.
///
/// Not const: a compiler could then merge two reads of it, although the streams
/// may have been set up between them.
extern ZANCGI_API unsigned char standard_input[] __asm__("_ZSt3cin")
    __attribute__((weak));

/// Whether the stream has been constructed. Until then its memory, which must
/// be there, is zero; after that it begins with the pointer that objects with
/// virtual functions begin with.
inline bool IsStandardInputConstructed() {
  const void* first = nullptr;
  std::memcpy(&first, standard_input, sizeof(first));
  return first != nullptr;
}

/// Returns std::cin; null where there is none, or none yet: nothing can have
/// changed its state then.
inline const std::istream* StandardInput() {
  // cppcheck-suppress knownConditionTrueFalse  ; it is weak
  if (standard_input == nullptr || !IsStandardInputConstructed()) {
    return nullptr;
  }
  return reinterpret_cast<const std::istream*>(standard_input);
}

}  // namespace zan_cgi

#endif
