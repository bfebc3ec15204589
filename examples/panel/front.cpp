// The front end of a small administration panel: a CGI program that the web
// server starts for each request. Copy it and change the pages.

#include <fcntl.h>
#include <linux/magic.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <tov/env.h>
#include <tov/log.h>
#include <tov/str.h>
#include <tov/xml.h>
#include <unistd.h>
#include <zancgi/account.h>
#include <zancgi/form.h>
#include <zancgi/request.h>
#include <zancgi/response.h>
#include <zancgi/zancgi.h>

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "files.h"
#include "page.h"

namespace panel {
namespace {

using zan_cgi::Cgi;
using zan_cgi::Form;

constexpr char kCookie[] = "panelses5";
constexpr std::int64_t kLargestSignIn = 4096;
constexpr std::int64_t kLargestForm = 1 << 20;
constexpr std::int64_t kLargestUpload = 100 << 20;

tov_log::Module log("panel", "front");

/// Returns the first value of a field of the query string.
std::string QueryValue(const std::string& name) {
  for (const Form::Field& field : zan_cgi::QueryFields()) {
    if (field.name == name) return field.value;
  }
  return "";
}

/// Reads a form of one type, so that a URL-encoded one cannot contain files.
Form ReadForm(Cgi& cgi, const std::string& type, std::int64_t largest) {
  if (!zan_cgi::Header("Content-Type").starts_with(type)) throw Refusal(415);
  return {cgi, {.body = largest, .parts = kMostEntries + 10}};
}

/// Reads the rest of the body, because some web servers lose an answer sent
/// before its end. Limits this to a minute.
void DropBody(Cgi& cgi) {
  ::alarm(60);
  try {
    Form(cgi, {.body = 0});
  } catch (const std::exception&) {
    // The body has been dropped now or was read before.
  }
  ::alarm(0);
}

/// The back end's answer to a query.
class Answer {
 public:
  /// @throws Refusal when the back end refuses access
  /// @throws std::runtime_error when the query failed for another reason
  Answer(Cgi& cgi, const std::map<std::string, std::string>& query) {
    document_.LoadFromString(cgi.Query(query));
    if (Has("/doc/error[@type='access']")) throw Refusal(403);
    if (!Has("/doc") || Has("/doc/error")) {
      throw std::runtime_error("bad answer from 'panel'");
    }
  }

  bool Has(const std::string& xpath) const {
    return bool{document_.GetNode(xpath)};
  }
  std::string Text(const std::string& xpath, const char* attribute) const {
    return document_.GetNode(xpath).GetProp(attribute);
  }

 private:
  tov_xml::Xml document_;
};

/// What the pages need of the session.
struct Visitor {
  std::string token;    ///< Identifies the panel's own forms.
  std::string account;  ///< The system account; empty if there is none.
};

Visitor Authorize(Cgi& cgi) {
  cgi.Authorize(Cgi::AuthInfo::AuthCookie);
  const Answer own(cgi, {{"func", "session.own"}});
  return {own.Text("/doc/own", "token"), own.Text("/doc/own", "account")};
}

void RequireToken(const Form& form, const Visitor& visitor) {
  const std::string& token = visitor.token;
  if (token.empty() || form.Value("token") != token) throw Refusal(403);
}

/// Whether only root can change the contents of this path. On a user's FUSE
/// file system, owner and mode could be false.
bool BelongsToRoot(fs::path folder) {
  for (;; folder = folder.parent_path()) {
    struct stat status {};
    struct statfs system {};
    if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 ||
        ::statfs(folder.c_str(), &system) != 0 ||
        system.f_type == FUSE_SUPER_MAGIC) {
      return false;
    }
    if (!folder.has_relative_path()) return true;
  }
}

/// Do not query the back end after this: the account may lack permission, and a
/// confined process cannot reach the socket.
void BecomeAccountOf(const Visitor& visitor, Cgi& cgi) {
  const char* const user = visitor.account.c_str();
  if (*user == '\0') throw Refusal(403, "Your user has no system account.");
  const std::string folder = tov_env::GetEnv("PANEL_CONFINE");
  const bool has_session = !tov_env::GetEnv("PANEL_PAM").empty();
  // A confined process reads files in the home while it is still root. Anybody
  // who can write there could have root read or run anything.
  const passwd* const entry = folder.empty() ? nullptr : ::getpwnam(user);
  if (!folder.empty() && !(entry != nullptr && BelongsToRoot(entry->pw_dir))) {
    throw Refusal(500, "The panel cannot be confined to your home folder.");
  }
  zan_cgi::BecomeAccount(cgi, user, {folder, !folder.empty(), has_session});
}

std::string Navigation(const Visitor& visitor) {
  return R"(<nav>
<a href="/panel?page=whoami">Who am I</a>
<a href="/panel?page=home">Home</a>
<a href="/panel?page=sessions">Sessions</a>
)" + BeginForm("/panel?page=signout", "sign-out", visitor.token) +
         "<button>Sign out</button></form>\n</nav>\n";
}

void ShowWhoAmI(const Cgi& cgi, const Visitor& visitor) {
  SendPage(200, "Who am I",
           "<dl class=\"card\">\n<dt>Name</dt><dd><b id=\"name\">" +
               Html(cgi.auth().name) + "</b></dd>\n<dt>Level</dt><dd>" +
               str::Str(cgi.auth().level) + "</dd>\n</dl>\n",
           Navigation(visitor));
}

void ShowSessions(Cgi& cgi, const Visitor& visitor) {
  // Converted to a number, because the visitor may have sent anything.
  const std::string from = str::Str(str::Int(QueryValue("from")));
  const Answer answer(cgi, {{"func", "session.list"}, {"from", from}});
  std::string rows;
  for (int number = 1;; ++number) {
    const std::string session = "/doc/session[" + str::Str(number) + "]";
    if (!answer.Has(session)) break;
    rows += Row({Html(answer.Text(session, "user")) + " <small>" +
                     Html(answer.Text(session, "note")) + "</small>",
                 Html(answer.Text(session, "started")),
                 Html(answer.Text(session, "address"))});
  }
  const std::string older = Html(answer.Text("/doc/older", "number"));
  if (!older.empty()) {
    rows += Row({Link("/panel?page=sessions&amp;from=" + older, "Older")});
  }
  SendPage(200, "Sessions",
           Table("<th>Name</th><th>Signed in</th><th>From</th>", rows),
           Navigation(visitor));
}

/// Returns the URL of a page about a file or folder, escaped for an attribute.
std::string Address(const std::string& page, const fs::path& path) {
  return "/panel?page=" + page + "&amp;path=" + str::url::Encode(path);
}

std::string EntryRow(const fs::path& path, const std::string& name,
                     const Entry& entry) {
  std::string shown = Html(name);
  if (entry.kind == "folder") shown = Link(Address("home", path / name), name);
  if (entry.kind == "file") shown = Link(Address("file", path / name), name);
  return Row({R"(<input type="checkbox" name="name" value=")" + Html(name) +
                  "\" aria-label=\"" + Html(name) + "\">",
              shown, entry.kind == "file" ? str::Str(entry.size) : entry.kind});
}

std::string FolderForm(const fs::path& path, const Listing& listing,
                       const Visitor& visitor) {
  std::string rows;
  for (const auto& [name, entry] : listing) rows += EntryRow(path, name, entry);
  return BeginForm(Address("change", path), "files", visitor.token) +
         Link(Address("home", path.parent_path()), "Up") +
         Table("<th></th><th>Name</th><th>Bytes</th>", rows) +
         "<p class=\"hint\">At most " + str::Str(kMostEntries) +
         " are shown. Seen by <b id=\"account\">" + Html(visitor.account) +
         "</b>, user " + str::Str(::getuid()) + R"(.</p>
<label for="to">New name</label>
<input id="to" name="to">
<button name="action" value="folder">Make a folder</button>
<button name="action" value="rename">Rename the selected file</button>
<button name="action" value="delete">Delete the selected files</button>
</form>
)";
}

std::string UploadForm(const fs::path& path, const Visitor& visitor) {
  const std::string address = Address("upload", path);
  return BeginForm(address, "upload", visitor.token, kUploadForm) +
         R"(<label for="uploads">Files to upload</label>
<p class="hint" id="hint">Choose as many as you like, or drop them here: up to
<data id="limit" value=")" +
         str::Str(kLargestUpload) + "\">" + str::Str(kLargestUpload >> 20) +
         R"(&nbsp;MB</data> together.</p>
<input id="uploads" name="files" type="file" multiple required
 aria-describedby="hint">
<button id="send">Upload</button>
</form>
)";
}

void SendListing(const Listing& listing) {
  std::string entries;
  for (const auto& [name, entry] : listing) {
    entries += (entries.empty() ? "{\"name\":" : ",{\"name\":") + Json(name) +
               ",\"kind\":" + Json(entry.kind) +
               ",\"size\":" + str::Str(entry.size) + "}";
  }
  SendJson(200, "{\"entries\":[" + entries + "]}");
}

void ShowFolder(const fs::path& path, const Visitor& visitor,
                const std::string& problem = "") {
  const Listing listing = ListFolder();
  if (WantsJson()) return SendListing(listing);
  SendPage(problem.empty() ? 200 : 409, path.empty() ? "Home" : path.string(),
           ProblemText(problem) + FolderForm(path, listing, visitor) +
               UploadForm(path, visitor),
           Navigation(visitor));
}

void SignIn(Cgi& cgi) {
  const Form form = ReadForm(cgi, kPlainForm, kLargestSignIn);
  const std::string user = form.Value("user");
  std::string session;
  try {
    const Answer answer(cgi, {{"func", "session.new"},
                              {"user", user},
                              {"password", form.Value("password")}});
    session = answer.Text("/doc/session", "id");
  } catch (const Refusal&) {
    return ShowSignIn(403, "Name or password is wrong.", user);
  }
  Protect(Response::Redirect("/panel")).SetCookie({kCookie, session}).Send("");
}

void SignOut(Cgi& cgi, const Visitor& visitor) {
  RequireToken(ReadForm(cgi, kPlainForm, kLargestSignIn), visitor);
  const Answer answer(cgi, {{"func", "session.end"}, {"token", visitor.token}});
  Protect(Response::Redirect("/panel"))
      .SetCookie({.name = kCookie, .value = "", .max_age = 0})
      .Send("");
}

std::string KeepUploads(const Form& form) {
  if (form.uploads().empty()) throw Refusal(400, "No file has been chosen.");
  std::string problems;
  for (const Form::Upload& upload : form.uploads()) {
    const std::string path = form.Path(upload);
    problems += Keep(path, upload.name);
    ::unlink(path.c_str());
  }
  return problems;
}

std::string Change(const Form& form) {
  const std::string action = form.Value("action");
  const std::string to = form.Value("to");
  if (action == "folder") return ProblemWith(to, ::mkdir(Checked(to), 0777));
  const std::vector<std::string> chosen = form.Values("name");
  if (chosen.empty()) throw Refusal(400, "No file has been chosen.");
  if (action == "rename" && chosen.size() == 1) {
    const char* const from = Checked(chosen.front());
    return ProblemWith(to, ::renameat2(AT_FDCWD, from, AT_FDCWD, Checked(to),
                                       RENAME_NOREPLACE));
  }
  if (action != "delete") throw Refusal(400, "Please choose one file.");
  std::string problems;
  for (const std::string& name : chosen) {
    problems += ProblemWith(name, std::remove(Checked(name)));
  }
  return problems;
}

/// Becomes the account before it reads the form, so that uploads are stored as
/// the account, in the folder that they are for.
void ChangeFolder(Cgi& cgi, bool is_upload, const Visitor& visitor) {
  const std::string path = QueryValue("path");
  BecomeAccountOf(visitor, cgi);
  EnterFolder(path);
  cgi.SetTmpDir(".");
  const Form form = is_upload ? ReadForm(cgi, kUploadForm, kLargestUpload)
                              : ReadForm(cgi, kPlainForm, kLargestForm);
  RequireToken(form, visitor);
  const std::string problems = is_upload ? KeepUploads(form) : Change(form);
  if (WantsJson()) return SendProblem(problems.empty() ? 200 : 409, problems);
  if (!problems.empty()) return ShowFolder(path, visitor, problems);
  const std::string here = "/panel?page=home&path=" + str::url::Encode(path);
  Protect(Response::Redirect(here)).Send("");
}

void ShowPage(Cgi& cgi, const std::string& page, const Visitor& visitor) {
  if (page.empty() || page == "whoami") return ShowWhoAmI(cgi, visitor);
  if (page == "sessions") return ShowSessions(cgi, visitor);
  if (page != "home" && page != "file") throw Refusal(404);
  const std::string path = QueryValue("path");
  BecomeAccountOf(visitor, cgi);
  if (page == "file") return SendFile(path);
  EnterFolder(path);
  ShowFolder(path, visitor);
}

void AnswerRequest(Cgi& cgi) {
  const std::string method = zan_cgi::Method();
  const std::string page = QueryValue("page");
  const bool is_post = method == "POST";
  if (!is_post && method != "GET" && method != "HEAD") throw Refusal(405);
  if (is_post && !zan_cgi::IsSameSite()) {
    throw Refusal(403, "Another site has sent this request.");
  }
  if (page == "signin") return is_post ? SignIn(cgi) : ShowSignIn(200);
  if (cgi.Cookie(kCookie).empty()) {
    if (!is_post && page.empty()) return ShowSignIn(200);
    throw Refusal(403, "Please sign in first.");
  }
  const Visitor visitor = Authorize(cgi);
  if (!is_post) return ShowPage(cgi, page, visitor);
  if (page == "signout") return SignOut(cgi, visitor);
  if (page != "upload" && page != "change") throw Refusal(404);
  ChangeFolder(cgi, page == "upload", visitor);
}

void ServeRequest(const char* program) {
  try {
    Cgi cgi(program, "panel");
    try {
      AnswerRequest(cgi);
    } catch (...) {
      DropBody(cgi);
      throw;
    }
  } catch (const Refusal& refusal) {
    ShowError(refusal.status, refusal.what());
  } catch (const std::exception& error) {
    const int status = zan_cgi::StatusOf(error);
    const auto level = status < 500 ? tov_log::Warning : tov_log::Error;
    // The message may contain paths, so only the administrator sees it.
    if (log.Check(level)) log.Write(level, "%s", error.what());
    ShowError(status);
  }
}

}  // namespace
}  // namespace panel

int main(int argc, char** argv) {
  // Limits memory, because the back end's whole answer is kept in it.
  const rlimit memory{256UL << 20, 256UL << 20};
  ::setrlimit(RLIMIT_AS, &memory);
  // No proxy is in use, so the browser itself would have sent this address.
  ::unsetenv("HTTP_X_FORWARDED_FOR");
  panel::ServeRequest(argc > 0 ? argv[0] : "");
}
