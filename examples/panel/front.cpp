// The front end of a small administration panel: a CGI program that the web
// server starts for each request. Copy it and change the pages.

#include <stdlib.h>
#include <sys/resource.h>
#include <tov/err.h>
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

/// A request that goes wrong must not take the machine with it.
void LimitResources() {
  constexpr rlim_t kSeconds = 10;
  constexpr rlim_t kMemory = 256UL << 20;
  const rlimit time{kSeconds, kSeconds};
  const rlimit memory{kMemory, kMemory};
  ::setrlimit(RLIMIT_CPU, &time);
  ::setrlimit(RLIMIT_AS, &memory);
}

/// The back end's answer to a query of the front end's own.
class Answer {
 public:
  Answer(Cgi& cgi, const Items& query) {
    document_.LoadFromString(cgi.Query(query));
  }

  bool Has(const std::string& xpath) const {
    return bool{document_.GetNode(xpath)};
  }
  /// An attribute, ready for HTML.
  std::string Html(const std::string& xpath, const char* attribute) const {
    return Escape(document_.GetNode(xpath).GetProp(attribute));
  }

 private:
  tov_xml::Xml document_;
};

std::string Row(const std::string& name, const std::string& html) {
  return "<dt>" + name + "</dt><dd>" + html + "</dd>\n";
}

void ShowSignIn(const std::string& status, const std::string& problem) {
  std::string note;
  if (!problem.empty()) {
    note = R"(<p class="problem" role="alert">)" + Escape(problem) + "</p>\n";
  }
  SendPage(status, "Sign in",
           "<form action=\"/panel\" class=\"card\">\n" + note +
               R"(<input type="hidden" name="page" value="signin">
<label for="user">Name</label>
<input id="user" name="user" autocomplete="username" required autofocus>
<label for="password">Password</label>
<input id="password" name="password" type="password"
 autocomplete="current-password" required>
<button>Sign in</button>
</form>
)");
}

void SignIn(Cgi& cgi) {
  if (cgi.Param("user").empty()) return ShowSignIn("200 OK", "");
  const Answer answer(cgi, {{"func", "session.new"},
                            {"user", cgi.Param("user")},
                            {"password", cgi.Param("password")}});
  const std::string session = answer.Html("/doc/session", "id");
  if (session.empty()) {
    return ShowSignIn("403 Forbidden", "Name or password is wrong.");
  }
  // The redirect also takes the password out of the address bar.
  SendRedirect("/panel", std::string(kCookie) + "=" + session);
}

std::string Navigation(Cgi& cgi, const Answer& answer) {
  const Cgi::AuthInfo& user = cgi.auth();
  // Who came with the session in the parameters goes on with it.
  const std::string session =
      user.method == Cgi::AuthInfo::AuthParams
          ? "&amp;auth=" + Escape(str::url::Encode(user.auth))
          : "";
  return "<nav><a href=\"/panel?page=whoami" + session +
         "\">Who am I</a> <a href=\"/panel?page=sessions" + session +
         "\">Sessions</a> <a href=\"/panel?page=signout&amp;token=" +
         answer.Html("/doc/own", "token") + session + "\">Sign out</a></nav>\n";
}

void ShowWhoAmI(Cgi& cgi) {
  const Answer answer(cgi, {{"func", "session.own"}});
  const Cgi::AuthInfo& user = cgi.auth();
  const bool from_cookie = user.method == Cgi::AuthInfo::AuthCookie;
  SendPage("200 OK", "Who am I",
           Navigation(cgi, answer) + "<dl class=\"card\">\n" +
               Row("Name", "<b id=\"name\">" + Escape(user.name) + "</b>") +
               Row("Level", str::Str(user.level)) +
               Row("Signed in", answer.Html("/doc/own", "started")) +
               Row("Session found in",
                   from_cookie ? "the cookie" : "the parameters") +
               "</dl>\n");
}

void ShowSessions(Cgi& cgi) {
  const Answer answer(cgi, {{"func", "session.list"}});
  std::string rows;
  for (int number = 1;; ++number) {
    const std::string session = "/doc/session[" + str::Str(number) + "]";
    if (!answer.Has(session)) break;
    rows += "<tr><td>" + answer.Html(session, "user") + "</td><td>" +
            answer.Html(session, "started") + "</td><td>" +
            answer.Html(session, "address") + "</td><td>" +
            answer.Html(session, "note") + "</td></tr>\n";
  }
  SendPage("200 OK", "Sessions",
           Navigation(cgi, answer) +
               "<table class=\"card\"><thead><tr><th>Name</th><th>Signed in"
               "</th><th>From</th><th></th></tr></thead>\n<tbody>\n" +
               rows + "</tbody></table>\n");
}

void SignOut(Cgi& cgi) {
  // The back end compares the token, so that no other site can sign a user out.
  const Answer answer(cgi,
                      {{"func", "session.end"}, {"token", cgi.Param("token")}});
  if (!answer.Has("/doc/ok")) {
    throw std::runtime_error("You do not authorized for this operation");
  }
  SendRedirect("/panel?page=signin", std::string(kCookie) + "=; Max-Age=0");
}

void ShowPage(Cgi& cgi) {
  const std::string page = cgi.Param("page");
  if (page == "signin") return SignIn(cgi);
  if (page.empty() && cgi.Cookie(kCookie).empty() &&
      cgi.Param("auth").empty()) {
    return ShowSignIn("200 OK", "");
  }
  cgi.Authorize(Cgi::AuthInfo::AuthAny);
  if (page.empty() || page == "whoami") return ShowWhoAmI(cgi);
  if (page == "sessions") return ShowSessions(cgi);
  if (page == "signout") return SignOut(cgi);
  SendPage("404 Not Found", "Not found",
           "<p class=\"card\">There is no page of this name.</p>\n");
}

void ShowError(const std::string& status, const char* help,
               const std::exception& error) {
  SendPage(status, status.substr(status.find(' ') + 1),
           R"(<div class="card"><p class="problem" role="alert">)" +
               Escape(error.what()) + "</p>\n<p>" + help + R"(</p>
<p><a href="/panel?page=signin">Sign in</a></p></div>
)");
}

/// The exceptions that the library throws under its fixed messages.
void ShowRequestError(const std::exception& error) {
  const std::string message = error.what();
  if (message.starts_with("bad request method")) {
    ShowError("405 Method Not Allowed", "This panel answers GET only.", error);
  } else if (message == "You do not authorized for this operation") {
    ShowError("403 Forbidden", "Your session has ended, or it lacks the right.",
              error);
  } else {
    ShowError("502 Bad Gateway", "The service behind this panel is confused.",
              error);
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
    ShowError("401 Unauthorized", "Please sign in first.", error);
  } catch (const tov_err::AssertError& error) {
    ShowError("500 Internal Server Error", "The panel is set up wrongly.",
              error);
  } catch (const tov_err::Error& error) {
    ShowError("502 Bad Gateway",
              "The service behind this panel does not answer. Please try again "
              "in a minute.",
              error);
  } catch (const std::runtime_error& error) {
    ShowRequestError(error);
  } catch (const std::exception& error) {
    ShowError("500 Internal Server Error", "The panel has failed.", error);
  }
}

}  // namespace
}  // namespace panel

int main(int argc, char** argv) {
  panel::LimitResources();
  panel::DistrustForwardedAddress();
  panel::ServeRequest(argc > 0 ? argv[0] : "");
}
