/// @file
/// Private: what a Form has read, kept beside the record of its request, whose
/// layout has no room for it.
#ifndef ZANCGI_FORM_CONTENTS_H
#define ZANCGI_FORM_CONTENTS_H

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// What a Form has read.
struct FormContents {
  const Cgi::Data* request = nullptr;  ///< Whose form it is.
  std::vector<Form::Field> fields;
  std::vector<Form::Upload> uploads;
  std::vector<std::string> keys;  ///< Of each upload, in the record's files.
  /// The record's parameters are still to be made from this. Most front ends
  /// that read a form never ask for them, and they take as long as the rest.
  bool owes_params = false;
};

/// Makes the contents of a request's form, still empty.
FormContents& AttachForm(const Cgi::Data& request);

/// Returns the contents of a request's form, which there must be.
const FormContents& FormOf(const Cgi::Data& request) noexcept;

/// Makes the parameters of a request from its form, if they are still to be
/// made.
void PayParams(Cgi::Data& request);

/// Forgets the form of a request that goes, if it has one.
void DetachForm(const Cgi::Data& request) noexcept;

}  // namespace zan_cgi

#endif
