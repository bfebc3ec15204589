// The HTTP status that fits an exception: thrown for real where that is easy,
// made with its promised text otherwise.

#include <tov/err.h>
#include <zancgi/account.h>
#include <zancgi/form.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/request.h>

#include <new>

#include "support/test.h"

namespace support {
namespace {

using zan_cgi::AccountError;
using zan_cgi::FormError;
using zan_cgi::StatusOf;

TEST(StatusOf, OfAFormErrorIsItsStatus) {
  for (const int status : {400, 408, 413, 415, 507}) {
    EXPECT_EQ(StatusOf(FormError(status, "timeout")), status);
  }
}

TEST(StatusOf, OfAnAccountErrorIsForbiddenWhateverItsText) {
  EXPECT_EQ(StatusOf(AccountError("the user name is empty")), 403);
  EXPECT_EQ(StatusOf(AccountError("timeout")), 403);
}

TEST(StatusOf, OfAnErrorOfTheRequestFollowsItsText) {
  for (const auto& [text, status] : std::vector<std::pair<std::string, int>>{
           {"Error reading STDIN", 400},
           {"POST read failed: CONTENT_LENGTH=2, bytes read:1", 400},
           {"On getting element value element name is empty", 400},
           {"not authorized", 401},
           {"You do not authorized for this operation", 403},
           {"failed to get pw entry", 403},
           {"it is not your folder", 403},
           {"no such directory 'a'", 404},
           {"bad request method 'PUT'", 405},
           {"timeout", 408},
           {"Post data too large. Max allowed length is 1KB", 413},
           {"Element value size must be less than 262144", 413},
           {"bad answer from 'panel'", 502},
           {"unknown authorization error", 502},
           {"error writing temporary file", 507},
           // Of nobody outside.
           {"failed to chroot to users home folder", 500},
           {"stat error", 500},
           {"polling error: Bad file descriptor", 500},
           {"invalid polling request", 500},
           {"Cannot run statfs on /tmp", 500},
           {"temp dir '/dev/null' is not a directory", 500},
           {"the back end cannot be asked from inside an account's folder",
            500},
           // Of no library.
           {"", 500},
           {"timeout of the printer", 500},
           {"a timeout", 500},
           {"not authorize", 500},
           {"unknown authorization error of the printer", 500},
           {"cannot connect to the back end at '/run/tov/panel.sock'", 500}}) {
    EXPECT_EQ(StatusOf(std::runtime_error(text)), status) << text;
  }
}

/// A front end's own error, with a text that a library has.
class OwnError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

TEST(StatusOf, OfAnotherTypeIsAnInternalErrorWhateverItsText) {
  EXPECT_EQ(StatusOf(OwnError("timeout")), 500);
  EXPECT_EQ(StatusOf(std::logic_error("timeout")), 500);
  EXPECT_EQ(StatusOf(tov_err::Error("timeout")), 500);
  EXPECT_EQ(StatusOf(std::bad_alloc()), 500);
  EXPECT_EQ(StatusOf(tov_err::Missed("tovname", "")), 500);
  EXPECT_EQ(StatusOf(tov_err::Value("back-end name", "../a")), 500);
  EXPECT_EQ(StatusOf(tov_err::Error("cannot move 'a' to 'b'")), 500);
}

/// What a front end does, and the status that its exception has.
struct Act {
  std::string name;
  int status;
  Request request;
  std::function<void(Cgi&)> act;
};

void Authorize(Cgi& cgi) { cgi.Authorize(Cgi::AuthInfo::AuthCookie); }

/// The status of what is thrown in a child.
std::string Thrown(Child& child, const Act& act) {
  Outcome outcome =
      child.Serve(act.request).LogLevel(0).Run([&](const Reporter& report) {
        Cgi cgi("/bin/front", "panel");
        try {
          act.act(cgi);
        } catch (const std::exception& error) {
          report("status", std::to_string(StatusOf(error)));
        }
      });
  EXPECT_EQ(outcome.status, 0) << outcome.standard_error;
  return outcome.reported["status"];
}

TEST(StatusOf, OfEachErrorOfARequestFits) {
  const Request get = zan_cgi::testing::Get("/front");
  Request put("PUT", "/front");
  put.Body("a=1", "application/x-www-form-urlencoded");
  Request shorter = Post("/front");
  shorter.Body("a=1", "application/x-www-form-urlencoded")
      .Header("Content-Length", "9");
  Request large = Post("/front");
  large.Body(std::string(3000, 'a'), "text/plain");
  const auto parse = [](Cgi& cgi) { cgi.ParseQuery(); };
  for (const Act& act : std::vector<Act>{
           {"method", 405, put, parse},
           {"shorter than declared", 400, shorter, parse},
           {"too large", 413, large,
            [](Cgi& cgi) { cgi.CheckContentLength(1024); }},
           {"nobody has asked", 401, get, [](Cgi& cgi) { cgi.auth(); }},
           {"no session", 401, get,
            [](Cgi& cgi) { cgi.Authorize(Cgi::AuthInfo::AuthParams); }},
           {"no back end", 502, get, Authorize},
           {"no service", 500, get,
            [](Cgi& cgi) {
              cgi.SetTovName("");
              Authorize(cgi);
            }},
           {"no account", 403, get,
            [](Cgi& cgi) { cgi.Su("nobody-here", "", false, false); }},
           {"becoming nobody", 403, get,
            [](Cgi& cgi) { zan_cgi::BecomeAccount(cgi, "nobody-here"); }}}) {
    Child child;
    child.Env("TOV_RUN_DIR", "/nonexistent");
    EXPECT_EQ(Thrown(child, act), std::to_string(act.status)) << act.name;
  }
}

TEST(StatusOf, OfABackEndThatFailsIsABadGateway) {
  const std::string error = "<?xml version='1.0'?><doc><error type='";
  struct Row {
    std::string name;
    Step step;
    int status;
  };
  for (const Row& row : std::vector<Row>{
           {"none", zan_cgi::testing::Refuse(), 502},
           {"reset", zan_cgi::testing::Reset(), 502},
           {"silent", zan_cgi::testing::CloseSilently(), 502},
           {"too short", Answer("Content-Length: 9\r\n\r\n<doc/>"), 502},
           {"senseless", Answer("Content-Length: 1x\r\n\r\n<doc/>"), 502},
           {"no answer", Answer("<?xml version='1.0'?><doc/>"), 502},
           {"no access", Answer(error + "access'/></doc>"), 403},
           {"another error", Answer(error + "other'/></doc>"), 502}}) {
    Backend backend("panel");
    backend.Times(4, row.step);
    Child child;
    child.With(backend);
    EXPECT_EQ(Thrown(child, {row.name, row.status,
                             zan_cgi::testing::Get("/front"), Authorize}),
              std::to_string(row.status))
        << row.name;
  }
}

}  // namespace
}  // namespace support
