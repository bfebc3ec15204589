// The front end of a small administration panel: a CGI program that the web
// server starts for each request. Copy it and change the pages.

#include <stdlib.h>
#include <sys/resource.h>
#include <tov/env.h>
#include <tov/err.h>
#include <tov/log.h>
#include <tov/str.h>
#include <tov/xml.h>
#include <unistd.h>
#include <zancgi/zancgi.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "account.h"
#include "home.h"
#include "page.h"
#include "upload_spool.h"

namespace panel {
namespace {

using zan_cgi::Cgi;
using Items = std::map<std::string, std::string>;

constexpr char kBackend[] = "panel";
constexpr char kCookie[] = "panelses5";

tov_log::Module log("panel", "front");

constexpr long kLargestForm = 4096;
constexpr long kLargestUpload = 100L << 20;

/// A request that goes wrong must not take the machine with it.
///
/// The library keeps some behaviour of old: a body that breaks off in certain
/// ways, or is cut in an unlucky place, has it parsed for ever, and a field's
/// value can grow by 87 MB a second meanwhile. The largest accepted upload
/// takes a tenth of a second of processor time and a few megabytes of memory; a
/// body without a boundary takes up to three times its size.
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

/// The value of a field of the form, for which the body is read.
std::string FieldOf(Cgi& cgi, const std::string& name) {
  std::string value = cgi.Param(name);
  is_body_read = true;
  return value;
}

void SignIn(Cgi& cgi) {
  const std::string user = FieldOf(cgi, "user");
  if (user.empty()) return ShowSignIn("200 OK", "", "");
  try {
    const Answer answer(cgi, {{"func", "session.new"},
                              {"user", user},
                              {"password", cgi.Param("password")}});
    SendRedirect("/panel", std::string(kCookie) + "=" +
                               answer.Text("/doc/session", "id"));
  } catch (const Refusal&) {
    ShowSignIn("403 Forbidden", "Name or password is wrong.", user);
  }
}

/// Without a boundary the library takes a body for a query string and makes no
/// file: nobody else than users can have us write one. Nor does it matter to a
/// query string how the web server cuts it.
bool IsPlainForm() {
  return tov_env::GetEnv("CONTENT_TYPE").find("boundary=") == std::string::npos;
}

/// Whether no page of another site has made the browser send this request.
/// Browsers add Sec-Fetch-Site under encryption only. A client that sends
/// neither header is no browser.
bool IsFromOwnSite() {
  const std::string site = tov_env::GetEnv("HTTP_SEC_FETCH_SITE");
  if (!site.empty()) return site == "same-origin" || site == "none";
  const std::string origin = tov_env::GetEnv("HTTP_ORIGIN");
  const std::string host = tov_env::GetEnv("HTTP_HOST");
  return origin.empty() || origin == "http://" + host ||
         origin == "https://" + host;
}

bool IsPost() { return tov_env::GetEnv("REQUEST_METHOD") == "POST"; }

/// The page that is asked for. Of a POST it stands in the address, all of it:
/// to know it from the body, the body would have to be read before it is known
/// who sends it.
std::string PageOf(Cgi& cgi) {
  if (!IsPost()) return cgi.Param("page");
  const std::string query = tov_env::GetEnv("QUERY_STRING");
  return query.starts_with("page=") ? query.substr(5) : "";
}

/// Who came with the session in the parameters goes on with it.
std::string SessionItem(const Cgi& cgi) {
  const Cgi::AuthInfo& user = cgi.auth();
  return user.method == Cgi::AuthInfo::AuthParams
             ? "&amp;auth=" + Escape(str::url::Encode(user.auth))
             : "";
}

std::string Navigation(Cgi& cgi, const Answer& answer) {
  const std::string session = SessionItem(cgi);
  const std::string page = PageOf(cgi);
  // An upload is authorized before its parameters are read.
  const std::string upload =
      session.empty() ? Link("page=upload", "Upload", page == "upload") : "";
  return "<nav>\n" +
         Link("page=whoami" + session, "Who am I",
              page.empty() || page == "whoami") +
         Link("page=home" + session, "Home", page == "home") +
         Link("page=sessions" + session, "Sessions", page == "sessions") +
         upload +
         SignOutButton(answer.Html("/doc/own", "token"),
                       session.empty() ? "" : Escape(cgi.auth().auth)) +
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

/// The back end knows which system account a user has.
Account AccountOf(const Answer& answer) {
  return FindAccount(answer.Text("/doc/own", "account"));
}

std::string HomeRows(const Listing& listing) {
  std::string rows;
  for (const auto& [name, size_or_kind] : listing.entries) {
    rows += "<tr><td>" + Escape(name) + "</td><td class=\"numbers\">" +
            size_or_kind + "</td></tr>\n";
  }
  return rows;
}

/// All that needs the back end comes before the switch: an account may be kept
/// from it, and a confined process cannot find it.
void ShowHome(Cgi& cgi) {
  const Answer answer(cgi, {{"func", "session.own"}});
  const Account account = AccountOf(answer);
  BecomeAccount(cgi, account);
  const Listing listing = ListFolder();
  SendPage("200 OK", "Home",
           "<div class=\"card\"><table>\n<thead><tr><th>Name</th>"
           "<th class=\"numbers\">Bytes</th></tr></thead>\n<tbody>\n" +
               HomeRows(listing) + "</tbody>\n</table>\n" +
               (listing.whole ? "" : "<p class=\"hint\">And more.</p>\n") +
               R"(<p class="hint">Seen by <b id="account">)" +
               Escape(account.name) + "</b>, user " + str::Str(::getuid()) +
               ".</p></div>\n",
           Navigation(cgi, answer));
}

std::string LinkToOlder(const Cgi& cgi, const Answer& answer) {
  if (!answer.Has("/doc/older")) return "";
  return "<p>" +
         Link("page=sessions&amp;from=" + answer.Html("/doc/older", "number") +
                  SessionItem(cgi),
              "Older sessions", false) +
         "</p>\n";
}

void ShowSessions(Cgi& cgi) {
  // A number, whatever the visitor has sent.
  const std::string from = str::Str(str::Int(cgi.Param("from")));
  const Answer answer(cgi, {{"func", "session.list"}, {"from", from}});
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
               rows + "</tbody>\n</table>\n" + LinkToOlder(cgi, answer) +
               "</div>\n",
           Navigation(cgi, answer));
}

/// The back end compares the token.
void SignOut(Cgi& cgi) {
  cgi.Authorize(Cgi::AuthInfo::AuthAny);
  const Answer answer(
      cgi, {{"func", "session.end"}, {"token", FieldOf(cgi, "token")}});
  SendRedirect("/panel?page=signin", std::string(kCookie) + "=; Max-Age=0");
}

void ShowUpload(Cgi& cgi, const Answer& answer,
                const std::string& status = "200 OK",
                const std::string& problem = "") {
  ShowUploadForm(status, problem, answer.Html("/doc/own", "token"),
                 kLargestUpload, Navigation(cgi, answer));
}

void ShowUpload(Cgi& cgi) {
  const Answer answer(cgi, {{"func", "session.own"}});
  if (cgi.auth().method == Cgi::AuthInfo::AuthCookie) {
    return ShowUpload(cgi, answer);
  }
  SendPage(
      "200 OK", "Upload",
      "<p class=\"card\">To upload, please sign in with this browser.</p>\n",
      Navigation(cgi, answer));
}

/// What has become of an uploaded file.
struct Upload {
  std::string sent_name;
  std::uintmax_t size;
  std::string name;
  std::string problem;  ///< Why it is not kept; empty when it is.
};

std::string UploadRows(const std::vector<Upload>& uploads) {
  std::string rows;
  for (const Upload& upload : uploads) {
    rows += "<tr><td>" + Escape(upload.sent_name) + "</td><td>" +
            Escape(upload.problem.empty() ? upload.name
                                          : "not kept: " + upload.problem) +
            "</td><td class=\"numbers\">" + str::Str(upload.size) +
            "</td></tr>\n";
  }
  return rows;
}

bool IsKept(const Upload& upload) { return upload.problem.empty(); }

void ShowUploaded(Cgi& cgi, const Answer& answer,
                  const std::vector<Upload>& uploads) {
  const bool all_kept = std::all_of(uploads.begin(), uploads.end(), IsKept);
  SendPage(all_kept ? "200 OK" : "409 Conflict",
           all_kept ? "Uploaded" : "Not all is kept",
           "<div class=\"card\"><table>\n<thead><tr><th>Name</th>"
           "<th>Kept as</th><th class=\"numbers\">Bytes</th></tr></thead>\n"
           "<tbody>\n" +
               UploadRows(uploads) +
               "</tbody>\n<tfoot><tr><th>Together</th><th></th>"
               "<th class=\"numbers\">" +
               str::Str(cgi.GetFileSize()) +
               "</th></tr></tfoot>\n</table>\n<p>"
               "<a href=\"/panel?page=upload\">Upload more</a></p></div>\n",
           Navigation(cgi, answer));
}

/// Where the library hands the spooled uploads over to.
std::vector<std::string> PathsInHome(const Cgi& cgi, const Account& account,
                                     const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const std::string& name : names) {
    const std::filesystem::path spooled = cgi.File(name);
    paths.push_back(account.home / spooled.filename());
  }
  return paths;
}

/// Becomes the account and moves the uploads from where the library has handed
/// them over to the names that they are to have.
std::vector<Upload> KeepUploads(Cgi& cgi, const Account& account,
                                const UploadSpool& spool,
                                const std::vector<std::string>& names) {
  std::vector<Upload> uploads;
  uploads.reserve(names.size());
  for (const std::string& name : names) {
    uploads.push_back({name, std::filesystem::file_size(cgi.File(name)),
                       NameToKeep(name), ""});
  }
  spool.AlsoRemove(PathsInHome(cgi, account, names));
  BecomeAccount(cgi, account);
  for (Upload& upload : uploads) {
    upload.problem = Keep(HandedOver(cgi.File(upload.sent_name)), upload.name);
  }
  return uploads;
}

std::string SpoolFolder() {
  const std::string folder = tov_env::GetEnv("PANEL_SPOOL");
  return folder.empty() ? "/tmp" : folder;
}

/// No other site knows the token.
bool IsFromOwnPage(Cgi& cgi, const Answer& answer) {
  const std::string token = FieldOf(cgi, "token");
  return !token.empty() && token == answer.Text("/doc/own", "token");
}

/// How the web server cuts a body can cost parts of it. The page's script tells
/// how much it sends, so that this does not go unnoticed.
bool HasArrivedWhole(Cgi& cgi, std::size_t count) {
  const std::string announced = cgi.Param("announced");
  return announced.empty() ||
         announced == str::Str(count) + " " + str::Str(cgi.GetFileSize());
}

/// First who, then how much, and only then the body: a stranger must not be
/// able to fill the disk. The back end is asked for the token before that too,
/// since parameters of the body can add to a query.
void TakeUpload(Cgi& cgi) {
  cgi.Authorize(Cgi::AuthInfo::AuthCookie);
  const Answer answer(cgi, {{"func", "session.own"}});
  const Account account = AccountOf(answer);
  CheckConfinement(account);
  cgi.CheckContentLength(kLargestUpload);
  const UploadSpool spool(SpoolFolder());
  cgi.SetTmpDir(spool.Path());
  if (!IsFromOwnPage(cgi, answer)) throw Refusal();

  std::vector<std::string> names;
  cgi.GetFileNames(names);
  if (!HasArrivedWhole(cgi, names.size())) {
    return ShowUpload(cgi, answer, "400 Bad Request",
                      "A part was lost on the way. Please try again.");
  }
  if (names.empty()) {
    return ShowUpload(cgi, answer, "400 Bad Request",
                      "No file has been chosen.");
  }
  ShowUploaded(cgi, answer, KeepUploads(cgi, account, spool, names));
}

bool HasSession(Cgi& cgi) {
  return !cgi.Cookie(kCookie).empty() || !FieldOf(cgi, "auth").empty();
}

void AskToSignIn() { ShowSignIn("403 Forbidden", "Please sign in first.", ""); }

void ShowNotFound() {
  SendPage("404 Not Found", "Not found",
           "<p class=\"card\">There is no page of this name.</p>\n");
}

void TakePost(Cgi& cgi) {
  const std::string page = PageOf(cgi);
  if (!IsFromOwnSite()) {
    return ShowError("403 Forbidden", "Another site has sent this request.",
                     "Nothing has been done.", Way::kPanel);
  }
  if (page == "upload") {
    return cgi.Cookie(kCookie).empty() ? AskToSignIn() : TakeUpload(cgi);
  }
  if (page != "signin" && page != "signout") return ShowNotFound();
  cgi.CheckContentLength(kLargestForm);
  if (!IsPlainForm()) {
    return ShowError("415 Unsupported Media Type", "This form cannot be read.",
                     "Please use the panel's own.");
  }
  if (page == "signin") return SignIn(cgi);
  HasSession(cgi) ? SignOut(cgi) : AskToSignIn();
}

void ShowPage(Cgi& cgi) {
  const std::string page = PageOf(cgi);
  if (page == "signin") return ShowSignIn("200 OK", "", "");
  if (!HasSession(cgi)) {
    return page.empty() ? ShowSignIn("200 OK", "", "") : AskToSignIn();
  }
  cgi.Authorize(Cgi::AuthInfo::AuthAny);
  if (page.empty() || page == "whoami") return ShowWhoAmI(cgi);
  if (page == "home") return ShowHome(cgi);
  if (page == "sessions") return ShowSessions(cgi);
  if (page == "upload") return ShowUpload(cgi);
  ShowNotFound();
}

/// A text that names paths and the like is for the administrator, who finds it
/// in the web server's error log.
void ReportError(const std::string& status, const std::string& problem,
                 const std::string& help, const std::exception& error,
                 Way way = Way::kSignIn) {
  if (log.Check(tov_log::Error)) {
    log.Write(tov_log::Error, "%s", error.what());
  }
  ShowError(status, problem, help, way);
}

/// What a visitor is told about an exception that the library throws under a
/// fixed message.
struct Explanation {
  const char* message;  ///< How the exception's text begins.
  const char* status;
  const char* help;
  Way way = Way::kSignIn;
};

constexpr char kInPart[] =
    "Your request has arrived in part only. Please try again.";
constexpr char kNotUnderstood[] =
    "The service behind this panel cannot make sense of this request, or the "
    "panel of its answer.";

constexpr Explanation kExplanations[] = {
    {"bad request method", "405 Method Not Allowed",
     "This panel answers GET, HEAD and POST only."},
    {"You do not authorized", "403 Forbidden",
     "Your session has ended, or it lacks the right."},
    {"Post data too large", "413 Content Too Large",
     "Please send less at a time.", Way::kUpload},
    {"error writing temporary file", "507 Insufficient Storage",
     "There is no room for your files at the moment. Please tell the panel's "
     "administrator.",
     Way::kUpload},
    {"timeout", "408 Request Timeout",
     "Nothing more has come from you for 30 seconds. Please try again.",
     Way::kUpload},
    {"Error reading STDIN", "400 Bad Request", kInPart, Way::kUpload},
    {"POST read failed", "400 Bad Request", kInPart, Way::kUpload},
    {"Element value size", "400 Bad Request",
     "A line of this form is longer than this panel takes.", Way::kUpload},
    {"On getting element value", "400 Bad Request",
     "This form holds a value without a name.", Way::kUpload},
    {"unknown authorization error", "502 Bad Gateway", kNotUnderstood},
    {"bad answer from", "502 Bad Gateway", kNotUnderstood},
};

void ShowFailure(const std::exception& error) {
  ReportError("500 Internal Server Error", "The panel has failed.",
              "Please tell its administrator.", error);
}

void ShowRequestError(const std::exception& error) {
  const std::string message = error.what();
  for (const Explanation& known : kExplanations) {
    if (message.starts_with(known.message)) {
      return ShowError(known.status, message, known.help, known.way);
    }
  }
  ShowFailure(error);
}

/// No proxy stands before this web server: an address that claims to have been
/// forwarded, in whatever spelling of the header, is the browser's invention.
void DistrustForwardedAddress() { ::unsetenv("HTTP_X_FORWARDED_FOR"); }

/// The library knows GET and POST only.
void TakeHeadForGet() {
  if (IsHead()) ::setenv("REQUEST_METHOD", "GET", 1);
}

void ServeRequest(const char* program) {
  try {
    Cgi cgi(program, kBackend);
    if (IsPost()) {
      TakePost(cgi);
    } else {
      ShowPage(cgi);
    }
  } catch (const AccountProblem& error) {
    ReportError(error.Status(), error.Problem(),
                "Please ask the panel's administrator.", error, Way::kPanel);
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
    ShowFailure(error);
  }
}

}  // namespace
}  // namespace panel

int main(int argc, char** argv) {
  panel::LimitResources();
  panel::DistrustForwardedAddress();
  panel::TakeHeadForGet();
  panel::ServeRequest(argc > 0 ? argv[0] : "");
}
