/// @file
/// HTTP requests, and the environment and input that a CGI program gets for
/// them (RFC 3875).
#ifndef ZANCGI_TESTING_REQUEST_H
#define ZANCGI_TESTING_REQUEST_H

#include <zancgi/testing/form.h>
#include <zancgi/testing/input.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

namespace zan_cgi::testing {

/// Encodes items as a query string, or as the body of a form without files.
std::string UrlEncoded(const Items& items);
/// Decodes the items of a query string.
Items FromUrlEncoded(const std::string& text);

/// The kind of standard input that delivers the body. Web servers differ in
/// this.
enum class Delivery {
  Pipe,    ///< A pipe whose writer hangs up after the last byte.
  Socket,  ///< A Unix socket that is shut down after the last byte.
  File,    ///< A regular file.
  /// A pipe whose writer stops after the body but does not hang up, like a
  /// visitor who stalls.
  StallingPipe
};

/// A request for a front end.
class Request {
 public:
  /// @param method  such as "PUT"; usually Get() or Post() is shorter
  /// @param path    of the front end, such as "/panel"
  /// @param query   the encoded part after the question mark
  Request(std::string method, std::string path, std::string query = "");

  /// Sets a header. The front end gets it as HTTP_NAME, except for Content-Type
  /// and Content-Length.
  Request& Header(const std::string& name, const std::string& value);
  /// Adds a cookie.
  Request& Cookie(const std::string& name, const std::string& value);
  /// Sets the body. Content-Length is set to its length, unless that header is
  /// set explicitly.
  Request& Body(std::string bytes, const std::string& content_type);
  /// Sets a form without files as the body.
  Request& Fields(const Items& items);
  /// Sets a form with files as the body.
  Request& Multipart(const Form& form);
  /// Submits a form as a browser does from a page of the same origin: with the
  /// body and its type, Origin, and the Sec-Fetch headers of Fetch Metadata.
  /// The origin follows from the header Host and the variable HTTPS. Headers
  /// that are already set are kept.
  /// @throws std::logic_error for a part that cannot be URL-encoded
  Request& Submit(const Form& form, Encoding encoding = Encoding::Multipart);
  /// Sets the kind of standard input; the default is a pipe. A request without
  /// a body uses /dev/null.
  Request& By(Delivery delivery);
  /// Sends the body through a pipe in pieces of this size, with a pause before
  /// each.
  Request& Slowly(std::size_t size, std::chrono::milliseconds pause);
  /// Sets a variable of the web server, such as REMOTE_ADDR.
  Request& Variable(const std::string& name, const std::string& value);

  /// Whether it uses HTTPS: the variable HTTPS is set and neither empty nor
  /// "off".
  bool IsHttps() const;
  /// Returns the environment that a web server passes to the front end.
  std::map<std::string, std::string> Environment() const;
  /// Returns the standard input that a web server passes to the front end.
  Input StandardInput() const;

 private:
  std::map<std::string, std::string> variables_;
  std::string cookies_;
  std::string body_;
  bool has_body_ = false;
  bool is_submitted_ = false;
  Delivery delivery_ = Delivery::Pipe;
  std::size_t piece_size_ = 0;
  std::chrono::milliseconds pause_{};
};

/// Returns a GET request.
Request Get(const std::string& path, const std::string& query = "");
/// Returns a POST request, still without a body.
Request Post(const std::string& path, const std::string& query = "");

}  // namespace zan_cgi::testing

#endif
