// The front end of a small administration panel: a CGI program that the web
// server starts for each request. Copy it and change the pages.

#include <stdlib.h>
#include <sys/resource.h>
#include <tov/err.h>
#include <tov/log.h>
#include <tov/str.h>
#include <tov/xml.h>
#include <zancgi/zancgi.h>

#include <exception>
#include <map>
#include <stdexcept>
#include <string>

#include "page.h"

namespace panel {
namespace {

using zan_cgi::Cgi;
using Items = std::map<std::string, std::string>;

constexpr char kBackend[] = "panel";
constexpr char kCookie[] = "panelses5";

tov_log::Module log("panel", "front");

/// A request that goes wrong must not take the machine with it.
void LimitResources() {
  constexpr rlim_t kSeconds = 10;
  constexpr rlim_t kMemory = 256UL << 20;
  const rlimit time{kSeconds, kSeconds};
  const rlimit memory{kMemory, kMemory};
  ::setrlimit(RLIMIT_CPU, &time);
  ::setrlimit(RLIMIT_AS, &memory);
}

/// The back end does not let this caller do this. Says it in the same words as
/// the library.
class Refusal : public std::runtime_error {
 public:
  Refusal() : std::runtime_error("You do not authorized for this operation") {}
};

/// The back end's answer to a query of the front end's own.
class Answer {
 public:
  /// @throws Refusal when the back end refuses access
  /// @throws std::runtime_error when it has not done what it was asked for
  Answer(Cgi& cgi, const Items& query) {
    document_.LoadFromString(cgi.Query(query));
    if (Has("/doc/error[@type='access']")) throw Refusal();
    if (!Has("/doc") || Has("/doc/error")) {
      throw std::runtime_error("bad answer from '" + std::string(kBackend) +
                               "'");
    }
  }

  bool Has(const std::string& xpath) const {
    return bool{document_.GetNode(xpath)};
  }
  std::string Text(const std::string& xpath, const char* attribute) const {
    return document_.GetNode(xpath).GetProp(attribute);
  }
  std::string Html(const std::string& xpath, const char* attribute) const {
    return Escape(Text(xpath, attribute));
  }

 private:
  tov_xml::Xml document_;
};

void SignIn(Cgi& cgi) {
  const std::string user = cgi.Param("user");
  if (user.empty()) return ShowSignIn("200 OK", "", "");
  try {
    const Answer answer(cgi, {{"func", "session.new"},
                              {"user", user},
                              {"password", cgi.Param("password")}});
    // The redirect also takes the password out of the address bar.
    SendRedirect("/panel", std::string(kCookie) + "=" +
                               answer.Text("/doc/session", "id"));
  } catch (const Refusal&) {
    ShowSignIn("403 Forbidden", "Name or password is wrong.", user);
  }
}

std::string Navigation(Cgi& cgi, const Answer& answer) {
  const Cgi::AuthInfo& user = cgi.auth();
  // Who came with the session in the parameters goes on with it.
  const std::string session =
      user.method == Cgi::AuthInfo::AuthParams
          ? "&amp;auth=" + Escape(str::url::Encode(user.auth))
          : "";
  const bool sessions = cgi.Param("page") == "sessions";
  return "<nav>\n" + Link("page=whoami" + session, "Who am I", !sessions) +
         Link("page=sessions" + session, "Sessions", sessions) +
         Link("page=signout&amp;token=" + answer.Html("/doc/own", "token") +
                  session,
              "Sign out", false) +
         "</nav>\n";
}

void ShowWhoAmI(Cgi& cgi) {
  const Answer answer(cgi, {{"func", "session.own"}});
  const Cgi::AuthInfo& user = cgi.auth();
  const bool from_cookie = user.method == Cgi::AuthInfo::AuthCookie;
  SendPage("200 OK", "Who am I",
           "<dl class=\"card\">\n" +
               Row("Name", "<b id=\"name\">" + Escape(user.name) + "</b>") +
               Row("Level", str::Str(user.level)) +
               Row("Signed in", answer.Html("/doc/own", "started")) +
               Row("Session found in",
                   from_cookie ? "the cookie" : "the parameters") +
               "</dl>\n",
           Navigation(cgi, answer));
}

void ShowSessions(Cgi& cgi) {
  const Answer answer(cgi, {{"func", "session.list"}});
  std::string rows;
  for (int number = 1;; ++number) {
    const std::string session = "/doc/session[" + str::Str(number) + "]";
    if (!answer.Has(session)) break;
    rows += "<tr><td>" + answer.Html(session, "user") + " <small>" +
            answer.Html(session, "note") + "</small></td><td>" +
            answer.Html(session, "started") + "</td><td>" +
            answer.Html(session, "address") + "</td></tr>\n";
  }
  SendPage("200 OK", "Sessions",
           "<div class=\"card\"><table>\n<thead><tr><th>Name</th>"
           "<th>Signed in</th><th>From</th></tr></thead>\n<tbody>\n" +
               rows + "</tbody>\n</table></div>\n",
           Navigation(cgi, answer));
}

void SignOut(Cgi& cgi) {
  // The back end compares the token, so that no other site can sign a user out.
  const Answer answer(cgi,
                      {{"func", "session.end"}, {"token", cgi.Param("token")}});
  SendRedirect("/panel?page=signin", std::string(kCookie) + "=; Max-Age=0");
}

void ShowPage(Cgi& cgi) {
  const std::string page = cgi.Param("page");
  if (page == "signin") return SignIn(cgi);
  if (cgi.Cookie(kCookie).empty() && cgi.Param("auth").empty()) {
    if (page.empty()) return ShowSignIn("200 OK", "", "");
    return ShowSignIn("403 Forbidden", "Please sign in first.", "");
  }
  cgi.Authorize(Cgi::AuthInfo::AuthAny);
  if (page.empty() || page == "whoami") return ShowWhoAmI(cgi);
  if (page == "sessions") return ShowSessions(cgi);
  if (page == "signout") return SignOut(cgi);
  SendPage("404 Not Found", "Not found",
           "<p class=\"card\">There is no page of this name.</p>\n");
}

/// A text that names paths and the like is for the administrator, who finds it
/// in the web server's error log.
void ReportError(const std::string& status, const std::string& problem,
                 const std::string& help, const std::exception& error) {
  if (log.Check(tov_log::Error)) {
    log.Write(tov_log::Error, "%s", error.what());
  }
  ShowError(status, problem, help);
}

/// The exceptions that the library throws under its fixed messages.
void ShowRequestError(const std::exception& error) {
  const std::string message = error.what();
  if (message.starts_with("bad request method")) {
    ShowError("405 Method Not Allowed", message,
              "This panel answers GET only.");
  } else if (message == Refusal().what()) {
    ShowError("403 Forbidden", message,
              "Your session has ended, or it lacks the right.");
  } else {
    ShowError("502 Bad Gateway", message,
              "The service behind this panel cannot make sense of this request,"
              " or the panel of its answer.");
  }
}

/// No proxy stands before this web server: an address that claims to have been
/// forwarded, in whatever spelling of the header, is the browser's invention.
void DistrustForwardedAddress() { ::unsetenv("HTTP_X_FORWARDED_FOR"); }

void ServeRequest(const char* program) {
  try {
    Cgi cgi(program, kBackend);
    ShowPage(cgi);
  } catch (const tov_err::Value& error) {
    ReportError("400 Bad Request", "This request cannot be passed on.",
                "It holds a value that is not allowed.", error);
  } catch (const tov_err::AssertError& error) {
    ReportError("500 Internal Server Error", "The panel is set up wrongly.",
                "Please tell its administrator.", error);
  } catch (const tov_err::Error& error) {
    ReportError("502 Bad Gateway",
                "The service behind this panel does not answer.",
                "Please try again in a minute.", error);
  } catch (const std::runtime_error& error) {
    ShowRequestError(error);
  } catch (const std::exception& error) {
    ReportError("500 Internal Server Error", "The panel has failed.",
                "Please tell its administrator.", error);
  }
}

}  // namespace
}  // namespace panel

int main(int argc, char** argv) {
  panel::LimitResources();
  panel::DistrustForwardedAddress();
  panel::ServeRequest(argc > 0 ? argv[0] : "");
}
