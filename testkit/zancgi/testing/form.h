/// @file
/// Multipart forms (RFC 7578), as browsers send them.
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
  /// Adds a file. In names, the bytes that would break the header are escaped
  /// as browsers do.
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
