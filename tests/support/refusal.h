/// @file
/// How a body is refused.
#ifndef ZANCGI_TESTS_SUPPORT_REFUSAL_H
#define ZANCGI_TESTS_SUPPORT_REFUSAL_H

#include <zancgi/form.h>

#include <ostream>
#include <string>

namespace support {

/// Status and text of a FormError. The status is 0 when there was none.
struct Refusal {
  int status = 0;
  std::string text = {};

  friend bool operator==(const Refusal&, const Refusal&) = default;
};

/// For messages of failed expectations.
inline void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.status << " '" << refusal.text << "'";
}

/// How this work is refused.
template <class Work>
Refusal RefusalOf(const Work& work) {
  try {
    work();
  } catch (const zan_cgi::FormError& error) {
    return {error.status(), error.what()};
  }
  return {};
}

}  // namespace support

#endif
