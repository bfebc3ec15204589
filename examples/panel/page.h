/// @file
/// The answer of the panel: CGI header lines (RFC 3875 section 6.3) and HTML.
#ifndef PANEL_PAGE_H
#define PANEL_PAGE_H

#include <cstdio>
#include <string>

namespace panel {

/// Makes text harmless in HTML, inside attribute values too.
inline std::string Escape(const std::string& text) {
  std::string escaped;
  for (const char byte : text) {
    switch (byte) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += byte;
    }
  }
  return escaped;
}

/// Writes the whole answer at once, so that an error on the way to it never
/// leaves half a page behind.
inline void Send(const std::string& header, const std::string& body) {
  const std::string answer =
      header +
      "Cache-Control: no-store\r\n"
      "Referrer-Policy: no-referrer\r\n"
      "X-Content-Type-Options: nosniff\r\n"
      "Content-Security-Policy: default-src 'none'; style-src 'self'; "
      "form-action 'self'; base-uri 'none'; frame-ancestors 'none'\r\n"
      "\r\n" +
      body;
  // That the visitor has gone meanwhile is no error.
  static_cast<void>(std::fwrite(answer.data(), 1, answer.size(), stdout));
}

inline void SendPage(const std::string& status, const std::string& title,
                     const std::string& content) {
  Send("Status: " + status + "\r\nContent-Type: text/html; charset=utf-8\r\n",
       "<!doctype html>\n<html lang=\"en\">\n<head>\n"
       "<meta charset=\"utf-8\">\n"
       "<meta name=\"viewport\" content=\"width=device-width\">\n"
       "<title>" +
           Escape(title) +
           " - Panel</title>\n"
           "<link rel=\"stylesheet\" href=\"/panel.css\">\n</head>\n<body>\n"
           "<header><a class=\"brand\" href=\"/panel\">Panel</a></header>\n"
           "<main>\n<h1>" +
           Escape(title) + "</h1>\n" + content + "</main>\n</body>\n</html>\n");
}

/// Sends the browser to another page and has it store a cookie. SameSite keeps
/// the cookie away from requests that other sites cause.
inline void SendRedirect(const std::string& location,
                         const std::string& cookie) {
  Send("Status: 303 See Other\r\nLocation: " + location + "\r\nSet-Cookie: " +
           cookie + "; Path=/; HttpOnly; SameSite=Strict\r\n",
       "");
}

}  // namespace panel

#endif
