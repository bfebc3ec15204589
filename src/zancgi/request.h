/// @file
/// The request as the web server describes it in the environment (RFC 3875).
///
/// Each call reads the environment again. Strings are byte strings; no encoding
/// is assumed. Every function that returns a string or a vector may throw
/// std::bad_alloc.
#ifndef ZANCGI_REQUEST_H
#define ZANCGI_REQUEST_H

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// Returns the request's method as sent, such as "GET"; empty if the web server
/// sets none. Methods are case-sensitive.
ZANCGI_API std::string Method();

/// Returns the value of a request header: `HTTP_X_TOKEN` for "X-Token" (RFC
/// 3875 section 4.1.18), `CONTENT_TYPE` and `CONTENT_LENGTH` for those two.
/// Empty if there is no such header or @p name is not a token.
///
/// Web servers do not pass every header: Authorization is usually missing.
/// @param name  the header's name; case does not matter
ZANCGI_API std::string Header(const std::string& name);

/// Returns the part of the path after the program's name (`PATH_INFO`), decoded
/// by the web server; empty if there is none. It may contain "..".
ZANCGI_API std::string PathInfo();

/// Returns whether the request reached the web server over TLS: `HTTPS` is set
/// to anything but "", "off" (in any case) and "0".
///
/// X-Forwarded-Proto and the like are ignored, because clients can send them.
/// If a proxy ends TLS, set `HTTPS` in the web server's configuration.
ZANCGI_API bool IsHttps();

/// Returns the fields of the query string, for any method, in the order sent.
/// They are decoded by the rules of the URL Standard, section 5.1: "+" is a
/// space, and an invalid escape stays as it is. Names may repeat.
ZANCGI_API std::vector<Form::Field> QueryFields();

/// Returns whether the request comes from a page of this site or directly from
/// the user. Refuse a request that changes something when this is false:
/// another site may have sent it with the user's cookies.
///
/// If `Sec-Fetch-Site` (Fetch Metadata) was sent, the result is true for
/// "same-origin", "same-site" and "none", and false for any other value.
/// Otherwise host and port of `Origin` must equal those of `Host`. Case does
/// not matter, and the default port of the origin's scheme may be omitted. An
/// origin that is neither http nor https is another site.
///
/// False if neither header was sent: curl and scripts must send `Origin`.
ZANCGI_API bool IsSameSite();

}  // namespace zan_cgi

#endif
