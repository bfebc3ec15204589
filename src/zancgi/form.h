/// @file
/// The strict parser for forms and other request bodies.
///
/// The parser of zan_cgi::Cgi keeps its oddities for compatibility. This one
/// accepts what the standards allow, refuses everything else with a fitting
/// HTTP status, and gives the same result however the body is split into reads.
#ifndef ZANCGI_FORM_H
#define ZANCGI_FORM_H

#include <zancgi/zancgi.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zan_cgi {

/// What the client sent is refused. what() is one sentence that names the rule
/// or the limit and contains nothing of what was sent.
class ZANCGI_API FormError : public std::runtime_error {
 public:
  /// @param status   what status() returns
  /// @param message  what what() returns
  FormError(int status, const std::string& message);
  /// Copies status and message.
  /// @{
  FormError(const FormError&) noexcept = default;
  FormError& operator=(const FormError&) noexcept = default;
  /// @}
  ~FormError() override;

  /// Returns the HTTP status (RFC 9110 section 15.5): 400 for a form that
  /// breaks a rule or ends early, 408 if the client sent nothing in time, 413
  /// for a form that exceeds a limit, 415 for a type that is no form, 507 for
  /// an upload that cannot be stored.
  int status() const noexcept;

 private:
  int status_;
};

/// The whole form of one request.
///
/// For GET and HEAD the form is the query string, for every other method the
/// body: `multipart/form-data` (RFC 7578, RFC 2046) or
/// `application/x-www-form-urlencoded` (URL Standard, section 5.1). Nothing is
/// guessed and nothing is silently dropped.
///
/// Afterwards the Cgi returns what the form has read: Cgi::Param() joins the
/// values of one name with ", ", and Cgi::File() and the others know the
/// uploads. For an upload, Cgi::Param() of the field's name returns the name to
/// pass to Cgi::File(). Uploads belong to the request: Cgi::Su() hands them
/// over. When the last copy of the Cgi and of the Form is destroyed, the
/// uploads that are still at Path() are removed.
///
/// Call BecomeAccount() first if the request becomes an account: the form is
/// then parsed without root's rights, and uploads go to the account's home
/// folder directly.
class ZANCGI_API Form {
 public:
  /// Limits of a form. Exceeding one of the first five is refused with 413.
  struct Limits {
    /// Length of the body, in bytes.
    std::int64_t body = std::int64_t{100} * 1024 * 1024;
    /// Length of one value, in bytes. In a URL-encoded form it also limits each
    /// name.
    std::size_t value = std::size_t{1024} * 1024;
    /// Length of all names and values together, in bytes. Names and types of
    /// uploads count, their contents do not.
    std::size_t values = std::size_t{8} * 1024 * 1024;
    /// Number of fields and uploads, empty file inputs included.
    std::size_t parts = 1000;
    /// Length of the headers of one part, in bytes.
    std::size_t header = std::size_t{16} * 1024;
    /// How long to wait for each read from the client, in seconds.
    int idle = 30;
  };

  /// A field that is no upload. Its bytes are kept as sent; no encoding is
  /// assumed.
  struct Field {
    std::string name;   ///< The field's name; may be empty, and may repeat.
    std::string value;  ///< Its value; may hold any bytes.
  };

  /// An uploaded file.
  struct Upload {
    std::string field;  ///< Name of the field.
    /// The file's name as the client sent it. It may hold any byte except zero,
    /// slashes included: never use it as a path.
    std::string name;
    std::string type;       ///< Media type as sent; empty when none was.
    std::int64_t size = 0;  ///< Length in bytes.
  };

  /// Reads the form of the request.
  ///
  /// Uploads go to the directory of Cgi::SetTmpDir(). Without one they go to
  /// the account's home folder if the process has become an account, otherwise
  /// to the directory in `TMP`, and without that to /tmp. Their mode is 0600.
  ///
  /// If a form is refused, its stored uploads are removed, and the rest of its
  /// body is read and dropped, up to 1 GiB, so that the web server forwards the
  /// answer. The Cgi then has no parameters.
  /// @throws FormError    what was sent is refused
  /// @throws std::logic_error  the input of @p cgi has already been parsed
  /// @{
  explicit Form(Cgi& cgi);
  Form(Cgi& cgi, const Limits& limits);
  /// @}

  /// Copies share the same form.
  /// @{
  Form(const Form&) noexcept;
  Form& operator=(const Form&) noexcept;
  /// @}
  ~Form();

  /// Returns whether there is a field of this name. Uploads do not count.
  bool Has(const std::string& name) const;

  /// Returns the first value of a field; empty when there is none.
  std::string Value(const std::string& name) const;

  /// Returns all values of a field, in the order sent.
  std::vector<std::string> Values(const std::string& name) const;

  /// Returns all fields, in the order sent. The reference is valid while any
  /// copy of this object exists.
  const std::vector<Field>& fields() const noexcept;

  /// Returns all uploads, in the order sent. A file input without a chosen file
  /// (no name and no bytes) is not one. The reference is valid while any copy
  /// of this object exists.
  const std::vector<Upload>& uploads() const noexcept;

  /// Returns the current path of an upload, also after Cgi::Su().
  /// @param upload  an element of uploads(), or a copy. For a copy, the first
  ///   upload with equal members is meant.
  /// @throws std::invalid_argument  it does not belong to this form
  std::string Path(const Upload& upload) const;

 private:
  std::shared_ptr<const Cgi::Data> request_;
};

/// Reads a whole body that is no form, such as JSON, for any type and method.
/// Use it in front ends that do not parse the input otherwise.
///
/// Waits up to 30 seconds for each piece. If the body is refused, the rest of
/// it is read and dropped, up to 1 GiB.
/// @param limit  the largest accepted length, in bytes
/// @throws FormError  413 when the declared length is larger than @p limit; 408
///   when nothing came in time; 400 when the body ends early or its length is
///   not declared as RFC 3875 section 4.1.2 requires
ZANCGI_API std::string ReadBody(std::int64_t limit);

}  // namespace zan_cgi

#endif
