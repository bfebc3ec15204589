/// @file
/// The answer to a request: status, headers, cookies and a body or a file
/// (RFC 3875 section 6, RFC 9110).
///
/// What comes from the request can be given to any function here. A value that
/// would change the answer's structure is refused before a byte is sent.
#ifndef ZANCGI_RESPONSE_H
#define ZANCGI_RESPONSE_H

#include <zancgi/request.h>
#include <zancgi/zancgi.h>

#include <memory>
#include <string>

namespace zan_cgi {

/// A cookie that the answer sets (RFC 6265, and SameSite of its revision). The
/// defaults are right for a session: not readable by scripts, and not sent from
/// other sites.
struct SetCookie {
  std::string name;   ///< A token (RFC 9110 section 5.6.2).
  std::string value;  ///< Printable ASCII but space, quote, ",", ";" and "\".
  std::string path = "/";  ///< Left out when empty.
  /// How long the browser keeps it, in seconds: 0 deletes it, and -1 keeps it
  /// until the browser ends.
  long max_age = -1;
  bool secure = IsHttps();           ///< Send it over HTTPS only.
  bool http_only = true;             ///< Hide it from scripts.
  std::string same_site = "Strict";  ///< "Strict", "Lax", "None" or "".
};

/// One answer. Set what it has, then send it once.
///
/// Copies are the same answer: what is set or sent through one holds for all.
/// Besides what is said below, every operation may throw std::bad_alloc.
class ZANCGI_API Response {
 public:
  /// An answer of the type "text/html; charset=utf-8".
  /// @param status  the HTTP status, such as 404
  /// @throws std::invalid_argument  it is not in 200 to 599
  explicit Response(int status = 200);
  /// Copies are the same answer.
  /// @{
  Response(const Response&) noexcept;
  Response& operator=(const Response&) noexcept;
  /// @}
  ~Response();

  /// An answer of status 303, which has the browser get another page. Send("")
  /// sends it without a body.
  /// @param location  URL of the page, absolute or a path. It is sent as given:
  ///   what comes from the request may lead to another site.
  /// @throws std::invalid_argument  it is empty or has a control byte
  static Response Redirect(const std::string& location);

  /// Sets a header. One of this name, compared without case, is replaced;
  /// "Set-Cookie" is added.
  /// @throws std::invalid_argument  @p name is not a token, or is "Status" or
  ///   "Content-Length", which are set by the library; or @p value has a
  ///   control byte other than a tab
  Response& Header(const std::string& name, const std::string& value);

  /// Sets the media type (Content-Type).
  /// @throws std::invalid_argument  it has a control byte other than a tab
  Response& Type(const std::string& type);

  /// Sets a cookie.
  /// @throws std::invalid_argument  a member of @p cookie is not as SetCookie
  ///   says, @p cookie has a path with a control byte or ";", a max_age below
  ///   -1, or is for other sites ("None") but not secure
  Response& SetCookie(const zan_cgi::SetCookie& cookie);

  /// Has the browser save the body as a file (Content-Disposition, RFC 6266).
  /// @param name  the file's name, best in UTF-8 (RFC 8187)
  /// @throws std::invalid_argument  it has a CR, LF or zero byte
  Response& Attachment(const std::string& name);

  /// Sends the answer to descriptor 1, with its length. Of an answer to a HEAD
  /// only the headers are sent; of one of status 204 or 304 neither a body nor
  /// its type and length.
  ///
  /// Text that stdio still holds for stdout is written first, so what was
  /// printed before does not come after. What std::cout holds after
  /// `sync_with_stdio(false)` has to be flushed by the caller.
  ///
  /// Waits as long as the reader takes. A reader that has gone is no error,
  /// since nobody is left to notice one, and SIGPIPE does not end the process.
  /// @throws std::logic_error  this answer has been sent already
  /// @throws std::runtime_error  it cannot be written; part of it may have been
  void Send(const std::string& body);

  /// Sends a file as Send() sends a body: all of it, wherever the position of
  /// the descriptor is, which stays there.
  ///
  /// To a GET or HEAD an answer of status 200 can be, instead, a 304 when the
  /// client has the file already (If-None-Match, If-Modified-Since), and to a
  /// GET a 206 with the part that was asked for (Range with one range of bytes,
  /// If-Range), or a 416 without a body when there is no such part.
  /// Last-Modified and ETag are made of the file's time of modification, inode
  /// and size, unless they have been set.
  ///
  /// A file that grows meanwhile is sent up to the length that it had.
  /// @param descriptor  of a regular file, open for reading; stays open and the
  ///   caller's
  /// @param type  the media type
  /// @throws std::invalid_argument  @p descriptor is not open for reading or is
  ///   not that of a regular file, or @p type is refused by Type(); nothing has
  ///   been sent
  /// @throws std::logic_error  this answer has been sent already
  /// @throws std::runtime_error  as Send(); also when the file cannot be read
  ///   or has become shorter meanwhile. Part of the answer has been sent.
  void SendFile(int descriptor, const std::string& type);

 private:
  struct __attribute__((visibility("hidden"))) Content;
  std::shared_ptr<Content> content_;
};

/// Returns text with "&", "<", ">" and both quotes escaped for HTML, so that it
/// stands for itself between tags and in quoted attributes. In scripts, style
/// sheets and URLs, other rules hold.
ZANCGI_API std::string Html(const std::string& text);

}  // namespace zan_cgi

#endif
