/// @file
/// Multipart forms (RFC 7578), in the spelling of browsers: their headers and
/// their order, their escapes in names. Values are sent as they are given;
/// browsers would make every line end in them CR LF.
#ifndef ZANCGI_TESTING_FORM_H
#define ZANCGI_TESTING_FORM_H

#include <string>
#include <vector>

namespace zan_cgi::testing {

/// A form with files, for Request::Multipart().
class Form {
 public:
  /// Adds a field.
  Form& Field(const std::string& name, const std::string& value);
  /// Adds a file. In names, double quote, CR and LF are escaped, each byte by
  /// itself, as %22, %0D and %0A.
  Form& File(const std::string& name, const std::string& file_name,
             const std::string& content,
             const std::string& content_type = "application/octet-stream");
  /// Adds a part as it is: its header lines, an empty line and its content. For
  /// what no browser sends.
  Form& Part(const std::string& text);

  /// The bytes between the parts; in none of them.
  std::string Boundary() const;
  /// The request's body.
  std::string Body() const;
  /// The request's content type, which tells the boundary.
  std::string ContentType() const;

 private:
  std::vector<std::string> parts_;
};

}  // namespace zan_cgi::testing

#endif
