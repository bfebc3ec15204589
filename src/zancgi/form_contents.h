/// @file
/// Private: the contents of a Form. They are kept outside the request record,
/// whose layout must not change.
#ifndef ZANCGI_FORM_CONTENTS_H
#define ZANCGI_FORM_CONTENTS_H

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// The contents of a Form.
struct FormContents {
  const Cgi::Data* request = nullptr;  ///< Whose form it is.
  std::vector<Form::Field> fields;
  std::vector<Form::Upload> uploads;
  std::vector<std::string> keys;  ///< Of each upload, in the record's files.
  /// Whether the record's parameters have not been made from the fields yet.
  /// Most front ends that use a Form never read them, and making them takes as
  /// long as all the rest.
  bool owes_params = false;
};

/// Adds an empty form to a request.
FormContents& AttachForm(const Cgi::Data& request);

/// Returns the form of a request. It must have one.
const FormContents& FormOf(const Cgi::Data& request) noexcept;

/// Makes the parameters of a request from its form unless that is done.
void PayParams(Cgi::Data& request);

/// Removes the form of a request, if it has one.
void DetachForm(const Cgi::Data& request) noexcept;

}  // namespace zan_cgi

#endif
