/// @file
/// The exact way to read what a client has sent: forms and other bodies.
///
/// Unlike the parser of zan_cgi::Cgi, whose oddities are kept for
/// compatibility, this one takes what the standards allow, refuses everything
/// else with the HTTP status that fits, and gives the same result however the
/// body's bytes arrive.
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

/// What a client has sent cannot be taken. what() names the rule or the limit,
/// in a sentence that holds nothing of what was sent.
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

  /// Returns the HTTP status that fits (RFC 9110 section 15.5): 400 for a form
  /// that breaks a rule or ends early, 408 for silence, 413 for one that
  /// exceeds a limit, 415 for a type that is no form, 507 for an upload that
  /// cannot be stored.
  int status() const noexcept;

 private:
  int status_;
};

/// The whole form of one request.
///
/// Of a GET or HEAD it is the query string, of every other method the body:
/// `multipart/form-data` (RFC 7578, RFC 2046) or
/// `application/x-www-form-urlencoded` (URL Standard, section 5.1). Nothing is
/// guessed and nothing is left out in silence.
///
/// Afterwards the Cgi answers from what was read: Cgi::Param() with the values
/// of one name joined by ", ", Cgi::File() and the others. Of an upload,
/// Cgi::Param() of the field's name is the name that Cgi::File() knows it by.
/// Uploads belong to the request: Cgi::Su() hands them over, and those that
/// still lie where Path() says are removed when the last copy of the Cgi and of
/// the Form goes.
///
/// Best made after BecomeAccount(): what a stranger has sent is then read
/// without root's rights, and uploads lie in the account's home folder from the
/// beginning.
class ZANCGI_API Form {
 public:
  /// How much is taken. What exceeds one of the first five is refused with 413.
  struct Limits {
    /// Length of the body, in bytes.
    std::int64_t body = std::int64_t{100} * 1024 * 1024;
    /// Length of one value, and in a URL-encoded form of one name, in bytes.
    std::size_t value = std::size_t{1024} * 1024;
    /// Length of all names and values together, in bytes. Names and types of
    /// uploads count, their contents do not.
    std::size_t values = std::size_t{8} * 1024 * 1024;
    /// Number of fields and uploads, empty file inputs included.
    std::size_t parts = 1000;
    /// Length of the headers of one part, in bytes.
    std::size_t header = std::size_t{16} * 1024;
    /// How long the client may be silent, in seconds.
    int idle = 30;
  };

  /// A field that is no upload. Bytes stand as they were sent; no encoding is
  /// assumed.
  struct Field {
    std::string name;   ///< The field's name; may be empty, and may repeat.
    std::string value;  ///< Its value; may hold any bytes.
  };

  /// An uploaded file.
  struct Upload {
    std::string field;  ///< Name of the field.
    /// The file's name as the client sent it: it may hold anything but a zero
    /// byte, so it is no path.
    std::string name;
    std::string type;       ///< Media type as sent; empty when none was.
    std::int64_t size = 0;  ///< Length in bytes.
  };

  /// Reads the form of the request.
  ///
  /// Uploads go to the directory that Cgi::SetTmpDir() has set; without one to
  /// the account's home folder after a switch to an account, otherwise to that
  /// which `TMP` names, failing that to /tmp. They are made with mode 0600.
  ///
  /// When a form is refused, what has been stored of it is removed, and the
  /// rest of its body is read and dropped, up to 1 GiB, so that the web server
  /// passes the answer on. The Cgi then has no parameters.
  /// @throws FormError    what was sent cannot be taken
  /// @throws std::logic_error  the input of @p cgi has been parsed already
  /// @{
  explicit Form(Cgi& cgi);
  Form(Cgi& cgi, const Limits& limits);
  /// @}

  /// Copies share what was read.
  /// @{
  Form(const Form&) noexcept;
  Form& operator=(const Form&) noexcept;
  /// @}
  ~Form();

  /// Returns whether there is a field of this name. Uploads are not asked.
  bool Has(const std::string& name) const;

  /// Returns the first value of a field; empty when there is none.
  std::string Value(const std::string& name) const;

  /// Returns all values of a field, in the order sent.
  std::vector<std::string> Values(const std::string& name) const;

  /// Returns all fields, in the order sent. The reference is valid as long as a
  /// copy of this object lives.
  const std::vector<Field>& fields() const noexcept;

  /// Returns all uploads, in the order sent. A file input in which nothing was
  /// chosen (no name and no bytes) is none. The reference is valid as long as a
  /// copy of this object lives.
  const std::vector<Upload>& uploads() const noexcept;

  /// Returns the path of an upload, as seen by this process now, also after
  /// Cgi::Su().
  /// @param upload  one of uploads(), or a copy of it; of several alike a copy
  ///   means the first
  /// @throws std::invalid_argument  it is not of this form
  std::string Path(const Upload& upload) const;

 private:
  std::shared_ptr<const Cgi::Data> request_;
};

/// Reads a body that is no form, such as JSON, whole, whatever its type and the
/// request's method. For front ends that do not have the input parsed.
///
/// Waits up to 30 seconds for each piece. When the body is refused, the rest of
/// it is read and dropped, up to 1 GiB.
/// @param limit  the largest accepted length, in bytes
/// @throws FormError  413 when the declared length is larger than @p limit; 408
///   when nothing came in time; 400 when the body ends early or its length is
///   not declared as RFC 3875 section 4.1.2 demands
ZANCGI_API std::string ReadBody(std::int64_t limit);

}  // namespace zan_cgi

#endif
