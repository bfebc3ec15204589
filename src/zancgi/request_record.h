/// @file
/// Private: the record of a request, with what the public one has no room for.
#ifndef ZANCGI_REQUEST_RECORD_H
#define ZANCGI_REQUEST_RECORD_H

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// What a Form has read.
struct FormContents {
  std::vector<Form::Field> fields;
  std::vector<Form::Upload> uploads;
  std::vector<std::string> keys;  ///< Of each upload, in the record's files.
};

/// The record that every Cgi has.
struct RequestRecord : Cgi::Data {
  FormContents form;
  /// The parameters are still to be made from the form. Most front ends that
  /// read a form never ask for them, and they take as long as the rest.
  bool owes_params = false;

  /// Makes the parameters if that has not happened yet.
  void PayParams() {
    if (owes_params) MakeParams();
  }

 private:
  void MakeParams();
};

}  // namespace zan_cgi

#endif
