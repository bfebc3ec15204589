/// @file
/// Forms, and how they are refused.
#ifndef ZANCGI_TESTS_SUPPORT_REFUSAL_H
#define ZANCGI_TESTS_SUPPORT_REFUSAL_H

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <ostream>
#include <string>

namespace support {

using zan_cgi::Form;

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

/// A request whose uploads go to this folder.
inline zan_cgi::Cgi CgiWithSpool(const std::string& spool) {
  zan_cgi::Cgi cgi("/bin/front", "");
  cgi.SetTmpDir(spool);
  return cgi;
}

/// How the form of such a request is refused.
inline Refusal RefusalWithin(const std::string& spool,
                             const Form::Limits& limits = Form::Limits()) {
  return RefusalOf([&] {
    zan_cgi::Cgi cgi = CgiWithSpool(spool);
    const Form form(cgi, limits);
  });
}

}  // namespace support

#endif
