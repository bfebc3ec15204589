/// @file
/// The request as the web server describes it in the environment (RFC 3875).
///
/// Each call reads the environment anew. Strings are byte strings; no encoding
/// is assumed. Besides what is said below, every function that returns a string
/// or a vector may throw std::bad_alloc.
#ifndef ZANCGI_REQUEST_H
#define ZANCGI_REQUEST_H

#include <zancgi/form.h>
#include <zancgi/zancgi.h>

#include <string>
#include <vector>

namespace zan_cgi {

/// Returns the request's method as sent, such as "GET"; empty when the web
/// server gives none. Methods are compared with case.
ZANCGI_API std::string Method();

/// Returns the value of a header of the request, `HTTP_X_TOKEN` for "X-Token"
/// (RFC 3875 section 4.1.18), `CONTENT_TYPE` and `CONTENT_LENGTH` for those
/// two. Empty when there is no such header, or when @p name is not a token.
///
/// Web servers do not pass on every header; Authorization is one of these.
/// @param name  the header's name; case does not matter
ZANCGI_API std::string Header(const std::string& name);

/// Returns the part of the path after the program's own name (`PATH_INFO`), as
/// the web server has decoded it; empty when there is none. It may hold "..".
ZANCGI_API std::string PathInfo();

/// Returns whether the request has reached the web server over TLS: `HTTPS` is
/// set to anything but "", "off" (without case) and "0".
///
/// X-Forwarded-Proto and the like do not count, since clients can send them:
/// when a proxy ends TLS, set `HTTPS` in the web server's configuration.
ZANCGI_API bool IsHttps();

/// Returns the fields of the query string, whatever the method, in the order
/// sent, decoded by the rules of the URL Standard, section 5.1: "+" is a space,
/// and an invalid escape stays as it is. Names may repeat.
ZANCGI_API std::vector<Form::Field> QueryFields();

/// Returns whether the request comes from a page of this site or directly from
/// the user.
/// Refuse what changes something when it is false: another site may have sent
/// it with the user's cookies.
///
/// `Sec-Fetch-Site` (Fetch Metadata) decides when it was sent: true for
/// "same-origin", "same-site" and "none", false for any other value. Without
/// it, host and port of `Origin` must be those of `Host`; case does not matter,
/// nor whether the default port of the origin's scheme is written out. An
/// origin that is neither http nor https is another site.
///
/// False when neither was sent: curl and scripts have to send `Origin`.
ZANCGI_API bool IsSameSite();

}  // namespace zan_cgi

#endif
