// Tests the panel's front end with a scripted back end.

#include <gtest/gtest.h>
#include <zancgi/testing/backend.h>
#include <zancgi/testing/form.h>
#include <zancgi/testing/identity.h>
#include <zancgi/testing/program.h>
#include <zancgi/testing/request.h>
#include <zancgi/testing/response.h>
#include <zancgi/testing/scratch.h>

#include <chrono>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

using namespace zan_cgi::testing;  // NOLINT(google-build-using-namespace)

constexpr const char* kNoAnswer =
    "The service behind this panel does not answer.";

Step Document(const std::string& content) {
  return Answer("Content-Type: text/xml\r\n\r\n<?xml version=\"1.0\"?>\n<doc>" +
                content + "</doc>\n");
}

Step NoAccess() { return Document(R"(<error type="access"/>)"); }

bool Holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

/// The front end run as the caller and, if that is root, also as an ordinary
/// user. Its back end knows a session of alice.
class Panel : public testing::TestWithParam<bool> {
 protected:
  Panel() : backend_("panel"), front_(Place()) {
    front_.With(backend_).Env("LD_LIBRARY_PATH", folder_.Path());
    backend_.On("whoami", Document(R"(<user name="alice" level="7"/>)"))
        .On("session.own", Document(R"(<own started="today" token="t0k3n")"
                                    R"( account="nobody"/>)"));
  }

  void SetUp() override {
    if (!GetParam()) return;
    if (!IsRoot()) GTEST_SKIP() << "root alone can become another user";
    constexpr uid_t kNobody = 65534;
    front_.As(kNobody, kNobody);
  }

  /// Checks that every answer is a whole page and that no file is left.
  Response Serve(const Request& request) {
    Response response = front_.Run(request);
    EXPECT_EQ(response.Complaints(), "") << response.standard_error;
    EXPECT_TRUE(response.body.empty() || response.body.front() == '{' ||
                Holds(response.body, "</html>\n"))
        << response.body;
    return response;
  }

  /// Checks that the page shows that the back end does not answer, and no more.
  Response ServeWithoutAnswer() {
    Response response = Serve(SignedIn(Get("/panel")));
    EXPECT_EQ(response.status, 502);
    EXPECT_TRUE(Holds(response.body, kNoAnswer)) << response.body;
    EXPECT_FALSE(Holds(response.body, backend_.RunDir()));
    return response;
  }

  static Request SignedIn(Request request) {
    return request.Cookie("panelses5", "5e55");
  }

  static Request SignIn(const std::string& user, const std::string& password) {
    return FromOwnPage(Post("/panel", "page=signin"))
        .Fields({{"user", user}, {"password", password}});
  }

  static Request SignOut() {
    return FromOwnPage(Post("/panel", "page=signout"))
        .Fields({{"token", "t0k3n"}});
  }

  static Request Upload() {
    return SignedIn(
        FromOwnPage(Post("/panel", "page=upload"))
            .Multipart(Form().Field("token", "t0k3n").File("files", "a", "1")));
  }

  static Request FromOwnPage(Request request) {
    return request.Header("Sec-Fetch-Site", "same-origin");
  }

  Backend backend_;

 private:
  /// Copies the front end to a folder where every user can run it.
  std::string Place() {
    fs::permissions(folder_.Path(), fs::perms{0755});
    for (const char* library : LIBRARIES) {
      fs::copy_file(library, folder_ / fs::path(library).filename());
    }
    fs::copy_file(FRONT, folder_ / "front");
    return folder_ / "front";
  }

  Scratch folder_;

 protected:
  Program front_;
};

INSTANTIATE_TEST_SUITE_P(As, Panel, testing::Bool(), [](const auto& tested) {
  return tested.param ? "OrdinaryUser" : "Caller";
});

TEST_P(Panel, ShowsTheSignInPageWithoutAskingAnyone) {
  for (const char* query :
       {"", "page=signin", "page=signin&user=alice&password=secret"}) {
    const Response response = Serve(Get("/panel", query));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.Header("Content-Type"), "text/html; charset=utf-8");
    EXPECT_EQ(response.Header("Cache-Control"), "no-store");
    EXPECT_EQ(response.Header("Set-Cookie"), "");
    EXPECT_TRUE(Holds(response.body, R"(action="/panel?page=signin")"));
  }
  EXPECT_EQ(backend_.Queries().size(), 0U);
}

TEST_P(Panel, SignsIn) {
  backend_.On("session.new", Document(R"(<session id="5e55"/>)"));
  const Response response = Serve(SignIn("alice", "a b&c=d"));
  EXPECT_EQ(response.status, 303);
  EXPECT_EQ(response.Header("Location"), "/panel");
  ASSERT_EQ(backend_.Queries().size(), 1U);
  EXPECT_EQ(backend_.Queries()[0].Item("user"), "alice");
  EXPECT_EQ(backend_.Queries()[0].Item("password"), "a b&c=d");
}

TEST_P(Panel, SetsASecureCookieUnderEncryptionOnly) {
  backend_.On("session.new", Document(R"(<session id="5e55"/>)"));
  const char* const plain = "panelses5=5e55; Path=/; HttpOnly; SameSite=Strict";
  for (const auto& [https, cookie] :
       {std::pair("on",
                  "panelses5=5e55; Path=/; Secure; HttpOnly; SameSite=Strict"),
        {"off", plain},
        {"", plain}}) {
    const Response response =
        Serve(SignIn("alice", "password").Variable("HTTPS", https));
    EXPECT_EQ(response.Header("Set-Cookie"), cookie) << https;
  }
}

TEST_P(Panel, SignsOutByPost) {
  backend_.On("session.end", Document("<ok/>"));
  const Response response = Serve(SignedIn(SignOut()));
  EXPECT_EQ(response.status, 303);
  EXPECT_EQ(response.Header("Set-Cookie"),
            "panelses5=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict");
  ASSERT_EQ(backend_.Queries().size(), 3U);
  EXPECT_EQ(backend_.Queries().back().Item("token"), "t0k3n");
}

TEST_P(Panel, TakesNoFormWithoutATokenEvenIfTheBackEndGivesNone) {
  backend_.On("session.own", Document(R"(<own account="nobody"/>)"))
      .On("session.end", Document("<ok/>"));
  EXPECT_EQ(Serve(SignedIn(SignOut().Fields({{"other", "t0k3n"}}))).status,
            403);
}

TEST_P(Panel, DoesNotSignOutByGet) {
  backend_.On("session.end", Document("<ok/>"));
  const Response response =
      Serve(SignedIn(Get("/panel", "page=signout&token=t0k3n")));
  EXPECT_EQ(response.status, 404);
  for (const auto& query : backend_.Queries()) {
    EXPECT_NE(query.Item("func"), "session.end");
  }
}

TEST_P(Panel, RefusesWithoutAskingAnyone) {
  const auto from_elsewhere = [](Request request) {
    return request.Header("Sec-Fetch-Site", "cross-site");
  };
  const std::string another_site = "Another site has sent this request.";
  const std::string sign_in = "Please sign in first.";
  const std::string send_less = "Please send less at a time.";
  const Form with_file = Form().Field("user", "alice").File("f", "name", "1");
  const std::tuple<Request, int, std::string> rows[] = {
      {from_elsewhere(SignIn("alice", "password")), 403, another_site},
      {from_elsewhere(SignedIn(SignOut())), 403, another_site},
      {from_elsewhere(Upload()), 403, another_site},
      {Get("/panel", "page=whoami"), 403, sign_in},
      {Get("/panel", "page=home&auth=5e55"), 403, sign_in},
      {Get("/panel", "page=sessions").Cookie("panelses5", ""), 403, sign_in},
      {Get("/panel", "page=nonsense"), 403, sign_in},
      {SignOut(), 403, sign_in},
      {SignOut().Cookie("panelses5", ""), 403, sign_in},
      {Upload().Cookie("panelses5", ""), 403, sign_in},
      {SignedIn(Request("PUT", "/panel")), 405, ""},
      {SignIn("alice", std::string(4096, 'x')), 413, send_less},
      // Signing in can bring no file.
      {SignIn("", "").Multipart(with_file), 415, ""},
  };
  for (const auto& [request, status, text] : rows) {
    const Response response = Serve(request);
    EXPECT_EQ(response.status, status) << text;
    EXPECT_TRUE(Holds(response.body, text)) << response.body;
    EXPECT_TRUE(text != sign_in || Holds(response.body, "page=signin"));
  }
  EXPECT_EQ(backend_.Queries().size(), 0U);
}

TEST_P(Panel, AnswersAHeadWithTheHeaderOfItsPage) {
  for (const char* query : {"", "page=whoami", "page=nonsense"}) {
    const Response page = Serve(SignedIn(Get("/panel", query)));
    const Response head = Serve(SignedIn(Request("HEAD", "/panel", query)));
    EXPECT_EQ(head.status, page.status) << query;
    EXPECT_EQ(head.fields, page.fields) << query;
    EXPECT_EQ(head.body, "");
  }
}

TEST_P(Panel, ShowsSessionsPageByPage) {
  backend_.On(
      "session.list",
      Document(R"(<own token="t0k3n"/><session user="bob" note="" )"
               R"(started="now" address="::1"/><older number="300"/>)"));
  for (const auto& [from, asked] : {std::pair("200", "200"),
                                    {"", "0"},
                                    {"-1", "-1"},
                                    {"x%C3%A9", "0"},
                                    {"99999999999999999999", "2147483647"}}) {
    const Response response = Serve(
        SignedIn(Get("/panel", std::string("page=sessions&from=") + from)));
    EXPECT_TRUE(Holds(response.body, "<td>bob "));
    EXPECT_TRUE(Holds(response.body, "page=sessions&amp;from=300\""));
    EXPECT_EQ(backend_.Queries().back().Item("from"), asked);
  }
}

TEST_P(Panel, ShowsThatThePasswordIsWrongAndEscapesTheName) {
  backend_.On("session.new", NoAccess());
  const Response response = Serve(SignIn("<b>\"al'&", "wrong"));
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.Cookie("panelses5"), "");
  EXPECT_TRUE(Holds(response.body, "Name or password is wrong."));
  EXPECT_TRUE(Holds(response.body, "&lt;b&gt;&quot;al&#39;&amp;"));
  EXPECT_FALSE(Holds(response.body, "<b>"));
}

TEST_P(Panel, ShowsWhoIsSignedInWithoutBelievingTheBackEnd) {
  backend_.On("whoami", Document(R"(<user name="&lt;i>al&quot;" level="7"/>)"));
  const Response response = Serve(SignedIn(Get("/panel")));
  EXPECT_EQ(response.status, 200);
  EXPECT_TRUE(Holds(response.body, "&lt;i&gt;al&quot;"));
  EXPECT_FALSE(Holds(response.body, "<i>"));
}

TEST_P(Panel, TurnsARefusedSessionAway) {
  backend_.On("whoami", NoAccess());
  for (const Request& request :
       {SignedIn(Get("/panel")), SignedIn(Get("/panel", "page=home")),
        Upload()}) {
    const Response response = Serve(request);
    EXPECT_EQ(response.status, 403);
    EXPECT_TRUE(Holds(response.body, "page=signin"));
  }
  for (const auto& query : backend_.Queries()) {
    EXPECT_EQ(query.Item("func"), "whoami");
  }
}

TEST_P(Panel, DoesNotBelieveTheAddressThatAClientClaims) {
  Serve(SignedIn(Get("/panel"))
            .Variable("REMOTE_ADDR", "127.0.0.1")
            .Header("X-Forwarded-For", "10.1.2.3")
            .Header("X-Other", "10.1.2.4"));
  const auto& query = backend_.Queries().at(0);
  EXPECT_EQ(query["REMOTE_ADDR"], "127.0.0.1");
  EXPECT_EQ(query["HTTP_X_OTHER"], "10.1.2.4");
  EXPECT_FALSE(Holds(query.raw, "10.1.2.3"));
}

TEST_P(Panel, ShowsOnlyTheAdministratorWhyItHasNotBecomeTheAccount) {
  for (const char* account : {"", "root", "of-nobody"}) {
    backend_.On("session.own", Document(std::string(R"(<own token="t0k3n")") +
                                        R"( account=")" + account + "\"/>"));
    const Response response = Serve(Upload());
    EXPECT_EQ(response.status, 403);
    EXPECT_FALSE(Holds(response.body, "of-nobody"));
    EXPECT_EQ(response.log.empty(), account[0] == '\0') << account;
  }
}

TEST_P(Panel, AnswersItsScriptInJson) {
  const Response response =
      Serve(Get("/panel", "page=home").Header("Accept", "application/json"));
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.Header("Content-Type"), "application/json");
  EXPECT_EQ(response.body, "{\"problem\":\"Please sign in first.\"}\n");
}

TEST_P(Panel, ShowsAnErrorWhenItsBackEndIsDown) {
  backend_.Then(Refuse());
  const Response response = ServeWithoutAnswer();
  EXPECT_TRUE(Holds(response.standard_error, "Connection refused"));
}

TEST_P(Panel, ShowsAnErrorWhenItsBackEndBreaksOffFourTimes) {
  for (const Step& step : {CloseSilently(), AnswerThenReset("<?xml versi"),
                           Answer("Content-Length: 12\r\n\r\n<doc></doc>")}) {
    backend_.Times(4, step);
    ServeWithoutAnswer();
    EXPECT_EQ(backend_.StepsLeft(), 0U);
  }
}

TEST_P(Panel, ShowsAnErrorWhenItsBackEndSendsNonsense) {
  for (const char* answer : {"", "nonsense", "<b>no XML", "<doc", "<html/>"}) {
    SCOPED_TRACE(answer);
    backend_.On("whoami", Answer(answer));
    ServeWithoutAnswer();
  }
}

TEST_P(Panel, DoesNotTakeTheRefusalOfALaterQueryForAnEmptyPage) {
  for (const auto& [error, status] :
       {std::pair("access", 403), {"other", 502}}) {
    const Step refusal =
        Document(std::string("<error type=\"") + error + "\"/>");
    for (const char* function :
         {"session.own", "session.list", "session.end"}) {
      backend_.On(function, refusal);
    }
    for (const Request& request : {Get("/panel", "page=whoami"),
                                   Get("/panel", "page=sessions"), SignOut()}) {
      EXPECT_EQ(Serve(SignedIn(request)).status, status) << error;
    }
  }
}

TEST_P(Panel, GoesOnWhenOneAttemptFails) {
  backend_.Then(CloseSilently());
  EXPECT_EQ(Serve(SignedIn(Get("/panel"))).status, 200);
}

}  // namespace
