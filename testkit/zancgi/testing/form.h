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
  UrlEncoded  ///< application/x-www-form-urlencoded; names only for files
};

/// A form, for Request::Submit() and Request::Multipart().
class Form {
 public:
  /// Adds a field. Names may repeat. Each line end in name and value becomes CR
  /// LF.
  Form& Field(const std::string& name, const std::string& value);
  /// Adds a file. Names may repeat. In multipart, double quote, CR and LF in
  /// names become %22, %0D and %0A, after each line end in the field's name has
  /// become CR LF. The content is not changed.
  Form& File(const std::string& name, const std::string& file_name,
             const std::string& content,
             const std::string& content_type = "application/octet-stream");
  /// Adds a file input without a chosen file.
  Form& EmptyFile(const std::string& name);
  /// Adds a part as given: its header lines, an empty line and its content. For
  /// parts that no browser sends.
  Form& Part(const std::string& text);

  /// Returns a boundary that occurs in no part.
  std::string Boundary() const;
  /// Returns the request's body.
  std::string Body() const;
  /// Returns the request's content type, which includes the boundary.
  std::string ContentType() const;

  /// Returns the items to URL-encode: the fields, and the names of files.
  /// @throws std::logic_error when a part was added by Part()
  Items UrlEncodedItems() const;

 private:
  std::vector<std::string> parts_;
  Items items_;
};

}  // namespace zan_cgi::testing

#endif
