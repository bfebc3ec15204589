/// @file
/// HTTP requests, and what a web server makes of them for a CGI program
/// (RFC 3875).
#ifndef ZANCGI_TESTING_REQUEST_H
#define ZANCGI_TESTING_REQUEST_H

#include <zancgi/testing/form.h>
#include <zancgi/testing/input.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

namespace zan_cgi::testing {

/// The items as a query string, or as the body of a form without files.
std::string UrlEncoded(const Items& items);
/// The items of a query string, decoded.
Items FromUrlEncoded(const std::string& text);

/// What the body comes from, as standard input of the front end. Web servers
/// differ in that.
enum class Delivery {
  Pipe,    ///< A pipe whose writer hangs up behind the last byte.
  Socket,  ///< A Unix socket that is shut down behind the last byte.
  File,    ///< A regular file.
  /// A pipe whose writer neither writes more than the body nor hangs up: a
  /// visitor who stalls.
  StallingPipe
};

/// A request to come.
class Request {
 public:
  /// @param method  such as "PUT"; for most, Get() and Post() do
  /// @param path    of the front end, such as "/panel"
  /// @param query   behind the question mark, encoded
  Request(std::string method, std::string path, std::string query = "");

  /// Sets a header. What it becomes for the front end is HTTP_NAME, except for
  /// Content-Type and Content-Length.
  Request& Header(const std::string& name, const std::string& value);
  /// Adds a cookie.
  Request& Cookie(const std::string& name, const std::string& value);
  /// Sets the body. Its length is declared, unless a header Content-Length says
  /// otherwise.
  Request& Body(std::string bytes, const std::string& content_type);
  /// Has a form without files for a body.
  Request& Fields(const Items& items);
  /// Has a form with files for a body.
  Request& Multipart(const Form& form);
  /// Submits a form as a browser does from a page of the same origin: with the
  /// body and its type, Origin, and the Sec-Fetch headers of Fetch Metadata.
  /// The origin is that of the headers and variables Host and HTTPS. Headers
  /// that are set stay.
  /// @throws std::logic_error for a part that cannot be URL-encoded
  Request& Submit(const Form& form, Encoding encoding = Encoding::Multipart);
  /// A pipe unless set. A request without a body comes from /dev/null.
  Request& By(Delivery delivery);
  /// Has the body come through a pipe in pieces of this size, with a pause
  /// before each.
  Request& Slowly(std::size_t size, std::chrono::milliseconds pause);
  /// Sets a variable of the web server, such as REMOTE_ADDR.
  Request& Variable(const std::string& name, const std::string& value);

  /// Whether it comes by HTTPS: the variable of this name is neither missing
  /// nor empty nor "off".
  bool IsHttps() const;
  /// The environment that a web server gives to the front end.
  std::map<std::string, std::string> Environment() const;
  /// What is to be its standard input.
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

/// A GET.
Request Get(const std::string& path, const std::string& query = "");
/// A POST, whose body is to be set.
Request Post(const std::string& path, const std::string& query = "");

}  // namespace zan_cgi::testing

#endif
