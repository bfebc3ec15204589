/// @file
/// A second, simple implementation of the rules for forms, written from the
/// public standards, for comparison with zan_cgi::Form. It shares no code with
/// the library and does no input or output.
#ifndef ZANCGI_TESTS_PLAIN_PLAIN_FORM_H
#define ZANCGI_TESTS_PLAIN_PLAIN_FORM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace plain {

struct PlainField {
  std::string name;
  std::string value;

  friend bool operator==(const PlainField&, const PlainField&) = default;
};

struct PlainUpload {
  std::string field;
  std::string name;
  std::string type;
  std::string content;

  friend bool operator==(const PlainUpload&, const PlainUpload&) = default;
};

struct PlainForm {
  /// 0 if the form is accepted. Otherwise 400, 413 or 415, without fields and
  /// uploads.
  int status = 0;
  std::vector<PlainField> fields;
  std::vector<PlainUpload> uploads;

  friend bool operator==(const PlainForm&, const PlainForm&) = default;
};

/// The limits of zan_cgi::Form::Limits except time.
struct PlainLimits {
  std::int64_t body = 100 * 1024 * 1024;
  std::size_t value = 1024 * 1024;
  std::size_t values = 8 * 1024 * 1024;
  std::size_t parts = 1000;
  std::size_t header = 16 * 1024;
};

/// What a client sends, and the limits for it.
struct FormRequest {
  std::string method = "POST";
  std::string content_type;
  std::string query;
  /// The bytes that arrive.
  std::string body;
  std::int64_t declared_length = 0;
  PlainLimits limits;
};

/// Parses the query string of a GET or HEAD, or the body of any other method:
/// URL-encoded (URL Standard, section 5.1) or multipart (RFC 7578, RFC 2046,
/// RFC 8187).
PlainForm ParsePlainForm(const FormRequest& request);

}  // namespace plain

#endif
