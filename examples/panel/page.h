/// @file
/// The answers of the panel: pages, JSON and errors.
#ifndef PANEL_PAGE_H
#define PANEL_PAGE_H

#include <zancgi/request.h>
#include <zancgi/response.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace panel {

using zan_cgi::Html;
using zan_cgi::Response;

/// The panel refuses a request with this status. The reason is for the visitor;
/// without one, ShowError() uses the standard text.
struct Refusal : std::runtime_error {
  explicit Refusal(int http_status, const std::string& reason = "")
      : std::runtime_error(reason), status(http_status) {}
  const int status;
};

/// Adds the headers of every answer. With the referrer policy "no-referrer",
/// browsers would send "Origin: null" with the panel's own forms.
inline Response Protect(Response response) {
  return response.Header("Cache-Control", "no-store")
      .Header("Referrer-Policy", "same-origin")
      .Header("X-Content-Type-Options", "nosniff")
      .Header("Content-Security-Policy",
              "default-src 'none'; style-src 'self'; script-src 'self'; "
              "connect-src 'self'; form-action 'self'; base-uri 'none'; "
              "frame-ancestors 'none'");
}

/// Whether the page's script sent the request, and not the browser itself.
inline bool WantsJson() {
  return zan_cgi::Header("Accept").find("application/json") !=
         std::string::npos;
}

/// Returns a JSON string (RFC 8259 section 7). The text must be UTF-8.
inline std::string Json(const std::string& text) {
  std::string json = "\"";
  for (const char byte : text) {
    char escape[8] = {'\\', byte};
    const bool is_control = static_cast<unsigned char>(byte) < ' ';
    if (is_control) (void)std::snprintf(escape, 8, "\\u%04x", byte);
    json += is_control || byte == '"' || byte == '\\' ? escape
                                                      : std::string(1, byte);
  }
  return json + '"';
}

inline void SendJson(int status, const std::string& json) {
  Protect(Response(status)).Type("application/json").Send(json + "\n");
}

inline void SendProblem(int status, const std::string& problem) {
  SendJson(status, "{\"problem\":" + Json(problem) + "}");
}

/// @param navigation  empty for a visitor who is not signed in
inline void SendPage(int status, const std::string& title,
                     const std::string& content,
                     const std::string& navigation = "") {
  const std::string heading = Html(title);
  Response response = Protect(Response(status));
  response.Send(R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>)" + heading +
                R"( - Panel</title><link rel="stylesheet" href="/panel.css">
<script src="/panel.js" defer></script></head>
<body><header><a class="brand" href="/panel">Panel</a>
)" + navigation +
                "</header>\n<main>\n<h1>" + heading + "</h1>\n" + content +
                "</main>\n</body>\n</html>\n");
}

inline std::string Link(const std::string& address, const std::string& text) {
  return "<a href=\"" + address + "\">" + Html(text) + "</a>";
}

constexpr char kPlainForm[] = "application/x-www-form-urlencoded";
constexpr char kUploadForm[] = "multipart/form-data";

/// Returns the beginning of a form, with the token that identifies it as the
/// panel's own.
inline std::string BeginForm(const std::string& address, const std::string& id,
                             const std::string& token,
                             const std::string& type = kPlainForm) {
  return R"(<form method="post" action=")" + address + "\" id=\"" + id +
         "\" enctype=\"" + type + "\">\n<input type=\"hidden\" name=\"token\"" +
         " value=\"" + Html(token) + "\">\n";
}

inline std::string Row(const std::vector<std::string>& cells) {
  std::string row;
  for (const std::string& cell : cells) row += "<td>" + cell + "</td>";
  return "<tr>" + row + "</tr>\n";
}

inline std::string Table(const std::string& head, const std::string& rows) {
  return "<table>\n<thead><tr>" + head + "</tr></thead>\n<tbody>\n" + rows +
         "</tbody>\n</table>\n";
}

inline std::string ProblemText(const std::string& text) {
  if (text.empty()) return "";
  return R"(<p class="problem" role="alert">)" + Html(text) + "</p>\n";
}

inline void ShowSignIn(int status, const std::string& problem = "",
                       const std::string& user = "") {
  SendPage(status, "Sign in",
           R"(<form method="post" action="/panel?page=signin">
)" + ProblemText(problem) +
               R"(<label for="user">Name</label>
<input id="user" name="user" autocomplete="username" required autofocus value=")" +
               Html(user) + R"(">
<label for="password">Password</label>
<input id="password" name="password" type="password" required
 autocomplete="current-password">
<button>Sign in</button>
</form>
)");
}

struct Explanation {
  int status;
  const char* title;
  const char* text;
};

/// The last entry is for every other status.
constexpr Explanation kExplanations[] = {
    {400, "Bad Request", "Your request is incomplete or not valid."},
    {403, "Forbidden", "You may not do this, or your session has ended."},
    {404, "Not Found", "There is no such page or file."},
    {405, "Method Not Allowed", "This panel answers GET, HEAD and POST only."},
    {408, "Request Timeout", "Your request took too long to arrive."},
    {413, "Content Too Large", "Please send less at a time."},
    {415, "Unsupported Media Type", "Please use the panel's own forms."},
    {502, "Bad Gateway", "The service behind this panel does not answer."},
    {507, "Insufficient Storage", "Your files cannot be stored here."},
    {500, "Internal Server Error", "The panel has failed."},
};

inline void ShowError(int status, const std::string& reason = "") {
  const Explanation* known = kExplanations;
  while (known->status != status && known->status != 500) ++known;
  const std::string text = reason.empty() ? known->text : reason;
  if (WantsJson()) return SendProblem(status, text);
  SendPage(status, known->title,
           ProblemText(text) + R"(<p><a href="/panel">Back to the panel</a></p>
<p><a href="/panel?page=signin">Sign in</a></p>
)");
}

}  // namespace panel

#endif
