/// @file
/// The answer to a request: status, headers, cookies and a body or a file
/// (RFC 3875 section 6, RFC 9110).
///
/// Every function here accepts data from the request: a value that would change
/// the answer's structure is refused before a byte is sent.
#ifndef ZANCGI_RESPONSE_H
#define ZANCGI_RESPONSE_H

#include <zancgi/request.h>
#include <zancgi/zancgi.h>

#include <memory>
#include <string>

namespace zan_cgi {

/// A cookie that the answer sets (RFC 6265, and SameSite of its revision). The
/// defaults suit a session: scripts cannot read the cookie, and requests from
/// other sites do not carry it.
struct SetCookie {
  std::string name;   ///< A token (RFC 9110 section 5.6.2).
  std::string value;  ///< Printable ASCII but space, quote, ",", ";" and "\".
  std::string path = "/";  ///< Left out when empty.
  /// How long the browser keeps the cookie, in seconds: 0 deletes it, and -1
  /// keeps it until the browser is closed.
  long max_age = -1;
  bool secure = IsHttps();           ///< Send it over HTTPS only.
  bool http_only = true;             ///< Hide it from scripts.
  std::string same_site = "Strict";  ///< "Strict", "Lax", "None" or "".
};

/// One answer: set its headers, then send it once.
///
/// Copies share one answer: what is set or sent through one applies to all.
/// Every operation may throw std::bad_alloc.
class ZANCGI_API Response {
 public:
  /// Makes an answer of type "text/html; charset=utf-8".
  /// @param status  the HTTP status, such as 404
  /// @throws std::invalid_argument  it is not in 200 to 599
  explicit Response(int status = 200);
  /// Copies share one answer.
  /// @{
  Response(const Response&) noexcept;
  Response& operator=(const Response&) noexcept;
  /// @}
  ~Response();

  /// Returns an answer of status 303, which redirects the browser to another
  /// page. Send it with an empty body: Send("").
  /// @param location  URL of the page, absolute or a path. It is sent
  ///   unchanged, so a location from the request may lead to another site.
  /// @throws std::invalid_argument  it is empty or has a control byte
  static Response Redirect(const std::string& location);

  /// Sets a header. Replaces an existing header of this name, ignoring case;
  /// "Set-Cookie" is added.
  /// @throws std::invalid_argument  @p name is not a token, or is "Status" or
  ///   "Content-Length", which the library sets; or @p value has a control byte
  ///   other than a tab
  Response& Header(const std::string& name, const std::string& value);

  /// Sets the media type (Content-Type).
  /// @throws std::invalid_argument  it has a control byte other than a tab
  Response& Type(const std::string& type);

  /// Sets a cookie.
  /// @throws std::invalid_argument  a member is not as zan_cgi::SetCookie
  ///   requires; the path has a control byte or ";"; max_age is below -1; or
  ///   same_site is "None" and the cookie is not secure
  Response& SetCookie(const zan_cgi::SetCookie& cookie);

  /// Makes the browser save the body as a file (Content-Disposition, RFC 6266).
  /// @param name  the file's name, best in UTF-8 (RFC 8187)
  /// @throws std::invalid_argument  it has a CR, LF or zero byte
  Response& Attachment(const std::string& name);

  /// Writes the answer and its length to descriptor 1. An answer to HEAD has
  /// headers only. An answer of status 204 or 304 has no body, Content-Type or
  /// Content-Length.
  ///
  /// Flushes stdout first, so that text printed before is not written after the
  /// answer. After `sync_with_stdio(false)`, std::cout has a buffer of its own:
  /// flush it before the call.
  ///
  /// Blocks SIGTERM for the rest of the process's life. Some web servers send
  /// it as soon as they have the whole answer, and it would keep the remaining
  /// uploads from being removed. SIGKILL may follow, so finish long work before
  /// the answer.
  ///
  /// Waits for a slow reader without a time limit. A closed connection is not
  /// an error, because nobody would receive the report. SIGPIPE never ends the
  /// process.
  /// @throws std::logic_error  this answer has already been sent
  /// @throws std::runtime_error  it cannot be written; part of it may have been
  void Send(const std::string& body);

  /// Sends a whole file in the same manner as Send() sends a body. The
  /// descriptor's position is neither used nor changed.
  ///
  /// For a GET or HEAD, an answer of status 200 becomes 304 if the client
  /// already has the file (If-None-Match, If-Modified-Since). For a GET, it
  /// becomes 206 with the requested part (Range with one range of bytes,
  /// If-Range), or 416 without a body if the file has no such part. Any other
  /// Range gets the whole file. Last-Modified and ETag are derived from the
  /// file's modification time, inode and size, unless they have been set.
  ///
  /// If the file grows during the call, only its former length is sent.
  /// @param descriptor  of a regular file, open for reading; the caller closes
  ///   it
  /// @param type  the media type
  /// @throws std::invalid_argument  @p descriptor is not open for reading or
  ///   does not refer to a regular file, or Type() refuses @p type; nothing has
  ///   been sent
  /// @throws std::logic_error  this answer has already been sent
  /// @throws std::runtime_error  as Send(); also if the file cannot be read or
  ///   shrinks during the call; part of the answer has been sent
  void SendFile(int descriptor, const std::string& type);

 private:
  struct __attribute__((visibility("hidden"))) Content;
  std::shared_ptr<Content> content_;
};

/// Returns text with "&", "<", ">" and both quotes escaped for HTML. The result
/// is safe between tags and in quoted attributes. Scripts, style sheets and
/// URLs need other escapes.
ZANCGI_API std::string Html(const std::string& text);

}  // namespace zan_cgi

#endif
