/// @file
/// The answer of the panel: CGI header lines (RFC 3875 section 6.3) and HTML.
#ifndef PANEL_PAGE_H
#define PANEL_PAGE_H

#include <poll.h>
#include <tov/env.h>
#include <tov/str.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
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

/// What a page may do beside being looked at.
enum class Rights { kNone, kOwnScript };

/// Whether the visitor wants the header of the answer only.
inline bool IsHead() {
  static const bool head = tov_env::GetEnv("REQUEST_METHOD") == "HEAD";
  return head;
}

/// Whether the library has read the body to its end.
inline bool is_body_read = false;

/// Some web servers lose an answer that comes before the body has been read. A
/// slow visitor is not waited for, and nothing is read beyond the body's length
/// (RFC 3875 section 4.2), where a server may keep the input open.
inline void ReadRestOfBody() {
  using std::chrono::steady_clock;
  const auto end = steady_clock::now() + std::chrono::seconds(5);
  pollfd input{STDIN_FILENO, POLLIN, 0};
  char piece[65536];
  auto unread = str::Int64(tov_env::GetEnv("CONTENT_LENGTH"));
  while (unread > 0) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    if (left.count() <= 0 ||
        ::poll(&input, 1, static_cast<int>(left.count())) <= 0) {
      return;
    }
    const auto wanted =
        std::min<std::int64_t>(unread, std::int64_t{sizeof(piece)});
    const ssize_t count =
        ::read(STDIN_FILENO, piece, static_cast<std::size_t>(wanted));
    if (count <= 0) return;
    unread -= count;
  }
}

/// Writes the whole answer at once, so that an error on the way to it never
/// leaves half a page behind.
inline void Send(const std::string& header, const std::string& body,
                 Rights rights = Rights::kNone) {
  if (!is_body_read) ReadRestOfBody();
  const std::string answer =
      header +
      // Owed to other methods, and true for these.
      "Allow: GET, HEAD, POST\r\n"
      "Cache-Control: no-store\r\n"
      // With no-referrer the panel's own forms would have no origin.
      "Referrer-Policy: same-origin\r\n"
      "X-Content-Type-Options: nosniff\r\n"
      "Content-Security-Policy: default-src 'none'; style-src 'self'; " +
      (rights == Rights::kOwnScript ? "script-src 'self'; connect-src 'self'; "
                                    : "") +
      "form-action 'self'; base-uri 'none'; frame-ancestors 'none'\r\n"
      "\r\n" +
      (IsHead() ? "" : body);
  // That the visitor has gone meanwhile is no error.
  static_cast<void>(std::fwrite(answer.data(), 1, answer.size(), stdout));
}

inline void SendPage(const std::string& status, const std::string& title,
                     const std::string& content,
                     const std::string& navigation = "",
                     const std::string& script = "") {
  Send("Status: " + status + "\r\nContent-Type: text/html; charset=utf-8\r\n",
       "<!doctype html>\n<html lang=\"en\">\n<head>\n"
       "<meta charset=\"utf-8\">\n<meta name=\"viewport\" "
       "content=\"width=device-width, initial-scale=1\">\n<title>" +
           Escape(title) +
           " - Panel</title>\n"
           "<link rel=\"stylesheet\" href=\"/panel.css\">\n" +
           (script.empty()
                ? ""
                : "<script src=\"" + script + "\" defer></script>\n") +
           "</head>\n<body>\n"
           "<header><a class=\"brand\" href=\"/panel\">Panel</a>\n" +
           navigation + "</header>\n<main>\n<h1>" + Escape(title) + "</h1>\n" +
           content + "</main>\n</body>\n</html>\n",
       script.empty() ? Rights::kNone : Rights::kOwnScript);
}

/// One line of a list of properties.
inline std::string Row(const std::string& name, const std::string& html) {
  return "<dt>" + name + "</dt><dd>" + html + "</dd>\n";
}

/// A link of the navigation.
inline std::string Link(const std::string& query, const char* text,
                        bool current) {
  return "<a href=\"/panel?" + query + "\"" +
         (current ? " aria-current=\"page\">" : ">") + text + "</a>\n";
}

/// @param session  that came in the parameters; empty when the cookie has it
inline std::string SignOutButton(const std::string& token,
                                 const std::string& session) {
  return R"(<form method="post" action="/panel?page=signout">)"
         R"(<input type="hidden" name="token" value=")" +
         token + "\">" +
         (session.empty() ? ""
                          : R"(<input type="hidden" name="auth" value=")" +
                                session + "\">") +
         "<button>Sign out</button></form>\n";
}

inline std::string Problem(const std::string& problem) {
  if (problem.empty()) return "";
  return R"(<p class="problem" id="problem" role="alert">)" + Escape(problem) +
         "</p>\n";
}

inline void ShowSignIn(const std::string& status, const std::string& problem,
                       const std::string& user) {
  const std::string focus_name = user.empty() ? " autofocus" : "";
  const std::string focus_password = user.empty() ? "" : " autofocus";
  SendPage(status, "Sign in",
           R"(<form method="post" action="/panel?page=signin" class="card">)"
           "\n" +
               Problem(problem) + R"(<label for="user">Name</label>
<input id="user" name="user" autocomplete="username" required
 aria-describedby="problem" value=")" +
               Escape(user) + "\"" + focus_name + R"(>
<label for="password">Password</label>
<input id="password" name="password" type="password"
 autocomplete="current-password" required)" +
               focus_password + R"(>
<button>Sign in</button>
</form>
)");
}

/// Where a page about an error leads to.
enum class Way { kSignIn, kUpload, kPanel };

inline std::string LinkTo(Way way) {
  switch (way) {
    case Way::kUpload:
      return R"(<a href="/panel?page=upload">Back to the upload</a>)";
    case Way::kPanel:
      return R"(<a href="/panel">Back to the panel</a>)";
    case Way::kSignIn:
      break;
  }
  return R"(<a href="/panel?page=signin">Sign in</a>)";
}

inline void ShowError(const std::string& status, const std::string& problem,
                      const std::string& help, Way way = Way::kSignIn) {
  SendPage(status, status.substr(status.find(' ') + 1),
           "<div class=\"card\">" + Problem(problem) + "<p>" + help +
               "</p>\n<p>" + LinkTo(way) + "</p></div>\n");
}

/// The form for uploads; works without the script too.
/// @param limit  the largest accepted body, in bytes
inline void ShowUploadForm(const std::string& status,
                           const std::string& problem, const std::string& token,
                           long limit, const std::string& navigation) {
  SendPage(status, "Upload",
           R"(<form id="upload" class="card" method="post"
 action="/panel?page=upload" enctype="multipart/form-data"
 data-limit=")" +
               std::to_string(limit) + "\">\n" + Problem(problem) +
               R"(<input type="hidden" name="token" value=")" + token + R"(">
<label for="files">Files to upload</label>
<p class="hint" id="hint">Choose as many as you like, or drop them here:
 up to )" + std::to_string(limit >> 20) +
               R"(&nbsp;MB together.</p>
<noscript><p class="hint">Of two files with one name only the later arrives,
 and a semicolon ends a name.</p></noscript>
<input id="files" name="files" type="file" multiple required
 aria-describedby="hint">
<ul id="chosen"></ul>
<p id="message" role="status"></p>
<div id="sending" hidden><progress aria-label="Progress of the upload"></progress>
<span id="sent"></span></div>
<button id="send">Upload</button>
<button id="cancel" type="button" hidden>Cancel</button>
</form>
)",
           navigation, "/upload.js");
}

/// Sends the browser to another page and has it store a cookie. SameSite keeps
/// the cookie away from requests that other sites cause, Secure from requests
/// without encryption.
inline void SendRedirect(const std::string& location,
                         const std::string& cookie) {
  const bool is_encrypted = tov_env::GetEnv("HTTPS") == "on";
  Send("Status: 303 See Other\r\nLocation: " + location +
           "\r\nSet-Cookie: " + cookie + "; Path=/; HttpOnly; SameSite=Strict" +
           (is_encrypted ? "; Secure" : "") + "\r\n",
       "");
}

}  // namespace panel

#endif
