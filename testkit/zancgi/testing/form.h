/// @file
/// Forms as browsers encode them (HTML Standard, "Constructing the entry
/// list"): as multipart (RFC 7578) or URL-encoded.
#ifndef ZANCGI_TESTING_FORM_H
#define ZANCGI_TESTING_FORM_H

#include <string>
#include <utility>
#include <vector>

namespace zan_cgi::testing {

/// Names and values, in order.
using Items = std::vector<std::pair<std::string, std::string>>;

/// How a form is encoded.
enum class Encoding {
  Multipart,  ///< multipart/form-data
  UrlEncoded  ///< application/x-www-form-urlencoded; of files only the names
};

/// A form, for Request::Submit() and Request::Multipart().
class Form {
 public:
  /// Adds a field; several may have one name. Each line end in name and value
  /// becomes CR LF.
  Form& Field(const std::string& name, const std::string& value);
  /// Adds a file; several may have one name. In multipart, double quote, CR and
  /// LF in names become %22, %0D and %0A; a line end in the field's name is
  /// made CR LF before. The content stays as it is.
  Form& File(const std::string& name, const std::string& file_name,
             const std::string& content,
             const std::string& content_type = "application/octet-stream");
  /// Adds a file input in which nothing was chosen.
  Form& EmptyFile(const std::string& name);
  /// Adds a part as it is: its header lines, an empty line and its content. For
  /// what no browser sends.
  Form& Part(const std::string& text);

  /// The bytes between the parts; in none of them.
  std::string Boundary() const;
  /// The request's body.
  std::string Body() const;
  /// The request's content type, which tells the boundary.
  std::string ContentType() const;

  /// What is URL-encoded: the fields, and of files the names.
  /// @throws std::logic_error when a part was added as it is
  Items UrlEncodedItems() const;

 private:
  std::vector<std::string> parts_;
  Items items_;
};

}  // namespace zan_cgi::testing

#endif
